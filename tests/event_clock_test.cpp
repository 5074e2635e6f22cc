// EventClock under virtual time: the tick sequence and its traces, observers that stop
// and restart the clock from their handlers, the tick source and lifetime, and random
// starts, stops and runs against a model.

#include "TestSupport.h"

#include <cmath>
#include <functional>
#include <sstream>
#include <tuple>

#include <Vell/EventClock.h>

namespace {

using VellTest::rangeText;

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

class EventClockTest : public VellTest::LoopFixture {
 protected:
  Quor::Ptr<Recorder> rec{new Recorder};
  Quor::Ptr<EventClock> ec;

  // A new clock observed by `rec`, whose log starts afresh.
  void make(Seconds interval, Seconds timeout) {
    ec = Vell::eventClockFactory(clock->activity(), clock, interval, timeout);
    rec->notifierIs(ec);
    rec->log.str("");
  }
  // Starts the clock, runs the loop until `until` and returns what the observer saw.
  std::string startAndRun(Seconds until) {
    ec->start();
    loop->runUntil(until);
    return rec->log.str();
  }
  void TearDown() override {
    rec->notifierIs(nullptr);
    ec = nullptr;
    LoopFixture::TearDown();
  }
};

TEST_F(EventClockTest, ChecksEachIntervalThenExpiresOnce) {
  make(1, 3.5);
  VellTest::TraceCapture traces("EventClock");
  ec->start();
  EXPECT_EQ(ec->eventCheck(), 1u);  // the first check comes before any time passes
  loop->runUntil(t0 + 10);
  EXPECT_EQ(rec->log.str(), "deadline@0 check@0 check@1 check@2 check@3 expiry@4");
  EXPECT_EQ(std::tuple(ec->eventCheck(), ec->timerExpiration(), ec->deadline(), ec->polling()),
            std::tuple(4u, 1u, t0 + 3.5, false));
  std::vector<std::string> expected{"start Now: 1000, deadline: 1003.5 polling interval: 1"};
  for (int t = 1; t <= 4; ++t)
    expected.insert(expected.end(), {"handleClock", "handleClock Retriggering timer to " + std::to_string(1000 + t)});
  expected.insert(expected.end(), {"handleClock", "handleClock TIMEOUT!", "stop TimeMin was: inf"});
  EXPECT_EQ(traces.texts(), expected);
}

TEST_F(EventClockTest, ObserversStopAndRestartFromTheirHandlers) {
  make(1, 3.5);
  rec->react = [&](std::string const& what) {
    if (what == "check" && ec->eventCheck() == 2) ec->stop();  // the next tick is already armed
  };
  EXPECT_EQ(startAndRun(t0 + 10), "deadline@0 check@0 check@1");
  EXPECT_FALSE(ec->polling());

  make(1, 1.5);
  rec->react = [&](std::string const& what) {
    if (what == "expiry" && ec->timerExpiration() < 3) ec->start();  // the clock is already stopped
  };
  EXPECT_EQ(startAndRun(t0 + 20),
            "deadline@10 check@10 check@11 expiry@12 deadline@12 check@12 check@13 expiry@14 "
            "deadline@14 check@14 check@15 expiry@16");
  EXPECT_EQ(std::pair(ec->eventCheck(), ec->timerExpiration()), std::pair(6u, 3u));  // across restarts
}

TEST_F(EventClockTest, BoundsAndCounterWrap) {
  EXPECT_EQ(rangeText([&] { make(-0.5, 1); }), "EventClock::pollingInterval < 0 or > inf not allowed");
  EXPECT_EQ(rangeText([&] { make(1, std::nan("")); }), "EventClock::timeout < -inf or > inf not allowed");
  make(0.5, Quor::endOfTime);
  EXPECT_THROW(ec->pollingIntervalIs(std::nan("")), Quor::RangeException);
  EXPECT_THROW(ec->timeoutIs(std::nan("")), Quor::RangeException);
  EXPECT_EQ(std::pair(ec->pollingInterval(), ec->timeout()), std::pair(0.5, Quor::endOfTime));  // unchanged

  ec->eventCheckIs(U32(-1));
  ec->eventCheckInc();  // wraps, and still notifies
  EXPECT_EQ(rec->log.str(), "check@0 check@0");
  EXPECT_EQ(ec->eventCheck(), 0u);
}

// The tick source replaced and removed. Then an observer detaches and drops the last
// reference from its handler while the reactor is armed: the reactor's back pointer
// does not keep the clock alive, and the clock disarms and unhooks it as it goes.
TEST_F(EventClockTest, TickSourceReplacedRemovedOrOutlivingItsClock) {
  make(1, 3.5);
  ec->start();
  loop->runUntil(t0 + 1.5);
  auto other = Quor::clockFactory("other");
  ec->clockIs(other);  // the tick due at 2 moves to the new reactor
  ec->clockIs(other);
  EXPECT_TRUE(ec->clock()->notifier() == other);
  loop->runUntil(t0 + 2.5);
  Quor::Ptr<EventClock::QuorClock const> reactor = ec->clock();  // held past its removal
  ec->clockDel();
  EXPECT_EQ(loop->armedClockReactors(), 0u) << "the tick due at 3 outlived clockDel";
  EXPECT_EQ(startAndRun(t0 + 10), "deadline@0 check@0 check@1 clock@1.5 check@2 clock@2.5 deadline@2.5 check@2.5");
  EXPECT_FALSE(ec->polling());  // without a tick source: one check, nothing scheduled
  EXPECT_EQ(loop->armedClockReactors(), 0u);

  make(1, 10);
  reactor = ec->clock();
  rec->react = [&](std::string const& what) {
    if (what != "check" || ec->eventCheck() < 2) return;
    rec->notifierIs(nullptr);
    ec = nullptr;
  };
  EXPECT_EQ(startAndRun(t0 + 20), "deadline@10 check@10 check@11");
  EXPECT_EQ(reactor->eventClock(), nullptr);
  EXPECT_EQ(loop->armedClockReactors(), 0u) << "the reactor still held here must be disarmed";
}

// The model: one tick at a time, in plain arithmetic, writing what an observer hears.
struct Model {
  Seconds interval = 0, timeout = 0, deadline = 0, next = Quor::endOfTime;
  U32 checks = 0, expiries = 0;
  std::ostringstream log;
  void note(char const* what, Seconds t) { log << (log.tellp() ? " " : "") << what << '@' << (t - t0); }
  void tick(Seconds t) {
    if (deadline >= t) {
      next = t + interval;
      ++checks;
      note("check", t);
    } else {
      next = Quor::endOfTime;
      ++expiries;
      note("expiry", t);
    }
  }
  void start(Seconds t) {
    if (deadline != t + timeout) note("deadline", t);  // an unchanged deadline tells nobody
    deadline = t + timeout;
    tick(t);
  }
  void runTo(Seconds t) {
    while (next <= t) tick(next);
  }
};

// Negative, zero and exact-multiple timeouts, restarts while polling (at the same instant
// too) and stops, against the model, notifications and their order included.
TEST_F(EventClockTest, MatchesModelOverRandomStartsStopsAndRuns) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    VELL_SEEDED(rng, seed);
    auto pick = [&](int n) { return rng.pick(n); };
    Model m;
    m.interval = 0.25 * (1 + pick(6)), m.timeout = 0.5 * (pick(10) - 2);
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
      ASSERT_EQ(std::tuple(ec->eventCheck(), ec->timerExpiration(), ec->deadline(), ec->clock()->timeMin()),
                std::tuple(m.checks, m.expiries, m.deadline, m.next))
          << "step " << step;
      ASSERT_EQ(rec->log.str(), m.log.str()) << "step " << step;
    }
  }
}

}  // namespace
