// Mirrors of directories between a source and a sink, over real sockets, in virtual time.
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include <map>
#include <set>

#include <Vell/AgentSocketHandler.h>
#include <Vell/AttrMirror.h>
#include <Vell/XactLib.h>

#include "TestSupport.h"

namespace {

using Vell::U32;
using Vell::XactConfig;
using Vell::XactStatus;

class AttrMirrorTest : public VellTest::LoopFixture {
 protected:
  std::string name = "vell-mirror-test-" + std::to_string(getpid());
  void settle() { loop->runUntil(Quor::now() + 0.01); }
};

// The abstract address a mirror source of `name` listens on: "\0m" and the name.
struct MirrorAddress {
  sockaddr_un addr{AF_UNIX, {}};
  socklen_t length;
  explicit MirrorAddress(std::string const& name) {
    std::string const path = std::string("\0m", 2) + name;
    std::memcpy(addr.sun_path, path.data(), path.size());
    length = socklen_t(offsetof(sockaddr_un, sun_path) + path.size());
  }
  ::sockaddr const* sockaddr() const { return reinterpret_cast<::sockaddr const*>(&addr); }
};

// Every member a reactor on the mirror sees must be a value the source held for that key
// at some time (absence included).
struct ConfigHistory : Vell::XactConfigDir::NotifieeConst {
  std::map<U32, std::set<U32>> held;  // id -> configVersions the source held (0: absent)
  int strange = 0;
  int seen = 0;
  void onXactConfig(U32 id) override {
    ++seen;
    if (!held[id].count(notifier()->xactConfig(id).configVersion())) ++strange;
  }
};

std::map<U32, U32> contents(Vell::XactConfigDir const& d) {
  std::map<U32, U32> m;
  for (U32 id : d.xactConfigIds()) m[id] = d.xactConfig(id).configVersion();
  return m;
}

TEST_F(AttrMirrorTest, MirrorEqualsSourceAfterEveryResyncUnderRandomCuts) {
  unsigned const seed = std::random_device{}();
  VELL_SEEDED(rng, seed);
  auto source = Vell::mirrorSourceSmFactory(name);
  auto configs = Vell::xactConfigDirFactory("exec-a");
  source->entityIs(configs);
  auto sink = Vell::mirrorSinkSmFactory(name, clock);
  auto mirror = sink->mirror<Vell::XactConfigDir>("exec-a");
  Quor::Ptr<ConfigHistory> history = new ConfigHistory;
  history->notifierIs(mirror);
  auto hold = [&](U32 id) { history->held[id].insert(configs->xactConfig(id).configVersion()); };
  settle();
  ASSERT_TRUE(sink->connected());

  for (int step = 0; step < 600; ++step) {
    U32 const id = 1 + rng() % 40;
    switch (rng() % 10) {
      case 0:
        sink->doDisconnect();  // the link is cut; changes go on at the source
        break;
      case 1:
        loop->runUntil(Quor::now() + sink->retryInterval() + 0.01);  // and restored
        ASSERT_TRUE(sink->connected());
        ASSERT_EQ(contents(*mirror), contents(*configs)) << "step " << step;
        break;
      case 2:
      case 3:
        configs->xactConfigDel(id);
        hold(id);
        break;
      default:
        configs->xactConfigIs(XactConfig(id, rng() % 5 + 1));
        hold(id);
        break;
    }
    if (rng() % 3 == 0) settle();
    if (sink->connected() && rng() % 4 == 0) {
      settle();
      ASSERT_EQ(contents(*mirror), contents(*configs)) << "step " << step;
    }
  }
  loop->runUntil(Quor::now() + 1);
  EXPECT_EQ(contents(*mirror), contents(*configs));
  EXPECT_EQ(history->strange, 0);
  EXPECT_GT(history->seen, 100);
  EXPECT_GT(sink->syncs(), 10u);
  history->notifierIs(nullptr);
}

TEST_F(AttrMirrorTest, SourceGoneIsSeenAtOnceAndARestartResynchronises) {
  auto source = Vell::mirrorSourceSmFactory(name);
  auto statuses = Vell::xactStatusDirFactory("exec-b");
  statuses->xactStatusIs(XactStatus(1, Vell::xactSuccess, "", 1));
  statuses->xactStatusIs(XactStatus(2, Vell::xactFailure, "disk full", 1));
  source->entityIs(statuses);
  auto sink = Vell::mirrorSinkSmFactory(name, clock);
  auto mirror = sink->mirror<Vell::XactStatusDir>("exec-b");
  settle();
  EXPECT_EQ(mirror->xactStatus(2).comment(), "disk full");
  EXPECT_EQ(source->peers(), 1u);

  source = nullptr;  // the source process ends
  statuses = nullptr;
  settle();
  EXPECT_FALSE(sink->connected());
  EXPECT_EQ(mirror->xactStatuses().size(), 2u);  // the last state stays until a new copy

  VellTest::LogCapture logs;
  loop->runUntil(Quor::now() + 2.2);  // retries every 0.5 s against nobody: reported once
  EXPECT_EQ(logs.lines.size(), 1u);

  source = Vell::mirrorSourceSmFactory(name);  // a restarted source, with other contents
  statuses = Vell::xactStatusDirFactory("exec-b");
  statuses->xactStatusIs(XactStatus(3, Vell::xactSuccess, "", 1));
  source->entityIs(statuses);
  loop->runUntil(Quor::now() + 0.6);
  EXPECT_TRUE(sink->connected());
  EXPECT_EQ(mirror->xactStatuses().size(), 1u);
  EXPECT_EQ(mirror->xactStatus(3).result(), Vell::xactSuccess);
  // A mirror is read-only where it is received.
  Quor::GenericIf g(Quor::Ptr<Quor::PtrInterface const>(mirror.ptr()));
  EXPECT_EQ(VellTest::rangeText([&] { g.attrIs("xactStatus", "1"); }), "attempting to modify a const instance");
}

// A bad frame ends the link without applying anything of it; the retry resynchronises.
TEST_F(AttrMirrorTest, ACorruptStreamChangesNothingAndResynchronises) {
  std::string const bogus = "vell-mirror-bogus-" + std::to_string(getpid());
  // A fake source: listens and sends a copy whose second record is cut short.
  int const l = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  MirrorAddress const at(bogus);
  ASSERT_EQ(::bind(l, at.sockaddr(), at.length), 0);
  ASSERT_EQ(::listen(l, 4), 0);
  auto sink = Vell::mirrorSinkSmFactory(bogus, clock);
  auto mirror = sink->mirror<Vell::XactConfigDir>("exec-c");
  int const c = ::accept(l, nullptr, nullptr);
  ASSERT_GE(c, 0);
  auto dir = Vell::xactConfigDirFactory("exec-c");
  dir->xactConfigIs(XactConfig(7, 1));
  dir->xactConfigIs(XactConfig(8, 1));
  Quor::NboAttrLog::Out out;
  Quor::entityTypeRecord<Vell::XactConfigDir>().attrs[0].writeAll(*dir, dir->name(), out);
  std::string body = "R" + out.bytes().substr(0, out.bytes().size() - 3);
  std::string frames = std::string("\0\0\0\1S", 5);
  U32 const n = U32(body.size());
  frames += std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)} + body + std::string("\0\0\0\1E", 5);
  ASSERT_EQ(::send(c, frames.data(), frames.size(), MSG_NOSIGNAL), ssize_t(frames.size()));
  settle();
  EXPECT_EQ(mirror->xactConfigs(), 0u);
  EXPECT_FALSE(sink->connected());
  EXPECT_EQ(sink->syncs(), 0u);
  ::close(c);
  // Reconnected, it meets a frame length no source writes: the link ends at once rather
  // than wait for gigabytes.
  loop->runUntil(Quor::now() + 0.6);
  int const c2 = ::accept(l, nullptr, nullptr);
  ASSERT_GE(c2, 0);
  ASSERT_EQ(::send(c2, "\xff\xff\xff\xf0S", 5, MSG_NOSIGNAL), 5);
  settle();
  EXPECT_FALSE(sink->connected());
  ::close(c2);
  ::close(l);
}

TEST_F(AttrMirrorTest, BoundsAndRefusals) {
  auto source = Vell::mirrorSourceSmFactory(name);
  EXPECT_EQ(VellTest::rangeText([&] { source->maxBacklogBytesIs(100); }),
            "MirrorSourceSm::maxBacklogBytes < 4096 or > 0x40000000 not allowed");
  EXPECT_EQ(VellTest::rangeText([&] { source->entityIs(Vell::xactDirFactory("xacts")); }),
            "xacts has no streamed attributes");
  auto sink = Vell::mirrorSinkSmFactory(name, clock);
  EXPECT_EQ(VellTest::rangeText([&] { sink->retryIntervalIs(0); }),
            "MirrorSinkSm::retryInterval < 0.001 or > 3600 not allowed");
  auto const a = sink->mirror<Vell::XactConfigDir>("a");
  EXPECT_EQ(sink->mirror<Vell::XactConfigDir>("a"), a);  // asked again: the same copy
  try {
    sink->mirror<Vell::XactStatusDir>("a");
    ADD_FAILURE() << "no exception";
  } catch (Quor::NameInUseException const& e) {
    EXPECT_STREQ(e.what(), "a is mirrored as Vell::XactConfigDir");
  }
}

// The command socket's words travel as data: the mirror follows registrations.
TEST_F(AttrMirrorTest, CommandWordsOfAnotherAgentFollowItsCallbacks) {
  auto handler = Vell::agentSocketHandlerSmFactory("vell-words-" + std::to_string(getpid()));
  handler->agentSocketCallbackIs(Vell::agentSocketCallbackFactory("status cb", "status"));
  auto source = Vell::mirrorSourceSmFactory(name);
  source->entityIs(Vell::agentSocketCommandsFactory(handler));
  auto sink = Vell::mirrorSinkSmFactory(name, clock);
  auto words = sink->mirror<Vell::AgentSocketCommands>(handler->name());
  settle();
  EXPECT_EQ(words->agentSocketCallback("status"), "status cb");
  handler->agentSocketCallbackIs(Vell::agentSocketCallbackFactory("stats cb", "stats"));
  handler->agentSocketCallbackDel("status");
  settle();
  using Words = std::map<Quor::String8, Quor::String8>;
  EXPECT_EQ(words->agentSocketCallbackMap(), (Words{{"stats", "stats cb"}}));
}

// With no descriptor left the listener stays readable: accepting must pause, not spin
// (under virtual time a spinning loop would never reach the deadline), and say so once.
TEST_F(AttrMirrorTest, NoDescriptorLeftPausesAcceptingAndReportsOnce) {
  if (VellTest::sanitized) GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
  auto source = Vell::mirrorSourceSmFactory(name);
  int const client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  MirrorAddress const at(name);
  ASSERT_EQ(::connect(client, at.sockaddr(), at.length), 0);
  VellTest::DescriptorHog hog;
  VellTest::LogCapture logs;
  loop->runUntil(Quor::now() + 1.0);
  EXPECT_EQ(source->peers(), 0u);
  EXPECT_EQ(logs.lines.size(), 1u);
  hog.release();
  loop->runUntil(Quor::now() + 0.2);
  EXPECT_EQ(source->peers(), 1u);
  ::close(client);
}

}  // namespace
