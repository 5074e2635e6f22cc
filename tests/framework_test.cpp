// The framework layer: reference counting, notification, the activity loop under
// virtual time, descriptors, tracing, logging, exceptions and the text form pieces.
#include <fcntl.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <new>
#include <stdexcept>
#include <thread>

#include "TestSupport.h"

// The replacements below pair operator new with free(), which GCC reports at every
// inlined delete of this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {

// Every allocation of this program is counted, so a test can assert that a path
// allocates nothing.
std::size_t allocations = 0;

}  // namespace

void* operator new(std::size_t n) {
  ++allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using VellTest::rangeText;

// ---- reference counting ----

struct Counted : Quor::PtrInterface {
  static inline int alive = 0;
  static inline int deletions = 0;
  Counted() { ++alive; }
  ~Counted() override { --alive; }
  void handleDel() override { ++deletions; }
};

// The last drop frees exactly once; a static object is never counted nor freed.
TEST(PtrTest, LastDropFreesExactlyOnceAndStaticObjectsNever) {
  Counted::alive = Counted::deletions = 0;
  {
    Quor::Ptr<Counted> a(new Counted);
    Quor::Ptr<Counted const> b = a;  // a const view shares the count
    Quor::Ptr<Counted> c = std::move(a);
    EXPECT_FALSE(a);
    EXPECT_EQ(c->references(), 2u);
    b = nullptr;
    EXPECT_EQ(std::pair(Counted::alive, c->references()), std::pair(1, 1u));
  }
  EXPECT_EQ(std::pair(Counted::alive, Counted::deletions), std::pair(0, 1));
  static Counted* s = new Counted;  // stands for a static object: must never be freed
  s->staticIs();
  {
    Quor::Ptr<Counted> a(s), b = a;
    EXPECT_EQ(s->references(), Quor::PtrInterface::staticMarker & Quor::PtrInterface::countMask);
  }
  EXPECT_EQ(Counted::deletions, 1);
  EXPECT_TRUE(s->isStatic());
}

TEST(PtrTest, CopiesOnManyThreadsKeepTheCountExact) {
  Counted::alive = 0;
  Quor::Ptr<Counted> shared(new Counted);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 100000; ++i) {
        Quor::Ptr<Counted> copy = shared;
        Quor::Ptr<Counted> again(copy);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared->references(), 1u);
  shared = nullptr;
  EXPECT_EQ(Counted::alive, 0);
}

// ---- entities and notification ----

class Thermostat : public Quor::Entity {
 public:
  class NotifieeConst : public Quor::BaseNotifiee<Thermostat, NotifieeConst> {
   public:
    virtual void onSetpoint() {}
    virtual void onMode() {}
  };
  explicit Thermostat(Quor::Name const& n) : Entity(n) {}
  double setpoint() const { return setpoint_; }
  void setpointIs(double v) {
    QUOR_CHECK_RANGE("Thermostat", "setpoint", v, -40, 0x7f);
    Quor::attrIs(setpoint_, v, notifiees_, &NotifieeConst::onSetpoint);
  }
  int mode() const { return mode_; }
  void modeIs(int m) { Quor::attrIs(mode_, m, notifiees_, &NotifieeConst::onMode); }
  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

 private:
  double setpoint_ = 20;
  int mode_ = 0;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

struct Recorder : Thermostat::NotifieeConst {
  std::vector<std::string>* log;
  std::string tag;
  std::function<void()> onSet;
  Recorder(std::vector<std::string>* l, std::string t) : log(l), tag(std::move(t)) {}
  void onSetpoint() override {
    log->push_back(tag + ":setpoint");
    if (onSet) onSet();
  }
  void onMode() override { log->push_back(tag + ":mode"); }
};

class NotificationTest : public ::testing::Test {
 protected:
  Quor::Ptr<Thermostat> t = Quor::makeEntity<Thermostat>("t");
  std::vector<std::string> log;
};

TEST_F(NotificationTest, OnlyChangesNotifyAndNestedNotificationsRunInOrder) {
  Quor::Ptr<Recorder> a(new Recorder(&log, "a"));
  Quor::Ptr<Recorder> b(new Recorder(&log, "b"));
  a->notifierIs(t);
  b->notifierIs(t);
  t->setpointIs(20);  // unchanged
  EXPECT_THROW(t->setpointIs(200), Quor::RangeException);
  EXPECT_THROW(t->setpointIs(NAN), Quor::RangeException);
  EXPECT_EQ(t->setpoint(), 20);
  EXPECT_TRUE(log.empty());
  a->onSet = [&] { t->modeIs(t->mode() + 1); };  // re-enters the notifier
  t->setpointIs(25);
  EXPECT_EQ(log, (std::vector<std::string>{"a:setpoint", "a:mode", "b:mode", "b:setpoint"}));
}

TEST_F(NotificationTest, ReactorsMayAttachAndDetachDuringDelivery) {
  Quor::Ptr<Recorder> a(new Recorder(&log, "a"));
  Quor::Ptr<Recorder> b(new Recorder(&log, "b"));
  Quor::Ptr<Recorder> c(new Recorder(&log, "c"));
  for (auto* r : {a.ptr(), b.ptr(), c.ptr()}) r->notifierIs(t);
  Quor::Ptr<Recorder> late(new Recorder(&log, "late"));
  // a detaches itself, destroys c and attaches late: c must not be called, b must, and
  // late only from the next change on.
  a->onSet = [&] {
    a->notifierIs(nullptr);
    c = nullptr;
    late->notifierIs(t);
  };
  t->setpointIs(22);
  EXPECT_EQ(log, (std::vector<std::string>{"a:setpoint", "b:setpoint"}));
  log.clear();
  t->setpointIs(23);
  EXPECT_EQ(log, (std::vector<std::string>{"b:setpoint", "late:setpoint"}));
  EXPECT_EQ(t->notifiees().size(), 2u);
}

// ---- the loop and clocks, under virtual time ----

struct Alarm : Quor::Clock::NotifieeConst {
  std::vector<std::string>* log;
  std::string tag;
  std::function<void(Alarm*)> react;
  Alarm(std::vector<std::string>* l, std::string t) : log(l), tag(std::move(t)) {}
  void onTime() override {
    log->push_back(tag + "@" + std::to_string(static_cast<long>(Quor::now())));
    if (react) react(this);
  }
};

class LoopTest : public VellTest::LoopFixture {
 protected:
  std::vector<std::string> log;

  Quor::Ptr<Alarm> alarm(std::string const& tag, Quor::Seconds at) {
    Quor::Ptr<Alarm> a(new Alarm(&log, tag));
    a->notifierIs(clock);
    a->timeMinIs(at);
    return a;
  }
};

// Every way of running the loop jumps virtual time to the next timeMin or to the end of
// its wait, whichever comes first, and never sleeps.
TEST_F(LoopTest, RunVariantsJumpVirtualTime) {
  int n = 0;
  auto a = alarm("a", 1010);
  a->react = [&](Alarm* self) {
    if (++n < 6) self->timeMinIs(Quor::now() + 1);
    if (n == 5) loop->stop();
  };
  EXPECT_FALSE(loop->runOnce(3));
  EXPECT_EQ(Quor::now(), 1003);
  EXPECT_TRUE(loop->runOnce(100));  // stops at the armed time, not at the wait's end
  EXPECT_EQ(Quor::now(), 1010);
  EXPECT_TRUE(loop->runUntil([&] { return n >= 3; }, 100));
  EXPECT_EQ(Quor::now(), 1012);
  loop->run();  // returns once the reactor calls stop()
  EXPECT_EQ(n, 5);
  EXPECT_FALSE(loop->runUntil([] { return false; }, 10));
  EXPECT_EQ(std::pair(n, Quor::now()), std::pair(6, 1024.0));
  auto const wallBefore = std::chrono::steady_clock::now();
  loop->runUntil(1024 + 86400 * 365.0);  // a year of virtual time
  EXPECT_LT(std::chrono::steady_clock::now() - wallBefore, std::chrono::seconds(1));
  EXPECT_EQ(Quor::now(), 1024 + 86400 * 365.0);
}

// The loop against a model: a pass runs, in (timeMin, arming) order, every reactor due
// at its start and armed before it; what a reactor arms during the pass, in the past
// included, waits for the next one. Reactors re-arm themselves and arm, cancel, detach,
// re-attach and destroy one another (and themselves) from onTime, with many equal deadlines;
// now and then one throws, and the next pass runs what the failed one left.
TEST_F(LoopTest, RandomizedAgainstModel) {
  unsigned const seed = 20261125;
  VELL_SEEDED(rng, seed);
  constexpr int n = 40;
  struct Model {
    std::map<int, std::pair<Quor::Seconds, std::uint64_t>> armed;  // id -> (time, seq)
    std::uint64_t seq = 0;
    void arm(int id, Quor::Seconds t) {
      if (t == Quor::endOfTime) return (void)armed.erase(id);
      armed[id] = {t, seq++};
    }
  } model;
  std::vector<Quor::Ptr<Alarm>> r(n);
  std::vector<bool> attached(n, true);
  Quor::Seconds passTime = 0;
  std::uint64_t passSeq = 0;
  int fired = 0, throws = 0;

  auto pick = [&](int hi) { return rng.pick(hi); };
  // Past, now and soon with many ties, and now and then later: a heap of some depth.
  auto randomTime = [&] { return Quor::now() + pick(4) - 1 + (pick(3) == 0 ? pick(60) : 0); };
  auto timeMinIs = [&](int id, Quor::Seconds t) {
    if (t == r[id]->timeMin()) return;  // unchanged: no new arming
    r[id]->timeMinIs(t);
    if (attached[id]) model.arm(id, t);
  };
  std::function<void(int)> make = [&](int id) {
    r[id] = new Alarm(&log, std::to_string(id));
    attached[id] = true;
    r[id]->notifierIs(clock);
    r[id]->react = [&, id](Alarm*) {
      // The reactor that runs is the model's next due one.
      auto due = [&](auto const& e) { return e.second.first <= passTime && e.second.second < passSeq; };
      auto next = model.armed.end();
      for (auto it = model.armed.begin(); it != model.armed.end(); ++it)
        if (due(*it) && (next == model.armed.end() || it->second < next->second)) next = it;
      ASSERT_TRUE(next != model.armed.end());
      EXPECT_EQ(next->first, id);
      EXPECT_EQ(r[id]->timeMin(), Quor::endOfTime) << "a one-shot is disarmed before onTime";
      model.armed.erase(id);
      ++fired;
      int const other = pick(n);
      switch (pick(7)) {
        case 0: timeMinIs(id, randomTime()); break;
        case 1: timeMinIs(other, randomTime()); break;
        case 2: timeMinIs(other, Quor::endOfTime); break;
        case 3:  // detach, or attach again (an armed time comes back as a new arming)
          attached[other] = !attached[other];
          r[other]->notifierIs(attached[other] ? Quor::Ptr<Quor::Clock const>(clock) : nullptr);
          if (attached[other]) model.arm(other, r[other]->timeMin());
          else model.armed.erase(other);
          break;
        case 4:  // destroyed and replaced, the running reactor itself included
          model.armed.erase(other);
          make(other);
          break;
        case 5:  // escapes runOnce(): what the pass had still to run waits for the next one
          if (pick(20) == 0) ++throws, throw std::runtime_error("reactor failed");
          break;
        default: break;  // one-shot: done
      }
    };
  };
  for (int id = 0; id < n; ++id) make(id);
  for (int turn = 0; turn < 3000; ++turn) {
    for (int k = pick(6); k > 0; --k) timeMinIs(pick(n), pick(4) == 0 ? Quor::endOfTime : randomTime());
    if (pick(4) == 0) vt.advance(1);
    passTime = Quor::now();
    passSeq = model.seq;
    bool threw = false;
    try {
      loop->runOnce(0);
    } catch (std::runtime_error const&) {
      threw = true;
    }
    // Invariant walker: unless a reactor threw, nothing due from before the pass is left;
    // sizes and the next time agree with the model.
    Quor::Seconds modelNext = Quor::endOfTime;
    for (auto& [id, key] : model.armed) {
      EXPECT_FALSE(!threw && key.first <= passTime && key.second < passSeq) << "reactor " << id << " skipped";
      modelNext = std::min(modelNext, key.first);
    }
    ASSERT_EQ(loop->armedClockReactors(), armedBefore + model.armed.size()) << "turn " << turn;
    ASSERT_EQ(loop->nextTimeMin(), modelNext) << "turn " << turn;
  }
  EXPECT_GT(fired, 2000);  // the mix kept the loop busy
  EXPECT_GT(throws, 10);
  for (auto& a : r) a->timeMinIs(Quor::endOfTime);
}

// Once the loop's heap has grown, arming, re-arming, disarming and running due reactors
// that re-arm themselves allocate nothing.
TEST_F(LoopTest, ArmingAllocatesNothingInASteadyState) {
  std::vector<Quor::Ptr<Alarm>> alarms;
  for (int i = 0; i < 1000; ++i) alarms.push_back(alarm("a", 2000 + i % 7));
  for (auto& a : alarms) a->react = [](Alarm* self) { self->timeMinIs(Quor::now() + 5); };
  log.reserve(10000);
  loop->runOnce(0);
  std::size_t const before = allocations;
  for (int round = 0; round < 3; ++round) {
    for (std::size_t i = 0; i < alarms.size(); i += 3) alarms[i]->timeMinIs(Quor::endOfTime);
    for (std::size_t i = 0; i < alarms.size(); i += 3) alarms[i]->timeMinIs(1500 + static_cast<double>(i % 11));
    for (std::size_t i = 1; i < alarms.size(); i += 3) alarms[i]->timeMinIs(1800 - static_cast<double>(i % 5));
    vt.advance(1000);
    loop->runOnce(0);  // every alarm due runs, and re-arms itself
  }
  EXPECT_EQ(allocations - before, 0u);
  EXPECT_GT(log.size(), 1000u);
}

// now() follows the monotonic clock from the wall-clock time it started at: a step of
// the system clock moves wallClockNow() but neither stalls nor rushes armed reactors.
TEST(TimeTest, SystemClockStepDoesNotMoveNow) {
  static Quor::Seconds wall = 1.7e9, mono = 500;
  Quor::detail::systemClocksIs([] { return wall; }, [] { return mono; });
  EXPECT_EQ(Quor::now(), 1.7e9);
  mono += 2, wall += 2;
  EXPECT_EQ(Quor::now(), 1.7e9 + 2);
  wall -= 3600;  // an operator sets the clock back an hour
  mono += 1, wall += 1;
  EXPECT_EQ(Quor::now(), 1.7e9 + 3);
  EXPECT_EQ(Quor::wallClockNow(), 1.7e9 + 3 - 3600);
  wall += 7200;  // and forward two hours
  EXPECT_EQ(Quor::now(), 1.7e9 + 3);
  Quor::detail::systemClocksIs(nullptr, nullptr);
  Quor::Seconds const a = Quor::now(), b = Quor::wallClockNow();
  EXPECT_NEAR(a, b, 1.0);  // back on the real clocks, started afresh from the wall clock
  EXPECT_GE(Quor::now(), a);
}

// ---- descriptors ----

struct PipeReader : Quor::FileDescriptor::NotifieeConst {
  std::string got;
  int calls = 0;
  bool drain = true;
  void onReadableCount() override {
    ++calls;
    if (!drain) return;
    char buf[16];
    ssize_t n = ::read(notifier()->descriptor(), buf, sizeof buf);
    if (n > 0) got.append(buf, static_cast<std::size_t>(n));
  }
};

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

TEST_F(LoopTest, PipeWakesItsReactorLevelTriggeredAndIsClosedOnce) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  auto fd = Quor::fileDescriptorFactory("pipeRead");
  fd->descriptorIs(p[0]);
  Quor::Ptr<PipeReader> r(new PipeReader);
  r->notifierIs(fd);
  fd->notifyOnReadableIs(true);
  EXPECT_FALSE(loop->runOnce());
  ASSERT_EQ(::write(p[1], "hello", 5), 5);
  r->drain = false;  // not consumed: level-triggered, so it is reported every turn
  EXPECT_TRUE(loop->runOnce());
  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(fd->readableCount(), 2u);
  r->drain = true;
  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(r->got, "hello");
  EXPECT_FALSE(loop->runOnce());
  EXPECT_EQ(fd->readableCount(), 3u);
  fd->notifyOnReadableIs(false);
  ASSERT_EQ(::write(p[1], "x", 1), 1);
  EXPECT_FALSE(loop->runOnce());
  r = nullptr;
  fd = nullptr;
  EXPECT_FALSE(isOpen(p[0]));  // destruction closed it
  // The owner closes the write end itself and sets it to -1; its number is reused.
  int const writeEnd = p[1];
  fd = Quor::fileDescriptorFactory("pipeWrite");
  fd->descriptorIs(writeEnd);
  ::close(writeEnd);
  fd->descriptorIs(-1);
  ASSERT_EQ(::pipe(p), 0);
  ASSERT_TRUE(p[0] == writeEnd || p[1] == writeEnd);
  fd = nullptr;
  EXPECT_TRUE(isOpen(p[0]) && isOpen(p[1])) << "closed again";
  ::close(p[0]);
  ::close(p[1]);
}

TEST_F(LoopTest, HangupIsDeliveredAsReadableAndNoReactorMeansNoSpin) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  auto fd = Quor::fileDescriptorFactory("pipeRead");
  fd->descriptorIs(p[0]);
  fd->notifyOnReadableIs(true);
  ::close(p[1]);  // hang-up, and no reactor to read it
  EXPECT_TRUE(loop->runOnce());
  EXPECT_FALSE(fd->notifyOnReadable());  // switched off rather than spinning
  EXPECT_FALSE(loop->runOnce());
  Quor::Ptr<PipeReader> r(new PipeReader);
  r->notifierIs(fd);
  fd->notifyOnReadableIs(true);
  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(r->calls, 1);
}

TEST_F(LoopTest, RegularFileIsAlwaysReadyAndBadDescriptorIsSurvived) {
  char path[] = "/tmp/quorXXXXXX";
  int f = ::mkstemp(path);
  ASSERT_GE(f, 0);
  ::unlink(path);
  auto fd = Quor::fileDescriptorFactory("file");
  Quor::Ptr<PipeReader> r(new PipeReader);
  r->notifierIs(fd);
  fd->descriptorIs(f);
  fd->notifyOnReadableIs(true);
  EXPECT_TRUE(loop->runOnce());
  EXPECT_EQ(r->calls, 1);
  fd->notifyOnReadableIs(false);
  EXPECT_FALSE(loop->runOnce());

  auto bad = Quor::fileDescriptorFactory("bad");
  {
    VellTest::LogCapture logs;
    bad->descriptorIs(9999);  // not open: epoll refuses it; logged, not thrown
    bad->notifyOnReadableIs(true);
    ASSERT_EQ(logs.lines.size(), 1u);
    EXPECT_EQ(logs.lines[0], "ACTIVITY_LOOP_ERROR/4: epoll_ctl(ADD) failed on activity default (descriptor 9999): "
                             "Bad file descriptor");
  }
  EXPECT_FALSE(loop->runOnce());
  bad->descriptorIs(-1);
}

// ---- tracing and logging ----

TEST(TraceTest, OffChannelDoesNotEvaluateItsArgumentsOnChannelReachesTheSink) {
  static Quor::TraceHandle channel("FrameworkTestChannel");
  int evaluated = 0;
  auto expensive = [&] { return ++evaluated; };
  QUOR_TRACE(channel, 1, "value " << expensive());
  EXPECT_EQ(evaluated, 0);
  {
    VellTest::TraceCapture got("FrameworkTestChannel", 3);
    int const line = __LINE__ + 1;
    QUOR_TRACE(channel, 3, "value " << expensive());
    QUOR_TRACE(channel, 4, "too detailed " << expensive());
    Quor::traceLevelIs("FrameworkTestChannel", -1);
    QUOR_TRACE(channel, 0, "off again " << expensive());
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(got.records.size(), 1u);
    auto const& r = got.records[0];
    EXPECT_EQ(r.channel + "/" + std::to_string(r.level) + " " + r.stem + ":" + std::to_string(r.line) + " " +
                  r.function + " " + r.text,
              "FrameworkTestChannel/3 framework_test:" + std::to_string(line) + " TestBody value 1");
  }
  // A level set before the channel exists reaches it when it is made.
  Quor::traceLevelsIs("LateChannel", 2, 5);
  Quor::TraceHandle late("LateChannel");
  EXPECT_EQ(std::tuple(late.enabled(1), late.enabled(2), late.enabled(5), late.enabled(6)),
            std::tuple(false, true, true, false));
  Quor::traceLevelIs("LateChannel", -1);
  EXPECT_FALSE(late.enabled(0));
}

TEST(LogTest, RateLimitedMessagesCountWhatTheyDrop) {
  Quor::VirtualTime vt(500);
  VellTest::LogCapture got;
  Quor::LogHandle unlimited("TEST_UNLIMITED", Quor::LogSeverity::error, "fd %d: %s", "explanation",
                            Quor::NoActionRequired, 0.0, 1.0);
  for (int i = 0; i < 3; ++i) unlimited.log(i, "bad");
  Quor::LogHandle limited("TEST_LIMITED", Quor::LogSeverity::warning, "n=%d", "e", "a", 10.0, 2.0);
  for (int i = 0; i < 5; ++i) limited.log(i);
  EXPECT_FALSE(limited.okToLog());
  vt.advance(10);
  EXPECT_TRUE(limited.okToLog());
  limited.log(99);
  EXPECT_EQ(got.lines, (std::vector<std::string>{"TEST_UNLIMITED/4: fd 0: bad", "TEST_UNLIMITED/4: fd 1: bad",
                                                 "TEST_UNLIMITED/4: fd 2: bad", "TEST_LIMITED/3: n=0", "TEST_LIMITED/3: n=1",
                                                 "TEST_LIMITED/3: n=99 (3 similar messages suppressed)"}));
}

// ---- exceptions, assertions, collections ----

TEST(ExceptionTest, ExactTexts) {
  EXPECT_EQ(rangeText([] { QUOR_CHECK_RANGE("TimerWheel", "tickMsecs", 0u, 1, 3600000); }),
            "TimerWheel::tickMsecs < 1 or > 3600000 not allowed");
  EXPECT_EQ(rangeText([] { QUOR_CHECK_RANGE("BucketSize", "value", 1u, 2, 0xfffffffe); }),
            "BucketSize::value < 2 or > 0xfffffffe not allowed");
  EXPECT_EQ(rangeText([] { QUOR_CHECK_RANGE("TimerWheel", "processTimeLimit", 0.5, 0, 0.5); }), "no exception");
  EXPECT_EQ(rangeText([] { Quor::checkNotNull("Vell::AgentSocketHandlerSm", "fd", Quor::Ptr<Quor::FileDescriptor>()); }),
            "null _fd parameter to mutator for Vell::AgentSocketHandlerSm::fd not allowed\"");
  EXPECT_STREQ(Quor::constInstanceMessage(), "attempting to modify a const instance");
  Quor::LinkQueue<int> q(2);
  EXPECT_EQ(q.pushBack(7), 0u);
  EXPECT_EQ(q.pushBack(8), 1u);
  EXPECT_EQ(rangeText([&] { q.pushBack(9); }), "linkqueue index space full");
  q.remove(0);
  EXPECT_EQ(q.pushBack(9), 0u);  // freed index reused, queue order kept
  EXPECT_EQ(q.popFront(), 8);
  EXPECT_EQ(rangeText([&] { q.at(5); }), "linkqueue index out of range");
}

TEST(AssertDeathTest, PrintsConditionStemLineAndSignature) {
  struct Probe {
    static void check(int x) { QUOR_ASSERT(x > 1); }
  };
  EXPECT_DEATH(Probe::check(0), "Assertion failed: x > 1 \\[[A-Za-z_]+:[0-9]+\\] in static void .*Probe::check\\(int\\)");
  Quor::Ptr<Alarm> a(new Alarm(nullptr, "a"));
  EXPECT_DEATH(a->timeMinIs(NAN), "Assertion failed: !std::isnan\\(t\\) \\[[A-Za-z_]+:[0-9]+\\] in void Quor::Clock::NotifieeConst::timeMinIs");
}

}  // namespace
