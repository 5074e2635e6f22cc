// EventClock under virtual time: the tick sequence, observers that stop and restart
// the clock from their handlers, lifetime, and a random run against a model.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <sstream>

#include <Vell/EventClock.h>

namespace {

using Quor::Seconds;
using Vell::EventClock;
using Vell::U32;

constexpr Seconds t0 = 1000.0;

// Records each notification as "what@seconds-since-t0", then runs `react`.
struct Recorder : EventClock::NotifieeConst {
  std::ostringstream log;
  std::function<void(std::string const&)> react;
  void note(std::string const& what) {
    log << (log.tellp() ? " " : "") << what << '@' << (Quor::now() - t0);
    if (react) react(what);
  }
  void onClock() override { note("clock"); }
  void onDeadline() override { note("deadline"); }
  void onEventCheck() override { note("check"); }
  void onTimerExpiration() override { note("expiry"); }
};

struct Counted : EventClock {
  static inline int live = 0;
  template <class... A>
  explicit Counted(A&&... a) : EventClock(std::forward<A>(a)...) { ++live; }
  ~Counted() override { --live; }
};

class EventClockTest : public ::testing::Test {
 protected:
  Quor::VirtualTime vt{t0};
  Quor::Ptr<Quor::Clock> clock = Quor::clockFactory("ticks");
  Quor::Ptr<Quor::ActivitySm> loop = Quor::quorActivitySmFor(clock->activity());
  Quor::Ptr<Recorder> rec{new Recorder};
  Quor::Ptr<EventClock> ec;

  void make(Seconds interval, Seconds timeout) {
    ec = Vell::eventClockFactory(clock->activity(), clock, interval, timeout);
    rec->notifierIs(ec);
  }
  void TearDown() override {
    rec->notifierIs(nullptr);
    ec = nullptr;
    EXPECT_EQ(loop->armedClockReactors(), 0u);
  }
};

TEST_F(EventClockTest, ChecksEachIntervalThenExpiresOnce) {
  make(1, 3.5);
  std::vector<std::string> traces;
  Quor::traceLevelIs("EventClock", 9);
  Quor::traceSinkIs([&](Quor::TraceRecord const& r) { traces.push_back(r.text); });
  ec->start();
  EXPECT_EQ(ec->eventCheck(), 1u);  // the first check comes before any time passes
  loop->runUntil(t0 + 10);
  Quor::traceLevelIs("EventClock", -1);
  Quor::traceSinkIs({});

  EXPECT_EQ(rec->log.str(), "deadline@0 check@0 check@1 check@2 check@3 expiry@4");
  EXPECT_EQ(ec->eventCheck(), 4u);
  EXPECT_EQ(ec->timerExpiration(), 1u);
  EXPECT_EQ(ec->deadline(), t0 + 3.5);
  EXPECT_FALSE(ec->polling());
  std::vector<std::string> expected{"start Now: 1000, deadline: 1003.5 polling interval: 1"};
  for (int t = 1; t <= 4; ++t)
    expected.insert(expected.end(), {"handleClock", "handleClock Retriggering timer to " + std::to_string(1000 + t)});
  expected.insert(expected.end(), {"handleClock", "handleClock TIMEOUT!", "stop TimeMin was: inf"});
  EXPECT_EQ(traces, expected);
}

TEST_F(EventClockTest, ObserverStopsOnItsEvent) {
  make(1, 3.5);
  rec->react = [&](std::string const& what) {
    if (what == "check" && ec->eventCheck() == 2) ec->stop();
  };
  ec->start();
  loop->runUntil(t0 + 10);
  EXPECT_EQ(rec->log.str(), "deadline@0 check@0 check@1");
  EXPECT_EQ(ec->timerExpiration(), 0u);
  EXPECT_FALSE(ec->polling());
}

TEST_F(EventClockTest, ObserverRestartsOnExpiry) {
  make(1, 1.5);
  rec->react = [&](std::string const& what) {
    if (what == "expiry" && ec->timerExpiration() < 3) ec->start();
  };
  ec->start();
  loop->runUntil(t0 + 10);
  EXPECT_EQ(rec->log.str(),
            "deadline@0 check@0 check@1 expiry@2 deadline@2 check@2 check@3 expiry@4 "
            "deadline@4 check@4 check@5 expiry@6");
  EXPECT_EQ(ec->eventCheck(), 6u);  // counters run on across restarts
  EXPECT_EQ(ec->timerExpiration(), 3u);
}

TEST_F(EventClockTest, RestartWhilePollingMovesTheDeadlineAndChecksAtOnce) {
  make(1, 3.5);
  ec->start();
  loop->runUntil(t0 + 1.5);
  ec->start();  // the tick due at 2 is replaced by the new series
  loop->runUntil(t0 + 10);
  EXPECT_EQ(rec->log.str(),
            "deadline@0 check@0 check@1 deadline@1.5 check@1.5 check@2.5 check@3.5 check@4.5 expiry@5.5");
  ec->start();
  ec->start();  // same instant: the deadline is unchanged and not notified again
  EXPECT_EQ(rec->log.str(),
            "deadline@0 check@0 check@1 deadline@1.5 check@1.5 check@2.5 check@3.5 check@4.5 expiry@5.5 "
            "deadline@10 check@10 check@10");
}

TEST_F(EventClockTest, NegativeAndZeroTimeouts) {
  make(1, -1);
  ec->start();  // expires in the first check, without one
  EXPECT_EQ(rec->log.str(), "deadline@0 expiry@0");
  EXPECT_EQ(ec->deadline(), t0 - 1);
  EXPECT_FALSE(ec->polling());
  ec->timeoutIs(0);
  loop->runUntil(t0 + 1);
  ec->start();  // the deadline instant itself is in time
  loop->runUntil(t0 + 5);
  EXPECT_EQ(rec->log.str(), "deadline@0 expiry@0 deadline@1 check@1 expiry@2");
}

TEST_F(EventClockTest, SettersNotifyOnlyOnChange) {
  make(1, 3.5);
  ec->deadlineIs(0);
  ec->eventCheckIs(0);
  ec->eventCheckInc(0);
  ec->timerExpirationIs(0);
  EXPECT_EQ(rec->log.str(), "");
  ec->eventCheckIs(U32(-1));
  ec->eventCheckInc();  // wraps, and still notifies
  ec->timerExpirationInc(2);
  ec->deadlineIs(5);
  EXPECT_EQ(rec->log.str(), "check@0 check@0 expiry@0 deadline@0");
  EXPECT_EQ(ec->eventCheck(), 0u);
}

TEST_F(EventClockTest, BoundsOfIntervalAndTimeout) {
  auto expectRange = [](auto f, char const* text) {
    try {
      f();
      ADD_FAILURE() << "no exception for " << text;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), text);
    }
  };
  expectRange([&] { make(-0.5, 1); }, "EventClock::pollingInterval < 0 or > inf not allowed");
  expectRange([&] { make(std::nan(""), 1); }, "EventClock::pollingInterval < 0 or > inf not allowed");
  expectRange([&] { make(1, std::nan("")); }, "EventClock::timeout < -inf or > inf not allowed");
  make(0.5, Quor::endOfTime);
  expectRange([&] { ec->pollingIntervalIs(-1); }, "EventClock::pollingInterval < 0 or > inf not allowed");
  expectRange([&] { ec->timeoutIs(std::nan("")); }, "EventClock::timeout < -inf or > inf not allowed");
  EXPECT_EQ(ec->pollingInterval(), 0.5);
  EXPECT_EQ(ec->timeout(), Quor::endOfTime);
}

TEST_F(EventClockTest, ReplacingAndRemovingTheClock) {
  make(1, 3.5);
  ec->start();
  loop->runUntil(t0 + 1.5);
  auto other = Quor::clockFactory("other");
  ec->clockIs(other);  // the tick due at 2 moves to the new reactor
  ec->clockIs(other);
  EXPECT_TRUE(ec->clock()->notifier() == other);
  loop->runUntil(t0 + 2.5);
  ec->clockDel();
  loop->runUntil(t0 + 10);
  EXPECT_EQ(rec->log.str(), "deadline@0 check@0 check@1 clock@1.5 check@2 clock@2.5");
  EXPECT_FALSE(ec->polling());
  ec->start();  // without a tick source: one check, nothing scheduled
  EXPECT_EQ(ec->eventCheck(), 4u);
  EXPECT_EQ(loop->armedClockReactors(), 0u);
}

TEST_F(EventClockTest, LastReferenceEndsItEvenFromInsideAHandler) {
  ec = Quor::makeEntity<Counted>(nullptr, clock, 1, 10);
  ASSERT_EQ(Counted::live, 1);
  ec->start();
  Quor::Ptr<EventClock::QuorClock const> reactor = ec->clock();
  ec = nullptr;  // the armed reactor's back pointer does not keep it alive
  EXPECT_EQ(Counted::live, 0);
  EXPECT_EQ(reactor->eventClock(), nullptr);
  EXPECT_EQ(loop->armedClockReactors(), 0u);
  loop->runUntil(t0 + 3);

  // An observer that detaches and drops the last reference in its own handler.
  ec = Quor::makeEntity<Counted>(nullptr, clock, 1, 10);
  rec->notifierIs(ec);
  rec->react = [&](std::string const& what) {
    if (what != "check" || ec->eventCheck() < 2) return;
    rec->notifierIs(nullptr);
    ec = nullptr;
  };
  ec->start();
  loop->runUntil(t0 + 10);
  EXPECT_EQ(Counted::live, 0);
  EXPECT_EQ(rec->log.str(), "deadline@3 check@3 check@4");
}

// The model: one tick at a time, in plain arithmetic.
struct Model {
  Seconds interval, timeout, deadline = 0, next = Quor::endOfTime;
  U32 checks = 0, expiries = 0;
  void tick(Seconds t) {
    if (deadline >= t) {
      next = t + interval;
      ++checks;
    } else {
      next = Quor::endOfTime;
      ++expiries;
    }
  }
  void start(Seconds t) {
    deadline = t + timeout;
    tick(t);
  }
  void runTo(Seconds t) {
    while (next <= t) tick(next);
  }
};

TEST_F(EventClockTest, MatchesModelOverRandomStartsStopsAndRuns) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](int n) { return static_cast<int>(rng() % unsigned(n)); };
    Model m{0.25 * (1 + pick(6)), 0.5 * (pick(10) - 2)};
    make(m.interval, m.timeout);
    for (int step = 0; step < 300; ++step) {
      int const op = pick(10);
      if (op < 2) {
        m.start(Quor::now());
        ec->start();
      } else if (op < 3) {
        m.next = Quor::endOfTime;
        ec->stop();
      } else {
        Seconds const until = Quor::now() + 0.125 * (1 + pick(24));
        m.runTo(until);
        loop->runUntil(until);
      }
      ASSERT_EQ(ec->eventCheck(), m.checks) << "step " << step;
      ASSERT_EQ(ec->timerExpiration(), m.expiries) << "step " << step;
      ASSERT_EQ(ec->deadline(), m.deadline) << "step " << step;
      ASSERT_EQ(ec->clock()->timeMin(), m.next) << "step " << step;
    }
  }
}

}  // namespace
