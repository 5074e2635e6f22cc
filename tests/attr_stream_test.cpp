// Type records, attributes by name, and binary attribute logs.

#include <Vell/AgentExplorer.h>
#include <Vell/AgentSocketHandler.h>
#include <Vell/BestFitAllocator.h>
#include <Vell/HTimerWheel.h>
#include <Vell/InotifyMgr.h>
#include <Vell/ValueTypes.h>
#include <Vell/XactLib.h>

#include "TestSupport.h"

namespace {

using Quor::NboAttrLog::In;
using Quor::NboAttrLog::Out;

TEST(AttrStream, EveryValueTypeOfTheLibraryHasARecord) {
  for (char const* name : {"Vell::MaybeU63", "Vell::Seqno16", "Vell::Seqno32", "Vell::UniqueId", "Vell::Event",
                           "Vell::ConditionOrChangedStat", "Vell::XactConfig", "Vell::XactStatus", "Vell::BucketSize",
                           "Vell::BFA::PendingCmd", "Vell::InotifyEvent", "Vell::XactConfigDir",
                           "Vell::AgentSocketHandlerSm", "Vell::TimerWheel", "Vell::HBitmap", "Vell::BestFitAllocator",
                           "Vell::EventClock", "Vell::ReviewTimer", "Vell::CodefBase", "Vell::Xact", "Vell::XactDir",
                           "Vell::XactAggregatorSm", "Vell::XactExecutorSm", "Vell::AgentSocketCallback",
                           "Vell::ClientSm", "Vell::AgentSocketCommands", "Vell::InotifyMgr", "Vell::InotifyMgrSm",
                           "Vell::InotifyWatcher", "Vell::WatchDescriptor", "Vell::MirrorSourceSm", "Vell::MirrorSinkSm"}) {
    Quor::TypeRecord const* t = Quor::typeRecord(name);
    ASSERT_NE(t, nullptr) << name;
    EXPECT_EQ(t->name, name);
  }
  auto const* status = Quor::typeRecord("Vell::XactStatus");
  std::vector<std::string> fields;
  for (auto const& a : status->attrs) fields.push_back(a.name + ":" + a.typeName);
  EXPECT_EQ(fields, (std::vector<std::string>{"id:U32", "result:XactResult", "comment:String8", "statusVersion:U32"}));
  auto const* dir = Quor::typeRecord("Vell::XactStatusDir");
  ASSERT_EQ(dir->attrs.size(), 1u);
  EXPECT_EQ(dir->attrs[0].keyTypeName, "U32");
  EXPECT_TRUE(dir->attrs[0].flags.has(Quor::QuorAttrIntrospectionFlags::streamable |
                                      Quor::QuorAttrIntrospectionFlags::collection));

  Quor::QuorAttrIntrospectionFlags f;
  f.valueIs(0x3f);
  EXPECT_EQ(VellTest::rangeText([&] { f.valueIs(0x40); }), "QuorAttrIntrospectionFlags::value > 0x3f not allowed");
  EXPECT_EQ(f.value(), 0x3fu);
}

// Random damage to valid records: each is read whole or refused with a RangeException.
TEST(AttrStream, DamagedRecordsAreRefusedNeverMisread) {
  unsigned const seed = std::random_device{}();
  VELL_SEEDED(rng, seed);
  auto dir = Vell::xactStatusDirFactory("exec-a");
  for (int i = 0; i < 20; ++i) dir->xactStatusIs(Vell::XactStatus(Vell::U32(i + 1), Vell::xactFailure, "no", 3));
  Out records;
  Quor::entityTypeRecord<Vell::XactStatusDir>().attrs[0].writeAll(*dir, dir->name(), records);
  records.value(Vell::XactStatus(7, Vell::xactSuccess, "it's \\ {}", 9));
  records.value(Vell::MaybeU63(42));
  std::string const good = records.bytes();
  int refused = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string bad = good;
    for (int k = 1 + int(rng() % 3); k > 0; --k) bad[rng() % bad.size()] = static_cast<char>(rng());
    if (rng() % 4 == 0) bad.resize(rng() % bad.size());
    In in(bad);
    try {
      while (!in.atEnd()) (void)Quor::nboRecordText(in);
    } catch (Quor::RangeException const& e) {
      ++refused;
      EXPECT_EQ(e.id(), Quor::nboParseErrorId);
    }
  }
  EXPECT_GT(refused, 100);
  // The texts name what went wrong.
  std::string const unknownBytes("V\0\0\0\x03" "Foo", 8);  // In reads from bytes it does not own
  In unknown(unknownBytes);
  EXPECT_EQ(VellTest::rangeText([&] { Quor::nboRecordText(unknown); }),
            "NboAttrLog: unknown value type 'Foo' at offset 8");
  std::string const hugeBytes("V\xff\xff\xff\xff", 5);
  In huge(hugeBytes);
  EXPECT_EQ(VellTest::rangeText([&] { Quor::nboRecordText(huge); }),
            "NboAttrLog: string length 4294967295 with 0 bytes left at offset 5");
}

// ---- attributes by name ------------------------------------------------------------------------------

struct CountingReactor : Vell::AgentSocketHandlerSm::NotifieeConst {
  int sendTimeouts = 0;
  void onSendTimeout() override { ++sendTimeouts; }
};

TEST(AttrStream, GenericReadsAndWritesGoThroughTheMutators) {
  auto h = Vell::agentSocketHandlerSmFactory("vell-generic-" + std::to_string(getpid()));
  h->agentSocketCallbackIs(Vell::agentSocketCallbackFactory("cb", "show"));
  Quor::Ptr<CountingReactor> r = new CountingReactor;
  r->notifierIs(h);
  Quor::GenericIf g(Quor::Ptr<Quor::PtrInterface>(h.ptr()));
  EXPECT_EQ(g.attrNames(), (std::vector<std::string>{"requestTimeout", "maxClients", "sendTimeout", "peerPolicy",
                                                     "acceptPaused", "clients", "agentSocketCallback"}));
  EXPECT_EQ(g.attr("sendTimeout"), "2");
  EXPECT_EQ(g.attr("agentSocketCallback"), "'show' 'cb'\n");

  g.attrIs("sendTimeout", "0.25");
  EXPECT_EQ(h->sendTimeout(), 0.25);
  g.attrIs("sendTimeout", "0.25");  // unchanged: nobody is told
  EXPECT_EQ(r->sendTimeouts, 1);
  EXPECT_EQ(VellTest::rangeText([&] { g.attrIs("sendTimeout", "7200"); }),
            "AgentSocketHandlerSm::sendTimeout < 0.001 or > 3600 not allowed");
  EXPECT_NE(VellTest::rangeText([&] { g.attrIs("maxClients", "many"); }), "no exception");
  EXPECT_EQ(h->maxClients(), 64u);
  EXPECT_EQ(VellTest::rangeText([&] { g.attrIs("clients", "3"); }), "Vell::AgentSocketHandlerSm::clients is read-only");
  EXPECT_EQ(VellTest::rangeText([&] { g.attrIs("nope", "3"); }),
            "Vell::AgentSocketHandlerSm has no attribute 'nope'");
  g.attrIs("peerPolicy", "peerOwnUser");
  EXPECT_EQ(h->peerPolicy(), Vell::peerOwnUser);
  EXPECT_EQ(h->sendTimeout(), 0.25);
  EXPECT_EQ(r->sendTimeouts, 1);

  Quor::GenericIf readOnly(Quor::Ptr<Quor::PtrInterface const>(h.ptr()));
  EXPECT_EQ(VellTest::rangeText([&] { readOnly.attrIs("sendTimeout", "1"); }), "attempting to modify a const instance");
  EXPECT_EQ(readOnly.attr("maxClients"), "64");
  r->notifierIs(nullptr);
}

TEST(AttrStream, ExplorerShowsAndSetsByName) {
  auto h = Vell::agentSocketHandlerSmFactory("vell-intro-" + std::to_string(getpid()));
  auto intro = Vell::agentExplorerFactory(h);
  EXPECT_TRUE(h->agentSocketCallback("show") && h->agentSocketCallback("set"));
  auto statuses = Vell::xactStatusDirFactory("exec-a");
  statuses->xactStatusIs(Vell::XactStatus(4, Vell::xactFailure, "disk full", 2));
  intro->entityIs("socket", h);
  intro->entityIs("status", Quor::Ptr<Quor::PtrInterface const>(statuses.ptr()));
  EXPECT_EQ(intro->show(""), "socket\nstatus\n");
  EXPECT_EQ(intro->show("status"),
            "xactStatus[4] Value('Vell::XactStatus', ** {'id': 4, 'result': xactFailure, 'comment': 'disk full', "
            "'statusVersion': 2})\n");
  EXPECT_EQ(intro->show("socket maxClients"), "64\n");
  EXPECT_EQ(intro->show("socket agentSocketCallback"), "'set' 'explorer set'\n'show' 'explorer show'\n");
  EXPECT_EQ(intro->set("socket maxClients 8\n"), "ok\n");
  EXPECT_EQ(h->maxClients(), 8u);
  EXPECT_EQ(intro->set("socket maxClients 0"), "AgentSocketHandlerSm::maxClients < 1 or > 65536 not allowed\n");
  EXPECT_EQ(intro->set("status xactStatus 1"), "attempting to modify a const instance\n");
  EXPECT_EQ(intro->show("nobody"), "no entity 'nobody'\n");
  EXPECT_EQ(intro->set("socket maxClients"), "usage: set NAME ATTR VALUE\n");
  EXPECT_EQ(VellTest::rangeText([&] { intro->entityIs("two words", h); }),
            "explorer name 'two words' must be one word");
  EXPECT_EQ(intro->requests(), 9u);
  intro->entityDel("socket");
  h->agentSocketCallbackDelAll();  // the callbacks hold the explorer
}

}  // namespace
