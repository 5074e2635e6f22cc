// The agent command socket over real sockets, in this process: the address, the
// request/reply protocol, faults, and descriptor hygiene.
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Vell/AgentSocketHandler.h>

#include "TestSupport.h"

namespace {

using Quor::Ptr;
using VellTest::LogCapture;
using Vell::AgentSocketHandlerSm;
using Texts = std::vector<std::string>;

// Names are unique per process and test: ctest runs test cases in parallel processes.
std::string uniqueName(char const* tag) {
  static int serial = 0;
  return "vt" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(++serial);
}

Ptr<Quor::ActivitySm> loop() { return Quor::quorActivitySmFor(nullptr); }

auto openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

int connectTo(std::string const& name) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr;
  socklen_t const len = Vell::agentSocketAddress(name, &addr);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0) return fd;
  ::close(fd);  // a successful close leaves connect's errno
  return -1;
}

// The address the handler's listener is bound to, from sun_path on.
std::string boundAddress(AgentSocketHandlerSm const& h) {
  sockaddr_un addr;
  socklen_t len = sizeof addr;
  EXPECT_EQ(::getsockname(h.agentsockFd()->descriptor(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
  return std::string(addr.sun_path, len - offsetof(sockaddr_un, sun_path));
}

bool hungUp(int fd) {
  pollfd p{fd, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & (POLLRDHUP | POLLHUP));
}

// Turns the loop until the agent has closed its end of `fd` (bounded).
bool serveUntilHangup(int fd) { return loop()->runUntil([fd] { return hungUp(fd); }, 5.0); }

// The reply up to end of stream. A reset after the reply only says that the agent left
// part of an over-long request unread.
std::string readAll(int fd) {
  std::string out;
  char buf[65536];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);)
    if (n > 0) out.append(buf, static_cast<std::size_t>(n));
  return out;
}

// One whole exchange: connect, send, serve, read the reply. The agent closes the
// connection after one request, so a second one cannot be sent.
std::string roundTrip(std::string const& name, std::string const& request) {
  int const fd = connectTo(name);
  EXPECT_GE(fd, 0) << std::strerror(errno);
  if (fd < 0) return "<no connection>";
  EXPECT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
  bool const closed = serveUntilHangup(fd);
  EXPECT_TRUE(closed) << "no hang-up after " << request;
  std::string reply = closed ? readAll(fd) : "<no hang-up>";  // reading would block
  EXPECT_LT(::send(fd, "x", 1, MSG_NOSIGNAL), 0) << "a connection outlived its request";
  ::close(fd);
  return reply;
}

void sendAll(unsigned d, std::string const& s) {
  for (std::size_t done = 0; done < s.size();) {
    ssize_t const w = ::send(static_cast<int>(d), s.data() + done, s.size() - done, 0);
    if (w <= 0) return;
    done += static_cast<std::size_t>(w);
  }
}

// Records each call; replies "<word>|<args>" unless given another action.
struct Recorder : Vell::AgentSocketCallback {
  explicit Recorder(std::string const& word) : AgentSocketCallback("recorder " + word, word) {}
  void handleCommand(unsigned int d, Quor::String8 args) override {
    calls.push_back(args.str());
    action ? action(d, args.str()) : sendAll(d, commandType().str() + "|" + args.str());
  }
  Texts calls;
  std::function<void(unsigned, std::string const&)> action;
};

// A handler made without the factory, so that a test sees it before initialisation
// and learns when it is destroyed.
struct ProbedHandler : AgentSocketHandlerSm {
  ProbedHandler(std::string const& name, bool* destroyed) : AgentSocketHandlerSm(name, nullptr), destroyed(destroyed) {}
  ~ProbedHandler() override { *destroyed = true; }
  bool* destroyed;
};

class AgentSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    loop();  // its epoll descriptor lives as long as the process
    fdsAtStart_ = openDescriptors();
  }
  void TearDown() override {
    handler = nullptr;
    EXPECT_EQ(openDescriptors(), fdsAtStart_) << "descriptor leaked";
  }
  Ptr<Recorder> addRecorder(std::string const& word) {
    Ptr<Recorder> r = new Recorder(word);
    handler->agentSocketCallbackIs(r);
    return r;
  }

  std::string name = uniqueName("h");
  Ptr<AgentSocketHandlerSm> handler;
  long fdsAtStart_ = 0;
};

// Tests that serve commands: a listening handler, and the privilege commands need.
class AgentSocketServeTest : public AgentSocketTest {
 protected:
  void SetUp() override {
    AgentSocketTest::SetUp();
    if (!Vell::agentSocketSendBufferForceAllowed())
      GTEST_SKIP() << "needs CAP_NET_ADMIN: without it every command is refused";
    handler = Vell::agentSocketHandlerSmFactory(name);
  }
};

// ---- the address and set-up ----

TEST_F(AgentSocketTest, AddressIsTheLetterSAndTheNameCutTo105) {
  // Three letters from the pid keep parallel test processes apart.
  unsigned p = static_cast<unsigned>(::getpid());
  std::string three = {char('a' + p % 26), char('a' + p / 26 % 26), char('a' + p / 676 % 26)};
  handler = Vell::agentSocketHandlerSmFactory(three);
  EXPECT_EQ(boundAddress(*handler), std::string("\0s", 2) + three);
  std::string const base = uniqueName("long");
  for (std::size_t size : {105u, 106u, 200u}) {
    std::string const longName = base + std::string(size - base.size(), 'n');
    handler = Vell::agentSocketHandlerSmFactory(longName);
    EXPECT_EQ(boundAddress(*handler), std::string("\0s", 2) + longName.substr(0, 105)) << size;
    int const c = connectTo(longName.substr(0, 105));
    EXPECT_GE(c, 0) << "the cut name is the address";
    ::close(c);
    handler = nullptr;  // all three cut to the same address
  }
}

// Death tests make gtest keep a descriptor of its own open: no leak check here.
TEST(AgentSocketDeathTest, TakenNameOrSecondInitialisationAborts) {
  std::string const name = uniqueName("d");
  Ptr<AgentSocketHandlerSm> handler = Vell::agentSocketHandlerSmFactory(name);
  EXPECT_DEATH(Vell::agentSocketHandlerSmFactory(name),
               "Binding to socket: Address already in use\n"
               "Assertion failed: 0 && \"socket bind failure\" \\[AgentSocketHandler:[0-9]+\\] in void "
               "Vell::AgentSocketHandlerSm::handleInitialized\\(\\)");
  EXPECT_DEATH(handler->handleInitialized(), "Assertion failed: !initialized\\(\\) \\[AgentSocketHandler:");
}

// Without CAP_NET_ADMIN every command is refused: no reply, a log message. Runs in a
// child that drops the capability (if it had it) and reports what it saw.
[[noreturn]] void serveWithoutNetAdmin(std::string const& name) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[2] = {};
  if (::syscall(SYS_capget, &header, caps) == 0) {
    caps[CAP_NET_ADMIN / 32].effective &= ~(1u << (CAP_NET_ADMIN % 32));
    ::syscall(SYS_capset, &header, caps);
  }
  if (Vell::agentSocketSendBufferForceAllowed()) ::_exit(10);
  LogCapture logs;
  Ptr<AgentSocketHandlerSm> h = Vell::agentSocketHandlerSmFactory(name);
  h->agentSocketCallbackIs(new Recorder("show"));  // would reply "show|x"
  int const fd = connectTo(name);
  ::send(fd, "show x", 6, 0);
  bool const closed = serveUntilHangup(fd);
  std::fprintf(stderr, "hung up %d, reply '%s', clients %u, log %s\n", closed, readAll(fd).c_str(), h->clients(),
               logs.lines.empty() ? "none" : logs.lines.back().c_str());
  ::_exit(logs.lines.size() == 1 ? 0 : 11);
}

TEST(AgentSocketDeathTest, CommandsAreRefusedWithoutNetAdmin) {
  EXPECT_EXIT(serveWithoutNetAdmin(uniqueName("d")), ::testing::ExitedWithCode(0),
              "setsockopt on SO_SNDBFFORCE: Operation not permitted\n"
              "hung up 1, reply '', clients 0, "
              "log AGENT_SOCKET_COMMAND_ERROR/4: Error \\(Operation not permitted\\) on command execution\n");
}

// ---- life cycle ----

TEST_F(AgentSocketTest, ReadableEventBeforeInitialisationOrAfterDeletionAcceptsNothing) {
  bool destroyed = false;
  Ptr<ProbedHandler> probed = new ProbedHandler(name, &destroyed);
  LogCapture logs;
  VellTest::TraceCapture traces("AgentSocketHandler");
  probed->handleClientConnection();  // not initialised: not even reported
  EXPECT_LT(connectTo(name), 0) << "nothing listens before initialisation";

  probed->handleInitialized();
  int const listening = probed->agentsockFd()->descriptor();
  probed->handleClientConnection();  // no readable event yet: the descriptor is invalid
  EXPECT_EQ(logs.lines, Texts{"AGENT_SOCKET_INVALID_DESCRIPTOR/4: Invalid socket request call"});
  probed->handleDeletion();
  probed->handleDeletion();  // the second finds the descriptor already gone
  EXPECT_LT(connectTo(name), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  probed->handleClientConnection();
  EXPECT_EQ(probed->clients(), 0u);
  EXPECT_EQ(logs.lines.size(), 1u) << "deleted: not reported";

  std::string const n = name + " ";
  EXPECT_EQ(traces.texts(1), (Texts{n + "handleClientConnection", n + "handleInitialized", n + "handleClientConnection",
                                    n + "handleDeletion", n + "handleDeletion", n + "handleClientConnection"}));
  EXPECT_EQ(traces.texts(8),
            (Texts{"Socket Name: s" + name + " fd: " + std::to_string(listening), "Socket Init Completed",
                   "handleClientConnection Invalid file descriptor", "Socket deleted",
                   "Warning! Can't close invalid file descriptor", "Socket deleted"}));
  probed = nullptr;
  EXPECT_TRUE(destroyed);
}

TEST_F(AgentSocketTest, HandlerDroppedWithOpenConnectionsIsDestroyedAndFreesItsName) {
  bool destroyed = false;
  Ptr<ProbedHandler> probed = new ProbedHandler(name, &destroyed);
  probed->handleInitialized();
  struct Watch : AgentSocketHandlerSm::NotifieeConst {
    std::vector<Quor::Name> names;
    void onClient(Quor::Name const& n) override { names.push_back(n); }
  };
  Ptr<Watch> watch = new Watch;
  watch->notifierIs(probed);
  int const a = connectTo(name), b = connectTo(name);
  ASSERT_TRUE(loop()->runUntil([&] { return probed->clients() == 2; }, 5));
  ASSERT_EQ(watch->names.size(), 2u);
  Ptr<Vell::ClientSm> kept = probed->client(watch->names[0]);
  ASSERT_TRUE(kept);
  watch = nullptr;

  probed = nullptr;
  EXPECT_TRUE(destroyed) << "a connection kept its handler alive";
  EXPECT_FALSE(kept->agentSocketHandlerSm());
  kept->handleDataFromClient();  // no handler: nothing happens
  handler = Vell::agentSocketHandlerSmFactory(name);  // the name is free again

  // The connection nobody holds is closed; the kept one closes when it goes.
  int const other = hungUp(a) ? b : a;
  EXPECT_TRUE(hungUp(a) || hungUp(b));
  EXPECT_FALSE(hungUp(other));
  // A request on the kept connection wakes nobody: an orphan no longer watches its
  // descriptor (level-triggered, it would spin the loop).
  ASSERT_EQ(::send(other, "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_FALSE(loop()->runOnce(0)) << "a reactor ran for an orphan connection";
  kept = nullptr;
  EXPECT_TRUE(hungUp(other));
  ::close(a);
  ::close(b);
}

// ---- the protocol ----

// Requests against a reference split: the text is cut at 1027 bytes and ends at a zero
// byte, the first blank splits it, and the word is looked up exactly (case, a trailing
// newline, a carriage return all count). Fixed cases first, then random ones.
TEST_F(AgentSocketServeTest, RequestsMatchTheReferenceSplit) {
  Texts const words = {"a", "ab", "b\n", "x"};
  for (auto const& w : words) addRecorder(w);
  Texts requests = {"a  b \n", "a ", " a", "A", "a\r", "ab", "b\n", "b\n x", "b", "a 1\na 2",
                    std::string("x\0 y", 4), "a " + std::string(1025, 'y'), "a " + std::string(1026, 'y'),
                    "a " + std::string(5000, 'y')};
  unsigned const seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::string const alphabet("ab xA\n\r\0", 8);
  for (int round = 0; round < 400; ++round) {
    std::string request(1 + rng() % 10, ' ');
    for (char& c : request) c = alphabet[rng() % alphabet.size()];
    requests.push_back(request);
  }
  for (auto const& request : requests) {
    std::string const text = request.substr(0, std::min(request.find('\0'), std::size_t{1027}));
    std::size_t const blank = text.find(' ');
    std::string const word = text.substr(0, blank);
    std::string const args = blank == std::string::npos ? "" : text.substr(blank + 1);
    bool const known = std::find(words.begin(), words.end(), word) != words.end();
    ASSERT_EQ(roundTrip(name, request), known ? word + "|" + args : std::string("Unknown Command \n", 17))
        << "request '" << request.substr(0, 40) << "' of " << request.size() << " bytes";
  }
}

// Each exchange is traced, and each descriptor the block closes is forgotten by its
// entity: an entity that outlives the close must not close the number again once
// something else has reused it.
TEST_F(AgentSocketServeTest, ExchangesAreTracedAndCloseEachDescriptorOnce) {
  struct KeepFds : AgentSocketHandlerSm::NotifieeConst {
    std::vector<Ptr<Quor::FileDescriptor>> kept;
    void onFd(Quor::Name const& n) override {
      if (auto fd = notifier()->fd(n)) kept.push_back(fd);
    }
  };
  Ptr<KeepFds> keep = new KeepFds;
  keep->notifierIs(handler);
  auto base = Vell::agentSocketCallbackFactory("base", "show");
  EXPECT_EQ(handler->newAgentSocketCallback(base), base);
  EXPECT_EQ(handler->newAgentSocketCallback(Vell::agentSocketCallbackFactory("other", "show")), base);
  EXPECT_THROW(handler->agentSocketCallbackIs(nullptr), Quor::RangeException);
  {
    VellTest::TraceCapture traces("AgentSocketHandler");
    EXPECT_EQ(roundTrip(name, "show counters"), "") << "the base callback writes nothing";
    ASSERT_EQ(keep->kept.size(), 1u);
    std::string const conn = keep->kept[0]->name().str();
    EXPECT_EQ(traces.texts(1), (Texts{name + " handleClientConnection", "base handleCommand"}));
    EXPECT_EQ(traces.texts(8), (Texts{"Accepted client from: " + conn, "Received command: show arg: counters",
                                      "Closing: " + conn}));
  }
  EXPECT_EQ(roundTrip(name, "show"), "");
  ASSERT_EQ(keep->kept.size(), 2u);
  EXPECT_EQ(keep->kept[0]->descriptor(), -1);
  // Connections are named after their descriptor number, so a reused number reuses
  // the name once the earlier connection is gone.
  EXPECT_EQ(keep->kept[1]->name(), keep->kept[0]->name());
  EXPECT_EQ(keep->kept[0]->name().str().rfind("clientFd:", 0), 0u);

  Ptr<Quor::FileDescriptor> listener = handler->agentsockFd();
  handler->handleDeletion();
  EXPECT_EQ(listener->descriptor(), -1);
  int reused[2];
  ASSERT_EQ(::pipe(reused), 0);  // the lowest free numbers: the two just closed
  keep = nullptr;
  handler = nullptr;
  listener = nullptr;
  for (int fd : reused) {
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "descriptor " << fd << " was closed behind our back";
    ::close(fd);
  }
}

// ---- faults ----

int pipeSignals = 0;
void countPipeSignal(int) { ++pipeSignals; }

// A client gone before a reply larger than the socket buffers makes the callback's send
// fail with EPIPE, not kill the agent; a callback that throws is logged. Either way the
// connection closes and SIGPIPE's disposition comes back.
TEST_F(AgentSocketServeTest, ClientGoneBeforeALargeReplyOrFailingCallbackLeavesTheAgentServing) {
  Ptr<Recorder> big = addRecorder("big");
  int sendErrno = 0;
  void (*during)(int) = nullptr;
  big->action = [&](unsigned d, std::string const&) {
    struct sigaction now;
    ::sigaction(SIGPIPE, nullptr, &now);
    during = now.sa_handler;
    std::string const reply(4 << 20, 'z');
    sendErrno = ::send(static_cast<int>(d), reply.data(), reply.size(), 0) < 0 ? errno : 0;
  };
  ::signal(SIGPIPE, countPipeSignal);
  int const fd = connectTo(name);
  ASSERT_EQ(::send(fd, "big", 3, 0), 3);
  ::close(fd);
  ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == 0 && big->calls.size() == 1; }, 5));
  EXPECT_EQ(during, SIG_IGN);
  EXPECT_TRUE(sendErrno == EPIPE || sendErrno == ECONNRESET) << std::strerror(sendErrno);
  EXPECT_EQ(::signal(SIGPIPE, SIG_DFL), &countPipeSignal) << "SIGPIPE disposition not restored";
  EXPECT_EQ(pipeSignals, 0);

  addRecorder("boom")->action = [](unsigned d, std::string const&) {
    sendAll(d, "partial");
    throw std::runtime_error("boom");
  };
  LogCapture logs;
  EXPECT_EQ(roundTrip(name, "boom"), "partial") << "a failed command still closes its connection";
  EXPECT_EQ(logs.lines, Texts{"AGENT_SOCKET_COMMAND_ERROR/4: Error (boom) on command execution"});
  EXPECT_EQ(::signal(SIGPIPE, SIG_DFL), SIG_DFL) << "SIGPIPE disposition not restored";
  addRecorder("small");
  EXPECT_EQ(roundTrip(name, "small 1"), "small|1") << "the agent survives and serves on";
}

TEST_F(AgentSocketTest, CallbackMayUnregisterItselfAndDropTheHandler) {
  if (!Vell::agentSocketSendBufferForceAllowed()) GTEST_SKIP() << "needs CAP_NET_ADMIN";
  bool destroyed = false;
  Ptr<ProbedHandler> probed = new ProbedHandler(name, &destroyed);
  probed->handleInitialized();
  Ptr<Recorder> once = new Recorder("once");
  probed->agentSocketCallbackIs(once);
  once->action = [&](unsigned d, std::string const&) {
    probed->agentSocketCallbackDel("once");
    probed = nullptr;
    EXPECT_FALSE(destroyed) << "destroyed while serving";
    sendAll(d, "done");
  };
  once = nullptr;  // only the handler holds it now
  EXPECT_EQ(roundTrip(name, "once"), "done");
  EXPECT_TRUE(destroyed);
}

// The fixture checks /proc/self/fd once the handler is gone; the counts here check
// that nothing waits for the handler to go.
TEST_F(AgentSocketServeTest, AbruptSequentialAndConcurrentClientsLeakNothing) {
  addRecorder("ping");
  auto const before = openDescriptors();
  for (int i = 0; i < 3; ++i) ::close(connectTo(name));
  ASSERT_TRUE(loop()->runUntil([&] { return handler->agentsockFd()->readableCount() >= 3 && handler->clients() == 0; }, 5));

  for (int i = 0; i < 10000 && !HasFailure(); ++i)
    EXPECT_EQ(roundTrip(name, "ping " + std::to_string(i)), "ping|" + std::to_string(i)) << "connection " << i;

  std::vector<int> fds;
  for (int i = 0; i < 64; ++i) {
    fds.push_back(connectTo(name));
    ASSERT_GE(fds.back(), 0) << std::strerror(errno);
    // One accept per readable turn: drain the backlog as we go.
    ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == fds.size(); }, 5));
  }
  EXPECT_EQ(handler->fds(), 64u);
  // Requests go out in reverse order, so replies cannot match by accident.
  for (int i = 63; i >= 0; --i) {
    std::string const req = "ping " + std::to_string(i);
    ASSERT_EQ(::send(fds[i], req.data(), req.size(), 0), static_cast<ssize_t>(req.size()));
  }
  ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == 0; }, 5));
  for (int i = 0; i < 64; ++i) {
    EXPECT_EQ(readAll(fds[i]), "ping|" + std::to_string(i));
    ::close(fds[i]);
  }
  EXPECT_EQ(handler->fds(), 0u);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
