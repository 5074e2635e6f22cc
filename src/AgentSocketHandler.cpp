// The agent command socket: listening, accepting, one request per connection.
#include <Vell/AgentSocketHandler.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>

namespace Vell {

namespace {
Quor::TraceHandle traceHandle("AgentSocketHandler");
}  // namespace

Quor::LogHandle agentSocketCommandError("AGENT_SOCKET_COMMAND_ERROR", Quor::LogSeverity::error,
                                        "Error (%s) on command execution",
                                        "Unexpected error caught during the execution of the command.",
                                        Quor::NoActionRequired, 0.0, 1.0);
Quor::LogHandle agentSocketInvalidDescriptor("AGENT_SOCKET_INVALID_DESCRIPTOR", Quor::LogSeverity::error,
                                             "Invalid socket request call", "Bad file descriptor received.",
                                             Quor::NoActionRequired, 0.0, 1.0);

socklen_t agentSocketAddress(Quor::String8 const& name, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  // sun_path[0] stays zero: the abstract namespace. The text after it is cut to 107
  // bytes with its terminator, and the terminator is not part of the address.
  std::snprintf(addr->sun_path + 1, sizeof addr->sun_path - 1, "s%s", name.charPtr());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + std::strlen(addr->sun_path + 1));
}

bool agentSocketSendBufferForceAllowed() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
  int const size = agentSocketSendBufferBytes;
  bool const allowed = ::setsockopt(pair[0], SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0;
  int const err = errno;
  ::close(pair[0]);
  ::close(pair[1]);
  errno = err;
  return allowed;
}

// ---- callbacks ----

AgentSocketCallback::AgentSocketCallback(Quor::Name const& name, Quor::String8 const& commandType)
    : Quor::Entity(name), commandType_(commandType) {}

void AgentSocketCallback::handleCommand(unsigned int, Quor::String8) {
  QUOR_TRACE(traceHandle, 1, name() << " handleCommand");
}

Quor::Ptr<AgentSocketCallback> agentSocketCallbackFactory(Quor::Name const& name, Quor::String8 const& commandType) {
  Quor::Ptr<AgentSocketCallback> cb(new AgentSocketCallback(name, commandType));
  cb->hasNotificationActiveIs(true);
  return cb;
}

// ---- reactors ----
//
// Each holds a raw pointer to its owner, which clears it on deletion: the owner keeps
// its reactor alive, never the other way round. During a call both are held, since the
// call may end the connection (and with it the reactor) or drop the handler.

template <class Owner, void (Owner::*handler)()>
class OwnerReadableReactor : public Quor::FileDescriptor::NotifieeConst {
 public:
  explicit OwnerReadableReactor(Owner* owner) : owner_(owner) {}
  void onReadableCount() override {
    if (!owner_ || !notifier()) return;
    Quor::Ptr<OwnerReadableReactor> self(this);
    Quor::Ptr<Owner> owner(owner_);
    (owner.ptr()->*handler)();
  }
  Owner* owner_;
};

class AgentSocketHandlerSm::QuorAgentsockFd
    : public OwnerReadableReactor<AgentSocketHandlerSm, &AgentSocketHandlerSm::handleClientConnection> {
  using OwnerReadableReactor::OwnerReadableReactor;
};

class ClientSm::QuorClientFd : public OwnerReadableReactor<ClientSm, &ClientSm::handleDataFromClient> {
  using OwnerReadableReactor::OwnerReadableReactor;
};

// ---- the listening side ----

AgentSocketHandlerSm::AgentSocketHandlerSm(Quor::String8 const& name, Quor::Ptr<Quor::ActivityConfig> const& activity)
    : Quor::Entity(name), activity_(activity ? activity : Quor::defaultActivityConfig()) {}

AgentSocketHandlerSm::~AgentSocketHandlerSm() = default;

Quor::Ptr<AgentSocketHandlerSm> agentSocketHandlerSmFactory(Quor::String8 const& name,
                                                           Quor::Ptr<Quor::ActivityConfig> const& activity) {
  Quor::Ptr<AgentSocketHandlerSm> h(new AgentSocketHandlerSm(name, activity));
  h->hasNotificationActiveIs(true);
  h->handleInitialized();
  return h;
}

void AgentSocketHandlerSm::handleInitialized() {
  QUOR_TRACE(traceHandle, 1, name() << " handleInitialized");
  QUOR_ASSERT(!initialized());
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::perror("Creating unix socket");
    QUOR_ASSERT(0 && "socket failed");
  }
  int const one = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
    std::perror("setting SO_REUSEADDR");
    QUOR_ASSERT(0 && "socket reuse failed");
  }
  sockaddr_un addr;
  socklen_t const len = agentSocketAddress(name(), &addr);
  QUOR_TRACE(traceHandle, 8, "Socket Name: " << addr.sun_path + 1 << " fd: " << fd);
  if (::bind(fd, reinterpret_cast<sockaddr const*>(&addr), len) != 0) {
    std::perror("Binding to socket");
    QUOR_ASSERT(0 && "socket bind failure");
  }
  if (::listen(fd, 5) != 0) {
    std::perror("Listening on socket");
    QUOR_ASSERT(0 && "socket listen failure");
  }
  // The listener alone is non-blocking: should a forked child that shares it take the
  // pending connection first, accept fails with EAGAIN instead of stalling the loop.
  // Accepted sockets do not inherit the flag and stay blocking.
  (void)::fcntl(fd, F_SETFL, O_NONBLOCK);
  Quor::Ptr<Quor::FileDescriptor> server = Quor::fileDescriptorFactory("AgentSocketHandler server", activity_);
  server->descriptorIs(fd);
  server->notifyOnReadableIs(true);
  agentsockFdIs(server);
  initializedIs(true);
  QUOR_TRACE(traceHandle, 8, "Socket Init Completed");
}

void AgentSocketHandlerSm::agentsockFdIs(Quor::Ptr<Quor::FileDescriptor> const& fd) {
  if (fd == agentsockFd_) return;
  agentsockFd_ = fd;
  if (!agentsockFdReactor_) agentsockFdReactor_ = new QuorAgentsockFd(this);
  agentsockFdReactor_->notifierIs(fd);
}

void AgentSocketHandlerSm::handleClientConnection() {
  QUOR_TRACE(traceHandle, 1, name() << " handleClientConnection");
  if (!initialized()) return;
  if (!agentsockFd_ || agentsockFd_->descriptor() == -1 || agentsockFd_->readableCount() == 0) {
    QUOR_TRACE(traceHandle, 8, "handleClientConnection" << " Invalid file descriptor");
    agentSocketInvalidDescriptor.log();
    return;
  }
  sockaddr_un peer;
  socklen_t peerLen = sizeof peer;
  int c;
  do {
    errno = 0;
    c = ::accept(agentsockFd_->descriptor(), reinterpret_cast<sockaddr*>(&peer), &peerLen);
  } while (c < 0 && errno == EINTR);
  if (c < 0) {
    int const err = errno;
    if (err == EAGAIN) return;  // taken by another process that shares the listener
    std::perror("Accepting connection on socket");
    QUOR_TRACE(traceHandle, 8, "Unable to accept connection from client, err= " << err);
    return;
  }
  char connName[64];
  std::snprintf(connName, sizeof connName, "clientFd:%d", c);
  Quor::Ptr<Quor::FileDescriptor> fd = Quor::fileDescriptorFactory(connName, activity_);
  fd->descriptorIs(c);
  fd->notifyOnReadableIs(true);
  fdIs(fd);
  QUOR_TRACE(traceHandle, 8, "Accepted client from: " << connName);
  clientIs(fd, this);
}

void AgentSocketHandlerSm::doCloseClientConnection(Quor::Ptr<ClientSm> const& client) {
  if (!client) return;
  Quor::Ptr<ClientSm> const hold = client;  // `client` may refer to the entry we erase
  Quor::Name const name = hold->name();
  QUOR_TRACE(traceHandle, 8, "Closing: " << name);
  if (Quor::Ptr<Quor::FileDescriptor> const& fd = hold->clientFd(); fd && fd->descriptor() >= 0) {
    // Forget first (leaving the epoll set while the number is still ours), then close:
    // the descriptor entity will not close a number that may be reused by then.
    int const d = fd->descriptor();
    fd->descriptorIs(-1);
    ::close(d);
  }
  fdDel(name);
  clientDel(name);
}

void AgentSocketHandlerSm::handleDeletion() {
  QUOR_TRACE(traceHandle, 1, name() << " handleDeletion");
  if (agentsockFd_ && agentsockFd_->descriptor() == -1) {
    QUOR_TRACE(traceHandle, 8, "Warning! Can't close invalid file descriptor");
  } else if (agentsockFd_) {
    // Reset to -1 as well, so that the descriptor entity never closes the number again.
    int const d = agentsockFd_->descriptor();
    agentsockFd_->descriptorIs(-1);
    ::close(d);
  }
  initializedIs(false);
  QUOR_TRACE(traceHandle, 8, "Socket deleted");
}

void AgentSocketHandlerSm::handleDel() {
  handleDeletion();
  if (agentsockFdReactor_) {
    agentsockFdReactor_->owner_ = nullptr;
    agentsockFdReactor_->notifierIs(nullptr);
  }
  // Connections may outlive us in someone else's Ptr: they must not reach back.
  for (auto& [name, client] : clients_) client->handlerGone();
  clients_.clear();  // open connections are closed by their descriptor entities
  fds_.clear();
  callbacks_.clear();
}

// ---- collections ----

Quor::Ptr<AgentSocketCallback> AgentSocketHandlerSm::agentSocketCallback(Quor::String8 const& commandType) const {
  auto it = callbacks_.find(commandType);
  return it == callbacks_.end() ? nullptr : it->second;
}

void AgentSocketHandlerSm::agentSocketCallbackIs(Quor::Ptr<AgentSocketCallback> const& cb) {
  Quor::checkNotNull("AgentSocketHandlerSm", "agentSocketCallback", cb);
  Quor::Ptr<AgentSocketCallback>& slot = callbacks_[cb->commandType()];
  if (slot == cb) return;
  slot = cb;
  notifiees_.notify(&NotifieeConst::onAgentSocketCallback, cb->commandType());
}

Quor::Ptr<AgentSocketCallback> AgentSocketHandlerSm::newAgentSocketCallback(Quor::Ptr<AgentSocketCallback> const& cb) {
  Quor::checkNotNull("AgentSocketHandlerSm", "agentSocketCallback", cb);
  if (Quor::Ptr<AgentSocketCallback> old = agentSocketCallback(cb->commandType())) return old;
  agentSocketCallbackIs(cb);
  return cb;
}

void AgentSocketHandlerSm::agentSocketCallbackDel(Quor::String8 const& commandType) {
  auto it = callbacks_.find(commandType);
  if (it == callbacks_.end()) return;
  Quor::Ptr<AgentSocketCallback> const gone = it->second;  // released after the notification
  callbacks_.erase(it);
  notifiees_.notify(&NotifieeConst::onAgentSocketCallback, commandType);
}

void AgentSocketHandlerSm::agentSocketCallbackDelAll() {
  while (!callbacks_.empty()) agentSocketCallbackDel(Quor::String8(callbacks_.begin()->first));
}

Quor::Ptr<ClientSm> AgentSocketHandlerSm::client(Quor::Name const& name) const {
  auto it = clients_.find(name);
  return it == clients_.end() ? nullptr : it->second;
}

Quor::Ptr<ClientSm> AgentSocketHandlerSm::clientIs(Quor::Ptr<Quor::FileDescriptor> const& fd,
                                                   Quor::Ptr<AgentSocketHandlerSm> const& handler) {
  Quor::checkNotNull("ClientSm", "clientFd", fd);
  Quor::checkNotNull("ClientSm", "agentSocketHandlerSm", handler);
  // The back pointer is cleared only by the handler that keeps the connection.
  if (handler.ptr() != this)
    Quor::throwRangeException("ClientSm::agentSocketHandlerSm must be the handler that keeps the connection");
  Quor::Ptr<ClientSm> c(new ClientSm(fd->name(), fd, this));
  c->hasNotificationActiveIs(true);
  Quor::Ptr<ClientSm>& slot = clients_[fd->name()];
  Quor::Ptr<ClientSm> const replaced = slot;
  if (replaced) replaced->handlerGone();
  slot = c;
  notifiees_.notify(&NotifieeConst::onClient, c->name());
  return c;
}

Quor::Ptr<ClientSm> AgentSocketHandlerSm::newClient(Quor::Ptr<Quor::FileDescriptor> const& fd,
                                                    Quor::Ptr<AgentSocketHandlerSm> const& handler) {
  Quor::checkNotNull("ClientSm", "clientFd", fd);
  if (Quor::Ptr<ClientSm> old = client(fd->name())) return old;
  return clientIs(fd, handler);
}

void AgentSocketHandlerSm::clientDel(Quor::Name const& name) {
  auto it = clients_.find(name);
  if (it == clients_.end()) return;
  Quor::Ptr<ClientSm> const gone = it->second;
  gone->handlerGone();
  clients_.erase(it);
  notifiees_.notify(&NotifieeConst::onClient, name);
}

void AgentSocketHandlerSm::clientDelAll() {
  while (!clients_.empty()) clientDel(Quor::Name(clients_.begin()->first));
}

Quor::Ptr<Quor::FileDescriptor> AgentSocketHandlerSm::fd(Quor::Name const& name) const {
  auto it = fds_.find(name);
  return it == fds_.end() ? nullptr : it->second;
}

void AgentSocketHandlerSm::fdIs(Quor::Ptr<Quor::FileDescriptor> const& fd) {
  Quor::checkNotNull("AgentSocketHandlerSm", "fd", fd);
  Quor::Ptr<Quor::FileDescriptor>& slot = fds_[fd->name()];
  if (slot == fd) return;
  slot = fd;
  notifiees_.notify(&NotifieeConst::onFd, fd->name());
}

Quor::Ptr<Quor::FileDescriptor> AgentSocketHandlerSm::newFd(Quor::Ptr<Quor::FileDescriptor> const& fd) {
  Quor::checkNotNull("AgentSocketHandlerSm", "fd", fd);
  if (Quor::Ptr<Quor::FileDescriptor> old = this->fd(fd->name())) return old;
  fdIs(fd);
  return fd;
}

void AgentSocketHandlerSm::fdDel(Quor::Name const& name) {
  auto it = fds_.find(name);
  if (it == fds_.end()) return;
  Quor::Ptr<Quor::FileDescriptor> const gone = it->second;
  fds_.erase(it);
  notifiees_.notify(&NotifieeConst::onFd, name);
}

void AgentSocketHandlerSm::fdDelAll() {
  while (!fds_.empty()) fdDel(Quor::Name(fds_.begin()->first));
}

// ---- one connection ----

ClientSm::ClientSm(Quor::Name const& name, Quor::Ptr<Quor::FileDescriptor> const& fd, AgentSocketHandlerSm* handler)
    : Quor::Entity(name), handler_(handler) {
  clientFdIs(fd);
}

ClientSm::~ClientSm() = default;

void ClientSm::handleDel() {
  if (clientFdReactor_) {
    clientFdReactor_->owner_ = nullptr;
    clientFdReactor_->notifierIs(nullptr);
  }
  handler_ = nullptr;
}

// A connection its handler let go of can no longer be served: it stops watching its
// descriptor, which would otherwise stay readable and spin the loop.
void ClientSm::handlerGone() {
  handler_ = nullptr;
  if (clientFd_) clientFd_->notifyOnReadableIs(false);
}

void ClientSm::clientFdIs(Quor::Ptr<Quor::FileDescriptor> const& fd) {
  Quor::checkNotNull("ClientSm", "clientFd", fd);
  if (fd == clientFd_) return;
  clientFd_ = fd;
  if (!clientFdReactor_) clientFdReactor_ = new QuorClientFd(this);
  clientFdReactor_->notifierIs(fd);
}

void ClientSm::clientFdDel() {
  if (clientFdReactor_) clientFdReactor_->notifierIs(nullptr);
  clientFd_ = nullptr;
}

Quor::Ptr<AgentSocketHandlerSm> ClientSm::agentSocketHandlerSm() const { return handler_; }

void ClientSm::handleDataFromClient() {
  if (!handler_ || !clientFd_ || clientFd_->descriptor() < 0) return;
  Quor::Ptr<ClientSm> const self(this);
  Quor::Ptr<AgentSocketHandlerSm> const handler(handler_);
  int const descriptor = clientFd_->descriptor();
  char request[agentSocketRequestMax + 1];  // room for the terminating zero
  ssize_t n;
  do {
    n = ::recv(descriptor, request, agentSocketRequestMax, 0);
  } while (n < 0 && errno == EINTR);
  if (n == 0) {
    handler->doCloseClientConnection(self);
    return;
  }
  if (n < 0) {
    int const err = errno;
    if (err == EAGAIN) return;
    std::perror("Receiving from socket");
    QUOR_TRACE(traceHandle, 8, "recv error from client fd: " << descriptor << " errno: " << err);
    handler->doCloseClientConnection(self);
    return;
  }
  request[n] = '\0';
  serveCommand(*handler, descriptor, request);
}

// The request is a C text: a zero byte, if sent, ends it. Only the first blank splits;
// whatever follows it (blanks and a trailing newline included) is the argument text.
void ClientSm::serveCommand(AgentSocketHandlerSm& handler, int descriptor, char* request) {
  Quor::Ptr<ClientSm> const self(this);
  char const* args = "";
  if (char* blank = std::strchr(request, ' ')) {
    *blank = '\0';
    args = blank + 1;
  }
  Quor::String8 const word(request);
  Quor::String8 const commandArgs(args);
  QUOR_TRACE(traceHandle, 8, "Received command: " << word << " arg: " << commandArgs);

  int const size = agentSocketSendBufferBytes;
  if (::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
    int const err = errno;
    std::perror("setsockopt on SO_SNDBFFORCE");
    QUOR_TRACE(traceHandle, 8, "setsockopt failed with err= " << err);
    agentSocketCommandError.log(std::strerror(err));
    handler.doCloseClientConnection(self);
    return;
  }
  // Saving the disposition and ignoring SIGPIPE is one call: the old disposition comes
  // back in `saved`, and nothing has changed if the call fails.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction saved;
  if (::sigaction(SIGPIPE, &ignore, &saved) != 0) {
    int const err = errno;
    std::perror("handling SIGPIPE signal");
    QUOR_TRACE(traceHandle, 8, "Error setting signal action: " << std::strerror(err));
    agentSocketCommandError.log(std::strerror(err));
    handler.doCloseClientConnection(self);
    return;
  }
  // An agent that already ignored SIGPIPE still ignores it: restoring would cost a call
  // and change nothing that matters for an ignored signal.
  bool const alreadyIgnored = saved.sa_handler == SIG_IGN;

  runCallback(handler, static_cast<unsigned>(descriptor), word, commandArgs);
  handler.doCloseClientConnection(self);

  if (!alreadyIgnored && ::sigaction(SIGPIPE, &saved, nullptr) != 0) {
    int const err = errno;
    std::perror("restoring SIGPIPE signal");
    agentSocketCommandError.log(std::strerror(err));
    QUOR_TRACE(traceHandle, 8, "Error in restoring current signal action, err= " << err);
  }
}

// An exception out of a callback is that command's failure, not the agent's: it is
// logged, and the connection is closed and SIGPIPE restored as after any command.
void ClientSm::runCallback(AgentSocketHandlerSm& handler, unsigned descriptor, Quor::String8 const& word,
                           Quor::String8 const& args) {
  Quor::Ptr<AgentSocketCallback> const cb = handler.agentSocketCallback(word);  // may unregister itself
  if (!cb) {
    (void)::send(static_cast<int>(descriptor), agentSocketUnknownCommand, sizeof agentSocketUnknownCommand - 1, 0);
    return;
  }
  try {
    cb->handleCommand(descriptor, args);
  } catch (std::exception const& e) {
    QUOR_TRACE(traceHandle, 8, "Command " << word << " failed: " << e.what());
    agentSocketCommandError.log(e.what());
  } catch (...) {
    QUOR_TRACE(traceHandle, 8, "Command " << word << " failed");
    agentSocketCommandError.log("unknown exception");
  }
}

}  // namespace Vell
