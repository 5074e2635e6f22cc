// Timer wheel tests, all under virtual time: a randomized differential test against a
// model of armed deadlines, with an invariant walker after every step, and directed tests
// for construction, placement, the ghost-index cascade, rest and restart, the yield
// after processTimeLimit, firing order and re-entrant callbacks.
#include <Vell/HTimerWheel.h>
#include <Vell/ValueTypes.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Quor::Ptr;
using Quor::Seconds;
using Vell::TimerWheel;
using Timer = TimerWheel::NotifieeConst;

constexpr Seconds start = 1000.0;
constexpr Vell::U32 invalid = TimerWheel::InvalidWheelIndex;

struct TestTimer : Timer {
  static inline int live = 0;
  TestTimer() { ++live; }
  ~TestTimer() override { --live; }
  void onTime() override {
    ++fired;
    firedAt.push_back(Quor::now());
    if (action) action(*this);
  }
  int fired = 0;
  std::vector<Seconds> firedAt;
  std::function<void(TestTimer&)> action;
};

// Captures the "TimerWheel" trace channel while it lives.
struct TraceCapture {
  explicit TraceCapture(int level = 9) {
    Quor::traceLevelIs("TimerWheel", level);
    Quor::traceSinkIs([this](Quor::TraceRecord const& r) { lines.push_back(r.text); });
  }
  ~TraceCapture() {
    Quor::traceLevelIs("TimerWheel", -1);
    Quor::traceSinkIs({});
  }
  int count(std::string const& text) const {
    int n = 0;
    for (auto const& l : lines) n += l.find(text) != std::string::npos;
    return n;
  }
  std::vector<std::string> lines;
};

// Everything a correct wheel must satisfy between two steps: slot lists linked both
// ways, every member marked with its own slot, occupancy bits and counts in agreement,
// exactly the expected timers present, and the clock armed at the first used slot of
// bucket 0 (or at the wrap) while running, at endOfTime at rest.
std::string wheelErrors(TimerWheel const& tw, std::set<Timer const*> const& expected) {
  std::ostringstream e;
  std::set<Timer const*> seen;
  Vell::U32 total = 0, nonEmpty = 0, firstUsed0 = invalid;
  bool const atRest = tw.scheduledWheelIndex() == invalid;
  for (Vell::U32 b = 0; b < tw.bucketCount(); ++b) {
    Vell::U32 const size = tw.bucketSize(b).value(), cur = tw.currentWheelIndex(b);
    Vell::U32 count = 0;
    for (Vell::U32 i = 0; i < size; ++i) {
      Timer const* h = tw.slotHead(b, i);
      if (tw.slotOccupied(b, i) != (h != nullptr)) e << "occupancy bit of (" << b << "," << i << ") wrong; ";
      Timer const* prev = nullptr;
      for (Timer const* n = h; n; prev = n, n = n->next()) {
        if (n->prev() != prev) e << "prev link broken in (" << b << "," << i << "); ";
        if (n->bucketIndex() != b || n->wheelIndex() != i) e << "timer marks disagree with its slot; ";
        if (!seen.insert(n).second) e << "timer linked twice; ";
        if (++count > expected.size() + 1) return e.str() + "slot list cycles";
      }
      if (tw.slotTail(b, i) != prev) e << "tail of (" << b << "," << i << ") wrong; ";
      if (h && !atRest && b == 0 && i < cur) e << "bucket 0 timer behind the current slot; ";
      if (h && !atRest && b > 0 && i == cur) e << "coarser bucket's current slot not empty; ";
      if (h && b == 0 && i >= cur && firstUsed0 == invalid) firstUsed0 = i;
    }
    if (count != tw.timer(b)) e << "timer(" << b << ") is " << tw.timer(b) << ", counted " << count << "; ";
    total += count;
    nonEmpty += count != 0;
  }
  if (total != tw.timers()) e << "timers() is " << tw.timers() << ", counted " << total << "; ";
  if (nonEmpty != tw.remainingNonEmptyBuckets()) e << "remainingNonEmptyBuckets wrong; ";
  if (seen != expected) e << "wheel holds " << seen.size() << " timers, expected " << expected.size() << "; ";
  if (tw.systemClockHandlerActive()) e << "handler still marked active; ";
  if (atRest) {
    if (tw.timers() != 0) e << "at rest with timers; ";
    if (tw.systemClockTimeMin() != Quor::endOfTime) e << "clock armed at rest; ";
    if (tw.currentWheelIndexTime() != Quor::endOfTime) e << "currentWheelIndexTime not endOfTime at rest; ";
  } else {
    if (tw.timers() == 0) e << "running without timers; ";
    Vell::U32 const want = firstUsed0 == invalid ? tw.ghostTimerIndex() : firstUsed0;
    if (tw.scheduledWheelIndex() != want)
      e << "scheduled " << tw.scheduledWheelIndex() << " but first used slot is " << want << "; ";
    Seconds const slotTime = tw.currentWheelIndexTime() +
                             double(tw.scheduledWheelIndex() - tw.currentWheelIndex(0)) * tw.tickMsecs() / 1000.0;
    if (!(std::fabs(tw.systemClockTimeMin() - slotTime) < 1e-6)) e << "clock not armed at the scheduled slot; ";
  }
  return e.str();
}

class TimerWheelTest : public ::testing::Test {
 protected:
  void TearDown() override {
    timers.clear();
    wheel = nullptr;
    // The leak check: every timer gone, the wheel's clock reactor disarmed with it.
    EXPECT_EQ(TestTimer::live, 0);
    EXPECT_EQ(sm->armedClockReactors(), 0u);
  }

  Ptr<TimerWheel> make(Vell::U32 tick, Vell::U32 maxTicks, bool preserveOrder, Vell::U32 size) {
    wheel = Vell::timerWheelFactory(activity, clock, tick, maxTicks, preserveOrder, size);
    return wheel;
  }
  Ptr<TestTimer> newTimer(Seconds t = Quor::endOfTime) {
    Ptr<TestTimer> n = new TestTimer;
    n->notifierIs(wheel);
    n->timeMinIs(t);
    timers.push_back(n);
    return n;
  }
  void expectSound() {
    std::set<Timer const*> expected;
    for (auto const& t : timers)
      if (t->wheelIndex() != invalid) expected.insert(t.ptr());
    EXPECT_EQ(wheelErrors(*wheel, expected), "");
  }
  static Seconds now() { return Quor::now(); }

  Quor::VirtualTime vt{start};
  Ptr<Quor::ActivityConfig> activity = Quor::defaultActivityConfig();
  Ptr<Quor::ActivitySm> sm = Quor::quorActivitySmFor(activity);
  Ptr<Quor::Clock> clock = Quor::clockFactory("wheel clock", activity);
  Ptr<TimerWheel> wheel;
  std::vector<Ptr<TestTimer>> timers;
};

// ---- the randomized differential test ----------------------------------------------------------

struct Config {
  Vell::U32 tick, maxTicks;
  bool preserveOrder;
  Vell::U32 size;
  int steps;
  int maxOffsetMs;  // timers armed up to this far ahead (beyond capacity for the small wheels)
  int maxAdvanceMs;
  int pool;
};

// Drives a wheel and a model of it: the model knows, per timer, whether it is armed, its
// timeMin and when it was armed. A firing must be expected, must come once per arming
// and must lie within one tick of the timeMin (a past timeMin counts as the arming time).
class Differential {
 public:
  Differential(Ptr<TimerWheel> tw, Config c, unsigned seed) : tw_(std::move(tw)), c_(c), rng_(seed) {
    for (int k = 0; k < c.pool; ++k) pool_.push_back(makeEntry(k));
  }

  void run() {
    for (int step = 0; step < c_.steps && !::testing::Test::HasFailure(); ++step) {
      int const ops = pick(1, 12);
      for (int i = 0; i < ops; ++i) randomOp(/*inCallback=*/false);
      check("after operations, step " + std::to_string(step));
      if (pick(0, 99) < 3) {
        // The loop is blocked for a while: the wheel falls behind and must catch up
        // without firing anything early.
        Quor::sleep(pick(1, 6 * int(c_.tick) * int(c_.size)) / 1000.0);
        blockEnd_ = Quor::now();
        if (pick(0, 1)) {
          for (int i = pick(1, 8); i > 0; --i) randomOp(/*inCallback=*/false);
          check("after operations while behind, step " + std::to_string(step));
        }
      }
      Quor::quorActivitySmFor(nullptr)->runUntil(Quor::now() + pick(0, c_.maxAdvanceMs) / 1000.0);
      check("after running, step " + std::to_string(step));
    }
    // Whatever is still armed must fire; nothing may stay behind.
    Quor::quorActivitySmFor(nullptr)->runUntil(Quor::now() + 4.0 * c_.maxOffsetMs / 1000.0 + 1.0);
    for (auto const& e : pool_) EXPECT_FALSE(e.armed) << "a timer never fired";
    check("at the end");
    EXPECT_EQ(tw_->scheduledWheelIndex(), invalid);
    EXPECT_GT(firings_, 100);
    pool_.clear();
  }

 private:
  struct Entry {
    Ptr<TestTimer> t;
    bool attached = true;
    bool armed = false;
    Seconds timeMin = Quor::endOfTime;
    Seconds armedAt = 0;
  };

  Entry makeEntry(int k) {
    Entry e;
    e.t = new TestTimer;
    e.t->notifierIs(tw_);
    e.t->action = [this, k](TestTimer&) { fired(k); };
    return e;
  }

  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

  Seconds randomTimeMin() {
    int const r = pick(0, 99);
    if (r < 4) return 0.0;
    if (r < 8) return Quor::endOfTime;
    if (r < 14) return Quor::now() - pick(0, 50) / 1000.0;
    if (r < 60) return Quor::now() + pick(0, 4 * int(c_.tick) * int(c_.size)) / 1000.0;
    return Quor::now() + pick(0, c_.maxOffsetMs) / 1000.0;
  }

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
    if (r < 70) {
      arm(e, randomTimeMin());
    } else if (r < 82) {
      arm(e, Quor::endOfTime);
    } else if (r < 90) {
      if (e.attached) {
        e.t->notifierIs(nullptr);
        e.attached = e.armed = false;
      } else {
        e.t->notifierIs(tw_);
        e.attached = true;
        e.armed = e.timeMin != Quor::endOfTime;
        e.armedAt = Quor::now();
      }
    } else if (r < 95 || inCallback) {
      // Destroyed, possibly while armed or while firing: it must leave its slot.
      int const k = int(&e - pool_.data());
      e = makeEntry(k);
    }
  }

  void fired(int k) {
    Entry& e = pool_[k];
    Seconds const t = Quor::now();
    if (!e.armed) {
      ADD_FAILURE() << "timer " << k << " fired without being armed";
      return;
    }
    Seconds const due = std::max(e.timeMin, e.armedAt);
    Seconds const tick = c_.tick / 1000.0;
    // Late only by a blocked loop, never early.
    if (!(t > due - tick - 1e-6 && t <= std::max(due, blockEnd_) + tick + 1e-6))
      ADD_FAILURE() << "timer " << k << " due at " << due - start << " (armed at " << e.armedAt - start
                    << ") fired at " << t - start;
    e.armed = false;
    e.timeMin = Quor::endOfTime;
    ++firings_;
    // Callbacks arm, re-arm, cancel, detach and destroy timers, this one included.
    int const r = pick(0, 99);
    if (r < 35) arm(e, Quor::now() + pick(-5, 3 * int(c_.tick)) / 1000.0);
    if (r >= 30 && r < 60) randomOp(/*inCallback=*/true);
  }

  void check(std::string const& where) {
    std::set<Timer const*> expected;
    for (auto const& e : pool_)
      if (e.armed) expected.insert(e.t.ptr());
    std::string const errors = wheelErrors(*tw_, expected);
    if (!errors.empty()) ADD_FAILURE() << where << ": " << errors;
  }

  Ptr<TimerWheel> tw_;
  Config c_;
  std::mt19937 rng_;
  std::vector<Entry> pool_;
  long firings_ = 0;
  Seconds blockEnd_ = 0;
};

TEST_F(TimerWheelTest, RandomizedAgainstModel) {
  Config const configs[] = {
      // tick, initialMaxTicks, preserveOrder, bucket size, steps, max offset ms, max advance ms, timers
      {1, 64, false, 4, 2500, 150, 12, 400},          // three buckets, capacity 64 ticks: much parking
      {10, 2, true, 8, 2500, 1500, 120, 400},         // two buckets, capacity 640 ms
      {7, 1000, false, 16, 2500, 40000, 400, 400},    // three buckets
      {1, 2, true, 5000, 600, 20000, 2000, 200},      // bitmap with a partial last word
      {3, 0x10000, false, 0x10000, 200, 500000, 40000, 200},  // the largest bucket
      {1, 64, true, 4, 2000, 150, 40, 4},             // few timers: often at rest, restarted off-grid
      {10, 2, false, 8, 2000, 1500, 300, 3},
  };
  for (unsigned seed : {1u, 2u}) {
    for (Config const& c : configs) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " tick " + std::to_string(c.tick) + " size " +
                   std::to_string(c.size));
      Differential(make(c.tick, c.maxTicks, c.preserveOrder, c.size), c, seed).run();
      wheel = nullptr;
      if (HasFailure()) return;
    }
  }
}

// ---- construction ---------------------------------------------------------------------------------

std::string factoryError(Vell::U32 tick, Vell::U32 maxTicks, Vell::U32 size) {
  try {
    Vell::timerWheelFactory(nullptr, nullptr, tick, maxTicks, false, size);
  } catch (Quor::RangeException const& e) {
    return e.what();
  }
  return "";
}

TEST_F(TimerWheelTest, ConstructionBoundsAndTexts) {
  std::string const tickText = "TimerWheel::tickMsecs < 1 or > 3600000 not allowed";
  std::string const maxText = "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed";
  std::string const sizeText = "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed";
  EXPECT_EQ(factoryError(0, 100, 16), tickText);
  EXPECT_EQ(factoryError(3600001, 100, 16), tickText);
  EXPECT_EQ(factoryError(1, 100, 16), "");
  EXPECT_EQ(factoryError(3600000, 100, 16), "");
  EXPECT_EQ(factoryError(10, 1, 16), maxText);
  EXPECT_EQ(factoryError(10, 0, 16), maxText);
  EXPECT_EQ(factoryError(10, 2, 16), "");
  EXPECT_EQ(factoryError(10, 100, 1), sizeText);
  EXPECT_EQ(factoryError(10, 100, 0x10001), sizeText);
  EXPECT_EQ(factoryError(10, 100, 2), "");
  // The checks run in order: the first bad setting is the one reported.
  EXPECT_EQ(factoryError(0, 0, 0), tickText);
  EXPECT_EQ(factoryError(10, 0, 0), maxText);

  auto tw = make(10, 100, false, 16);
  EXPECT_EQ(tw->processTimeLimit(), 0.05);
  for (double bad : {-0.001, 0.5001, std::nan("")}) {
    try {
      tw->processTimeLimitIs(bad);
      ADD_FAILURE() << "accepted " << bad;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed");
    }
    EXPECT_EQ(tw->processTimeLimit(), 0.05);
  }
  tw->processTimeLimitIs(0);
  tw->processTimeLimitIs(0.5);
  EXPECT_EQ(tw->processTimeLimit(), 0.5);
}

TEST_F(TimerWheelTest, BucketSizeValueAndText) {
  std::string const text = "BucketSize::value < 2 or > 0xfffffffe not allowed";
  EXPECT_EQ(Vell::BucketSize().value(), 2u);
  EXPECT_EQ(Vell::valueToStrep(Vell::BucketSize(256)), "256");
  EXPECT_EQ(Quor::strepToValue<Vell::BucketSize>("4294967294"), Vell::BucketSize(0xfffffffe));
  for (char const* bad : {"1", "0", "4294967295"}) {
    try {
      Quor::strepToValue<Vell::BucketSize>(bad);
      ADD_FAILURE() << bad;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), text.c_str());
    }
  }
  EXPECT_THROW(Quor::strepToValue<Vell::BucketSize>("x"), Quor::RangeException);
  // A failed parse leaves the target alone.
  Vell::BucketSize v(7);
  Quor::String8 const in("1");
  auto it = in.begin();
  EXPECT_THROW(Vell::sequenceToValue(it, in.end(), &v), Quor::RangeException);
  EXPECT_EQ(v.value(), 7u);
  EXPECT_THROW(v.valueIs(0xffffffff), Quor::RangeException);
  EXPECT_EQ(v.value(), 7u);
  std::ostringstream o;
  o << Vell::BucketSize(300);
  EXPECT_EQ(o.str(), "300");
}

TEST_F(TimerWheelTest, BucketCreation) {
  {
    TraceCapture trace(0);
    // One bucket would do, but there is always a second to carry into.
    auto tw = make(10, 2, false, 256);
    EXPECT_EQ(tw->bucketCount(), 2u);
    EXPECT_EQ(tw->maxTicks(), 65536u);
    EXPECT_EQ(trace.count("TimerWheel::handleInitialized: Total buckets created 2 of 256 each."), 1);
    EXPECT_EQ(trace.count(" ## Add a new bucket to index 1 of size 256"), 1);
  }
  // Saturation: buckets are added until the product reaches 0xffffffff.
  auto big = make(1, 0xffffffff, false, 0x10000);
  EXPECT_EQ(big->bucketCount(), 2u);
  EXPECT_EQ(big->maxTicks(), 0xffffffffu);
  auto small = make(1, 0xffffffff, false, 2);
  EXPECT_EQ(small->bucketCount(), 32u);
  EXPECT_EQ(small->maxTicks(), 0xffffffffu);
  auto tw = make(10, 1001, false, 10);
  EXPECT_EQ(tw->bucketCount(), 4u);
  EXPECT_EQ(tw->maxTicks(), 10000u);
  for (Vell::U32 b = 0; b < 4; ++b) {
    EXPECT_EQ(tw->bucketSize(b), Vell::BucketSize(10));
    EXPECT_EQ(tw->currentWheelIndex(b), 0u);
    EXPECT_NE(tw->wheelBase(b), 0u);
  }
  EXPECT_EQ(tw->bucketSize(4), Vell::BucketSize());  // no such bucket
  EXPECT_EQ(tw->wheelBase(4), 0u);
  EXPECT_EQ(tw->ghostTimerIndex(), 10u);
  EXPECT_EQ(tw->scheduledWheelIndex(), invalid);
  EXPECT_EQ(tw->currentWheelIndexTime(), Quor::endOfTime);
  EXPECT_TRUE(tw->initialized());

  // A bad size changes nothing; a good one multiplies maxTicks, saturating.
  EXPECT_THROW(tw->doAddNewBucket(1), Quor::RangeException);
  EXPECT_EQ(tw->bucketCount(), 4u);
  tw->doAddNewBucket(1000000);
  EXPECT_EQ(tw->bucketCount(), 5u);
  EXPECT_EQ(tw->maxTicks(), 0xffffffffu);
  EXPECT_EQ(tw->bucketSize(4), Vell::BucketSize(1000000));
}

// ---- placement ------------------------------------------------------------------------------------

TEST_F(TimerWheelTest, DistanceRoundsToMillisecondsThenUpToTicks) {
  make(10, 1000, false, 256);
  struct Case {
    Seconds offset;
    Vell::U32 slot;
  } const cases[] = {{0.0154, 2}, {0.0206, 3}, {0.0204, 2}, {0.0205, 2}, {0.010, 1}, {0.0001, 0},
                     {0.0, 0},    {-1.0, 0},   {0.0006, 1}};
  for (Case const& c : cases) {
    auto t = newTimer(now() + c.offset);
    EXPECT_EQ(t->bucketIndex(), 0u) << c.offset;
    EXPECT_EQ(t->wheelIndex(), c.slot) << c.offset;
    EXPECT_EQ(wheel->time(), now());
  }
  auto zero = newTimer(0.0);  // a timeMin of exactly 0 means "now"
  EXPECT_EQ(zero->wheelIndex(), 0u);
  expectSound();
}

TEST_F(TimerWheelTest, PlacementCarriesIntoCoarserBuckets) {
  TraceCapture trace(0);
  make(1, 64, false, 4);  // buckets of 4, 4, 4: capacity 64 ticks
  ASSERT_EQ(wheel->bucketCount(), 3u);
  auto at = [&](int ticks) {
    auto t = newTimer(now() + ticks / 1000.0);
    return std::make_pair(t->bucketIndex(), t->wheelIndex());
  };
  EXPECT_EQ(at(3), std::make_pair(0u, 3u));
  EXPECT_EQ(at(4), std::make_pair(1u, 1u));  // carry 4 div 4 = 1
  EXPECT_EQ(at(15), std::make_pair(1u, 3u));
  EXPECT_EQ(at(16), std::make_pair(2u, 1u));
  EXPECT_EQ(at(63), std::make_pair(2u, 3u));
  EXPECT_EQ(trace.count("Reducing timeout to fit the maximum timer capacity"), 0);
  EXPECT_EQ(at(64), std::make_pair(2u, 3u));  // beyond capacity: the farthest slot
  EXPECT_EQ(at(100000), std::make_pair(2u, 3u));
  EXPECT_EQ(at(1 << 30), std::make_pair(2u, 3u));
  EXPECT_EQ(trace.count("Reducing timeout to fit the maximum timer capacity"), 3);
  expectSound();
}

TEST_F(TimerWheelTest, FarTimersAreParkedAndStillFireOnTime) {
  make(1, 2, false, 4);  // two buckets of 4: capacity 16 ticks
  auto t = newTimer(now() + 0.100);
  EXPECT_EQ(t->bucketIndex(), 1u);
  // Even a distance that does not fit 32 bits of ticks is parked, not wrapped to a near one.
  auto far = newTimer(now() + 5.0e6);
  EXPECT_EQ(far->bucketIndex(), 1u);
  sm->runUntil(start + 0.0995);
  EXPECT_EQ(t->fired, 0);
  expectSound();
  sm->runUntil(start + 0.100);
  EXPECT_EQ(t->fired, 1);
  ASSERT_EQ(t->firedAt.size(), 1u);
  EXPECT_NEAR(t->firedAt[0], start + 0.100, 1e-9);
  far->timeMinIs(Quor::endOfTime);
  expectSound();
}

TEST_F(TimerWheelTest, EndOfTimeDetachAndDeletionLeaveTheSlot) {
  make(10, 1000, false, 16);
  auto a = newTimer(now() + 0.05);
  auto b = newTimer(now() + 0.05);
  auto c = newTimer(now() + 0.05);
  EXPECT_EQ(wheel->timers(), 3u);
  a->timeMinIs(Quor::endOfTime);
  EXPECT_EQ(a->wheelIndex(), invalid);
  EXPECT_EQ(a->bucketIndex(), invalid);
  b->notifierIs(nullptr);
  EXPECT_EQ(b->wheelIndex(), invalid);
  EXPECT_EQ(b->timeMin(), now() + 0.05);  // kept while detached
  timers.erase(timers.begin() + 2);       // c's last reference
  c = nullptr;
  EXPECT_EQ(wheel->timers(), 0u);
  expectSound();
  // Attaching a timer that has a timeMin arms it.
  b->notifierIs(wheel);
  EXPECT_EQ(wheel->timers(), 1u);
  sm->runUntil(now() + 1);
  EXPECT_EQ(a->fired + b->fired, 1);
  EXPECT_EQ(b->timeMin(), Quor::endOfTime);  // one-shot
}

// ---- clock handling -----------------------------------------------------------------------------

TEST_F(TimerWheelTest, GhostIndexScheduleAndCascade) {
  TraceCapture trace(1);
  make(10, 100, false, 4);
  auto t = newTimer(now() + 0.060);  // 6 ticks: only in bucket 1
  EXPECT_EQ(t->bucketIndex(), 1u);
  EXPECT_EQ(t->wheelIndex(), 1u);
  EXPECT_EQ(wheel->scheduledWheelIndex(), wheel->ghostTimerIndex());
  EXPECT_DOUBLE_EQ(wheel->systemClockTimeMin(), start + 0.040);  // when bucket 0 wraps
  // A coarser timer leaves the schedule alone; a bucket-0 one before it moves it earlier.
  auto coarse = newTimer(now() + 0.110);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 4u);
  auto early = newTimer(now() + 0.030);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 3u);
  EXPECT_DOUBLE_EQ(wheel->systemClockTimeMin(), start + 0.030);
  auto later = newTimer(now() + 0.020);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 2u);
  later->timeMinIs(Quor::endOfTime);  // removing the scheduled slot's last timer
  EXPECT_EQ(wheel->scheduledWheelIndex(), 3u);
  early->timeMinIs(Quor::endOfTime);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 4u);
  expectSound();

  sm->runUntil(start + 0.040);
  EXPECT_EQ(trace.count("rearrange timers"), 1);
  EXPECT_EQ(t->fired, 0);
  EXPECT_EQ(t->bucketIndex(), 0u);  // moved down with its remaining 2 ticks
  EXPECT_EQ(t->wheelIndex(), 2u);
  EXPECT_EQ(wheel->currentWheelIndex(0), 0u);
  EXPECT_EQ(wheel->currentWheelIndex(1), 1u);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 2u);
  EXPECT_DOUBLE_EQ(wheel->currentWheelIndexTime(), start + 0.040);
  expectSound();
  sm->runUntil(start + 0.060);
  EXPECT_EQ(t->fired, 1);
  EXPECT_DOUBLE_EQ(t->firedAt[0], start + 0.060);
  expectSound();
  sm->runUntil(start + 0.200);
  ASSERT_EQ(coarse->fired, 1);
  EXPECT_NEAR(coarse->firedAt[0], start + 0.110, 1e-9);
  EXPECT_EQ(trace.count("Wheel being shut down"), 1);
}

TEST_F(TimerWheelTest, RestAfterLastTimerAndRestart) {
  make(10, 1000, false, 16);
  auto only = newTimer(now() + 0.05);
  EXPECT_EQ(wheel->currentWheelIndexTime(), start);
  only->timeMinIs(Quor::endOfTime);
  EXPECT_EQ(wheel->scheduledWheelIndex(), invalid);
  EXPECT_EQ(wheel->systemClockTimeMin(), Quor::endOfTime);
  EXPECT_EQ(wheel->currentWheelIndexTime(), Quor::endOfTime);
  for (Vell::U32 b = 0; b < wheel->bucketCount(); ++b) EXPECT_EQ(wheel->currentWheelIndex(b), invalid);
  EXPECT_EQ(sm->armedClockReactors(), 0u);
  expectSound();

  // The next timer restarts the wheel from slot 0 at the present, off the old grid.
  vt.advance(1.2345);
  only->timeMinIs(now() + 0.05);
  EXPECT_EQ(wheel->currentWheelIndexTime(), start + 1.2345);
  EXPECT_EQ(wheel->currentWheelIndex(0), 0u);
  EXPECT_EQ(only->wheelIndex(), 5u);
  sm->runUntil(now() + 1);
  ASSERT_EQ(only->fired, 1);
  EXPECT_NEAR(only->firedAt[0], start + 1.2845, 1e-9);
  // Firing the last timer puts it to rest as well.
  EXPECT_EQ(wheel->scheduledWheelIndex(), invalid);
  EXPECT_EQ(wheel->currentWheelIndex(0), invalid);
  expectSound();
}

TEST_F(TimerWheelTest, ProcessTimeLimitYieldsToTheLoop) {
  make(1, 1000, false, 64);
  wheel->processTimeLimitIs(0.01);
  // Each callback takes 4 ms of (virtual) time: three slots fit in one turn.
  for (int i = 1; i <= 12; ++i) {
    auto t = newTimer(now() + i / 1000.0);
    t->action = [](TestTimer&) { Quor::sleep(0.004); };
  }
  // Other work armed in the past must get its turn between the wheel's slices.
  struct Other : Quor::Clock::NotifieeConst {
    int runs = 0;
    void onTime() override { ++runs; }
  };
  Ptr<Other> other = new Other;
  other->notifierIs(clock);
  vt.advance(0.1);  // everything is due at once
  auto firedCount = [&] {
    int n = 0;
    for (auto const& t : timers) n += t->fired;
    return n;
  };
  other->timeMinIs(now() - 1);
  sm->runOnce();
  EXPECT_EQ(firedCount(), 3);
  EXPECT_EQ(other->runs, 1);
  EXPECT_LT(wheel->systemClockTimeMin(), now());  // armed in the past: more is due
  expectSound();
  other->timeMinIs(now() - 1);
  sm->runOnce();
  EXPECT_EQ(firedCount(), 6);
  EXPECT_EQ(other->runs, 2);
  sm->runOnce();
  sm->runOnce();
  EXPECT_EQ(firedCount(), 12);
  EXPECT_EQ(wheel->scheduledWheelIndex(), invalid);

  // A limit of 0 serves one slot per turn.
  wheel->processTimeLimitIs(0);
  for (std::size_t i = 0; i < timers.size(); ++i) {
    timers[i]->action = nullptr;
    timers[i]->timeMinIs(now() + double(i + 1) / 1000.0);
  }
  vt.advance(0.1);
  for (int turn = 1; turn <= 3; ++turn) {
    sm->runOnce();
    EXPECT_EQ(firedCount(), 12 + turn);
  }
}

TEST_F(TimerWheelTest, CatchUpAfterABlockedLoop) {
  make(1, 512, true, 8);  // bucket 0 wraps every 8 ms
  std::vector<int> order;
  for (int ms = 1; ms <= 200; ++ms)
    newTimer(start + ms / 1000.0)->action = [&order, ms](TestTimer&) { order.push_back(ms); };
  auto future = newTimer(start + 0.300);
  Ptr<TestTimer> spawned;
  timers[0]->action = [&](TestTimer&) {
    order.push_back(1);
    spawned = newTimer(now() + 0.050);
  };
  vt.advance(0.2005);  // 25 wraps behind
  int turns = 0;
  while (timers[199]->fired == 0 && turns < 10) {
    sm->runOnce();
    ++turns;
  }
  // Everything due is served within two turns, in timeMin order, and nothing early.
  EXPECT_LE(turns, 2);
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(timers[i]->fired, 1) << i;
    EXPECT_EQ(timers[i]->firedAt[0], start + 0.2005);
  }
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(future->fired, 0);
  ASSERT_TRUE(spawned);
  EXPECT_EQ(spawned->fired, 0);
  expectSound();
  sm->runUntil(start + 0.400);
  ASSERT_EQ(future->fired, 1);
  EXPECT_NEAR(future->firedAt[0], start + 0.300, 0.001 + 1e-9);
  ASSERT_EQ(spawned->fired, 1);
  EXPECT_GT(spawned->firedAt[0], start + 0.2505 - 0.001);
  EXPECT_LE(spawned->firedAt[0], start + 0.2505 + 0.001);
}

TEST_F(TimerWheelTest, FiringOrderWithinASlot) {
  for (bool preserve : {false, true}) {
    make(100, 1000, preserve, 8);
    Seconds const base = now();
    std::vector<int> order;
    auto add = [&](int id, Seconds at) {
      auto t = newTimer(at);
      t->action = [&order, id](TestTimer&) { order.push_back(id); };
    };
    add(0, base + 1.150);  // 12 ticks: in bucket 1 until bucket 0 wraps at 0.8 s
    sm->runUntil(base + 0.8);
    add(1, base + 1.150);  // same timeMin as 0, armed later
    add(2, base + 1.120);
    add(3, base + 1.150);
    add(4, base + 1.101);
    for (auto const& t : timers) EXPECT_EQ(t->wheelIndex(), 4u);  // all due at 1.2 s
    sm->runUntil(base + 2);
    if (preserve) {
      EXPECT_EQ(order, (std::vector<int>{4, 2, 0, 1, 3}));
    } else {
      EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));  // the order they entered the slot
    }
    timers.clear();
  }
}

TEST_F(TimerWheelTest, CallbacksMayChangeAnyTimer) {
  make(10, 1000, false, 16);
  auto self = newTimer(now() + 0.01);
  auto victim = newTimer(now() + 0.01);
  auto doomed = newTimer(now() + 0.01);
  auto moved = newTimer(now() + 0.01);
  Ptr<TestTimer> loner = new TestTimer;  // held only here
  loner->notifierIs(wheel);
  loner->timeMinIs(now() + 0.01);
  int again = 0;
  // The first to fire cancels one, deletes another, moves a third, drops the loner's
  // last reference and re-arms itself for now: that must wait for the next turn.
  self->action = [&](TestTimer& t) {
    if (again++ == 0) {
      victim->timeMinIs(Quor::endOfTime);
      timers.erase(timers.begin() + 2);
      doomed = nullptr;
      moved->timeMinIs(now() + 0.05);
      loner = nullptr;
    }
    if (again < 3) t.timeMinIs(now());
  };
  sm->runUntil(start + 0.01);
  EXPECT_EQ(self->fired, 1);
  EXPECT_EQ(victim->fired, 0);
  EXPECT_EQ(moved->fired, 0);
  expectSound();
  sm->runOnce();
  EXPECT_EQ(self->fired, 2);
  sm->runUntil(start + 1);
  EXPECT_EQ(self->fired, 3);
  ASSERT_EQ(moved->fired, 1);
  EXPECT_NEAR(moved->firedAt[0], start + 0.06, 1e-9);
}

TEST_F(TimerWheelTest, ACallbackMayReleaseTheWheel) {
  make(10, 1000, false, 16);
  auto a = newTimer(now() + 0.01);
  auto b = newTimer(now() + 0.01);
  a->action = [&](TestTimer&) {
    for (auto const& t : timers) t->notifierIs(nullptr);
    wheel = nullptr;  // the last references go with the timers
  };
  sm->runUntil(start + 1);
  EXPECT_EQ(a->fired, 1);
  EXPECT_EQ(b->fired, 0);
  EXPECT_EQ(wheel, nullptr);
}

TEST_F(TimerWheelTest, OwnerDrivenWheelWithoutAClock) {
  wheel = Vell::timerWheelFactory(activity, nullptr, 10, 1000, false, 16);
  auto t = newTimer(now() + 0.03);
  EXPECT_DOUBLE_EQ(wheel->systemClockTimeMin(), start + 0.03);
  EXPECT_EQ(sm->armedClockReactors(), 0u);
  vt.advance(0.03);
  wheel->handleSystemClock();
  EXPECT_EQ(t->fired, 1);
}

// ---- assertions ------------------------------------------------------------------------------------

using TimerWheelDeathTest = TimerWheelTest;

TEST_F(TimerWheelDeathTest, AssertionTexts) {
  make(10, 1000, false, 16);
  auto t = newTimer();
  EXPECT_DEATH(t->timeMinIs(std::nan("")), "Assertion failed: !isnan\\( n->timeMin\\(\\) \\) \\[HTimerWheel:");
  Ptr<TestTimer> detached = new TestTimer;
  EXPECT_DEATH(detached->timeMinIs(std::nan("")), "!isnan\\( n->timeMin\\(\\) \\)");
  EXPECT_DEATH(wheel->handleInitialized(), "Assertion failed: !initialized\\(\\) \\[HTimerWheel:[0-9]+\\] in .*"
                                           "Vell::TimerWheel::handleInitialized\\(\\)");
  EXPECT_DEATH(wheel->handleSystemClock(), "schedIndex != InvalidWheelIndex");
  t->timeMinIs(now() + 1);
  EXPECT_DEATH(wheel->doAddNewBucket(16), "Assertion failed: timers\\(\\) == 0");
}

}  // namespace
