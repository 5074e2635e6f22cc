// CodefBase through a keyed backlog under virtual time: coalescing, slices that yield,
// a model of the slice loop, handlers that re-enter or fail, bounds and abort texts.

#include "TestSupport.h"

#include <cmath>
#include <deque>
#include <map>
#include <tuple>

#include <Vell/CodefBase.h>

#include "../examples/KeyedBacklog.h"

namespace {

using VellTest::rangeText;

using Vell::U64;
using Calls = std::vector<std::pair<int, int>>;

// A keyed backlog that also sums what reaches the statistics through the virtual
// table, as a subclass that mirrors them would see it.
class Backlog : public VellExample::KeyedBacklog<int, int> {
 public:
  using KeyedBacklog::KeyedBacklog;
  U64 hooked = 0;
  Quor::Seconds hookedTime = 0;
  void updatesProcessedInc(U64 const& n) override { hooked += n, KeyedBacklog::updatesProcessedInc(n); }
  void dispatchCountInc(U64 const& n) override { hooked += n, KeyedBacklog::dispatchCountInc(n); }
  void yieldBeforeFinishingCountInc(U64 const& n) override { hooked += n, KeyedBacklog::yieldBeforeFinishingCountInc(n); }
  void timeUsedInc(Quor::Seconds const& d) override { hookedTime += d, KeyedBacklog::timeUsedInc(d); }
};

// Costs and quanta are binary fractions so that virtual time adds up exactly.
constexpr Quor::Seconds tick = 1.0 / 512;

class CodefBaseTest : public VellTest::LoopFixture {
 protected:
  Calls calls;  // (key, value) in handler order

  Quor::Ptr<Backlog> make(Quor::Seconds quantum, Backlog::Handler h) {
    return Quor::makeEntity<Backlog>(clock, quantum, std::move(h));
  }
  // Every handled entry is recorded.
  Quor::Ptr<Backlog> recording(Quor::Seconds quantum) {
    return make(quantum, [this](int const& k, int const& v) { calls.emplace_back(k, v); });
  }

  // What must hold between any two steps.
  static void checkInvariants(Backlog& b) {
    ASSERT_EQ(b.updatesSeen(), b.updatesProcessed() + b.backlogSize() + b.updatesCoalesced());
    ASSERT_EQ(b.hooked, b.updatesProcessed() + b.dispatchCount() + b.yieldBeforeFinishingCount());
    ASSERT_EQ(b.hookedTime, b.timeUsed());
    // Armed while work waits: at 0, so it runs on the next turn.
    ASSERT_TRUE(b.backlogSize() == 0 || b.clock()->timeMin() == 0.0) << b.clock()->timeMin();
  }
};

TEST_F(CodefBaseTest, SlicesYieldAndRearmAtZero) {
  // Another reactor that becomes ready during a slice runs before the next slice.
  auto probe = recording(1.0);
  // Quantum of two entries' cost: slices of 2, 2, 1.
  auto b = make(2 * tick, [&](int const& k, int const& v) {
    calls.emplace_back(k, v);
    Quor::sleep(tick);
    probe->updateIs(-1, -1);
  });
  for (int k = 0; k < 5; ++k) b->updateIs(k, k);
  while (!b->warm()) {
    ASSERT_TRUE(loop->runOnce());
    checkInvariants(*b);
  }
  EXPECT_EQ(calls, (Calls{{0, 0}, {1, 1}, {-1, -1}, {2, 2}, {3, 3}, {-1, -1}, {4, 4}}));
  EXPECT_EQ(std::tuple(b->dispatchCount(), b->yieldBeforeFinishingCount(), b->timeUsed()), std::tuple(3u, 2u, 5 * tick));
}

// Reference model of the keyed backlog: entries in first-arrival order, latest value
// wins, slices cut by the same quantum rule. An update from the handler re-arms the
// reactor even when the same slice then handles it, which costs one empty slice.
struct Model {
  std::deque<int> order;
  std::map<int, int> value;
  U64 seen = 0, processed = 0, dispatches = 0, yields = 0;
  Quor::Seconds time = 0;
  bool armed = false;
  Calls calls;

  void update(int k, int v) {
    ++seen;
    armed = true;
    if (!value.count(k)) order.push_back(k);
    value[k] = v;
  }
  void slice(Quor::Seconds quantum, Quor::Seconds (*cost)(int)) {
    if (!armed) return;
    armed = false;  // the loop disarms before the slice; an update in it re-arms
    Quor::Seconds used = 0;
    U64 handled = 0;
    for (; !order.empty() && !(handled > 0 && used >= quantum); ++handled) {
      int const k = order.front(), v = value[k];
      order.pop_front();
      value.erase(k);
      calls.emplace_back(k, v);
      used += cost(v);
      if (v % 7 == 0) update(k, v + 1);
    }
    processed += handled;
    time += used;
    ++dispatches;
    if (!order.empty()) ++yields, armed = true;
  }
};

Quor::Seconds costOf(int v) { return (v % 4) * tick; }

TEST_F(CodefBaseTest, RandomizedAgainstModel) {
  auto other = Quor::clockFactory("codefOther");
  // Quantum 0 included: one entry per slice.
  for (unsigned seed = 0; seed < 7; ++seed) {
    VELL_SEEDED(rng, seed);
    Quor::Seconds const quantum = seed * tick;
    calls.clear();
    // The handler updates some keys as it handles them: each is queued afresh.
    Quor::Ptr<Backlog> b = make(quantum, [&](int const& k, int const& v) {
      calls.emplace_back(k, v);
      Quor::sleep(costOf(v));
      if (v % 7 == 0) b->updateIs(k, v + 1);
    });
    Model m;
    for (int step = 0; step < 2000; ++step) {
      if (unsigned const op = rng() % 16; op < 10) {
        int const k = static_cast<int>(rng() % 12), v = static_cast<int>(rng() % 1000);
        b->updateIs(k, v);
        m.update(k, v);
      } else if (op == 10) {
        b->clockIs(rng() % 2 ? other : clock);  // an armed reactor stays armed
      } else {
        loop->runOnce();
        m.slice(quantum, costOf);
      }
      ASSERT_EQ(std::make_tuple(b->backlogSize(), b->updatesSeen(), b->updatesProcessed(), b->dispatchCount(),
                                b->yieldBeforeFinishingCount(), b->timeUsed()),
                std::make_tuple(U64(m.order.size()), m.seen, m.processed, m.dispatches, m.yields, m.time));
      ASSERT_EQ(b->clock()->timeMin(), m.armed ? 0.0 : Quor::endOfTime);
      checkInvariants(*b);
    }
    EXPECT_EQ(calls, m.calls);
  }
  // A subclass that reports more handled than it saw gets no wrapped-around count.
  auto b = recording(0);
  b->updateIs(1, 1);
  b->updatesSeenIs(0);
  EXPECT_EQ(b->updatesCoalesced(), 0u);
}

// The handler detaches the reactor or drops the last reference; a dropped backlog
// disarms (TearDown finds nothing armed).
TEST_F(CodefBaseTest, DetachedOrDroppedBacklogs) {
  Quor::Ptr<Backlog> b = make(0, [&](int const& k, int const& v) {
    calls.emplace_back(k, v);
    b->clockDel();  // stops the slices, work left behind
  });
  b->updateIs(3, 0);
  b->updateIs(4, 0);
  loop->runOnce();
  EXPECT_EQ(b->backlogSize(), 1u);
  EXPECT_EQ(b->yieldBeforeFinishingCount(), 1u);  // counted, even with no clock to re-arm
  EXPECT_FALSE(loop->runOnce());
  b->clockIs(clock);
  EXPECT_EQ(b->clock()->timeMin(), 0.0);  // the work left behind resumes with the new clock
  b->clockDel();  // detached while armed, outside a slice: the next clock resumes too
  b->clockIs(clock);
  EXPECT_EQ(b->clock()->timeMin(), 0.0);
  b->updateIs(5, 0);
  auto const reactor = b->clock();  // someone else holds the reactor
  EXPECT_EQ(loop->armedClockReactors(), 1u);
  b = nullptr;  // dropped while armed: the reactor never fires
  EXPECT_FALSE(loop->runOnce());
  EXPECT_EQ(calls, (Calls{{3, 0}}));
  b = make(1.0, [&](int const&, int const&) { b = nullptr; });
  b->updateIs(1, 1);
  b->updateIs(2, 2);
  EXPECT_TRUE(loop->runOnce());  // the slice ends cleanly without its entity
  EXPECT_EQ(b, nullptr);
}

// The failed entry goes back to the front; what arrived during the call stays behind it.
TEST_F(CodefBaseTest, HandlerExceptionKeepsTheEntry) {
  bool fail = true;
  Quor::Ptr<Backlog> b = make(1.0, [&](int const& k, int const& v) {
    if (fail && k == 2) { b->updateIs(3, 0); throw std::runtime_error("handler failed"); }
    calls.emplace_back(k, v);
  });
  b->updateIs(1, 0);
  b->updateIs(2, 0);
  EXPECT_THROW(loop->runOnce(), std::runtime_error);
  EXPECT_EQ(b->backlogSize(), 2u);
  fail = false;
  b->doProcessBacklog();
  EXPECT_EQ(calls, (Calls{{1, 0}, {2, 0}, {3, 0}}));
}

TEST_F(CodefBaseTest, BoundsAndNullClock) {
  auto b = recording(0.5);
  for (double bad : {-0.001, 3600.5, std::nan("")})
    EXPECT_EQ(rangeText([&] { b->backlogQuantumIs(bad); }), "CodefBase::backlogQuantum < 0 or > 3600 not allowed");
  EXPECT_EQ(b->backlogQuantum(), 0.5);  // unchanged by any of them
  std::string const nullClock = "null _clock parameter to mutator for Vell::CodefBase::clock not allowed\"";
  EXPECT_EQ(rangeText([&] { b->clockIs(nullptr); }), nullClock);
  EXPECT_NE(b->clock(), nullptr);
  EXPECT_EQ(rangeText([] { Vell::codefBaseFactory(nullptr); }), nullClock);
}

using CodefBaseDeathTest = CodefBaseTest;

TEST_F(CodefBaseDeathTest, UnimplementedOperationsAbort) {
  auto bare = Vell::codefBaseFactory(clock);
  std::string const where = "\nAssertion failed: 0 \\[[A-Za-z_]+:[0-9]+\\] in static void "
                            "Vell::CodefBase::codefAssert\\(const Quor::String8 ?&\\)";  // compilers space the & apart
  std::string const unimplemented = "Call to unimplemented function CodefBase::";
  EXPECT_DEATH(bare->backlogSize(), unimplemented + "backlogs" + where);
  EXPECT_DEATH(bare->doProcessBacklog(), unimplemented + "doProcessBacklog" + where);
  EXPECT_DEATH(Vell::CodefBase::codefAssert("any text"), "^any text" + where);
}

}  // namespace
