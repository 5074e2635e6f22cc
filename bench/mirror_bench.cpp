// Transactions with an executor in another process, and the mirror's stream on its own.
//   Xact_InProcess/W     one executor in this process, W transactions in flight, each
//                        started again when decided: items_per_second is transactions
//                        decided per second (wall clock)
//   Xact_OtherProcess/W  the same executor in a child process, its config directory served
//                        to it and its status directory mirrored back over abstract Unix
//                        sockets: the ratio to Xact_InProcess is what a process boundary costs
//   Mirror_Changes/B     B changes of a config directory per batch, carried to a sink in
//                        this process over a real socket and applied: items_per_second is
//                        changes per second end to end, bytes_per_change the stream's cost
// The child is this program run again with --executor PREFIX.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <Vell/AttrMirror.h>
#include <Vell/XactLib.h>

#include "XactBenchSupport.h"

namespace {

using Vell::U32;
using Vell::U64;



// Ends the child's loop when the coordinator goes away.
struct StopWhenGone : Vell::MirrorSinkSm::NotifieeConst {
  Quor::Ptr<Quor::ActivitySm> loop;
  bool seen = false;
  void onConnected() override {
    if (notifier()->connected()) seen = true;
    else if (seen) loop->stop();
  }
};

int runExecutor(std::string const& prefix) {
  auto loop = Quor::quorActivitySmFor(nullptr);
  auto clock = Quor::clockFactory("executor");
  auto sink = Vell::mirrorSinkSmFactory(prefix + "-config", clock);
  sink->retryIntervalIs(0.01);
  Quor::Ptr<StopWhenGone> stop = new StopWhenGone;
  stop->loop = loop;
  stop->notifierIs(sink);
  stop->seen = sink->connected();  // the factory connects at once when it can
  auto statuses = Vell::xactStatusDirFactory("remote");
  auto source = Vell::mirrorSourceSmFactory(prefix + "-status");
  source->entityIs(statuses);
  auto exec = Quor::makeEntity<VellBench::BenchExecutor>("remote", statuses, clock);
  exec->xactConfigDirIs(sink->mirror<Vell::XactConfigDir>("remote"));
  loop->run();
  exec->xactConfigDirDel();
  return 0;
}

char const* self = nullptr;

void runXacts(benchmark::State& st, bool remote) {
  int const w = static_cast<int>(st.range(0));
  auto sm = Quor::quorActivitySmFor(nullptr);
  auto clock = Quor::clockFactory("xact bench");
  auto agg = Vell::xactAggregatorSmFactory("agg", clock);
  agg->maxAllowedInProgressXactsIs(static_cast<U32>(w));
  auto configs = Vell::xactConfigDirFactory("remote");
  agg->xactConfigDirIs(configs);
  Quor::Ptr<VellBench::BenchExecutor> local;
  Quor::Ptr<Vell::MirrorSourceSm> source;
  Quor::Ptr<Vell::MirrorSinkSm> sink;
  pid_t child = -1;
  if (remote) {
    std::string const prefix = "vell-bench-" + std::to_string(::getpid()) + "-" + std::to_string(w);
    source = Vell::mirrorSourceSmFactory(prefix + "-config");
    source->entityIs(configs);
    child = ::fork();
    if (child == 0) {
      ::execl(self, self, "--executor", prefix.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    sink = Vell::mirrorSinkSmFactory(prefix + "-status", clock);
    sink->retryIntervalIs(0.01);
    sink->doConnect();  // retries at the new interval from now on
    auto mirror = sink->mirror<Vell::XactStatusDir>("remote");
    agg->xactStatusDirIs(mirror);
    sm->runUntil([&] { return sink->connected() && source->peers() == 1; }, 10.0);
    if (!sink->connected()) st.SkipWithError("the executor process did not connect");
  } else {
    auto statuses = Vell::xactStatusDirFactory("remote");
    local = Quor::makeEntity<VellBench::BenchExecutor>("remote", statuses, clock);
    local->xactConfigDirIs(configs);
    agg->xactStatusDirIs(statuses);
  }
  long done = 0;
  VellBench::InFlight flight(agg.ptr(), w, &done);
  for (auto _ : st) sm->runOnce();
  st.SetItemsProcessed(done);
  if (remote) st.counters["bytes_per_xact"] = double(source->bytesSent() + sink->bytesReceived()) / double(done);
  flight.stop();
  if (local) local->xactConfigDirDel();
  source = nullptr;  // the child sees its coordinator go and ends
  sink = nullptr;
  if (child > 0) ::waitpid(child, nullptr, 0);
}

void Xact_InProcess(benchmark::State& st) { runXacts(st, false); }
void Xact_OtherProcess(benchmark::State& st) { runXacts(st, true); }

void Mirror_Changes(benchmark::State& st) {
  int const batch = static_cast<int>(st.range(0));
  auto sm = Quor::quorActivitySmFor(nullptr);
  auto clock = Quor::clockFactory("mirror bench");
  std::string const name = "vell-bench-mirror-" + std::to_string(::getpid());
  auto source = Vell::mirrorSourceSmFactory(name);
  auto configs = Vell::xactConfigDirFactory("d");
  source->entityIs(configs);
  auto sink = Vell::mirrorSinkSmFactory(name, clock);
  auto mirror = sink->mirror<Vell::XactConfigDir>("d");
  sm->runUntil([&] { return sink->syncs() > 0; }, 5.0);
  U32 version = 1;
  U64 const applied0 = sink->changesApplied(), bytes0 = sink->bytesReceived();
  for (auto _ : st) {
    ++version;
    for (int i = 0; i < batch; ++i) configs->xactConfigIs(Vell::XactConfig(U32(i + 1), version));
    U64 const want = sink->changesApplied() + U64(batch);
    while (sink->changesApplied() < want) sm->runOnce();
  }
  U64 const changes = sink->changesApplied() - applied0;
  st.SetItemsProcessed(static_cast<int64_t>(changes));
  st.counters["bytes_per_change"] = double(sink->bytesReceived() - bytes0) / double(changes);
  if (mirror->xactConfig(1).configVersion() != version) st.SkipWithError("the mirror fell behind");
}

}  // namespace

BENCHMARK(Xact_InProcess)->Arg(1)->Arg(100)->UseRealTime()->MinTime(1.0);
BENCHMARK(Xact_OtherProcess)->Arg(1)->Arg(100)->UseRealTime()->MinTime(1.0);
BENCHMARK(Mirror_Changes)->Arg(1)->Arg(100)->UseRealTime();

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--executor") == 0) return runExecutor(argv[2]);
  self = argv[0];
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
