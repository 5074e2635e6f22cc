// Loop turns against the number of clock reactors that run in them, on the real clock:
//   Turn_ReArmAtZero  every reactor runs and re-arms itself at time 0 (as the backlog
//                     base and the transaction executors do): per reactor run
//   Turn_OneDue       one reactor due among n armed far ahead: per turn
//   Floor_Calls       the same n reactors' onTime() called directly: per reactor
// A turn should cost in proportion to the reactors it runs: Turn_ReArmAtZero flat in n,
// Turn_OneDue growing at most with log n.
#include <benchmark/benchmark.h>

#include <Quor/Quor.h>

#include <memory>
#include <vector>

namespace {

struct Reactor : Quor::Clock::NotifieeConst {
  long runs = 0;
  bool rearm = true;
  void onTime() override {
    ++runs;
    if (rearm) timeMinIs(0.0);
  }
};

struct Reactors {
  explicit Reactors(int n, Quor::Seconds at) : clock(Quor::clockFactory("loop bench")) {
    all.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      all.emplace_back(new Reactor);
      all.back()->notifierIs(clock);
      all.back()->timeMinIs(at);
    }
  }
  ~Reactors() {
    for (auto& r : all) r->timeMinIs(Quor::endOfTime);
  }
  long runs() const {
    long n = 0;
    for (auto const& r : all) n += r->runs;
    return n;
  }
  Quor::Ptr<Quor::Clock> clock;
  std::vector<Quor::Ptr<Reactor>> all;
};

void Turn_ReArmAtZero(benchmark::State& st) {
  auto sm = Quor::quorActivitySmFor(nullptr);
  Reactors rs(static_cast<int>(st.range(0)), 0.0);
  for (auto _ : st) sm->runOnce();
  if (rs.runs() != static_cast<long>(st.iterations()) * st.range(0)) st.SkipWithError("a reactor was skipped");
  st.counters["per_reactor"] =
      benchmark::Counter(static_cast<double>(st.range(0)),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void Turn_OneDue(benchmark::State& st) {
  auto sm = Quor::quorActivitySmFor(nullptr);
  Reactors rs(static_cast<int>(st.range(0)), Quor::now() + 3600);
  Reactors one(1, 0.0);
  for (auto _ : st) sm->runOnce();
  if (one.runs() != static_cast<long>(st.iterations())) st.SkipWithError("the due reactor was skipped");
}

void Floor_Calls(benchmark::State& st) {
  Reactors rs(static_cast<int>(st.range(0)), Quor::endOfTime);
  for (auto& r : rs.all) r->rearm = false;
  for (auto _ : st) {
    for (auto& r : rs.all) r->onTime();
  }
  st.counters["per_reactor"] =
      benchmark::Counter(static_cast<double>(st.range(0)),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace

BENCHMARK(Turn_ReArmAtZero)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(Turn_OneDue)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(Floor_Calls)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK_MAIN();
