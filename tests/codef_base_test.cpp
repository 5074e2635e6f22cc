#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/CodefBase.h>

#include "../examples/KeyedBacklog.h"

namespace {

using Vell::U64;
using Backlog = VellExample::KeyedBacklog<int, int>;

// Costs and quanta are binary fractions so that virtual time adds up exactly.
constexpr Quor::Seconds tick = 1.0 / 512;

class CodefBaseTest : public ::testing::Test {
 protected:
  Quor::VirtualTime vt{1000.0};
  Quor::Ptr<Quor::Clock> clock = Quor::clockFactory("codefTest");
  Quor::Ptr<Quor::ActivitySm> loop = Quor::quorActivitySmFor(Quor::defaultActivityConfig());
  std::vector<std::pair<int, int>> calls;  // (key, value) in handler order

  // Every handled entry costs `cost` of virtual time.
  Quor::Ptr<Backlog> makeBacklog(Quor::Seconds quantum, Quor::Seconds cost) {
    return VellExample::keyedBacklogFactory<int, int>(clock, quantum, [this, cost](int const& k, int const& v) {
      calls.emplace_back(k, v);
      Quor::sleep(cost);
    });
  }

  // What must hold between any two steps.
  static void checkInvariants(Backlog& b) {
    ASSERT_EQ(b.updatesSeen(), b.updatesProcessed() + b.backlogSize() + b.updatesCoalesced());
    ASSERT_EQ(b.warm(), b.backlogSize() == 0);
    ASSERT_LE(b.yieldBeforeFinishingCount(), b.dispatchCount());
    // Armed exactly while work waits: at 0, so it runs on the next turn.
    ASSERT_EQ(b.clock()->timeMin(), b.backlogSize() ? 0.0 : Quor::endOfTime);
  }
};

TEST_F(CodefBaseTest, TenUpdatesToOneKeyAreHandledOnce) {
  auto b = makeBacklog(0.01, 0);
  for (int i = 0; i < 10; ++i) b->updateIs(7, i);
  EXPECT_EQ(b->updatesSeen(), 10u);
  EXPECT_EQ(b->backlogSize(), 1u);
  EXPECT_EQ(b->updatesCoalesced(), 9u);
  EXPECT_FALSE(b->warm());
  EXPECT_EQ(*b->pendingValue(7), 9);
  checkInvariants(*b);

  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(calls, (std::vector<std::pair<int, int>>{{7, 9}}));
  EXPECT_TRUE(b->warm());
  EXPECT_EQ(b->updatesProcessed(), 1u);
  EXPECT_EQ(b->updatesCoalesced(), 9u);
  // A slice that empties the backlog counts, yields nothing, and leaves the reactor idle.
  EXPECT_EQ(b->dispatchCount(), 1u);
  EXPECT_EQ(b->yieldBeforeFinishingCount(), 0u);
  EXPECT_EQ(b->clock()->timeMin(), Quor::endOfTime);
  EXPECT_FALSE(loop->runOnce());
  checkInvariants(*b);
}

TEST_F(CodefBaseTest, SlicesYieldAndRearmAtZero) {
  // A reactor that becomes ready during a slice runs before the next slice.
  struct Probe : Quor::Clock::NotifieeConst {
    std::vector<std::pair<int, int>>* calls;
    void onTime() override { calls->emplace_back(-1, -1); }
  };
  Quor::Ptr<Probe> probe = new Probe;
  probe->calls = &calls;
  probe->notifierIs(clock);
  // Quantum of two entries' cost: slices of 2, 2, 1.
  auto b = VellExample::keyedBacklogFactory<int, int>(clock, 2 * tick, [&](int const& k, int const& v) {
    calls.emplace_back(k, v);
    Quor::sleep(tick);
    probe->timeMinIs(0.0);
  });
  for (int k = 0; k < 5; ++k) b->updateIs(k, k);

  std::vector<U64> sizes;
  while (!b->warm()) {
    ASSERT_TRUE(loop->runOnce());
    sizes.push_back(b->backlogSize());
    checkInvariants(*b);
  }
  EXPECT_EQ(sizes, (std::vector<U64>{3, 1, 0}));
  EXPECT_EQ(calls, (std::vector<std::pair<int, int>>{{0, 0}, {1, 1}, {-1, -1}, {2, 2}, {3, 3}, {-1, -1}, {4, 4}}));
  EXPECT_EQ(b->dispatchCount(), 3u);
  EXPECT_EQ(b->yieldBeforeFinishingCount(), 2u);
  EXPECT_EQ(b->updatesProcessed(), 5u);
  EXPECT_EQ(b->timeUsed(), 5 * tick);
}

// Reference model of the keyed backlog: entries in first-arrival order, latest value
// wins, slices cut by the same quantum rule.
struct Model {
  std::deque<int> order;
  std::map<int, int> value;
  U64 seen = 0, processed = 0, dispatches = 0, yields = 0;
  std::vector<std::pair<int, int>> calls;

  void update(int k, int v) {
    ++seen;
    if (!value.count(k)) order.push_back(k);
    value[k] = v;
  }
  void slice(Quor::Seconds quantum, Quor::Seconds (*cost)(int)) {
    if (order.empty()) return;
    Quor::Seconds used = 0;
    U64 handled = 0;
    while (!order.empty() && !(handled > 0 && used >= quantum)) {
      int const k = order.front();
      order.pop_front();
      int const v = value[k];
      value.erase(k);
      calls.emplace_back(k, v);
      used += cost(v);
      ++handled;
    }
    processed += handled;
    ++dispatches;
    if (!order.empty()) ++yields;
  }
};

Quor::Seconds costOf(int v) { return (v % 4) * tick; }

TEST_F(CodefBaseTest, RandomizedAgainstModel) {
  // Quantum 0 included: one entry per slice.
  for (unsigned seed : {0u, 1u, 2u, 3u, 4u, 5u, 6u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    Quor::Seconds const quantum = seed * tick;
    calls.clear();
    auto b = VellExample::keyedBacklogFactory<int, int>(clock, quantum, [this](int const& k, int const& v) {
      calls.emplace_back(k, v);
      Quor::sleep(costOf(v));
    });
    Model m;
    for (int step = 0; step < 2000; ++step) {
      if (rng() % 3 != 0) {
        int const k = static_cast<int>(rng() % 12), v = static_cast<int>(rng() % 1000);
        b->updateIs(k, v);
        m.update(k, v);
      } else {
        loop->runOnce();
        m.slice(quantum, costOf);
      }
      ASSERT_EQ(b->backlogSize(), m.order.size());
      ASSERT_EQ(b->updatesSeen(), m.seen);
      ASSERT_EQ(b->updatesProcessed(), m.processed);
      ASSERT_EQ(b->dispatchCount(), m.dispatches);
      ASSERT_EQ(b->yieldBeforeFinishingCount(), m.yields);
      checkInvariants(*b);
    }
    EXPECT_EQ(calls, m.calls);
  }
}

TEST_F(CodefBaseTest, HandlerMayUpdateDropOrDetach) {
  Quor::Ptr<Backlog> b;
  std::vector<int> seen;
  b = VellExample::keyedBacklogFactory<int, int>(clock, 1.0, [&](int const& k, int const& v) {
    seen.push_back(k * 100 + v);
    if (v == 1) b->updateIs(k, 2);  // the key being handled: queued afresh
    if (v == 3) b->clockDel();      // stops the slices, work left behind
  });
  b->updateIs(1, 1);
  b->updateIs(2, 0);
  loop->runOnce();
  EXPECT_EQ(seen, (std::vector<int>{101, 200, 102}));
  EXPECT_TRUE(b->warm());

  b->updateIs(3, 3);
  b->updateIs(4, 0);
  b->backlogQuantumIs(0);
  loop->runOnce();
  EXPECT_EQ(b->backlogSize(), 1u);
  EXPECT_EQ(b->clock(), nullptr);
  EXPECT_EQ(b->yieldBeforeFinishingCount(), 1u);  // counted, even with no clock to re-arm
  EXPECT_FALSE(loop->runOnce());

  b->clockIs(clock);
  b->updateIs(5, 0);
  loop->runUntil(Quor::now() + 1);
  EXPECT_TRUE(b->warm());

  // The last reference dropped from inside the handler: the slice still ends cleanly.
  std::size_t const armedBefore = loop->armedClockReactors();
  b = VellExample::keyedBacklogFactory<int, int>(clock, 1.0, [&](int const&, int const&) { b = nullptr; });
  b->updateIs(1, 1);
  b->updateIs(2, 2);
  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(loop->armedClockReactors(), armedBefore);
}

TEST_F(CodefBaseTest, DroppedWhileArmedDisarms) {
  std::size_t const armedBefore = loop->armedClockReactors();
  auto b = makeBacklog(1.0, 0);
  b->updateIs(1, 1);
  EXPECT_EQ(loop->armedClockReactors(), armedBefore + 1);
  b = nullptr;
  EXPECT_EQ(loop->armedClockReactors(), armedBefore);
  EXPECT_FALSE(loop->runOnce());
  EXPECT_TRUE(calls.empty());
}

TEST_F(CodefBaseTest, ArmedReactorMovesToANewClock) {
  auto other = Quor::clockFactory("codefOther");
  auto b = makeBacklog(1.0, 0);
  b->updateIs(1, 1);
  b->clockIs(other);
  EXPECT_EQ(b->clock()->notifier(), other);
  EXPECT_EQ(b->clock()->timeMin(), 0.0);
  EXPECT_TRUE(loop->runOnce());
  EXPECT_TRUE(b->warm());
}

TEST_F(CodefBaseTest, HandlerExceptionKeepsTheEntry) {
  bool fail = true;
  Quor::Ptr<Backlog> b;
  b = VellExample::keyedBacklogFactory<int, int>(clock, 1.0, [&](int const& k, int const& v) {
    if (fail && k == 2) {
      if (v == 0) b->updateIs(3, 0);  // arrives during the failing call
      throw std::runtime_error("handler failed");
    }
    calls.emplace_back(k, v);
  });
  b->updateIs(1, 0);
  b->updateIs(2, 0);
  EXPECT_THROW(loop->runOnce(), std::runtime_error);
  EXPECT_EQ(b->backlogSize(), 2u);
  EXPECT_EQ(*b->pendingValue(2), 0);
  fail = false;
  b->doProcessBacklog();
  EXPECT_EQ(calls, (std::vector<std::pair<int, int>>{{1, 0}, {2, 0}, {3, 0}}));
}

TEST_F(CodefBaseTest, BoundsAndNullClock) {
  auto b = makeBacklog(0.5, 0);
  for (double bad : {-0.001, 3600.5, std::nan("")}) {
    try {
      b->backlogQuantumIs(bad);
      ADD_FAILURE() << bad;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), "CodefBase::backlogQuantum < 0 or > 3600 not allowed");
    }
    EXPECT_EQ(b->backlogQuantum(), 0.5);
  }
  char const* nullClock = "null _clock parameter to mutator for Vell::CodefBase::clock not allowed\"";
  try {
    b->clockIs(nullptr);
    ADD_FAILURE();
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), nullClock);
  }
  EXPECT_NE(b->clock(), nullptr);
  try {
    Vell::codefBaseFactory(nullptr);
    ADD_FAILURE();
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), nullClock);
  }
}

// Records the base's calls through the virtual table, with a scripted backlog.
class Scripted : public Vell::CodefBase {
 public:
  explicit Scripted(Quor::Ptr<Quor::Clock const> const& c) : CodefBase(c) {}
  U64 size = 0, handle = 0;
  std::vector<std::string> log;
  U64 backlogSize() override { return size; }
  U64 processBacklog(double const& start) override {
    log.push_back("process@" + std::to_string(start - 1000.0));
    Quor::sleep(0.25);
    size -= handle;
    return handle;
  }
  void updatesProcessedInc(U64 const& n) override {
    log.push_back("processed+" + std::to_string(n));
    CodefBase::updatesProcessedInc(n);
  }
  void timeUsedInc(Quor::Seconds const& d) override {
    log.push_back("time+" + std::to_string(d));
    CodefBase::timeUsedInc(d);
  }
  void dispatchCountInc(U64 const& n) override {
    log.push_back("dispatch+" + std::to_string(n));
    CodefBase::dispatchCountInc(n);
  }
  void yieldBeforeFinishingCountInc(U64 const& n) override {
    log.push_back("yield+" + std::to_string(n));
    CodefBase::yieldBeforeFinishingCountInc(n);
  }
};

TEST_F(CodefBaseTest, SliceStepsGoThroughTheVirtualTable) {
  auto s = Quor::makeEntity<Scripted>(clock);
  s->size = 4;
  s->handle = 2;
  s->doProcessBacklog();
  s->doProcessBacklog();
  EXPECT_EQ(s->log, (std::vector<std::string>{"process@0.000000", "processed+2", "time+0.250000", "dispatch+1",
                                              "yield+1", "process@0.250000", "processed+2", "time+0.250000",
                                              "dispatch+1"}));
  // A subclass that reports more handled than it saw gets no wrapped-around count.
  s->updatesSeenIs(1);
  EXPECT_EQ(s->updatesCoalesced(), 0u);
}

using CodefBaseDeathTest = CodefBaseTest;

TEST_F(CodefBaseDeathTest, UnimplementedOperationsAbort) {
  auto bare = Vell::codefBaseFactory(clock);
  char const* const where = "\nAssertion failed: 0 \\[CodefBase:[0-9]+\\] in static void "
                            "Vell::CodefBase::codefAssert\\(const Quor::String8&\\)";
  std::string const backlogs = std::string("Call to unimplemented function CodefBase::backlogs") + where;
  std::string const process = std::string("Call to unimplemented function CodefBase::doProcessBacklog") + where;
  EXPECT_DEATH(bare->backlogSize(), backlogs);
  EXPECT_DEATH(bare->warm(), backlogs);
  EXPECT_DEATH(bare->updatesCoalesced(), backlogs);
  EXPECT_DEATH(bare->processBacklog(0.0), process);
  EXPECT_DEATH(bare->doProcessBacklog(), process);
  EXPECT_DEATH(Vell::CodefBase::codefAssert("any text"), std::string("^any text") + where);
}

}  // namespace
