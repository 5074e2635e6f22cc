// Timer wheel tests, all under virtual time: a randomized differential test against a
// model of armed deadlines, with an invariant walker after every step (it also checks
// the wake-up at the ghost index when only later buckets hold timers), and directed
// tests for what the model cannot see (construction, placement, rest and restart, the
// processTimeLimit yield, firing order, lifetime).
#include <Vell/HTimerWheel.h>

#include "TestSupport.h"

#include <malloc.h>

#include <cmath>
#include <functional>
#include <set>
#include <sstream>

namespace {

using VellTest::rangeText;

using Quor::Ptr;
using Quor::Seconds;
using Vell::TimerWheel;
using Vell::U32;
using Timer = TimerWheel::NotifieeConst;

constexpr Seconds start = 1000.0;
constexpr U32 invalid = TimerWheel::InvalidWheelIndex;

struct TestTimer : Timer {
  static inline int live = 0;  // the leak check
  TestTimer() { ++live; }
  ~TestTimer() override { --live; }
  void onTime() override {
    firedAt.push_back(Quor::now());
    if (action) action(*this);
  }
  int fired() const { return int(firedAt.size()); }
  std::vector<Seconds> firedAt;
  std::function<void(TestTimer&)> action;
};

// What must hold between any two steps: slot lists linked both ways, members marked with
// their own slot, occupancy bits and counts in agreement, exactly the expected timers,
// and the clock armed at the first used slot of bucket 0 (or at the wrap) while running;
// at rest, no clock and no current slot.
std::string wheelErrors(TimerWheel const& tw, std::set<Timer const*> const& expected) {
  std::ostringstream e;
  std::set<Timer const*> seen;
  U32 total = 0, nonEmpty = 0, firstUsed = invalid;
  bool const atRest = tw.scheduledWheelIndex() == invalid;
  for (U32 b = 0; b < tw.bucketCount(); ++b) {
    U32 const cur = tw.currentWheelIndex(b);
    if (atRest && cur != invalid) e << "bucket " << b << " has a current slot at rest; ";
    U32 count = 0;
    for (U32 i = 0; i < tw.bucketSize(b).value(); ++i) {
      Timer const* prev = nullptr;
      for (Timer const* n = tw.slotHead(b, i); n; prev = n, n = n->next()) {
        if (n->prev() != prev || n->bucketIndex() != b || n->wheelIndex() != i) e << "bad links/marks; ";
        if (!seen.insert(n).second) return e.str() + "a timer linked twice";
        ++count;
      }
      if (tw.slotTail(b, i) != prev || tw.slotOccupied(b, i) != (prev != nullptr))
        e << "tail or occupancy of (" << b << "," << i << ") wrong; ";
      if (prev && !atRest && ((b == 0 && i < cur) || (b > 0 && i == cur))) e << "timer in a passed slot; ";
      if (prev && b == 0 && i >= cur && firstUsed == invalid) firstUsed = i;
    }
    if (count != tw.timer(b)) e << "timer(" << b << ") disagrees; ";
    total += count;
    nonEmpty += count != 0;
  }
  if (total != tw.timers() || nonEmpty != tw.remainingNonEmptyBuckets()) e << "counts disagree; ";
  if (seen != expected) e << "holds " << seen.size() << " timers, expected " << expected.size() << "; ";
  if (atRest) {
    if (tw.timers() || tw.systemClockTimeMin() != Quor::endOfTime || tw.currentWheelIndexTime() != Quor::endOfTime)
      e << "not at rest; ";
  } else {
    U32 const want = firstUsed == invalid ? tw.ghostTimerIndex() : firstUsed;
    if (tw.timers() == 0 || tw.scheduledWheelIndex() != want) e << "scheduled slot is not the first used; ";
    Seconds const t = tw.currentWheelIndexTime() +
                      double(tw.scheduledWheelIndex() - tw.currentWheelIndex(0)) * tw.tickMsecs() / 1000.0;
    if (!(std::fabs(tw.systemClockTimeMin() - t) < 1e-6)) e << "clock not armed at the scheduled slot; ";
  }
  return e.str();
}

class TimerWheelTest : public VellTest::LoopFixture {
 protected:
  void TearDown() override {
    timers.clear();
    wheel = nullptr;
    EXPECT_EQ(TestTimer::live, 0);
    LoopFixture::TearDown();  // the wheel's clock reactor went with it
  }
  Ptr<TimerWheel> make(U32 tick, U32 maxTicks, bool preserveOrder, U32 size) {
    timers.clear();
    return wheel = Vell::timerWheelFactory(activity, clock, tick, maxTicks, preserveOrder, size);
  }
  Ptr<TestTimer> arm(Seconds t) {
    Ptr<TestTimer> n = new TestTimer;
    n->notifierIs(wheel);
    n->timeMinIs(t);
    timers.push_back(n);
    return n;
  }
  int firedCount() const {
    int n = 0;
    for (auto const& t : timers) n += t->fired();
    return n;
  }
  void expectSound() {
    std::set<Timer const*> expected;
    for (auto const& t : timers)
      if (t->wheelIndex() != invalid) expected.insert(t.ptr());
    EXPECT_EQ(wheelErrors(*wheel, expected), "");
  }

  Ptr<Quor::ActivityConfig> activity = clock->activity();
  Ptr<Quor::ActivitySm> sm = loop;
  Ptr<TimerWheel> wheel;
  std::vector<Ptr<TestTimer>> timers;
};

// ---- the randomized differential test ----------------------------------------------------------

struct Config {
  U32 tick, maxTicks;
  bool preserveOrder;
  U32 size;
  int steps, maxOffsetMs, maxAdvanceMs, pool;
};

// Drives a wheel and a model that knows, per timer, whether it is armed, its timeMin and
// when it was armed. Each firing must be expected (once per arming), never before its
// timeMin (a past timeMin counts as the arming time; distances are rounded to whole
// milliseconds) and less than one tick after it; later only because the loop was
// blocked, and then no later than the end of the block. Times and steps carry
// microseconds, so the present is almost never on the tick grid.
class Differential {
 public:
  Differential(Ptr<TimerWheel> tw, Config c, unsigned seed) : tw_(std::move(tw)), c_(c), rng_(seed) {
    for (int k = 0; k < c.pool; ++k) pool_.push_back(entry(k));
  }

  void run() {
    auto sm = Quor::quorActivitySmFor(nullptr);
    for (int step = 0; step < c_.steps && !::testing::Test::HasFailure(); ++step) {
      for (int i = pick(1, 12); i > 0; --i) randomOp(false);
      check("after operations", step);
      if (pick(0, 99) < 3) {  // the loop is blocked: the wheel falls behind and must catch up
        Quor::sleep(pick(1, 6 * int(c_.tick * c_.size)) / 1000.0);
        blockEnd_ = Quor::now();
        for (int i = pick(0, 1) * pick(1, 8); i > 0; --i) randomOp(false);
        check("while behind", step);
      }
      sm->runUntil(Quor::now() + pick(0, c_.maxAdvanceMs) / 1000.0 + micros());
      check("after running", step);
    }
    draining_ = true;  // callbacks stop arming: everything armed must fire
    sm->runUntil(Quor::now() + std::max(c_.maxOffsetMs, 4 * int(c_.tick * c_.size)) / 1000.0 + 1.0);
    for (auto const& e : pool_) EXPECT_FALSE(e.armed) << "a timer never fired";
    check("at the end", c_.steps);
    EXPECT_EQ(tw_->scheduledWheelIndex(), invalid);
    EXPECT_GT(firings_, 100);
    pool_.clear();
  }

 private:
  struct Entry {
    Ptr<TestTimer> t;
    bool attached = true, armed = false;
    Seconds timeMin = Quor::endOfTime, armedAt = 0;
  };

  Entry entry(int k) {
    Entry e;
    e.t = new TestTimer;
    e.t->notifierIs(tw_);
    e.t->action = [this, k](TestTimer&) { fired(k); };
    return e;
  }
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  Seconds micros() { return pick(0, 999) / 1e6; }

  void arm(Entry& e, Seconds t) {
    if (t == e.t->timeMin()) return;  // unchanged: a no-op for the wheel too
    e.t->timeMinIs(t);
    e.timeMin = t;
    e.armed = e.attached && t != Quor::endOfTime;
    e.armedAt = Quor::now();
  }

  void randomOp(bool inCallback) {
    Entry& e = pool_[pick(0, int(pool_.size()) - 1)];
    int const r = pick(0, 99);
    Seconds const now = Quor::now();
    if (r < 4) {
      arm(e, 0.0);
    } else if (r < 20) {
      arm(e, Quor::endOfTime);
    } else if (r < 26) {
      arm(e, now - pick(0, 50) / 1000.0 - micros());
    } else if (r < 55) {
      arm(e, now + pick(0, 4 * int(c_.tick * c_.size)) / 1000.0 + micros());
    } else if (r < 80) {
      arm(e, now + pick(0, c_.maxOffsetMs) / 1000.0 + micros());  // often beyond capacity
    } else if (r < 90 && !inCallback) {
      e.t->notifierIs(e.attached ? nullptr : tw_);  // detach, or attach with the kept timeMin
      e.attached = !e.attached;
      e.armed = e.attached && e.timeMin != Quor::endOfTime;
      e.armedAt = now;
    } else {
      e = entry(int(&e - pool_.data()));  // destroyed, armed or even firing: leaves its slot
    }
  }

  void fired(int k) {
    Entry& e = pool_[k];
    Seconds const t = Quor::now(), due = std::max(e.timeMin, e.armedAt), tick = c_.tick / 1000.0;
    if (!e.armed) ADD_FAILURE() << "timer " << k << " fired without being armed";
    if (!(t >= due - 0.0005 - 1e-9 && t < std::max(due, blockEnd_) + tick + 1e-6))
      ADD_FAILURE() << "timer " << k << " due at " << due - start << " fired at " << t - start;
    e.armed = false;
    e.timeMin = Quor::endOfTime;
    ++firings_;
    if (draining_) return;
    int const r = pick(0, 99);  // callbacks arm, cancel, re-arm and destroy, themselves included
    if (r < 35) arm(e, t + pick(-5, 3 * int(c_.tick)) / 1000.0 + micros());
    if (r >= 30 && r < 60) randomOp(true);
  }

  void check(char const* where, int step) {
    std::set<Timer const*> expected;
    for (auto const& e : pool_)
      if (e.armed) expected.insert(e.t.ptr());
    std::string const errors = wheelErrors(*tw_, expected);
    if (!errors.empty()) ADD_FAILURE() << where << ", step " << step << ": " << errors;
  }

  Ptr<TimerWheel> tw_;
  Config c_;
  std::mt19937 rng_;
  std::vector<Entry> pool_;
  long firings_ = 0;
  Seconds blockEnd_ = 0;
  bool draining_ = false;
};

TEST_F(TimerWheelTest, RandomizedAgainstModel) {
  Config const configs[] = {
      // tick, initialMaxTicks, preserveOrder, size, steps, max offset, max advance (ms), timers
      {1, 64, false, 4, 2500, 150, 12, 400},     // buckets 4, 4, 4: much parking beyond 64 ticks
      {10, 2, true, 8, 2500, 1500, 120, 400},    // buckets 8, 8
      {7, 1000, false, 16, 2500, 40000, 400, 400},
      {1, 2, true, 5000, 600, 20000, 2000, 200},  // occupancy bitmap with a partial last word
      {3, 0x10000, false, 0x10000, 200, 500000, 40000, 200},  // the largest bucket
      {1, 64, true, 4, 2000, 150, 40, 4},        // few timers: often at rest, restarted off-grid
      {10, 2, false, 8, 2000, 1500, 300, 3},
  };
  for (unsigned seed : {1u, 2u}) {
    for (Config const& c : configs) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", tick " + std::to_string(c.tick) + ", size " +
                   std::to_string(c.size));
      Differential(make(c.tick, c.maxTicks, c.preserveOrder, c.size), c, seed).run();
      wheel = nullptr;
      if (HasFailure()) return;
    }
  }
}

// ---- construction and placement ----------------------------------------------------------------

TEST_F(TimerWheelTest, BoundsAndTexts) {
  std::string const tick = "TimerWheel::tickMsecs < 1 or > 3600000 not allowed";
  std::string const max = "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed";
  std::string const size = "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed";
  struct {
    U32 tick, maxTicks, size;
    std::string text;
  } const cases[] = {{0, 100, 16, tick}, {3600001, 100, 16, tick}, {1, 2, 2, "no exception"}, {3600000, 100, 0x10000, "no exception"},
                     {10, 1, 16, max},   {10, 100, 1, size},      {10, 100, 0x10001, size},
                     {0, 0, 0, tick},    {10, 0, 0, max}};  // the last two: checked in order
  for (auto const& c : cases)
    EXPECT_EQ(rangeText([&] { Vell::timerWheelFactory(nullptr, nullptr, c.tick, c.maxTicks, false, c.size); }), c.text)
        << c.tick << ", " << c.maxTicks << ", " << c.size;

  auto tw = make(10, 100, false, 16);
  for (double bad : {-0.001, 0.5001, std::nan("")})
    EXPECT_EQ(rangeText([&] { tw->processTimeLimitIs(bad); }), "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed");
  EXPECT_EQ(tw->processTimeLimit(), 0.05);  // the default, unchanged

  // BucketSize parses within its bounds (its round trip is the value types' test).
  EXPECT_THROW(Quor::strepToValue<Vell::BucketSize>("1"), Quor::RangeException);
  Vell::BucketSize v(7);
  EXPECT_EQ(rangeText([&] { v.valueIs(0xffffffff); }), "BucketSize::value < 2 or > 0xfffffffe not allowed");
  EXPECT_EQ(v, Vell::BucketSize(7));  // unchanged
}

TEST_F(TimerWheelTest, BucketCreation) {
  {
    VellTest::TraceCapture trace("TimerWheel", 0);
    auto tw = make(10, 2, false, 256);  // one bucket would do: a second is always added
    EXPECT_EQ(std::pair(tw->bucketCount(), tw->maxTicks()), std::pair(2u, 65536u));
    EXPECT_EQ(trace.texts(), (std::vector<std::string>{" ## Add a new bucket to index 0 of size 256",
                                                     " ## Add a new bucket to index 1 of size 256",
                                                     "TimerWheel::handleInitialized: Total buckets created 2 of 256 each."}));
  }
  auto big = make(1, 0xffffffff, false, 0x10000);  // until the saturated product is reached
  EXPECT_EQ(std::pair(big->bucketCount(), big->maxTicks()), std::pair(2u, 0xffffffffu));
  auto tw = make(10, 1001, false, 10);
  EXPECT_EQ(std::pair(tw->bucketCount(), tw->maxTicks()), std::pair(4u, 10000u));
  EXPECT_THROW(tw->doAddNewBucket(1), Quor::RangeException);
  EXPECT_EQ(std::pair(tw->bucketCount(), tw->maxTicks()), std::pair(4u, 10000u));  // nothing changed
}

TEST_F(TimerWheelTest, Placement) {
  make(10, 1000, false, 256);
  Seconds const now = Quor::now();
  // Milliseconds round to nearest (a half down), then up to whole ticks.
  for (auto [t, slot] : {std::pair{now + 0.0154, 2u}, {now + 0.0206, 3u}, {now + 0.0204, 2u}, {now + 0.0205, 2u},
                         {now + 0.0006, 1u}, {now + 0.0004, 0u}, {now, 0u}, {now - 1.0, 0u}, {0.0, 0u}}) {
    auto n = arm(t);
    EXPECT_EQ(std::pair(n->bucketIndex(), n->wheelIndex()), std::pair(0u, slot)) << t - now;
  }
  make(2, 1000, false, 256);  // an exact half: 62.5 ms counts as 62, so 31 ticks of 2 ms
  EXPECT_EQ(arm(now + 0.0625)->wheelIndex(), 31u);

  VellTest::TraceCapture trace("TimerWheel", 0);
  make(1, 64, false, 4);  // buckets of 4, 4, 4: capacity 64 ticks
  auto at = [&](double ms) {
    auto n = arm(now + ms / 1000.0);
    return std::pair(n->bucketIndex(), n->wheelIndex());
  };
  EXPECT_EQ(at(3), std::pair(0u, 3u));
  EXPECT_EQ(at(4), std::pair(1u, 1u));  // carry 4 div 4
  EXPECT_EQ(at(16), std::pair(2u, 1u));
  EXPECT_EQ(at(63), std::pair(2u, 3u));
  EXPECT_EQ(std::ranges::count(trace.texts(), std::string("Reducing timeout to fit the maximum timer capacity")), 0);
  EXPECT_EQ(at(64), std::pair(2u, 3u));             // beyond capacity: the farthest slot
  EXPECT_EQ(at(4294967301.0), std::pair(2u, 3u));  // 2^32 + 5 ticks: not wrapped to 5
  EXPECT_EQ(at(1e300), std::pair(2u, 3u));
  EXPECT_EQ(std::ranges::count(trace.texts(), std::string("Reducing timeout to fit the maximum timer capacity")), 3);
}

// ---- clock handling --------------------------------------------------------------------------

TEST_F(TimerWheelTest, RestAfterLastTimerAndRestart) {
  VellTest::TraceCapture trace("TimerWheel", 1);
  make(10, 1000, false, 16);
  auto only = arm(start + 0.05);
  only->timeMinIs(Quor::endOfTime);  // the last timer goes: at rest
  EXPECT_EQ(wheel->scheduledWheelIndex(), invalid);
  expectSound();

  vt.advance(1.2345);  // restarts from slot 0 at the present, off the old tick grid
  only->timeMinIs(Quor::now() + 0.05);
  EXPECT_EQ(wheel->currentWheelIndexTime(), start + 1.2345);
  EXPECT_EQ(only->wheelIndex(), 5u);
  // Re-arming for the present from onTime fires on the loop's next turn, not in a loop.
  only->action = [](TestTimer& t) {
    if (t.fired() < 3) t.timeMinIs(Quor::now());
  };
  for (int turn = 1; turn <= 3; ++turn) {
    sm->runOnce(1.0);
    ASSERT_EQ(only->fired(), turn);
    EXPECT_NEAR(only->firedAt.back(), start + 1.2845, 1e-9);
  }
  EXPECT_EQ(wheel->scheduledWheelIndex(), invalid);  // firing the last timer rests it too
  EXPECT_EQ(std::ranges::count(trace.texts(), std::string("Wheel being shut down")), 2);
  expectSound();
}

TEST_F(TimerWheelTest, ProcessTimeLimitYieldsToTheLoop) {
  make(1, 1000, false, 64);
  wheel->processTimeLimitIs(0.01);
  for (int i = 1; i <= 12; ++i) arm(start + i / 1000.0)->action = [](TestTimer&) { Quor::sleep(0.004); };
  vt.advance(0.1);  // everything is due at once; each callback takes 4 ms
  for (int turn = 1; turn <= 4; ++turn) {
    sm->runOnce();
    EXPECT_EQ(firedCount(), 3 * turn);  // three slots fit in 10 ms, then the loop has its turn
    EXPECT_TRUE(turn == 4 || wheel->systemClockTimeMin() < Quor::now());  // armed in the past
    expectSound();
  }
  wheel->processTimeLimitIs(0);  // one slot per turn, even when firing takes no time
  for (int i = 0; i < 3; ++i) {
    timers[i]->action = nullptr;
    timers[i]->timeMinIs(Quor::now() + (i + 1) / 1000.0);
  }
  vt.advance(0.1);
  for (int turn = 1; turn <= 3; ++turn) {
    sm->runOnce();
    EXPECT_EQ(firedCount(), 12 + turn);
  }
}

// Within a slot, timers fire in the order they entered it, or with preserveOrder by
// timeMin (ties in arming order); a backlog after a blocked loop fires slot by slot.
TEST_F(TimerWheelTest, FiringOrder) {
  std::vector<int> order;
  auto add = [&](int id, Seconds at) { arm(at)->action = [&order, id](TestTimer&) { order.push_back(id); }; };
  for (bool preserve : {false, true}) {
    make(100, 1000, preserve, 8);
    Seconds const base = Quor::now();
    add(0, base + 1.150);  // cascades from bucket 1 when bucket 0 wraps at 0.8 s
    sm->runUntil(base + 0.8);
    add(1, base + 1.150);  // the same timeMin, armed later
    add(2, base + 1.120);
    add(3, base + 1.150);
    add(4, base + 1.101);
    for (auto const& t : timers) EXPECT_EQ(t->wheelIndex(), 4u);  // all in the slot of 1.2 s
    sm->runUntil(base + 2);
    EXPECT_EQ(order, (preserve ? std::vector<int>{4, 2, 0, 1, 3} : std::vector<int>{0, 1, 2, 3, 4}));
    order.clear();
  }

  make(1, 512, true, 8);  // bucket 0 wraps every 8 ms
  Seconds const base = Quor::now();
  for (int ms = 1; ms <= 200; ++ms) add(ms, base + ms / 1000.0);
  vt.advance(0.2005);  // 25 wraps behind
  for (int turn = 0; turn < 5 && order.size() < 200; ++turn) sm->runOnce();
  EXPECT_EQ(order.size(), 200u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  for (auto const& t : timers) EXPECT_EQ(t->firedAt, std::vector<Seconds>{base + 0.2005});  // at the present
  expectSound();
}

// Thousands of timers due at once, whose callbacks free, cancel and re-arm timers of the
// slots still to fire, so the slots' address hints name freed and moved timers: nothing
// may read a freed timer (the sanitizer build sees it), every arming fires exactly once,
// and the timers left alone fire in slot order.
TEST_F(TimerWheelTest, LargeBacklogWhileCallbacksChangeTheSlotsAhead) {
  make(1, 1000, false, 256);
  constexpr int n = 6000, slots = 200;
  Seconds const base = Quor::now();
  std::mt19937 rng(3);
  std::vector<Ptr<TestTimer>> pool(n);
  std::vector<int> armings(n, 1), firings(n, 0), untouchedSlots;
  std::vector<bool> touched(n, false);
  for (int k = 0; k < n; ++k) {
    pool[k] = new TestTimer;
    pool[k]->notifierIs(wheel);
    pool[k]->timeMinIs(base + (1 + k % slots) / 1000.0);
    pool[k]->action = [&, k](TestTimer&) {
      ++firings[k];
      if (!touched[k]) untouchedSlots.push_back(k % slots);
      // Mostly a timer of the next few slots: the ones read ahead.
      int const ahead = 1 + int(rng() % 3), j = (k + ahead + slots * int(rng() % (n / slots))) % n;
      if (!pool[j] || j == k) return;
      switch (rng() % 4) {
        case 0:  // freed, perhaps in the slot being fired or in one read ahead
          if (pool[j]->timeMin() != Quor::endOfTime) --armings[j];
          pool[j] = nullptr;
          break;
        case 1:
          if (pool[j]->timeMin() != Quor::endOfTime) --armings[j];
          pool[j]->timeMinIs(Quor::endOfTime);
          touched[j] = true;
          break;
        case 2:
          if (pool[j]->timeMin() == Quor::endOfTime) ++armings[j];
          pool[j]->timeMinIs(Quor::now() + int(rng() % 3) / 1000.0);
          touched[j] = true;
          break;
        default:
          break;
      }
    };
  }
  vt.advance(0.5);
  sm->runUntil(Quor::now() + 1);
  EXPECT_EQ(firings, armings);
  EXPECT_GT(untouchedSlots.size(), size_t(n / 2));
  EXPECT_TRUE(std::is_sorted(untouchedSlots.begin(), untouchedSlots.end()));
  EXPECT_EQ(wheel->timers(), 0u);
  pool.clear();
}

TEST_F(TimerWheelTest, ACallbackMayReleaseTheWheel) {
  make(10, 1000, false, 16);
  auto a = arm(start + 0.01);
  auto b = arm(start + 0.01);
  a->action = [&](TestTimer&) {
    for (auto const& t : timers) t->notifierIs(nullptr);
    wheel = nullptr;  // its last references went with the timers
  };
  sm->runUntil(start + 1);
  EXPECT_EQ(a->fired() + b->fired(), 1);
  EXPECT_EQ(wheel, nullptr);
}

TEST_F(TimerWheelTest, OwnerDrivenWheelWithoutAClock) {
  wheel = Vell::timerWheelFactory(activity, nullptr, 10, 1000, false, 16);
  auto t = arm(start + 0.03);
  EXPECT_DOUBLE_EQ(wheel->systemClockTimeMin(), start + 0.03);
  EXPECT_EQ(sm->armedClockReactors(), 0u);
  vt.advance(0.03);
  wheel->handleSystemClock();
  EXPECT_EQ(t->fired(), 1);
}

// Re-arming churn must not grow the wheel: each slot's prefetch hints are bounded by the
// timers in it, whatever the number of armings. (Sanitizer builds report no heap figures;
// the check is then empty.)
TEST_F(TimerWheelTest, ReArmingChurnKeepsMemoryFlat) {
  make(1, 1 << 16, false, 256);
  std::vector<Ptr<TestTimer>> few;
  for (int k = 0; k < 8; ++k) few.push_back(arm(start + 1 + k));
  auto rearm = [&](int times) {
    for (int k = 0; k < times; ++k) few[k % 8]->timeMinIs(start + 1 + (k % 2000) * 1e-3);
  };
  rearm(20000);  // rings reach their bounds
  std::size_t const before = mallinfo2().uordblks;
  rearm(200000);
  EXPECT_LE(mallinfo2().uordblks, before + 4096);
}

using TimerWheelDeathTest = TimerWheelTest;

TEST_F(TimerWheelDeathTest, AssertionTexts) {
  make(10, 1000, false, 16);
  auto t = arm(Quor::endOfTime);
  EXPECT_DEATH(t->timeMinIs(std::nan("")), "Assertion failed: !isnan\\( n->timeMin\\(\\) \\) \\[[A-Za-z_]+:");
  Ptr<TestTimer> detached = new TestTimer;
  EXPECT_DEATH(detached->timeMinIs(std::nan("")), "!isnan\\( n->timeMin\\(\\) \\)");
  EXPECT_DEATH(wheel->handleInitialized(),
               "Assertion failed: !initialized\\(\\) \\[[A-Za-z_]+:[0-9]+\\] in .*Vell::TimerWheel::handleInitialized");
  EXPECT_DEATH(wheel->handleSystemClock(), "schedIndex != InvalidWheelIndex");
  t->timeMinIs(start + 1);
  EXPECT_DEATH(wheel->doAddNewBucket(16), "Assertion failed: timers\\(\\) == 0");
}

}  // namespace
