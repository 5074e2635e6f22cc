// The agent command socket over real sockets, in this process: the address, the
// request/reply protocol, faults, and descriptor hygiene.
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <regex>
#include <stdexcept>

#include <Vell/AgentSocketHandler.h>

#include "TestSupport.h"

namespace {

using Quor::Ptr;
using VellTest::LogCapture;
using VellTest::openDescriptors;
using Vell::AgentSocketHandlerSm;
using Texts = std::vector<std::string>;

// Names are unique per process and test: ctest runs test cases in parallel processes.
std::string uniqueName(char const* tag) {
  static int serial = 0;
  return "vt" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(++serial);
}

Ptr<Quor::ActivitySm> loop() { return Quor::quorActivitySmFor(nullptr); }

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
  std::size_t fdsAtStart_ = 0;
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
               "Assertion failed: 0 && \"socket bind failure\" \\[[A-Za-z_]+:[0-9]+\\] in void "
               "Vell::AgentSocketHandlerSm::handleInitialized\\(\\)");
  EXPECT_DEATH(handler->handleInitialized(), "Assertion failed: !initialized\\(\\) \\[[A-Za-z_]+:");
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

// 10,000 clients one after another, then 64 at once. Requests, fixed ones first, then
// random ones, get the reply of a reference split: the text is cut at 1027 bytes and ends
// at a zero byte, the first blank splits it, and the word is looked up exactly (case, a
// trailing newline, a carriage return all count). Some clients hang up at once, or send
// random bytes and leave without reading. Nothing leaks, memory stays flat, and nothing
// waits for the handler to go (the fixture checks /proc/self/fd once it has).
TEST_F(AgentSocketServeTest, SequentialAbruptAndConcurrentClientsGetTheReferenceSplitAndLeakNothing) {
  Texts const words = {"a", "ab", "b\n", "x"};
  for (auto const& w : words) addRecorder(w);
  auto const before = openDescriptors();
  Texts const fixed = {"a  b \n", "a ", " a", "A", "a\r", "ab", "b\n", "b\n x", "b", "a 1\na 2",
                       std::string("x\0 y", 4), "a " + std::string(1025, 'y'), "a " + std::string(1026, 'y'),
                       "a " + std::string(5000, 'y')};
  auto const seed = std::random_device{}();
  VELL_SEEDED(rng, seed);
  auto request = [&](std::size_t i) {
    if (i < fixed.size()) return fixed[i];
    if (rng() % 2) return "a " + std::to_string(i);  // a reply no other request gets
    std::string r(1 + rng() % 10, ' ');
    static constexpr char alphabet[] = "ab xA\n\r";  // its terminating zero is a letter too
    for (char& c : r) c = alphabet[rng() % sizeof alphabet];
    return r;
  };
  auto reply = [&](std::string const& request) {
    std::string const text = request.substr(0, std::min(request.find('\0'), std::size_t{1027}));
    std::size_t const blank = text.find(' ');
    std::string const word = text.substr(0, blank);
    if (std::find(words.begin(), words.end(), word) == words.end()) return std::string("Unknown Command \n", 17);
    return word + "|" + (blank == std::string::npos ? "" : text.substr(blank + 1));
  };
  auto residentPages = [] {
    long size = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = 0;
      std::fclose(f);
    }
    return resident;
  };
  long rssWarm = 0;
  for (std::size_t i = 0; i < 10000 && !HasFailure(); ++i) {
    if (i == 1000) rssWarm = residentPages();
    if (i >= fixed.size() && rng() % 4 == 0) {  // hangs up at once or after random bytes, reading nothing
      int const fd = connectTo(name);
      std::string junk(rng() % 64, '\0');
      for (char& c : junk) c = static_cast<char>(rng());
      if (!junk.empty()) (void)::send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
      ::close(fd);
      loop()->runOnce(0);
      continue;
    }
    std::string const req = request(i);
    ASSERT_EQ(roundTrip(name, req), reply(req)) << "request '" << req.substr(0, 40) << "' of " << req.size() << " bytes";
  }
  ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == 0; }, 5));
  if (!VellTest::sanitized) {
    EXPECT_LT(residentPages() - rssWarm, 1024) << "resident pages grew by more than 4 MiB";
  }

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
    std::string const req = "a " + std::to_string(i);
    ASSERT_EQ(::send(fds[i], req.data(), req.size(), 0), static_cast<ssize_t>(req.size()));
  }
  ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == 0; }, 5));
  for (int i = 0; i < 64; ++i) {
    EXPECT_EQ(readAll(fds[i]), "a|" + std::to_string(i));
    ::close(fds[i]);
  }
  EXPECT_EQ(handler->fds(), 0u);
  EXPECT_EQ(openDescriptors(), before);
}

// ---- limits against broken and hostile clients ----

TEST_F(AgentSocketTest, LimitsAreBoundedAttributesThatNotifyOnChange) {
  handler = Vell::agentSocketHandlerSmFactory(name);
  struct Counter : AgentSocketHandlerSm::NotifieeConst {
    int changes = 0;
    void onRequestTimeout() override { ++changes; }
    void onMaxClients() override { ++changes; }
    void onSendTimeout() override { ++changes; }
    void onPeerPolicy() override { ++changes; }
    void onPeerUid(Vell::U32) override { ++changes; }
  };
  Ptr<Counter> counter = new Counter;
  counter->notifierIs(handler);
  auto limits = [&] {
    return std::tuple(handler->requestTimeout(), handler->maxClients(), handler->sendTimeout(), handler->peerPolicy());
  };
  EXPECT_EQ(limits(), std::tuple(5.0, 64u, 2.0, Vell::peerAnyone));
  using VellTest::rangeText;
  std::string const request = "AgentSocketHandlerSm::requestTimeout < 0.001 or > 86400 not allowed";
  EXPECT_EQ(rangeText([&] { handler->requestTimeoutIs(0); }), request);
  EXPECT_EQ(rangeText([&] { handler->requestTimeoutIs(1e9); }), request);
  EXPECT_EQ(rangeText([&] { handler->maxClientsIs(0); }), "AgentSocketHandlerSm::maxClients < 1 or > 65536 not allowed");
  EXPECT_EQ(rangeText([&] { handler->sendTimeoutIs(-1); }), "AgentSocketHandlerSm::sendTimeout < 0.001 or > 3600 not allowed");
  EXPECT_EQ(rangeText([&] { handler->peerPolicyIs(static_cast<Vell::AgentSocketPeerPolicy>(9)); }),
            "AgentSocketHandlerSm::peerPolicy 9 not allowed");
  EXPECT_EQ(limits(), std::tuple(5.0, 64u, 2.0, Vell::peerAnyone));  // none of them changed anything
  EXPECT_EQ(counter->changes, 0);
  handler->maxClientsIs(64);  // unchanged: nobody is told
  handler->peerUidIs(7);
  handler->peerUidIs(7);
  handler->sendTimeoutIs(0.5);
  EXPECT_EQ(counter->changes, 2);
  EXPECT_TRUE(handler->peerUid(7));
  handler->peerUidDelAll();
  EXPECT_FALSE(handler->peerUid(7));
  counter->notifierIs(nullptr);
}

// Under virtual time: idle connections are closed without a reply when their request is
// overdue, one connection beyond maxClients is closed at once, and a request that came
// in time is served.
TEST_F(AgentSocketServeTest, IdleClientsTimeOutAndConnectionsBeyondMaxClientsAreRefused) {
  Quor::VirtualTime vt(1000);
  addRecorder("ping");
  handler->requestTimeoutIs(3);
  handler->maxClientsIs(3);
  LogCapture logs;
  std::vector<int> idle;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) Quor::sleep(1);  // accepted at 1000, 1001, 1002
    idle.push_back(connectTo(name));
    ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == idle.size(); }, 1));
  }
  int const extra = connectTo(name);
  ASSERT_TRUE(serveUntilHangup(extra));
  EXPECT_EQ(readAll(extra), "");
  ::close(extra);
  EXPECT_EQ(handler->clients(), 3u);
  ASSERT_EQ(::send(idle[2], "ping 2", 6, 0), 6);  // the last one asks in time
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(serveUntilHangup(idle[i]));
    if (i < 2) {
      EXPECT_GE(Quor::now(), 1000 + i + 3) << "closed before its deadline";
    }
    EXPECT_EQ(readAll(idle[i]), i < 2 ? "" : "ping|2");
    ::close(idle[i]);
  }
  for (auto& line : logs.lines) line = std::regex_replace(line, std::regex("clientFd:[0-9]+"), "clientFd:N");
  EXPECT_EQ(logs.lines, (Texts{"AGENT_SOCKET_TOO_MANY_CLIENTS/3: Command connection refused: 3 connections open (maxClients)",
                               "AGENT_SOCKET_REQUEST_TIMEOUT/3: Command connection clientFd:N closed: no request within 3 seconds",
                               "AGENT_SOCKET_REQUEST_TIMEOUT/3: Command connection clientFd:N closed: no request within 3 seconds"}));
}

// A client that reads slowly or not at all holds the loop for sendTimeout at most,
// whether the reply goes out with agentSocketReply or with one send().
TEST_F(AgentSocketServeTest, SlowOrStuckReadersHoldTheLoopForSendTimeoutAtMost) {
  handler->sendTimeoutIs(0.3);
  std::string const reply(4 << 20, 'r');
  std::size_t written = 0;
  int replyErrno = 0;
  bool oneSend = false;
  Ptr<Recorder> big = addRecorder("big");
  big->action = [&](unsigned d, std::string const&) {
    if (oneSend) {
      ssize_t const n = ::send(static_cast<int>(d), reply.data(), reply.size(), 0);
      written = n > 0 ? static_cast<std::size_t>(n) : 0;
    } else {
      written = Vell::agentSocketReply(d, reply);
    }
    replyErrno = errno;
  };
  using Clock = std::chrono::steady_clock;
  for (int round = 0; round < 3; ++round) {
    oneSend = round == 2;
    int const fd = connectTo(name);
    ASSERT_EQ(::send(fd, "big", 3, 0), 3);
    // Round 1: a child process reads 4 KiB every 20 ms (200 KiB/s) for ever.
    pid_t const reader = round == 1 ? ::fork() : -1;
    if (reader == 0) {
      char buf[4096];
      while (::read(fd, buf, sizeof buf) > 0) ::usleep(20000);
      ::_exit(0);
    }
    auto const start = Clock::now();
    ASSERT_TRUE(loop()->runUntil([&] { return big->calls.size() == static_cast<std::size_t>(round + 1); }, 5));
    double const held = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GE(held, 0.25) << "round " << round;
    EXPECT_LT(held, 0.3 + 0.5) << "round " << round;
    EXPECT_LT(written, reply.size()) << "round " << round;
    if (!oneSend) {
      EXPECT_EQ(replyErrno, EAGAIN) << "round " << round;
    }
    ::close(fd);
    if (reader > 0) {
      ::kill(reader, SIGKILL);  // it would read the buffered megabytes for seconds
      ::waitpid(reader, nullptr, 0);
    }
  }
}

// Peer policies, judged by the connecting process's user id: this process (the agent's
// own user) and, when the tests run as root, a child that drops to the "nobody" id.
TEST_F(AgentSocketServeTest, PeerPolicyAdmitsOnlyTheChosenUsers) {
  addRecorder("who");
  LogCapture logs;
  uid_t const me = ::geteuid();
  auto fromHere = [&] { return roundTrip(name, "who x"); };
  handler->peerPolicyIs(Vell::peerOwnUser);
  EXPECT_EQ(fromHere(), "who|x");
  handler->peerPolicyIs(Vell::peerUserList);
  EXPECT_EQ(fromHere(), "") << "refused: not listed";
  ASSERT_EQ(logs.lines.size(), 1u);
  EXPECT_EQ(logs.lines[0], "AGENT_SOCKET_PEER_REFUSED/3: Command connection refused for pid " + std::to_string(::getpid()) +
                               " uid " + std::to_string(me) + " (peer policy peerUserList)");
  handler->peerUidIs(me);
  EXPECT_EQ(fromHere(), "who|x");
  handler->peerPolicyIs(Vell::peerRootAndOwnUser);
  EXPECT_EQ(fromHere(), "who|x");

  if (me != 0) GTEST_SKIP() << "another user id needs root to switch to: the child's case is not run";
  uid_t const nobody = 65534;
  auto fromNobody = [&] {
    int report[2];
    EXPECT_EQ(::pipe(report), 0);
    pid_t const child = ::fork();
    if (child == 0) {
      if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) ::_exit(2);
      int const fd = connectTo(name);
      if (fd < 0 || ::send(fd, "who y", 5, 0) != 5) ::_exit(3);
      std::string const got = readAll(fd);
      (void)!::write(report[1], got.data(), got.size());
      ::_exit(0);
    }
    ::close(report[1]);
    // Served (or refused) once accepted and closed; the child then reads to the end.
    auto const accepted = handler->agentsockFd()->readableCount();
    EXPECT_TRUE(loop()->runUntil(
        [&] { return handler->agentsockFd()->readableCount() > accepted && handler->clients() == 0; }, 5));
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string const got = readAll(report[0]);
    ::close(report[0]);
    return got;
  };
  for (auto policy : {Vell::peerOwnUser, Vell::peerRootAndOwnUser}) {
    handler->peerPolicyIs(policy);
    EXPECT_EQ(fromNobody(), "") << policy;
  }
  handler->peerPolicyIs(Vell::peerUserList);
  handler->peerUidIs(nobody);
  EXPECT_EQ(fromNobody(), "who|y");
  handler->peerPolicyIs(Vell::peerAnyone);
  handler->peerUidDelAll();
  EXPECT_EQ(fromNobody(), "who|y");
}

// With no descriptor left the listener stays readable: accepting pauses instead of
// spinning (under virtual time a spinning loop never reaches its deadline), the episode
// is reported once, and a waiting client is served once descriptors come back.
TEST_F(AgentSocketServeTest, DescriptorExhaustionPausesAcceptingAndIsReportedOnce) {
  if (VellTest::sanitized) GTEST_SKIP() << "the sanitizers' runtime needs the descriptors this test takes away";
  Quor::VirtualTime vt(1000);
  addRecorder("ping");
  int const waiting = connectTo(name);
  int const errors = ::memfd_create("agent-stderr", MFD_CLOEXEC), savedStderr = ::dup(STDERR_FILENO);
  ::dup2(errors, STDERR_FILENO);
  VellTest::DescriptorHog hog;
  LogCapture logs;
  loop()->runUntil(Quor::now() + 1.0);
  bool const paused = handler->acceptPaused();
  hog.release();
  ::dup2(savedStderr, STDERR_FILENO);
  ::close(savedStderr);
  EXPECT_TRUE(paused);
  EXPECT_EQ(logs.lines, Texts{"AGENT_SOCKET_ACCEPT_ERROR/4: Cannot accept command connections on " + name +
                              " (Too many open files); accepting pauses"});
  ::lseek(errors, 0, SEEK_SET);
  EXPECT_EQ(readAll(errors), "Accepting connection on socket: Too many open files\n");
  ::close(errors);
  ASSERT_EQ(::send(waiting, "ping 1", 6, 0), 6);
  ASSERT_TRUE(serveUntilHangup(waiting));
  EXPECT_EQ(readAll(waiting), "ping|1");
  ::close(waiting);
}

}  // namespace
