// Timer precision on the real clock: 20,000 timers armed at once with deadlines spread
// over 2 s (whole milliseconds from the moment each is armed), fired by each contender's
// own loop. Lateness is measured against the true deadline (arming time plus delay, on
// the monotonic clock), not against the contender's own idea of the time, so a timer
// that fires before its deadline counts as early:
//   p50_us, p99_us, max_us   lateness percentiles of the timers that fired on time or late
//   early, early_max_us      firings before the deadline, and the largest advance
//   early_over_half_ms       of those, the ones earlier than the half millisecond that the
//                            wheel's rounding of distances to whole milliseconds allows
// Wheel_1ms and Wheel_10ms are the timer wheel with those ticks on the activity loop;
// Libevent and Libuv arm the same delays on their loops.
#include <benchmark/benchmark.h>

#include <Vell/HTimerWheel.h>

#include <time.h>

#include <algorithm>
#include <memory>
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

constexpr int timerCount = 20000;
constexpr U32 spreadMs = 2000;

double monotonic() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::vector<U32> delaysMs() {
  std::vector<U32> d(timerCount);
  U64 s = 88172645463325252ull;
  for (auto& x : d) {
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    x = 1 + static_cast<U32>(s % spreadMs);
  }
  return d;
}

// One record per timer: its true deadline and when it fired.
struct Record {
  double deadline = 0, firedAt = 0;
};

void report(benchmark::State& st, std::vector<Record> const& recs) {
  std::vector<double> late;
  long early = 0, earlyOverHalfMs = 0, missing = 0;
  double earlyMax = 0;
  for (auto const& r : recs) {
    if (r.firedAt == 0) {
      ++missing;
      continue;
    }
    double const d = r.firedAt - r.deadline;
    if (d < 0) {
      ++early;
      earlyOverHalfMs += d < -0.0005;
      earlyMax = std::max(earlyMax, -d);
    } else {
      late.push_back(d);
    }
  }
  if (missing) st.SkipWithError("timers did not fire");
  std::sort(late.begin(), late.end());
  auto pct = [&](double p) { return late.empty() ? 0.0 : late[static_cast<std::size_t>(p * double(late.size() - 1))] * 1e6; };
  st.counters["p50_us"] = pct(0.5);
  st.counters["p99_us"] = pct(0.99);
  st.counters["max_us"] = late.empty() ? 0.0 : late.back() * 1e6;
  st.counters["early"] = static_cast<double>(early);
  st.counters["early_max_us"] = earlyMax * 1e6;
  st.counters["early_over_half_ms"] = static_cast<double>(earlyOverHalfMs);
}

struct WheelTimer : Vell::TimerWheel::NotifieeConst {
  Record* rec = nullptr;
  long* fired = nullptr;
  void onTime() override {
    rec->firedAt = monotonic();
    ++*fired;
  }
};

void wheelPrecision(benchmark::State& st, U32 tickMs) {
  auto const delays = delaysMs();
  std::vector<Record> recs(timerCount);
  for (auto _ : st) {
    auto sm = Quor::quorActivitySmFor(nullptr);
    auto clock = Quor::clockFactory("precision");
    auto tw = Vell::timerWheelFactory(Quor::defaultActivityConfig(), clock, tickMs, spreadMs / tickMs + 2, false, 256);
    auto timers = std::make_unique<WheelTimer[]>(timerCount);
    long fired = 0;
    for (int i = 0; i < timerCount; ++i) {
      timers[i].staticIs();
      timers[i].rec = &recs[static_cast<std::size_t>(i)];
      timers[i].fired = &fired;
      timers[i].notifierIs(tw);
      double const m = monotonic();
      recs[static_cast<std::size_t>(i)].deadline = m + delays[static_cast<std::size_t>(i)] * 1e-3;
      // now() runs on the monotonic clock from a wall-clock origin: the same instant.
      timers[i].timeMinIs(Quor::now() + delays[static_cast<std::size_t>(i)] * 1e-3);
    }
    sm->runUntil([&] { return fired == timerCount; }, spreadMs * 1e-3 + 2);
    timers.reset();
  }
  report(st, recs);
}

void Wheel_1ms(benchmark::State& st) { wheelPrecision(st, 1); }
void Wheel_10ms(benchmark::State& st) { wheelPrecision(st, 10); }

#ifdef VELL_HAVE_LIBEVENT
struct EventArg {
  Record* rec;
  long* fired;
};
void eventFired(evutil_socket_t, short, void* p) {
  auto* a = static_cast<EventArg*>(p);
  a->rec->firedAt = monotonic();
  ++*a->fired;
}
void Libevent(benchmark::State& st) {
  auto const delays = delaysMs();
  std::vector<Record> recs(timerCount);
  for (auto _ : st) {
    event_base* base = event_base_new();
    std::vector<EventArg> args(timerCount);
    std::vector<event*> evs(timerCount);
    long fired = 0;
    for (std::size_t i = 0; i < evs.size(); ++i) {
      args[i] = {&recs[i], &fired};
      evs[i] = evtimer_new(base, eventFired, &args[i]);
      recs[i].deadline = monotonic() + delays[i] * 1e-3;
      timeval tv{static_cast<time_t>(delays[i] / 1000), static_cast<suseconds_t>(delays[i] % 1000) * 1000};
      evtimer_add(evs[i], &tv);
    }
    while (fired < timerCount) event_base_loop(base, EVLOOP_ONCE);
    for (auto* e : evs) event_free(e);
    event_base_free(base);
  }
  report(st, recs);
}
#endif

#ifdef VELL_HAVE_LIBUV
struct UvTimer {
  uv_timer_t t;
  Record* rec;
  long* fired;
};
void uvFired(uv_timer_t* t) {
  auto* u = reinterpret_cast<UvTimer*>(t);
  u->rec->firedAt = monotonic();
  ++*u->fired;
}
void Libuv(benchmark::State& st) {
  auto const delays = delaysMs();
  std::vector<Record> recs(timerCount);
  for (auto _ : st) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    auto timers = std::make_unique<UvTimer[]>(timerCount);
    long fired = 0;
    uv_update_time(&loop);
    for (int i = 0; i < timerCount; ++i) {
      auto const k = static_cast<std::size_t>(i);
      uv_timer_init(&loop, &timers[k].t);
      timers[k].rec = &recs[k];
      timers[k].fired = &fired;
      recs[k].deadline = monotonic() + delays[k] * 1e-3;
      uv_timer_start(&timers[k].t, uvFired, delays[k], 0);
    }
    while (fired < timerCount) uv_run(&loop, UV_RUN_ONCE);
    for (int i = 0; i < timerCount; ++i) uv_close(reinterpret_cast<uv_handle_t*>(&timers[static_cast<std::size_t>(i)].t), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  report(st, recs);
}
#endif

}  // namespace

BENCHMARK(Wheel_1ms)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Wheel_10ms)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VELL_HAVE_LIBEVENT
BENCHMARK(Libevent)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
#ifdef VELL_HAVE_LIBUV
BENCHMARK(Libuv)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK_MAIN();
