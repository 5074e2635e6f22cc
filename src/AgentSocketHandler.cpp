// The agent command socket: listening, accepting, one request per connection.
#include <Vell/AgentSocketHandler.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <time.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
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

Quor::LogHandle agentSocketAcceptError("AGENT_SOCKET_ACCEPT_ERROR", Quor::LogSeverity::error,
                                       "Cannot accept command connections on %s (%s); accepting pauses",
                                       "The process or the system has no descriptor or memory left for a connection.",
                                       "Look for clients that hold connections open, or raise the descriptor limit.",
                                       10.0, 3.0);
Quor::LogHandle agentSocketRequestTimeout("AGENT_SOCKET_REQUEST_TIMEOUT", Quor::LogSeverity::warning,
                                          "Command connection %s closed: no request within %g seconds",
                                          "A client connected and sent no command in time.", Quor::NoActionRequired,
                                          1.0, 10.0);
Quor::LogHandle agentSocketTooManyClients("AGENT_SOCKET_TOO_MANY_CLIENTS", Quor::LogSeverity::warning,
                                          "Command connection refused: %u connections open (maxClients)",
                                          "More clients were connected at once than maxClients allows.",
                                          "Raise maxClients if these clients are legitimate.", 1.0, 10.0);
Quor::LogHandle agentSocketPeerRefused("AGENT_SOCKET_PEER_REFUSED", Quor::LogSeverity::warning,
                                       "Command connection refused for pid %d uid %u (peer policy %s)",
                                       "A process of a user the peer policy does not admit connected.",
                                       Quor::NoActionRequired, 1.0, 10.0);

namespace {
// Stalls are real time even under a test's virtual time.
double monotonicSeconds() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

timeval toTimeval(double seconds) {
  auto const us = std::max<long long>(1, static_cast<long long>(seconds * 1e6));  // 0 would mean "for ever"
  return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

bool setSendTimeout(int fd, double seconds) {
  timeval const t = toTimeval(seconds);
  return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t) == 0;
}

bool peerAdmitted(AgentSocketPeerPolicy policy, U32 uid, std::set<U32> const& listed) {
  switch (policy) {
    case peerAnyone: return true;
    case peerOwnUser: return uid == ::geteuid();
    case peerRootAndOwnUser: return uid == 0 || uid == ::geteuid();
    case peerUserList: return listed.contains(uid);
  }
  return false;
}
}  // namespace

// The connection carries the reply's stall budget as its send timeout. A blocking
// send() is no bound against a client that reads a little now and then (the kernel's
// timeout restarts with every chunk it moves), so the reply is written without
// blocking and waited for with poll() against one deadline; what is left of the budget
// goes back on the connection for the reply's next write.
std::size_t agentSocketReply(unsigned int descriptor, std::string_view text) {
  int const fd = static_cast<int>(descriptor);
  timeval budget{};
  socklen_t len = sizeof budget;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &budget, &len) != 0) return 0;
  bool const bounded = budget.tv_sec != 0 || budget.tv_usec != 0;
  double const deadline = monotonicSeconds() + static_cast<double>(budget.tv_sec) +
                          static_cast<double>(budget.tv_usec) * 1e-6;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return done;  // the client left: errno says so
    double const left = bounded ? deadline - monotonicSeconds() : 1.0;
    if (left <= 0) {
      ::shutdown(fd, SHUT_WR);  // nothing more of this reply may block
      errno = EAGAIN;
      return done;
    }
    pollfd p{fd, POLLOUT, 0};
    ::poll(&p, 1, static_cast<int>(std::ceil(left * 1000)));
  }
  if (bounded) setSendTimeout(fd, std::max(deadline - monotonicSeconds(), 1e-6));
  return done;
}

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

// NOLINTNEXTLINE(performance-unnecessary-value-param): the virtual interface takes the text by value
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

class AgentSocketHandlerSm::QuorAgentsockFd
    : public Quor::OwnerDescriptorReactor<AgentSocketHandlerSm, QuorAgentsockFd, &AgentSocketHandlerSm::handleClientConnection> {
  using OwnerDescriptorReactor::OwnerDescriptorReactor;
};

class ClientSm::QuorClientFd : public Quor::OwnerDescriptorReactor<ClientSm, QuorClientFd, &ClientSm::handleDataFromClient> {
  using OwnerDescriptorReactor::OwnerDescriptorReactor;
};

class AgentSocketHandlerSm::QuorClock
    : public Quor::OwnerClockReactor<AgentSocketHandlerSm, &AgentSocketHandlerSm::handleClock> {
  using OwnerClockReactor::OwnerClockReactor;
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
    acceptFailed(err);
    return;
  }
  acceptFailing_ = false;
  if (!admit(c)) {
    ::close(c);
    return;
  }
  char connName[64];
  std::snprintf(connName, sizeof connName, "clientFd:%d", c);
  Quor::Ptr<Quor::FileDescriptor> fd = Quor::fileDescriptorFactory(connName, activity_);
  fd->descriptorIs(c);
  fd->notifyOnReadableIs(true);
  fdIs(fd);
  QUOR_TRACE(traceHandle, 8, "Accepted client from: " << connName);
  Quor::Ptr<ClientSm> const client = clientIs(fd, this);
  client->serial_ = ++acceptSerial_;
  awaitingRequest_.emplace(client->serial_, std::pair{Quor::now(), client->name()});
  armClock();
}

// Out of descriptors (or memory) the listener stays readable, and retrying every turn
// would spin the loop and flood the error output. Accepting pauses instead until a
// connection closes or agentSocketAcceptPause has passed; the episode is reported once
// and ends with the next accepted connection. Other failures concern one connection.
void AgentSocketHandlerSm::acceptFailed(int err) {
  bool const exhausted = err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
  if (!acceptFailing_) {
    errno = err;
    std::perror("Accepting connection on socket");
    QUOR_TRACE(traceHandle, 8, "Unable to accept connection from client, err= " << err);
    if (exhausted) agentSocketAcceptError.log(name().charPtr(), std::strerror(err));
  }
  if (!exhausted) return;
  acceptFailing_ = true;
  acceptPaused_ = true;
  acceptResume_ = Quor::now() + agentSocketAcceptPause;
  agentsockFd_->notifyOnReadableIs(false);
  armClock();
}

void AgentSocketHandlerSm::resumeAccepting() {
  acceptPaused_ = false;
  acceptResume_ = Quor::endOfTime;
  if (agentsockFd_ && agentsockFd_->descriptor() >= 0) agentsockFd_->notifyOnReadableIs(true);
}

// Refusals close the connection before it is named or served: no reply, no ClientSm.
bool AgentSocketHandlerSm::admit(int descriptor) {
  if (clients_.size() >= maxClients_) {
    QUOR_TRACE(traceHandle, 8, "Refusing client: " << clients_.size() << " open");
    agentSocketTooManyClients.log(static_cast<unsigned>(clients_.size()));
    return false;
  }
  if (peerPolicy_ == peerAnyone) return true;
  ucred cred{};
  socklen_t len = sizeof cred;
  bool const known = ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0;
  if (known && peerAdmitted(peerPolicy_, cred.uid, peerUids_)) return true;
  QUOR_TRACE(traceHandle, 8, "Refusing peer pid " << cred.pid << " uid " << cred.uid);
  agentSocketPeerRefused.log(known ? static_cast<int>(cred.pid) : -1, known ? cred.uid : ~0u,
                             Quor::valueToStrep(peerPolicy_).charPtr());
  return false;
}

// Closes the connections whose request is overdue and ends an accept pause that is over.
void AgentSocketHandlerSm::handleClock() {
  Quor::Seconds const now = Quor::now();
  if (acceptPaused_ && now >= acceptResume_) resumeAccepting();
  while (!awaitingRequest_.empty()) {
    auto const it = awaitingRequest_.begin();
    if (it->second.first + requestTimeout_ > now) break;
    Quor::Name const name = it->second.second;
    awaitingRequest_.erase(it);
    QUOR_TRACE(traceHandle, 8, "No request in time: " << name);
    agentSocketRequestTimeout.log(name.charPtr(), requestTimeout_);
    doCloseClientConnection(client(name));
  }
  armClock();
}

void AgentSocketHandlerSm::armClock() {
  Quor::Seconds next = acceptPaused_ ? acceptResume_ : Quor::endOfTime;
  if (!awaitingRequest_.empty()) next = std::min(next, awaitingRequest_.begin()->second.first + requestTimeout_);
  if (!clock_) {
    if (next == Quor::endOfTime) return;
    clock_ = new QuorClock(this);
    clock_->notifierIs(Quor::clockFactory("AgentSocketHandler", activity_));
  }
  clock_->timeMinIs(next);
}

void AgentSocketHandlerSm::requestArrived(ClientSm const& client) { awaitingRequest_.erase(client.serial_); }

void AgentSocketHandlerSm::requestTimeoutIs(Quor::Seconds s) {
  Quor::Seconds const v = QUOR_CHECK_RANGE("AgentSocketHandlerSm", "requestTimeout", s, 0.001, 86400);
  if (Quor::attrIs(requestTimeout_, v, notifiees_, &NotifieeConst::onRequestTimeout)) armClock();
}

void AgentSocketHandlerSm::maxClientsIs(U32 n) {
  U32 const v = QUOR_CHECK_RANGE("AgentSocketHandlerSm", "maxClients", n, 1, 65536);
  Quor::attrIs(maxClients_, v, notifiees_, &NotifieeConst::onMaxClients);
}

void AgentSocketHandlerSm::sendTimeoutIs(Quor::Seconds s) {
  Quor::Seconds const v = QUOR_CHECK_RANGE("AgentSocketHandlerSm", "sendTimeout", s, 0.001, 3600);
  Quor::attrIs(sendTimeout_, v, notifiees_, &NotifieeConst::onSendTimeout);
}

void AgentSocketHandlerSm::peerPolicyIs(AgentSocketPeerPolicy p) {
  if (static_cast<unsigned>(p) > peerUserList)
    Quor::throwRangeException(Quor::format("AgentSocketHandlerSm::peerPolicy %u not allowed", static_cast<unsigned>(p)));
  Quor::attrIs(peerPolicy_, p, notifiees_, &NotifieeConst::onPeerPolicy);
}

void AgentSocketHandlerSm::peerUidIs(U32 uid) {
  if (peerUids_.insert(uid).second) notifiees_.notify(&NotifieeConst::onPeerUid, uid);
}

void AgentSocketHandlerSm::peerUidDel(U32 uid) {
  if (peerUids_.erase(uid)) notifiees_.notify(&NotifieeConst::onPeerUid, uid);
}

void AgentSocketHandlerSm::peerUidDelAll() {
  while (!peerUids_.empty()) peerUidDel(*peerUids_.begin());
}

void AgentSocketHandlerSm::doCloseClientConnection(Quor::Ptr<ClientSm> const& client) {
  if (!client) return;
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): `client` may be the entry we erase
  Quor::Ptr<ClientSm> const hold = client;
  Quor::Name const name = hold->name();
  QUOR_TRACE(traceHandle, 8, "Closing: " << name);
  awaitingRequest_.erase(hold->serial_);
  if (Quor::Ptr<Quor::FileDescriptor> const& fd = hold->clientFd(); fd && fd->descriptor() >= 0) {
    // Forget first (leaving the epoll set while the number is still ours), then close:
    // the descriptor entity will not close a number that may be reused by then.
    int const d = fd->descriptor();
    fd->descriptorIs(-1);
    ::close(d);
  }
  fdDel(name);
  clientDel(name);
  if (acceptPaused_) resumeAccepting();  // a descriptor came free
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
  if (clock_) {
    clock_->ownerIs(nullptr);
    clock_->timeMinIs(Quor::endOfTime);
  }
  if (agentsockFdReactor_) {
    agentsockFdReactor_->ownerIs(nullptr);
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
  Quor::checkNotNull("Vell::AgentSocketHandlerSm", "agentSocketCallback", cb);
  Quor::Ptr<AgentSocketCallback>& slot = callbacks_[cb->commandType()];
  if (slot == cb) return;
  slot = cb;
  notifiees_.notify(&NotifieeConst::onAgentSocketCallback, cb->commandType());
}

Quor::Ptr<AgentSocketCallback> AgentSocketHandlerSm::newAgentSocketCallback(Quor::Ptr<AgentSocketCallback> const& cb) {
  Quor::checkNotNull("Vell::AgentSocketHandlerSm", "agentSocketCallback", cb);
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
  Quor::checkNotNull("Vell::ClientSm", "clientFd", fd);
  Quor::checkNotNull("Vell::ClientSm", "agentSocketHandlerSm", handler);
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
  Quor::checkNotNull("Vell::ClientSm", "clientFd", fd);
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
  Quor::checkNotNull("Vell::AgentSocketHandlerSm", "fd", fd);
  Quor::Ptr<Quor::FileDescriptor>& slot = fds_[fd->name()];
  if (slot == fd) return;
  slot = fd;
  notifiees_.notify(&NotifieeConst::onFd, fd->name());
}

Quor::Ptr<Quor::FileDescriptor> AgentSocketHandlerSm::newFd(Quor::Ptr<Quor::FileDescriptor> const& fd) {
  Quor::checkNotNull("Vell::AgentSocketHandlerSm", "fd", fd);
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
    clientFdReactor_->ownerIs(nullptr);
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
  Quor::checkNotNull("Vell::ClientSm", "clientFd", fd);
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
  handler->requestArrived(*this);
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
  // The reply's stall budget (agentSocketReply spends it write by write).
  if (!setSendTimeout(descriptor, handler.sendTimeout())) {
    int const err = errno;
    std::perror("setsockopt on SO_SNDTIMEO");
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

// ---- the command words as data ----

class AgentSocketCommands::QuorHandler : public AgentSocketHandlerSm::NotifieeConst {
 public:
  explicit QuorHandler(AgentSocketCommands* owner) : owner_(owner) {}
  void onAgentSocketCallback(Quor::String8 const& word) override {
    if (!owner_) return;
    Quor::Ptr<AgentSocketCommands> const owner(owner_);
    if (auto cb = notifier()->agentSocketCallback(word)) owner->agentSocketCallbackIs(word, cb->name());
    else owner->agentSocketCallbackDel(word);
  }
  AgentSocketCommands* owner_;
};

AgentSocketCommands::AgentSocketCommands(Quor::Name const& name) : Quor::Entity(name) {}
AgentSocketCommands::~AgentSocketCommands() = default;

Quor::String8 AgentSocketCommands::agentSocketCallback(Quor::String8 const& word) const {
  auto it = words_.find(word);
  return it == words_.end() ? Quor::String8() : it->second;
}

void AgentSocketCommands::agentSocketCallbackIs(Quor::String8 const& word, Quor::String8 const& callbackName) {
  if (callbackName.size() == 0) return agentSocketCallbackDel(word);  // "" reads as absent
  auto [it, fresh] = words_.try_emplace(word, callbackName);
  if (!fresh) {
    if (it->second == callbackName) return;
    it->second = callbackName;
  }
  notifiees_.notify(&NotifieeConst::onAgentSocketCallback, word);
}

void AgentSocketCommands::agentSocketCallbackDel(Quor::String8 const& word) {
  if (words_.erase(word) != 0) notifiees_.notify(&NotifieeConst::onAgentSocketCallback, word);
}

void AgentSocketCommands::handleDel() {
  if (!handler_) return;
  handler_->owner_ = nullptr;
  handler_->notifierIs(nullptr);
  handler_ = nullptr;
}

Quor::Ptr<AgentSocketCommands> agentSocketCommandsFactory(Quor::Ptr<AgentSocketHandlerSm const> const& handler) {
  Quor::checkNotNull("Vell::AgentSocketCommands", "handler", handler);
  auto c = Quor::makeEntity<AgentSocketCommands>(Quor::Name(handler->name().str()));
  for (auto const& [word, cb] : handler->agentSocketCallbackMap()) c->agentSocketCallbackIs(word, cb->name());
  c->handler_ = new AgentSocketCommands::QuorHandler(c.ptr());
  c->handler_->notifierIs(handler);
  return c;
}

}  // namespace Vell
