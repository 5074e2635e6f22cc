// Timer wheel against the timers of two event loops and a std::multimap baseline, with
// 10^3, 10^5 and 10^6 armed timers:
//   Rearm      move a random armed timer to a new random deadline
//   CancelArm  cancel a random armed timer, then arm it again
//   FireAll    fire every timer once they are all due, per timer (counter per_timer)
// Deadlines are spread uniformly over 10 s. Rearm_RealClockInTurn is the production
// figure: the real clock, re-armed from a reactor with the loop turn's time plus a delay
// (the peers cache their loop's time the same way). Rearm_RealClock re-arms outside any
// turn, reading the clock twice per arming; Rearm runs under virtual time, where reading
// the clock is free (flattering, for comparison only). The peers' FireAll waits a few real
// milliseconds for its timers to come due, outside the measured part. The wheel's FireAll
// runs under virtual time (clock reads free); FireAll_RealClock reads the real clock,
// stepped past the deadlines instead of waited for. The wheel's FireTimeline lets the
// activity loop jump from wake-up to wake-up instead of catching up in one turn, and
// Wheel16k uses buckets wide enough that nothing cascades. Floor_FireAll is the least
// any firing can cost: the same timers walked along one list already in firing order.
#include <benchmark/benchmark.h>

#include <Vell/HTimerWheel.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

#ifdef VELL_HAVE_LIBEVENT
#include <event2/event.h>
#endif
#ifdef VELL_HAVE_LIBUV
#include <uv.h>
#endif

namespace {

using Vell::U32;
using Vell::U64;

constexpr U32 horizonMs = 10000;

// xorshift64*: the same cheap, deterministic stream for every contender.
struct Rng {
  U64 s;
  explicit Rng(U64 seed) : s(seed) {}
  U32 below(U32 n) {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return static_cast<U32>(((s * 0x2545F4914F6CDD1Dull) >> 32) % n);
  }
};

// One fixture lives at a time and is kept while consecutive benchmarks share its type
// and size: building 10^6 timers once per run of the benchmark body would dominate.
struct Fixture {
  virtual ~Fixture() = default;
};
std::unique_ptr<Fixture> current;
std::type_info const* currentType = nullptr;
int currentN = 0;

template <class F>
F& fixture(int n) {
  if (!current || currentType != &typeid(F) || currentN != n) {
    current.reset();  // first: only one virtual time may exist
    current = std::make_unique<F>(n);
    currentType = &typeid(F);
    currentN = n;
  }
  return static_cast<F&>(*current);
}

void dropFixture() {
  current.reset();
  currentType = nullptr;
}

// Fire-all benchmarks build their timers per iteration; this many iterations give at
// least a hundred thousand firings per size while bounding the peers' real waiting.
int fireIterations(int n) { return std::max(3, 100000 / n); }

// Fire-all: each iteration, prepare(n) builds n timers and makes them due, untimed; then
// fire(fixture) is timed, and every timer must have fired. Reports the time per timer.
template <class Prepare, class Fire>
void fireAll(benchmark::State& st, Prepare prepare, Fire fire) {
  dropFixture();
  int const n = static_cast<int>(st.range(0));
  for (auto _ : st) {
    st.PauseTiming();
    auto f = prepare(n);
    st.ResumeTiming();
    fire(*f);
    st.PauseTiming();
    if (f->fired != n) {
      st.SkipWithError("not every timer fired");
      break;
    }
    f.reset();
    st.ResumeTiming();
  }
  st.counters["per_timer"] =
      benchmark::Counter(n, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// ---- the wheel ----------------------------------------------------------------------------

struct WheelTimer : Vell::TimerWheel::NotifieeConst {
  long* fired = nullptr;
  void onTime() override { ++*fired; }
};

struct WheelFixture : Fixture {
  // bucketSize 256: most timers are cascaded once before they fire. 16384: bucket 0
  // spans the whole horizon and nothing cascades.
  explicit WheelFixture(int count, bool virtualTime = true, U32 bucketSize = 256) : n(count) {
    if (virtualTime) vt = std::make_unique<Quor::VirtualTime>(1.0e6);
    clock = Quor::clockFactory("bench clock");
    tw = Vell::timerWheelFactory(Quor::defaultActivityConfig(), clock, 1, horizonMs, false, bucketSize);
    timers = std::make_unique<WheelTimer[]>(static_cast<std::size_t>(n));
    Rng rng(7);
    Quor::Seconds const now = Quor::now();
    for (int i = 0; i < n; ++i) {
      timers[i].staticIs();  // array members: references are not counted
      timers[i].fired = &fired;
      timers[i].notifierIs(tw);
      timers[i].timeMinIs(now + (1 + rng.below(horizonMs)) * 1e-3);
    }
  }
  ~WheelFixture() override {
    timers.reset();
    tw = nullptr;
  }
  int n;
  long fired = 0;
  std::unique_ptr<Quor::VirtualTime> vt;
  Quor::Ptr<Quor::Clock> clock;
  Quor::Ptr<Vell::TimerWheel> tw;
  std::unique_ptr<WheelTimer[]> timers;
};

struct WheelRealClockFixture : WheelFixture {
  explicit WheelRealClockFixture(int count) : WheelFixture(count, false) {}
};

template <class F>
void wheelRearm(benchmark::State& st) {
  auto& f = fixture<F>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    WheelTimer& t = f.timers[rng.below(static_cast<U32>(f.n))];
    t.timeMinIs(Quor::now() + (1 + rng.below(horizonMs)) * 1e-3);
  }
}
void Wheel_Rearm(benchmark::State& st) { wheelRearm<WheelFixture>(st); }
void Wheel_Rearm_RealClock(benchmark::State& st) { wheelRearm<WheelRealClockFixture>(st); }

// Re-armed from a reactor, as an agent re-arms: the measurement runs inside one turn of
// the real loop and deadlines are the turn's time plus a delay, so the clock is read at
// the turn's start instead of twice per arming. This is the production figure.
struct InTurn : Quor::Clock::NotifieeConst {
  std::function<void()> body;
  void onTime() override { body(); }
};
void Wheel_Rearm_RealClockInTurn(benchmark::State& st) {
  auto& f = fixture<WheelRealClockFixture>(static_cast<int>(st.range(0)));
  Quor::Ptr<InTurn> r = new InTurn;
  r->notifierIs(f.clock);
  r->body = [&] {
    Rng rng(11);
    for (auto _ : st) {
      WheelTimer& t = f.timers[rng.below(static_cast<U32>(f.n))];
      t.timeMinIs(f.clock->time() + (1 + rng.below(horizonMs)) * 1e-3);
    }
  };
  r->timeMinIs(0.0);
  Quor::quorActivitySmFor(nullptr)->runOnce();
  if (r->timeMin() != Quor::endOfTime) st.SkipWithError("the reactor did not run");
}

void Wheel_CancelArm(benchmark::State& st) {
  auto& f = fixture<WheelFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  Quor::Seconds const now = Quor::now();
  for (auto _ : st) {
    WheelTimer& t = f.timers[rng.below(static_cast<U32>(f.n))];
    t.timeMinIs(Quor::endOfTime);
    t.timeMinIs(now + (1 + rng.below(horizonMs)) * 1e-3);
  }
}

template <bool timeline, U32 bucketSize = 256>
void wheelFire(benchmark::State& st) {
  auto sm = Quor::quorActivitySmFor(nullptr);
  fireAll(
      st,
      [](int n) {
        auto f = std::make_unique<WheelFixture>(n, true, bucketSize);
        if (!timeline) f->vt->advance(horizonMs * 1e-3 + 1);  // all due at once: catching up
        return f;
      },
      [&](WheelFixture& f) {
        if (timeline) {
          sm->runUntil(Quor::now() + horizonMs * 1e-3 + 1);
        } else {
          while (f.fired < f.n) sm->runOnce();  // a turn or two: the last due slot waits one turn
        }
      });
}
void Wheel_FireAll(benchmark::State& st) { wheelFire<false>(st); }
void Wheel_FireTimeline(benchmark::State& st) { wheelFire<true>(st); }
void Wheel16k_FireAll(benchmark::State& st) { wheelFire<false, 16384>(st); }

// The real clock, stepped: CLOCK_MONOTONIC read on every now() as in production (through
// the framework's clock hook, one indirect call more), plus an offset that the benchmark
// moves past every deadline instead of waiting 10 s. Hazard: putting the system clock back
// moves now() back by the whole step, so this runs after every other benchmark of the
// framework's loop, and each iteration's wheel goes with its fixture before that.
Quor::Seconds clockStep = 0;
Quor::Seconds steppedMonotonic() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9 + clockStep;
}
void Wheel_FireAll_RealClock(benchmark::State& st) {
  auto sm = Quor::quorActivitySmFor(nullptr);
  Quor::detail::systemClocksIs(nullptr, steppedMonotonic);
  fireAll(
      st,
      [](int n) {
        auto f = std::make_unique<WheelFixture>(n, false);
        clockStep += horizonMs * 1e-3 + 1;  // all due at once: catching up
        return f;
      },
      [&](WheelFixture& f) {
        while (f.fired < f.n) sm->runOnce();
      });
  Quor::detail::systemClocksIs(nullptr, nullptr);
}

// ---- the floor: one intrusive list in firing order ----------------------------------------

// Objects of the wheel timer's size, in one array, deadlines from the same stream, linked
// once in firing order (untimed) and walked, calling each one's virtual onTime(): no
// slots, no unlinking. Past the caches the walk is one dependent miss per timer, and the
// wheel's firing cost minus this is its own work.
}  // namespace

// Outside the anonymous namespace so that the compiler cannot prove onTime() has one
// target and inline it away: the wheel's call is a real virtual call too.
struct FloorTimer {
  virtual ~FloorTimer() = default;
  virtual void onTime() { ++*fired; }
  FloorTimer* next = nullptr;
  Quor::Seconds timeMin = Quor::endOfTime;
  // Pads to the wheel timer's base, so that `fired` lies on the second cache line as it
  // does in WheelTimer.
  char pad[sizeof(Vell::TimerWheel::NotifieeConst) - 24] = {};
  long* fired = nullptr;
};

namespace {

static_assert(sizeof(FloorTimer) == sizeof(WheelTimer));

struct FloorFixture {
  explicit FloorFixture(int count) : n(count), timers(std::make_unique<FloorTimer[]>(static_cast<std::size_t>(n))) {
    Rng rng(7);
    std::vector<U32> order(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      timers[i].fired = &fired;
      timers[i].timeMin = (1 + rng.below(horizonMs)) * 1e-3;
      order[static_cast<std::size_t>(i)] = static_cast<U32>(i);
    }
    // Equal deadlines fire in arming order.
    std::stable_sort(order.begin(), order.end(), [&](U32 a, U32 b) { return timers[a].timeMin < timers[b].timeMin; });
    FloorTimer** tail = &head;
    for (U32 i : order) {
      *tail = &timers[i];
      tail = &timers[i].next;
    }
  }
  int n;
  long fired = 0;
  std::unique_ptr<FloorTimer[]> timers;
  FloorTimer* head = nullptr;
};

void Floor_FireAll(benchmark::State& st) {
  fireAll(
      st, [](int n) { return std::make_unique<FloorFixture>(n); },
      [](FloorFixture& f) {
        for (FloorTimer* t = f.head; t; t = t->next) t->onTime();
      });
}

// ---- std::multimap ----------------------------------------------------------------------------

struct MapFixture : Fixture {
  struct Timer;
  using Map = std::multimap<double, Timer*>;
  struct Timer {
    Map::iterator it;
  };
  explicit MapFixture(int count) : n(count), timers(static_cast<std::size_t>(n)) {
    Rng rng(7);
    for (auto& t : timers) t.it = map.emplace((1 + rng.below(horizonMs)) * 1e-3, &t);
  }
  int n;
  long fired = 0;
  std::vector<Timer> timers;
  Map map;
};

// A multimap timer cannot be moved in place: re-arming is an erase and an insert, and a
// cancel only adds forgetting the position in between.
template <bool cancelFirst>
void multimapArm(benchmark::State& st) {
  auto& f = fixture<MapFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    auto& t = f.timers[rng.below(static_cast<U32>(f.n))];
    f.map.erase(t.it);
    if (cancelFirst) t.it = f.map.end();
    t.it = f.map.emplace((1 + rng.below(horizonMs)) * 1e-3, &t);
  }
}
void Multimap_Rearm(benchmark::State& st) { multimapArm<false>(st); }
void Multimap_CancelArm(benchmark::State& st) { multimapArm<true>(st); }

void Multimap_FireAll(benchmark::State& st) {
  fireAll(
      st, [](int n) { return std::make_unique<MapFixture>(n); },
      [](MapFixture& f) {
        double const now = horizonMs * 1e-3 + 1;
        while (!f.map.empty() && f.map.begin()->first <= now) {
          f.map.begin()->second->it = f.map.end();
          f.map.erase(f.map.begin());
          benchmark::DoNotOptimize(++f.fired);
        }
      });
}

// Waits out the peers' timers in real time, outside the measured part.
void waitMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Runs a peer's loop pass until its timers have fired. The peers may read a coarse
// clock that lags real time by a jiffy, so a pass after the wait can still find the
// last deadlines in the future; the extra waits are not measured, the extra passes are.
template <class Pass>
void passUntilFired(benchmark::State& st, long const& fired, int n, Pass pass) {
  pass();
  for (int retry = 0; fired < n && retry < 100; ++retry) {
    st.PauseTiming();
    waitMs(1);
    st.ResumeTiming();
    pass();
  }
}

// A peer's fire-all: its deadlines are waited out untimed, then its loop passes are timed.
template <class Make, class Pass>
void peerFireAll(benchmark::State& st, int waitForMs, Make make, Pass pass) {
  fireAll(
      st,
      [&](int n) {
        auto f = make(n);
        waitMs(waitForMs);
        return f;
      },
      [&](auto& f) { passUntilFired(st, f.fired, f.n, [&] { pass(f); }); });
}

// ---- libevent ------------------------------------------------------------------------------------

#ifdef VELL_HAVE_LIBEVENT
timeval msToTimeval(U32 ms) { return timeval{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000) * 1000}; }

void eventFired(evutil_socket_t, short, void* arg) { ++*static_cast<long*>(arg); }

struct EventFixture : Fixture {
  // spreadUs: deadlines over this many microseconds (short for FireAll, which waits them out)
  explicit EventFixture(int count, U32 spreadUs = horizonMs * 1000) : n(count) {
    base = event_base_new();
    events.resize(static_cast<std::size_t>(n));
    Rng rng(7);
    for (auto& e : events) {
      e = evtimer_new(base, eventFired, &fired);
      U32 const us = 1000 + rng.below(spreadUs);
      timeval tv{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
      evtimer_add(e, &tv);
    }
  }
  ~EventFixture() override {
    for (auto* e : events) event_free(e);
    event_base_free(base);
  }
  int n;
  long fired = 0;
  event_base* base;
  std::vector<event*> events;
};

void Libevent_Rearm(benchmark::State& st) {
  auto& f = fixture<EventFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    event* e = f.events[rng.below(static_cast<U32>(f.n))];
    timeval const tv = msToTimeval(1 + rng.below(horizonMs));
    evtimer_add(e, &tv);
  }
}

void Libevent_CancelArm(benchmark::State& st) {
  auto& f = fixture<EventFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    event* e = f.events[rng.below(static_cast<U32>(f.n))];
    timeval const tv = msToTimeval(1 + rng.below(horizonMs));
    evtimer_del(e);
    evtimer_add(e, &tv);
  }
}

void Libevent_FireAll(benchmark::State& st) {
  peerFireAll(
      st, 4, [](int n) { return std::make_unique<EventFixture>(n, 2000); },
      [](EventFixture& f) { event_base_loop(f.base, EVLOOP_NONBLOCK); });
}
#endif

// ---- libuv ------------------------------------------------------------------------------------------

#ifdef VELL_HAVE_LIBUV
void uvFired(uv_timer_t* t) { ++*static_cast<long*>(t->data); }

struct UvFixture : Fixture {
  explicit UvFixture(int count, U32 spreadMs = horizonMs) : n(count) {
    uv_loop_init(&loop);
    timers = std::make_unique<uv_timer_t[]>(static_cast<std::size_t>(n));
    Rng rng(7);
    for (int i = 0; i < n; ++i) {
      uv_timer_init(&loop, &timers[i]);
      timers[i].data = &fired;
      uv_timer_start(&timers[i], uvFired, 1 + rng.below(spreadMs), 0);
    }
  }
  ~UvFixture() override {
    for (int i = 0; i < n; ++i) uv_close(reinterpret_cast<uv_handle_t*>(&timers[i]), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  int n;
  long fired = 0;
  uv_loop_t loop;
  std::unique_ptr<uv_timer_t[]> timers;
};

void Libuv_Rearm(benchmark::State& st) {
  auto& f = fixture<UvFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    uv_timer_t* t = &f.timers[rng.below(static_cast<U32>(f.n))];
    uv_timer_start(t, uvFired, 1 + rng.below(horizonMs), 0);
  }
}

void Libuv_CancelArm(benchmark::State& st) {
  auto& f = fixture<UvFixture>(static_cast<int>(st.range(0)));
  Rng rng(11);
  for (auto _ : st) {
    uv_timer_t* t = &f.timers[rng.below(static_cast<U32>(f.n))];
    uv_timer_stop(t);
    uv_timer_start(t, uvFired, 1 + rng.below(horizonMs), 0);
  }
}

void Libuv_FireAll(benchmark::State& st) {
  peerFireAll(
      st, 5, [](int n) { return std::make_unique<UvFixture>(n, 3); }, [](UvFixture& f) { uv_run(&f.loop, UV_RUN_NOWAIT); });
}
#endif

}  // namespace

// Registered by hand: fire-all runs a fixed number of iterations per size (building its
// timers each time), and Iterations() holds for a whole registration.
int main(int argc, char** argv) {
  using Fn = void (*)(benchmark::State&);
  struct Entry {
    char const* name;
    Fn fn;
    bool fire;
  };
  std::vector<Entry> const entries = {
      {"Wheel_Rearm", Wheel_Rearm, false},
      {"Wheel_Rearm_RealClock", Wheel_Rearm_RealClock, false},
      {"Wheel_Rearm_RealClockInTurn", Wheel_Rearm_RealClockInTurn, false},
      {"Wheel_CancelArm", Wheel_CancelArm, false},
      {"Wheel_FireAll", Wheel_FireAll, true},
      {"Wheel_FireTimeline", Wheel_FireTimeline, true},
      {"Wheel16k_FireAll", Wheel16k_FireAll, true},
      {"Wheel_FireAll_RealClock", Wheel_FireAll_RealClock, true},
      {"Floor_FireAll", Floor_FireAll, true},
#ifdef VELL_HAVE_LIBEVENT
      {"Libevent_Rearm", Libevent_Rearm, false},
      {"Libevent_CancelArm", Libevent_CancelArm, false},
      {"Libevent_FireAll", Libevent_FireAll, true},
#endif
#ifdef VELL_HAVE_LIBUV
      {"Libuv_Rearm", Libuv_Rearm, false},
      {"Libuv_CancelArm", Libuv_CancelArm, false},
      {"Libuv_FireAll", Libuv_FireAll, true},
#endif
      {"Multimap_Rearm", Multimap_Rearm, false},
      {"Multimap_CancelArm", Multimap_CancelArm, false},
      {"Multimap_FireAll", Multimap_FireAll, true},
  };
  for (Entry const& e : entries) {
    for (int n : {1000, 100000, 1000000}) {
      auto* b = benchmark::RegisterBenchmark(e.name, e.fn)->Arg(n);
      if (e.fire) b->Iterations(fireIterations(n))->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  dropFixture();
  return 0;
}
