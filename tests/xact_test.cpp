// Transactions under virtual time, through real executors: a randomized scenario with an
// invariant walker after every loop turn, and directed cases for what it cannot see
// (texts, timeouts to the poll, chains, slicing statistics, exceptions).
#include <Vell/XactLib.h>

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>

#include "TestSupport.h"

namespace {

using Quor::Ptr;
using Vell::ExecResult;
using Vell::U32;
using Vell::Xact;
using Vell::XactConfig;
using Vell::XactStatus;
using VellTest::rangeText;

struct TestExecutor : Vell::XactExecutorSm {
  TestExecutor(Quor::String8 name, Ptr<Vell::XactStatusDir> const& dir, Ptr<Quor::Clock const> const& clock,
               Quor::Seconds quantum)
      : XactExecutorSm(std::move(name), dir, clock, quantum) {}
  // Per call: the answer; the default answers success with no comment.
  std::function<ExecResult(XactConfig const&)> answer;
  std::vector<XactConfig> executed;
  ExecResult doExecute(XactConfig const& c) override {
    executed.push_back(c);
    return answer ? answer(c) : ExecResult(Vell::xactSuccess, "");
  }
};

struct Executor {
  Ptr<Vell::XactConfigDir> configs;
  Ptr<Vell::XactStatusDir> statuses;
  Ptr<TestExecutor> exec;
};

class XactTest : public VellTest::LoopFixture {
 protected:
  Ptr<Vell::XactAggregatorSm> agg = Vell::xactAggregatorSmFactory("agg", clock);
  std::deque<Executor> execs;  // references to members stay valid as it grows

  // An executor with its two directories, registered with the coordinator. A clock
  // makes it slice its backlog; without one it answers inside the notification.
  Executor& addExecutor(std::string const& name, bool sliced = false, Quor::Seconds quantum = 1.0) {
    Executor e;
    e.configs = Vell::xactConfigDirFactory(name);
    e.statuses = Vell::xactStatusDirFactory(name);
    e.exec = Quor::makeEntity<TestExecutor>(name, e.statuses, sliced ? Ptr<Quor::Clock const>(clock) : nullptr,
                                            quantum);
    e.exec->xactConfigDirIs(e.configs);
    agg->xactConfigDirIs(e.configs);
    agg->xactStatusDirIs(e.statuses);
    execs.push_back(e);
    return execs.back();
  }
  Ptr<Xact> start(U32 id, std::vector<Ptr<Xact>> const& after = {}) {
    Ptr<Xact> x = Vell::xactFactory(std::to_string(id), id);
    for (auto const& b : after) x->blockingXactIs(b);
    agg->doStartXact(x);
    return x;
  }
  static std::map<std::string, std::string> comments(Xact const& x) {
    std::map<std::string, std::string> m;
    for (auto const& [k, v] : x.comment()) m[k.str()] = v.str();
    return m;
  }
  void TearDown() override {
    for (auto& e : execs) e.exec->xactConfigDirDel();
    execs.clear();
    agg = nullptr;
    LoopFixture::TearDown();
  }
};

// ---- values and texts ----------------------------------------------------------------------

TEST_F(XactTest, ValueTextsAndBadInput) {
  EXPECT_EQ(Quor::valueToStrep(Vell::XactResult(7)), "XactResult(7)");
  EXPECT_EQ(Quor::strepToValue<Vell::XactResult>("xactFailure"), Vell::xactFailure);
  EXPECT_EQ(Quor::valueToStrep(XactConfig(3, 4)), "Value('Vell::XactConfig', ** {'id': 3, 'configVersion': 4})");
  EXPECT_EQ(Quor::valueToStrep(ExecResult(Vell::xactSuccess, "ok")),
            "Value('Vell::ExecResult', ** {'result': xactSuccess, 'comment': 'ok'})");
  EXPECT_TRUE(XactConfig(0, 0) == XactConfig());  // all-zero reads as absent

  auto x = Vell::xactFactory("x", 1);
  EXPECT_EQ(rangeText([&] { x->blockingXactIs(nullptr); }),
            "null _blockingXact parameter to mutator for Vell::Xact::blockingXact not allowed\"");
  EXPECT_EQ(rangeText([&] { agg->doStartXact(nullptr); }),
            "null _inProgressXact parameter to mutator for Vell::XactAggregatorSm::inProgressXact not allowed\"");
  EXPECT_EQ(rangeText([&] { agg->xactStatusDirIs(nullptr); }),
            "null _xactStatusDir parameter to mutator for Vell::XactAggregatorSm::xactStatusDir not allowed\"");
  EXPECT_EQ(rangeText([&] { Quor::makeEntity<TestExecutor>("e", nullptr, nullptr, 1.0); }),
            "null _xactStatusDir parameter to mutator for Vell::XactExecutorSm::xactStatusDir not allowed\"");
  auto dir = Vell::xactStatusDirFactory("d");
  EXPECT_EQ(rangeText([&] { Quor::makeEntity<TestExecutor>("e", dir, nullptr, -1.0); }),
            "XactExecutorSm::backlogQuantum < 0 or > 3600 not allowed");

  auto xd = Vell::xactDirFactory("xd");
  EXPECT_EQ(xd->xactIs(42), xd->xactIs(42));
  EXPECT_EQ(xd->xactIs(42)->name(), "42");

  // Unchanged values notify nobody.
  struct Count : Xact::NotifieeConst {
    int n = 0;
    void onResult() override { ++n; }
    void onComment(Quor::String8 const&) override { ++n; }
  };
  Ptr<Count> c = new Count;
  c->notifierIs(x);
  x->resultIs(Vell::xactInProgress);
  x->commentIs("a", "b");
  x->commentIs("a", "b");
  x->commentDel("zz");
  EXPECT_EQ(c->n, 1);
  dir = nullptr;
}

// ---- end to end ------------------------------------------------------------------------------

TEST_F(XactTest, SuccessFailureAndCommentsUnderTheDirectoryName) {
  auto& a = addExecutor("a");
  auto& b = addExecutor("b", true);
  a.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactSuccess, "ok"); };
  auto x1 = start(1);
  EXPECT_TRUE(agg->inProgressXact(1));  // b answers on the next turn
  loop->runOnce();
  EXPECT_EQ(x1->result(), Vell::xactSuccess);
  EXPECT_EQ(x1->statusVersion(), x1->configVersion());
  EXPECT_EQ(comments(*x1), (std::map<std::string, std::string>{{"a", "ok"}}));

  b.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactFailure, "no route"); };
  auto x2 = start(2);
  loop->runOnce();
  EXPECT_EQ(x2->result(), Vell::xactFailure);
  EXPECT_EQ(comments(*x2), (std::map<std::string, std::string>{{"a", "ok"}, {"b", "no route"}}));
  EXPECT_EQ(agg->inProgressXacts(), 0u);
}

TEST_F(XactTest, SilentExecutorTimesOutBetweenTimeoutAndOnePollLater) {
  addExecutor("talks");
  auto& quiet = addExecutor("quiet");
  quiet.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactInProgress, ""); };
  agg->timeoutIs(10);
  agg->pollingIntervalIs(1);
  vt.advance(0.25);  // admission off the poll's grid
  auto x = start(1);
  Quor::Seconds const admitted = Quor::now();
  Quor::Seconds failedAt = 0;
  struct OnResult : Xact::NotifieeConst {
    std::function<void()> f;
    void onResult() override { f(); }
  };
  Ptr<OnResult> r = new OnResult;
  r->f = [&] { failedAt = Quor::now(); };
  r->notifierIs(x);
  loop->runUntil(admitted + 20);
  EXPECT_EQ(x->result(), Vell::xactFailure);
  EXPECT_GE(failedAt - admitted, 10.0);
  EXPECT_LE(failedAt - admitted, 11.0);
  EXPECT_EQ(comments(*x), (std::map<std::string, std::string>{{"quiet", "Timeout"}}));
  EXPECT_EQ(agg->clockTimeMin(), Quor::endOfTime);  // nothing in progress: the poll stops
}

TEST_F(XactTest, StaleStatusIsIgnoredAndStopWithdrawsConfigsAndStatuses) {
  auto& a = addExecutor("a");
  auto& b = addExecutor("b");
  b.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactInProgress, ""); };
  auto x = start(1);
  // b "answers" the previous attempt: a failure that must count as no answer.
  b.statuses->xactStatusIs(XactStatus(1, Vell::xactFailure, "old", x->configVersion() - 1));
  EXPECT_TRUE(agg->inProgressXact(1));
  b.statuses->xactStatusIs(XactStatus(1, Vell::xactSuccess, "", x->configVersion()));
  EXPECT_EQ(x->result(), Vell::xactSuccess);

  auto y = start(2);
  EXPECT_EQ(a.statuses->xactStatus(2).statusVersion(), y->configVersion());
  agg->doStopXact(2);
  EXPECT_FALSE(agg->inProgressXact(2));
  EXPECT_EQ(a.configs->xactConfig(2), XactConfig());
  EXPECT_EQ(a.statuses->xactStatus(2), XactStatus());  // the executor dropped its answer
  EXPECT_EQ(y->result(), Vell::xactInProgress);         // the Xact itself is left as it was
  agg->doStopXact(99);                                  // unknown: harmless
}

// ---- admission and blocking ------------------------------------------------------------------

TEST_F(XactTest, LimitAdmitsPendingInTheSameTurnAndChainsReleaseInOrder) {
  auto& a = addExecutor("a");
  std::set<U32> silent = {1, 2};
  a.exec->answer = [&](XactConfig const& c) {
    return silent.count(c.id()) ? ExecResult(Vell::xactInProgress, "") : ExecResult(Vell::xactSuccess, "");
  };
  agg->maxAllowedInProgressXactsIs(2);
  auto x1 = start(1), x2 = start(2), x3 = start(3);
  EXPECT_TRUE(agg->pendingXact(3));
  silent.clear();
  a.statuses->xactStatusIs(XactStatus(1, Vell::xactSuccess, "", x1->configVersion()));
  EXPECT_EQ(x3->result(), Vell::xactSuccess);  // admitted and decided within the same call
  EXPECT_EQ(agg->pendingXacts(), 0u);

  // C waits for B, B for A; A fails first: B stays blocked until A succeeds.
  std::vector<U32> order;
  bool failA = true;
  a.exec->answer = [&](XactConfig const& c) {
    order.push_back(c.id());
    if (c.id() == 10 && failA) return ExecResult(Vell::xactFailure, "not yet");
    return ExecResult(Vell::xactInProgress, "");
  };
  auto A = start(10), B = start(11, {A}), C = start(12, {B});
  EXPECT_EQ(A->result(), Vell::xactFailure);
  EXPECT_TRUE(agg->blockedXact(11) && agg->blockedXact(12));
  EXPECT_EQ(B->configVersion(), 0u);
  failA = false;
  agg->doStartXact(A);  // silent now: answered by hand below
  a.statuses->xactStatusIs(XactStatus(10, Vell::xactSuccess, "", A->configVersion()));
  EXPECT_TRUE(agg->inProgressXact(11));
  EXPECT_TRUE(agg->blockedXact(12));
  a.statuses->xactStatusIs(XactStatus(11, Vell::xactSuccess, "", B->configVersion()));
  EXPECT_TRUE(agg->inProgressXact(12));
  EXPECT_EQ(order, (std::vector<U32>{10, 10, 11, 12}));
  EXPECT_TRUE(B->blockingXact().empty());  // released for good

  // doStopXact of blocked and pending entries.
  agg->maxAllowedInProgressXactsIs(1);
  auto p = start(20);
  auto q = start(21, {p});
  EXPECT_TRUE(agg->pendingXact(20) && agg->blockedXact(21));
  agg->doStopXact(20);
  agg->doStopXact(21);
  EXPECT_FALSE(agg->pendingXact(20) || agg->blockedXact(21));
  agg->doStopXact(12);
}

TEST_F(XactTest, NoDirectoryMeansSuccessAtOnceAndDirectoriesMayComeAndGo) {
  auto x = start(1);
  EXPECT_EQ(std::tuple(x->result(), x->configVersion(), x->statusVersion()), std::tuple(Vell::xactSuccess, 1u, 1u));
  auto& a = addExecutor("a");
  auto& b = addExecutor("b");
  b.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactInProgress, ""); };
  auto y = start(2);
  EXPECT_TRUE(agg->inProgressXact(2));
  agg->xactStatusDirDel("b");  // only b was missing
  EXPECT_EQ(y->result(), Vell::xactSuccess);
  a.exec->answer = [](XactConfig const&) { return ExecResult(Vell::xactInProgress, ""); };
  auto z = start(3);                 // only a must answer...
  agg->xactStatusDirIs(b.statuses);  // ...and now b too
  a.statuses->xactStatusIs(XactStatus(3, Vell::xactSuccess, "", z->configVersion()));
  EXPECT_TRUE(agg->inProgressXact(3));
  b.statuses->xactStatusIs(XactStatus(3, Vell::xactSuccess, "late", z->configVersion()));
  EXPECT_EQ(z->result(), Vell::xactSuccess);
  EXPECT_EQ(comments(*z), (std::map<std::string, std::string>{{"b", "late"}}));
  auto w = start(4);
  agg->xactStatusDirDel("a");
  agg->xactStatusDirDel("b");
  EXPECT_EQ(w->result(), Vell::xactSuccess);  // no directory left to answer
  EXPECT_TRUE(w->comment().empty());
}

// ---- the executor's slices ---------------------------------------------------------------------

TEST_F(XactTest, ExecutorCoalescesSlicesAtABookmarkAndWithdrawsAtOnce) {
  auto& e = addExecutor("e", true, 0.0);  // quantum 0: one entry per dispatch
  for (U32 id = 1; id <= 4; ++id) e.configs->xactConfigIs(XactConfig(id, 1));
  for (U32 v = 2; v <= 5; ++v) e.configs->xactConfigIs(XactConfig(2, v));  // coalesced
  EXPECT_EQ(e.exec->updatesSeen(), 8u);
  EXPECT_EQ(e.exec->backlogs(), 4u);
  loop->runOnce();
  EXPECT_EQ(e.exec->executed.size(), 1u);
  EXPECT_EQ(e.exec->yieldBeforeFinishingCount(), 1u);
  EXPECT_TRUE(e.exec->backlog(e.exec->bookmark()));  // the next dispatch starts there
  U32 const next = e.exec->bookmark();
  U32 withdrawn = 1;
  while (withdrawn == next || !e.exec->backlog(withdrawn)) ++withdrawn;
  e.configs->xactConfigDel(withdrawn);  // withdrawn at once, not in a dispatch
  EXPECT_FALSE(e.exec->backlog(withdrawn));
  loop->runOnce();
  EXPECT_EQ(e.exec->executed.back().id(), next);
  loop->runUntil(Quor::now() + 1);
  EXPECT_EQ(e.exec->backlogs(), 0u);
  EXPECT_EQ(e.exec->updatesProcessed(), 3u);
  EXPECT_EQ(e.exec->dispatchCount(), 3u);
  EXPECT_EQ(e.exec->yieldBeforeFinishingCount(), 2u);
  for (auto const& c : e.exec->executed) {
    if (c.id() == 2) {
      EXPECT_EQ(c.configVersion(), 5u);  // only the latest configuration
    }
  }

  // A big quantum empties the backlog in one dispatch.
  e.exec->backlogQuantumIs(10);
  for (U32 id = 10; id < 20; ++id) e.configs->xactConfigIs(XactConfig(id, 1));
  loop->runOnce();
  EXPECT_EQ(e.exec->backlogs(), 0u);
  EXPECT_EQ(e.exec->dispatchCount(), 4u);
}

// An exception escaping doExecute leaves the loop; the entry stays queued, and the
// coordinator, the other executors and the loop carry on.
TEST_F(XactTest, ExceptionFromDoExecuteLeavesEverythingConsistent) {
  auto& bad = addExecutor("bad", true);
  auto& good = addExecutor("good", true);
  bool boom = true;
  bad.exec->answer = [&](XactConfig const&) -> ExecResult {
    if (boom) throw std::runtime_error("executor bug");
    return ExecResult(Vell::xactSuccess, "");
  };
  auto x = start(1);
  bool threw = false;
  for (int i = 0; i < 3; ++i) {
    try {
      loop->runOnce();
    } catch (std::runtime_error const&) {
      threw = true;
    }
  }
  EXPECT_TRUE(threw);
  EXPECT_TRUE(bad.exec->backlog(1));
  EXPECT_EQ(good.statuses->xactStatus(1).result(), Vell::xactSuccess);
  EXPECT_TRUE(agg->inProgressXact(1));
  boom = false;
  bad.exec->clockIs(nullptr);
  bad.exec->clockIs(clock);  // work left behind resumes
  loop->runUntil(Quor::now() + 1);
  EXPECT_EQ(x->result(), Vell::xactSuccess);
}

TEST(XactDeathTest, CoordinatorWithoutAClockSaysSo) {
  EXPECT_DEATH(
      {
        auto agg = Vell::xactAggregatorSmFactory("noclock", nullptr);
        agg->xactConfigDirIs(Vell::xactConfigDirFactory("c"));
        agg->xactStatusDirIs(Vell::xactStatusDirFactory("s"));
        agg->doStartXact(Vell::xactFactory("1", 1));
      },
      "a coordinator without a clock cannot time out what it admits");
}

// ---- the randomized scenario -----------------------------------------------------------------

// Many transactions with random dependencies, executors answering at random times with
// random outcomes, stops and restarts. After every loop turn a walker checks that every
// started transaction is in exactly one holding place (or decided or stopped), that
// records are consistent, and that decided ones agree with the statuses.
TEST_F(XactTest, RandomizedScenario) {
  unsigned const seed = 1;
  VELL_SEEDED(rng, seed);
  auto pick = [&](int n) { return rng.pick(n); };
  for (int k = 0; k < 4; ++k) addExecutor("e" + std::to_string(k), k % 2 == 1, 0.0);
  // Executors answer through a queue of pending answers, released at random turns.
  std::vector<std::pair<int, XactConfig>> owed;
  for (int k = 0; k < 4; ++k) {
    execs[static_cast<std::size_t>(k)].exec->answer = [&, k](XactConfig const& c) {
      if (pick(3) == 0) return ExecResult(pick(8) == 0 ? Vell::xactFailure : Vell::xactSuccess, "now");
      owed.emplace_back(k, c);
      return ExecResult(Vell::xactInProgress, "");
    };
  }
  agg->maxAllowedInProgressXactsIs(5);
  agg->timeoutIs(30);
  std::map<U32, Ptr<Xact>> xs;
  std::set<U32> stopped;
  int sawPending = 0, sawBlocked = 0;
  std::map<Vell::XactResult, int> decided;
  struct Decided : Xact::NotifieeConst {
    std::map<Vell::XactResult, int>* count;
    void onStatusVersion() override { ++(*count)[notifier()->result()]; }
  };
  std::vector<Ptr<Decided>> watchers;
  for (int turn = 0; turn < 1500; ++turn) {
    int const op = pick(10);
    U32 const id = static_cast<U32>(1 + pick(40));
    if (op < 4) {
      bool const busy = agg->inProgressXact(id) || agg->pendingXact(id) || agg->blockedXact(id);
      if (!busy) {  // restarting a held transaction is a documented special case: not here
        auto& x = xs[id];
        if (!x) {
          x = Vell::xactFactory(std::to_string(id), id);
          watchers.push_back(new Decided);
          watchers.back()->count = &decided;
          watchers.back()->notifierIs(x);
        }
        if (pick(3) == 0 && !xs.empty()) {
          auto other = xs.begin();
          std::advance(other, pick(static_cast<int>(xs.size())));
          if (other->first < id) x->blockingXactIs(other->second);  // no cycles
        }
        stopped.erase(id);
        agg->doStartXact(x);
      }
    } else if (op < 5) {
      agg->doStopXact(id);
      if (xs.count(id)) stopped.insert(id);
    } else {
      for (int n = 0; n < 3 && !owed.empty(); ++n) {
        std::size_t const i = static_cast<std::size_t>(pick(static_cast<int>(owed.size())));
        auto const [k, c] = owed[i];
        owed.erase(owed.begin() + static_cast<long>(i));
        auto& e = execs[static_cast<std::size_t>(k)];
        if (e.configs->xactConfig(c.id()) == c)  // still the configuration of the day
          e.statuses->xactStatusIs(
              XactStatus(c.id(), pick(6) == 0 ? Vell::xactFailure : Vell::xactSuccess, "late", c.configVersion()));
      }
    }
    if (pick(5) == 0) vt.advance(pick(10));
    loop->runOnce();

    // The walker.
    sawPending += agg->pendingXacts() > 0;
    sawBlocked += agg->blockedXacts() > 0;
    std::vector<U32> const ip = agg->inProgressIds();
    ASSERT_LE(ip.size(), 5u);
    for (auto const& [xid, x] : xs) {
      int const places = agg->inProgressXact(xid) + agg->pendingXact(xid) + agg->blockedXact(xid);
      ASSERT_LE(places, 1) << "transaction " << xid << " in two places, turn " << turn;
      ASSERT_LE(x->statusVersion(), x->configVersion());
      if (agg->inProgressXact(xid)) {
        ASSERT_EQ(x->result(), Vell::xactInProgress);
        // Open only while no current failure and some directory has not answered.
        bool failed = false, all = true;
        for (auto const& e : execs) {
          XactStatus const s = e.statuses->xactStatus(xid);
          bool const current = s != XactStatus() && s.statusVersion() == x->configVersion();
          failed |= current && s.result() == Vell::xactFailure;
          all &= current;
        }
        ASSERT_FALSE(failed || all) << "transaction " << xid << " should have been decided, turn " << turn;
      } else if (places == 0 && !stopped.count(xid) && x->configVersion() != 0) {
        ASSERT_EQ(x->statusVersion(), x->configVersion()) << "transaction " << xid << " lost, turn " << turn;
        ASSERT_NE(x->result(), Vell::xactInProgress);
      }
      if (agg->blockedXact(xid)) {
        bool blocked = false;
        for (auto const& [bid, b] : x->blockingXact())
          blocked |= b->configVersion() != b->statusVersion() || b->result() != Vell::xactSuccess;
        ASSERT_TRUE(blocked) << "transaction " << xid << " blocked by nothing, turn " << turn;
      }
    }
  }
  for (auto const& [xid, x] : xs) agg->doStopXact(xid);
  EXPECT_EQ(agg->inProgressXacts() + agg->pendingXacts() + agg->blockedXacts(), 0u);
  // The mix reached every path: limits, chains, successes, failures.
  EXPECT_GT(sawPending, 20);
  EXPECT_GT(sawBlocked, 20);
  EXPECT_GT(decided[Vell::xactSuccess], 100);
  EXPECT_GT(decided[Vell::xactFailure], 20) << decided[Vell::xactSuccess];
  watchers.clear();
}

}  // namespace
