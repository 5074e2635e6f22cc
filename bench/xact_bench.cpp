// Transactions end to end on the real clock: start, configs written, executors run (in
// their sliced dispatches, on the activity loop), statuses written, decision; each
// decided transaction is started again at once, so `in progress` stay in flight.
//   Xact_EndToEnd/E/W   E executors, W transactions in progress: items_per_second is
//                       transactions decided per second
//   Floor_FanOutIn/E/W  the same fan-out and fan-in written plainly, no framework: per
//                       executor one map of configs, a backlog set and one map of statuses;
//                       publishing queues the id, a drain reads the clock once per entry
//                       (as a time-sliced executor must), answers, and the judge counts
//   Floor_Bare/E/W      the bare minimum: three map operations per executor and transaction
//                       (no backlog, no clock); flattering, for scale only
// Cost per transaction should grow with E and stay flat in W.
#include <benchmark/benchmark.h>

#include <Vell/XactLib.h>

#include "XactBenchSupport.h"

#include <unordered_map>
#include <vector>

namespace {

using Vell::U32;



void Xact_EndToEnd(benchmark::State& st) {
  int const e = static_cast<int>(st.range(0)), w = static_cast<int>(st.range(1));
  auto sm = Quor::quorActivitySmFor(nullptr);
  auto clock = Quor::clockFactory("xact bench");
  auto agg = Vell::xactAggregatorSmFactory("agg", clock);
  agg->maxAllowedInProgressXactsIs(static_cast<U32>(w));
  std::vector<Quor::Ptr<VellBench::BenchExecutor>> execs;
  for (int k = 0; k < e; ++k) {
    auto configs = Vell::xactConfigDirFactory("e" + std::to_string(k));
    auto statuses = Vell::xactStatusDirFactory("e" + std::to_string(k));
    execs.push_back(Quor::makeEntity<VellBench::BenchExecutor>(configs->name().str(), statuses, clock));
    execs.back()->xactConfigDirIs(configs);
    agg->xactConfigDirIs(configs);
    agg->xactStatusDirIs(statuses);
  }
  long done = 0;
  VellBench::InFlight flight(agg.ptr(), w, &done);
  for (auto _ : st) sm->runOnce();
  st.SetItemsProcessed(done);
  flight.stop();
  for (auto& ex : execs) ex->xactConfigDirDel();
  execs.clear();
  agg = nullptr;
}

void Floor_Bare(benchmark::State& st) {
  int const e = static_cast<int>(st.range(0)), w = static_cast<int>(st.range(1));
  struct Exec {
    std::unordered_map<U32, U32> config, status;
  };
  std::vector<Exec> execs(static_cast<std::size_t>(e));
  std::unordered_map<U32, U32> version;
  for (U32 id = 1; id <= static_cast<U32>(w); ++id) version[id] = 0;
  long done = 0;
  for (auto _ : st) {
    for (auto& [id, cv] : version) {
      ++cv;
      for (auto& x : execs) x.config[id] = cv;                  // publish
      for (auto& x : execs) x.status[id] = x.config.at(id);     // execute and answer
      int answered = 0;
      for (auto& x : execs) answered += x.status.at(id) == cv;  // judge
      done += answered == e;
    }
  }
  st.SetItemsProcessed(done);
}

void Floor_FanOutIn(benchmark::State& st) {
  int const e = static_cast<int>(st.range(0)), w = static_cast<int>(st.range(1));
  struct Exec {
    std::unordered_map<U32, U32> config, status;
    std::unordered_map<U32, bool> backlog;
  };
  std::vector<Exec> execs(static_cast<std::size_t>(e));
  std::unordered_map<U32, U32> version;
  for (U32 id = 1; id <= static_cast<U32>(w); ++id) version[id] = 0;
  long done = 0;
  for (auto _ : st) {
    for (auto& [id, cv] : version) {
      ++cv;
      for (auto& x : execs) {  // publish and queue
        x.config[id] = cv;
        x.backlog[id] = true;
      }
    }
    for (auto& x : execs) {  // each executor drains its backlog
      for (auto it = x.backlog.begin(); it != x.backlog.end(); it = x.backlog.erase(it)) {
        benchmark::DoNotOptimize(Quor::now());
        x.status[it->first] = x.config.at(it->first);
      }
    }
    for (auto& [id, cv] : version) {  // judge
      int answered = 0;
      for (auto& x : execs) answered += x.status.at(id) == cv;
      done += answered == e;
    }
  }
  st.SetItemsProcessed(done);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int e : {1, 4, 16}) b->Args({e, 100});
  for (int w : {10, 1000}) b->Args({4, w});
}

}  // namespace

BENCHMARK(Xact_EndToEnd)->Apply(sizes)->UseRealTime();
BENCHMARK(Floor_FanOutIn)->Apply(sizes)->UseRealTime();
BENCHMARK(Floor_Bare)->Apply(sizes)->UseRealTime();
BENCHMARK_MAIN();
