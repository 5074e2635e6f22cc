// The agent command socket over real sockets, in this process: the address, the
// request/reply protocol, faults, and descriptor hygiene.
#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Vell/AgentSocketHandler.h>

namespace {

using Quor::Ptr;
using Vell::AgentSocketHandlerSm;

// Names are unique per process and test: ctest runs test cases in parallel processes.
std::string uniqueName(char const* tag) {
  static int serial = 0;
  return "vt" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(++serial);
}

Ptr<Quor::ActivitySm> loop() { return Quor::quorActivitySmFor(nullptr); }

int openDescriptors() {
  int n = 0;
  DIR* d = ::opendir("/proc/self/fd");
  while (dirent* e = ::readdir(d))
    if (e->d_name[0] != '.') ++n;
  ::closedir(d);
  return n;
}

int connectTo(std::string const& name) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr;
  socklen_t const len = Vell::agentSocketAddress(name, &addr);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    int const err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
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
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      out.append(buf, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return out;
  }
}

// One whole exchange: connect, send, serve, read the reply.
std::string roundTrip(std::string const& name, std::string const& request) {
  int const fd = connectTo(name);
  EXPECT_GE(fd, 0) << std::strerror(errno);
  if (fd < 0) return "<no connection>";
  EXPECT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
  EXPECT_TRUE(serveUntilHangup(fd)) << "no hang-up after " << request;
  std::string reply = readAll(fd);
  ::close(fd);
  return reply;
}

void sendAll(unsigned d, std::string const& s) {
  std::size_t done = 0;
  while (done < s.size()) {
    ssize_t const w = ::send(static_cast<int>(d), s.data() + done, s.size() - done, 0);
    if (w <= 0) return;
    done += static_cast<std::size_t>(w);
  }
}

// Records each call; replies "<word>|<args>" unless given another action.
class Recorder : public Vell::AgentSocketCallback {
 public:
  explicit Recorder(std::string const& word) : AgentSocketCallback("recorder " + word, word) {}
  void handleCommand(unsigned int d, Quor::String8 args) override {
    calls.push_back(args.str());
    if (action)
      action(d, args.str());
    else
      sendAll(d, commandType().str() + "|" + args.str());
  }
  std::vector<std::string> calls;
  std::function<void(unsigned, std::string const&)> action;
};

// A handler made without the factory, so that a test sees it before initialisation
// and learns when it is destroyed.
class ProbedHandler : public AgentSocketHandlerSm {
 public:
  ProbedHandler(std::string const& name, bool* destroyed) : AgentSocketHandlerSm(name, nullptr), destroyed_(destroyed) {}
  ~ProbedHandler() override { *destroyed_ = true; }

 private:
  bool* destroyed_;
};

struct TraceCapture {
  std::vector<Quor::TraceRecord> records;
  TraceCapture() {
    Quor::traceLevelIs("AgentSocketHandler", 9);
    Quor::traceSinkIs([this](Quor::TraceRecord const& r) { records.push_back(r); });
  }
  ~TraceCapture() {
    Quor::traceLevelIs("AgentSocketHandler", -1);
    Quor::traceSinkIs(nullptr);
  }
  std::vector<std::string> texts(int level) const {
    std::vector<std::string> out;
    for (auto const& r : records)
      if (r.level == level) out.push_back(r.text);
    return out;
  }
};

struct LogCapture {
  std::vector<Quor::LogRecord> records;
  LogCapture() {
    Quor::logSinkIs([this](Quor::LogRecord const& r) { records.push_back(r); });
  }
  ~LogCapture() { Quor::logSinkIs(nullptr); }
};

#define REQUIRE_SEND_BUFFER_FORCE()                                                         \
  do {                                                                                      \
    if (!Vell::agentSocketSendBufferForceAllowed())                                         \
      GTEST_SKIP() << "needs CAP_NET_ADMIN: without it every command is refused";           \
  } while (0)

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

 private:
  int fdsAtStart_ = 0;
};

// ---- the address ----

TEST_F(AgentSocketTest, ThreeLetterNameBindsFiveByteAbstractPath) {
  // Three letters from the pid keep parallel test processes apart.
  unsigned p = static_cast<unsigned>(::getpid());
  std::string three = {char('a' + p % 26), char('a' + p / 26 % 26), char('a' + p / 676 % 26)};
  handler = Vell::agentSocketHandlerSmFactory(three);
  sockaddr_un addr;
  socklen_t len = sizeof addr;
  ASSERT_EQ(::getsockname(handler->agentsockFd()->descriptor(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
  EXPECT_EQ(len, 7u);
  EXPECT_EQ(std::string(addr.sun_path, 5), std::string("\0s", 2) + three);

  // The address has no trailing zero bytes: one more byte is another address.
  int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  EXPECT_NE(::connect(fd, reinterpret_cast<sockaddr*>(&addr), 8), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), 7), 0);
  ::close(fd);
  loop()->runOnce(0);
}

TEST_F(AgentSocketTest, NamesOf106CharactersOrMoreAreCut) {
  std::string const base = uniqueName("long");
  for (std::size_t size : {105u, 106u, 200u}) {
    std::string const longName = base + std::string(size - base.size(), 'n');
    handler = Vell::agentSocketHandlerSmFactory(longName);
    sockaddr_un addr;
    socklen_t len = sizeof addr;
    ASSERT_EQ(::getsockname(handler->agentsockFd()->descriptor(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
    EXPECT_EQ(len, 2u + 1u + 106u) << size;  // "s" + 105 characters in every case
    EXPECT_EQ(std::string(addr.sun_path + 1, 106), "s" + longName.substr(0, 105));
    int const fd = connectTo(longName.substr(0, 105));
    EXPECT_GE(fd, 0) << "the cut name is the address";
    ::close(fd);
    loop()->runUntil([&] { return handler->clients() == 0 && handler->agentsockFd()->readableCount() > 0; }, 5);
    handler = nullptr;
  }
}

// Death tests make gtest keep a descriptor of its own open: no leak check here.
class AgentSocketDeathTest : public AgentSocketTest {
 protected:
  void TearDown() override { handler = nullptr; }
};

TEST_F(AgentSocketDeathTest, SecondHandlerWithTheSameNameAborts) {
  handler = Vell::agentSocketHandlerSmFactory(name);
  EXPECT_DEATH(Vell::agentSocketHandlerSmFactory(name),
               "Binding to socket: Address already in use\n"
               "Assertion failed: 0 && \"socket bind failure\" \\[AgentSocketHandler:[0-9]+\\] in void "
               "Vell::AgentSocketHandlerSm::handleInitialized\\(\\)");
}

TEST_F(AgentSocketDeathTest, SocketCreationFailureAborts) {
  auto withNoFreeDescriptor = [this] {
    int const lowestFree = ::dup(0);
    ::close(lowestFree);
    rlimit const none{static_cast<rlim_t>(lowestFree), static_cast<rlim_t>(lowestFree)};
    ::setrlimit(RLIMIT_NOFILE, &none);
    Vell::agentSocketHandlerSmFactory(name);
  };
  EXPECT_DEATH(withNoFreeDescriptor(),
      "Creating unix socket: Too many open files\n"
      "Assertion failed: 0 && \"socket failed\" \\[AgentSocketHandler:[0-9]+\\]");
}

TEST_F(AgentSocketDeathTest, InitialisingTwiceAborts) {
  handler = Vell::agentSocketHandlerSmFactory(name);
  EXPECT_DEATH(handler->handleInitialized(), "Assertion failed: !initialized\\(\\) \\[AgentSocketHandler:");
}

// ---- life cycle ----

TEST_F(AgentSocketTest, ReadableEventBeforeInitialisationOrAfterDeletionAcceptsNothing) {
  bool destroyed = false;
  Ptr<ProbedHandler> probed = new ProbedHandler(name, &destroyed);
  LogCapture logs;
  {
    TraceCapture traces;
    probed->handleClientConnection();
    EXPECT_EQ(traces.texts(1), std::vector<std::string>{name + " handleClientConnection"});
    EXPECT_TRUE(traces.texts(8).empty());
  }
  EXPECT_TRUE(logs.records.empty());
  EXPECT_LT(connectTo(name), 0) << "nothing listens before initialisation";

  probed->handleInitialized();
  ASSERT_TRUE(probed->initialized());
  {
    // Called with no readable event yet: the descriptor is reported as invalid.
    TraceCapture traces;
    probed->handleClientConnection();
    EXPECT_EQ(traces.texts(8), std::vector<std::string>{"handleClientConnection Invalid file descriptor"});
    ASSERT_EQ(logs.records.size(), 1u);
    EXPECT_EQ(logs.records[0].name, "AGENT_SOCKET_INVALID_DESCRIPTOR");
    EXPECT_EQ(logs.records[0].severity, 4);
    EXPECT_EQ(logs.records[0].text, "Invalid socket request call");
  }
  EXPECT_EQ(probed->clients(), 0u);

  {
    TraceCapture traces;
    probed->handleDeletion();
    probed->handleDeletion();  // the second finds the descriptor already gone
    EXPECT_EQ(traces.texts(8), (std::vector<std::string>{"Socket deleted",
                                                         "Warning! Can't close invalid file descriptor",
                                                         "Socket deleted"}));
  }
  EXPECT_FALSE(probed->initialized());
  EXPECT_LT(connectTo(name), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  probed->handleClientConnection();
  EXPECT_EQ(probed->clients(), 0u);
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
  int const a = connectTo(name);
  int const b = connectTo(name);
  ASSERT_TRUE(loop()->runUntil([&] { return probed->clients() == 2; }, 5));
  ASSERT_EQ(watch->names.size(), 2u);
  Ptr<Vell::ClientSm> kept = probed->client(watch->names[0]);
  ASSERT_TRUE(kept);
  watch = nullptr;
  EXPECT_EQ(kept->agentSocketHandlerSm(), probed);

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

TEST_F(AgentSocketTest, CollectionsRefuseNullsWithExactTexts) {
  handler = Vell::agentSocketHandlerSmFactory(name);
  auto textOf = [](auto&& f) {
    try {
      f();
    } catch (Quor::RangeException const& e) {
      return std::string(e.what());
    }
    return std::string("<no exception>");
  };
  EXPECT_EQ(textOf([&] { handler->agentSocketCallbackIs(nullptr); }),
            "null _agentSocketCallback parameter to mutator for Vell::AgentSocketHandlerSm::agentSocketCallback "
            "not allowed\"");
  EXPECT_EQ(textOf([&] { handler->fdIs(nullptr); }),
            "null _fd parameter to mutator for Vell::AgentSocketHandlerSm::fd not allowed\"");

  // Registration by command word: Is replaces, new keeps the first, Del forgets.
  struct Watch : AgentSocketHandlerSm::NotifieeConst {
    std::vector<std::string> words;
    void onAgentSocketCallback(Quor::String8 const& w) override { words.push_back(w.str()); }
  };
  Ptr<Watch> watch = new Watch;
  watch->notifierIs(handler);
  auto first = Vell::agentSocketCallbackFactory("first", "show");
  auto second = Vell::agentSocketCallbackFactory("second", "show");
  handler->agentSocketCallbackIs(first);
  handler->agentSocketCallbackIs(first);  // unchanged: no notification
  EXPECT_EQ(handler->newAgentSocketCallback(second), first);
  handler->agentSocketCallbackIs(second);
  EXPECT_EQ(handler->agentSocketCallback("show"), second);
  EXPECT_FALSE(handler->agentSocketCallback("show "));
  handler->agentSocketCallbackDel("show");
  EXPECT_EQ(handler->agentSocketCallbacks(), 0u);
  EXPECT_EQ(watch->words, (std::vector<std::string>{"show", "show", "show"}));
}

// ---- the protocol ----

TEST_F(AgentSocketTest, RequestIsSplitOnTheFirstBlankOnly) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> show = addRecorder("show");
  Ptr<Recorder> showNewline = addRecorder("show\n");
  std::string const unknown("Unknown Command \n", 17);

  EXPECT_EQ(roundTrip(name, "show counters"), "show|counters");
  EXPECT_EQ(roundTrip(name, "show  counters"), "show| counters");
  EXPECT_EQ(roundTrip(name, "show a  b \n"), "show|a  b \n");
  EXPECT_EQ(roundTrip(name, "show"), "show|");
  EXPECT_EQ(roundTrip(name, "show "), "show|");
  EXPECT_EQ(roundTrip(name, "show\n"), "show\n|");
  EXPECT_EQ(roundTrip(name, "show\n x"), "show\n|x");
  EXPECT_EQ(roundTrip(name, "Show"), unknown);
  EXPECT_EQ(roundTrip(name, "show\r"), unknown);
  EXPECT_EQ(roundTrip(name, " show"), unknown);
  EXPECT_EQ(show->calls, (std::vector<std::string>{"counters", " counters", "a  b \n", "", ""}));

  handler->agentSocketCallbackDel("show\n");
  std::string const reply = roundTrip(name, "show\n");
  ASSERT_EQ(reply.size(), 17u);
  EXPECT_EQ(reply, "Unknown Command \n");
  EXPECT_EQ(reply.back(), '\x0a');
}

// Random requests against a reference split: the text ends at a zero byte, the first
// blank splits it, the word is looked up exactly.
TEST_F(AgentSocketTest, RandomRequestsMatchTheReferenceSplit) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  std::vector<std::string> const words = {"a", "ab", "b\n", "x"};
  for (auto const& w : words) addRecorder(w);
  unsigned const seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::string const alphabet("ab x\n\0", 6);
  for (int round = 0; round < 400; ++round) {
    std::string request;
    std::size_t const size = 1 + rng() % 10;
    for (std::size_t i = 0; i < size; ++i) request += alphabet[rng() % alphabet.size()];

    std::string text = request.substr(0, request.find('\0'));
    std::size_t const blank = text.find(' ');
    std::string const word = text.substr(0, blank);
    std::string const args = blank == std::string::npos ? "" : text.substr(blank + 1);
    bool const known = std::find(words.begin(), words.end(), word) != words.end();
    std::string const expected = known ? word + "|" + args : "Unknown Command \n";
    ASSERT_EQ(roundTrip(name, request), expected) << "request of " << request.size() << " bytes, round " << round;
  }
}

TEST_F(AgentSocketTest, RequestIsCutAt1027Bytes) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> echo = addRecorder("echo");
  echo->action = [](unsigned d, std::string const& a) { sendAll(d, std::to_string(a.size())); };
  EXPECT_EQ(roundTrip(name, "echo " + std::string(1022, 'y')), "1022");
  EXPECT_EQ(roundTrip(name, "echo " + std::string(1023, 'y')), "1022");
  EXPECT_EQ(roundTrip(name, "echo " + std::string(5000, 'y')), "1022");
  EXPECT_EQ(roundTrip(name, std::string(1027, 'e')), "Unknown Command \n");
  EXPECT_EQ(echo->calls.back(), std::string(1022, 'y'));
}

TEST_F(AgentSocketTest, ExactlyOneRequestPerConnection) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> count = addRecorder("count");
  int const fd = connectTo(name);
  ASSERT_EQ(::send(fd, "count 1", 7, 0), 7);
  ASSERT_TRUE(serveUntilHangup(fd));
  EXPECT_EQ(readAll(fd), "count|1");
  EXPECT_LT(::send(fd, "count 2", 7, MSG_NOSIGNAL), 0);
  EXPECT_EQ(errno, EPIPE);
  ::close(fd);
  // Two requests in one receive are one request.
  EXPECT_EQ(roundTrip(name, "count 3count 4"), "count|3count 4");
  EXPECT_EQ(count->calls, (std::vector<std::string>{"1", "3count 4"}));
  EXPECT_EQ(handler->clients(), 0u);
  EXPECT_EQ(handler->fds(), 0u);
}

TEST_F(AgentSocketTest, TracesFollowOneExchange) {
  REQUIRE_SEND_BUFFER_FORCE();
  TraceCapture traces;
  handler = Vell::agentSocketHandlerSmFactory(name);
  int const listening = handler->agentsockFd()->descriptor();
  handler->agentSocketCallbackIs(Vell::agentSocketCallbackFactory("base", "show"));
  int const fd = connectTo(name);
  ASSERT_EQ(::send(fd, "show counters", 13, 0), 13);
  ASSERT_TRUE(serveUntilHangup(fd));
  EXPECT_EQ(readAll(fd), "") << "the base callback writes nothing";
  ::close(fd);
  handler = nullptr;

  for (auto const& r : traces.records) {
    EXPECT_EQ(r.channel, "AgentSocketHandler");
    EXPECT_EQ(r.stem, "AgentSocketHandler");
  }
  EXPECT_EQ(traces.texts(1), (std::vector<std::string>{name + " handleInitialized", name + " handleClientConnection",
                                                       "base handleCommand", name + " handleDeletion"}));
  std::vector<std::string> const level8 = traces.texts(8);
  ASSERT_EQ(level8.size(), 6u);
  EXPECT_EQ(level8[0], "Socket Name: s" + name + " fd: " + std::to_string(listening));
  EXPECT_EQ(level8[1], "Socket Init Completed");
  std::string const conn = level8[2].substr(std::string("Accepted client from: ").size());
  EXPECT_EQ(conn.substr(0, 9), "clientFd:");
  EXPECT_EQ(level8[3], "Received command: show arg: counters");
  EXPECT_EQ(level8[4], "Closing: " + conn);
  EXPECT_EQ(level8[5], "Socket deleted");
}

// A descriptor the block closed is forgotten by its entity: an entity that outlives the
// close must not close the number again once something else has reused it.
TEST_F(AgentSocketTest, ClosedDescriptorsAreNeverClosedAgain) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  struct KeepFds : AgentSocketHandlerSm::NotifieeConst {
    std::vector<Ptr<Quor::FileDescriptor>> kept;
    void onFd(Quor::Name const& n) override {
      if (auto fd = notifier()->fd(n)) {
        EXPECT_EQ(n.str(), "clientFd:" + std::to_string(fd->descriptor()));
        kept.push_back(fd);
      }
    }
  };
  Ptr<KeepFds> keep = new KeepFds;
  keep->notifierIs(handler);
  addRecorder("x");
  EXPECT_EQ(roundTrip(name, "x"), "x|");
  EXPECT_EQ(roundTrip(name, "x"), "x|");
  ASSERT_EQ(keep->kept.size(), 2u);
  EXPECT_EQ(keep->kept[0]->descriptor(), -1);
  // Connections are named after their descriptor number, so a reused number reuses
  // the name once the earlier connection is gone.
  EXPECT_EQ(keep->kept[0]->name(), keep->kept[1]->name());
  EXPECT_EQ(keep->kept[0]->name().str().rfind("clientFd:", 0), 0u);

  Ptr<Quor::FileDescriptor> listener = handler->agentsockFd();
  handler->handleDeletion();
  EXPECT_EQ(listener->descriptor(), -1);
  int reused[2][2];
  ASSERT_EQ(::pipe(reused[0]), 0);  // the lowest free numbers: those just closed
  ASSERT_EQ(::pipe(reused[1]), 0);
  keep = nullptr;
  handler = nullptr;
  listener = nullptr;
  for (auto& p : reused)
    for (int fd : p) {
      EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "descriptor " << fd << " was closed behind our back";
      ::close(fd);
    }
}

// ---- faults ----

TEST_F(AgentSocketTest, ClientThatConnectsAndClosesAtOnce) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> r = addRecorder("x");
  for (int i = 0; i < 3; ++i) ::close(connectTo(name));
  ASSERT_TRUE(loop()->runUntil([&] { return handler->agentsockFd()->readableCount() >= 3 && handler->clients() == 0; }, 5));
  EXPECT_TRUE(r->calls.empty());
  EXPECT_EQ(roundTrip(name, "x y"), "x|y");
}

int pipeSignals = 0;
void countPipeSignal(int) { ++pipeSignals; }

TEST_F(AgentSocketTest, ClientGoneBeforeALargeReply) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> big = addRecorder("big");
  int sendErrno = 0;
  void (*during)(int) = nullptr;
  big->action = [&](unsigned d, std::string const&) {
    struct sigaction now;
    ::sigaction(SIGPIPE, nullptr, &now);
    during = now.sa_handler;
    std::string const reply(4 << 20, 'z');
    ssize_t const w = ::send(static_cast<int>(d), reply.data(), reply.size(), 0);
    sendErrno = w < 0 ? errno : 0;
  };

  for (auto before : {&countPipeSignal, static_cast<void (*)(int)>(SIG_IGN)}) {
    struct sigaction set = {};
    set.sa_handler = before;
    ::sigaction(SIGPIPE, &set, nullptr);
    int const fd = connectTo(name);
    ASSERT_EQ(::send(fd, "big", 3, 0), 3);
    ::close(fd);
    ASSERT_TRUE(loop()->runUntil([&] { return handler->clients() == 0 && big->calls.size() == 1; }, 5));
    big->calls.clear();
    EXPECT_EQ(during, SIG_IGN);
    EXPECT_TRUE(sendErrno == EPIPE || sendErrno == ECONNRESET) << std::strerror(sendErrno);
    struct sigaction after;
    ::sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before) << "SIGPIPE disposition not restored";
    EXPECT_EQ(pipeSignals, 0);
  }
  ::signal(SIGPIPE, SIG_DFL);
  addRecorder("small");
  EXPECT_EQ(roundTrip(name, "small 1"), "small|1") << "the agent survives and serves on";
}

TEST_F(AgentSocketTest, CallbackFailureIsLoggedAndTheConnectionStillCloses) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> boom = addRecorder("boom");
  boom->action = [](unsigned d, std::string const&) {
    sendAll(d, "partial");
    throw std::runtime_error("boom");
  };
  LogCapture logs;
  EXPECT_EQ(roundTrip(name, "boom"), "partial");
  ASSERT_EQ(logs.records.size(), 1u);
  EXPECT_EQ(logs.records[0].name, "AGENT_SOCKET_COMMAND_ERROR");
  EXPECT_EQ(logs.records[0].severity, 4);
  EXPECT_EQ(logs.records[0].text, "Error (boom) on command execution");
  struct sigaction after;
  ::sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
}

TEST_F(AgentSocketTest, CallbackMayUnregisterItselfAndDropTheHandler) {
  REQUIRE_SEND_BUFFER_FORCE();
  bool destroyed = false;
  Ptr<ProbedHandler> probed = new ProbedHandler(name, &destroyed);
  probed->handleInitialized();
  Ptr<Recorder> once = new Recorder("once");
  probed->agentSocketCallbackIs(once);
  once = nullptr;  // only the handler holds it now
  Recorder* raw = static_cast<Recorder*>(probed->agentSocketCallback("once").ptr());
  raw->action = [&](unsigned d, std::string const&) {
    probed->agentSocketCallbackDel("once");
    probed = nullptr;
    EXPECT_FALSE(destroyed) << "destroyed while serving";
    sendAll(d, "done");
  };
  int const fd = connectTo(name);
  ASSERT_EQ(::send(fd, "once", 4, 0), 4);
  ASSERT_TRUE(serveUntilHangup(fd));
  EXPECT_EQ(readAll(fd), "done");
  EXPECT_TRUE(destroyed);
  ::close(fd);
}

TEST_F(AgentSocketTest, TenThousandSequentialConnectionsLeakNothing) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> ping = addRecorder("ping");
  int const before = openDescriptors();
  for (int i = 0; i < 10000; ++i) {
    std::string const arg = std::to_string(i);
    std::string const reply = roundTrip(name, "ping " + arg);
    if (reply != "ping|" + arg) {
      ADD_FAILURE() << "connection " << i << " got " << reply;
      break;
    }
  }
  EXPECT_EQ(ping->calls.size(), 10000u);
  EXPECT_EQ(handler->clients(), 0u);
  EXPECT_EQ(handler->fds(), 0u);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(AgentSocketTest, SixtyFourConcurrentConnectionsLeakNothing) {
  REQUIRE_SEND_BUFFER_FORCE();
  handler = Vell::agentSocketHandlerSmFactory(name);
  addRecorder("ping");
  int const before = openDescriptors();
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

// Without CAP_NET_ADMIN every command is refused: no reply, a log message. Runs in a
// child that drops the capability (if it had it).
[[noreturn]] void serveWithoutNetAdmin(std::string const& name) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[2] = {};
  if (::syscall(SYS_capget, &header, caps) == 0) {
    caps[CAP_NET_ADMIN / 32].effective &= ~(1u << (CAP_NET_ADMIN % 32));
    ::syscall(SYS_capset, &header, caps);
  }
  if (Vell::agentSocketSendBufferForceAllowed()) ::_exit(10);
  std::vector<Quor::LogRecord> logs;
  Quor::logSinkIs([&](Quor::LogRecord const& r) { logs.push_back(r); });
  Ptr<AgentSocketHandlerSm> h = Vell::agentSocketHandlerSmFactory(name);
  Ptr<Recorder> r = new Recorder("show");
  h->agentSocketCallbackIs(r);
  int const fd = connectTo(name);
  if (::send(fd, "show x", 6, 0) != 6) ::_exit(11);
  if (!serveUntilHangup(fd)) ::_exit(12);
  if (!readAll(fd).empty()) ::_exit(13);
  if (!r->calls.empty()) ::_exit(14);
  if (h->clients() != 0) ::_exit(15);
  if (logs.size() != 1 || logs[0].name != "AGENT_SOCKET_COMMAND_ERROR" ||
      logs[0].text != "Error (Operation not permitted) on command execution")
    ::_exit(16);
  ::_exit(0);
}

TEST_F(AgentSocketDeathTest, CommandsAreRefusedWithoutNetAdmin) {
  EXPECT_EXIT(serveWithoutNetAdmin(name), ::testing::ExitedWithCode(0),
              "setsockopt on SO_SNDBFFORCE: Operation not permitted");
}

}  // namespace
