// What the transaction benches share: an executor that answers at once, and W
// transactions kept in flight (each started again when decided).
#pragma once
#include <string>
#include <vector>

#include <Vell/XactLib.h>

namespace VellBench {

struct BenchExecutor : Vell::XactExecutorSm {
  BenchExecutor(Quor::String8 name, Quor::Ptr<Vell::XactStatusDir> const& dir, Quor::Ptr<Quor::Clock const> const& c)
      : XactExecutorSm(std::move(name), dir, c, 0.01) {}
  Vell::ExecResult doExecute(Vell::XactConfig const&) override { return {Vell::xactSuccess, ""}; }
};

struct Restarter : Vell::Xact::NotifieeConst {
  Vell::XactAggregatorSm* agg = nullptr;
  long* done = nullptr;
  void onStatusVersion() override {
    ++*done;
    agg->doStartXact(Quor::Ptr<Vell::Xact>(const_cast<Vell::Xact*>(notifier().ptr())));
  }
};

/// W transactions in flight on `agg`; `done` counts decisions. Stop with stop().
struct InFlight {
  std::vector<Quor::Ptr<Vell::Xact>> xacts;
  std::vector<Quor::Ptr<Restarter>> restarters;
  Vell::XactAggregatorSm* agg;
  InFlight(Vell::XactAggregatorSm* a, int w, long* done) : agg(a) {
    for (int i = 0; i < w; ++i) {
      xacts.push_back(Vell::xactFactory(std::to_string(i + 1), static_cast<Vell::U32>(i + 1)));
      restarters.push_back(new Restarter);
      restarters.back()->agg = agg;
      restarters.back()->done = done;
      restarters.back()->notifierIs(xacts.back());
      agg->doStartXact(xacts.back());
    }
  }
  void stop() {
    for (auto& r : restarters) r->notifierIs(nullptr);
    for (auto& x : xacts) agg->doStopXact(x->id());
  }
};

}  // namespace VellBench
