// A keyed backlog at work on the loop, in real time: bursts of updates to a few
// interface names are coalesced and handled in 1 ms slices, while a heartbeat reactor
// keeps running between the slices. Ends by itself in well under a second.
#include <cstdio>
#include <string>

#include <Quor/Quor.h>

#include "KeyedBacklog.h"

namespace {

constexpr int bursts = 10;
constexpr int updatesPerBurst = 500;
constexpr int interfaces = 50;

// Stands for real work per entry (programming a route, say): about 50 microseconds.
void work() {
  Quor::Seconds const until = Quor::now() + 50e-6;
  while (Quor::now() < until) {
  }
}

// Every 10 ms, a burst of updates spread over the interfaces.
class Producer : public Quor::Clock::NotifieeConst {
 public:
  explicit Producer(Quor::Ptr<VellExample::KeyedBacklog<std::string, int>> backlog)
      : backlog_(std::move(backlog)) {}
  void onTime() override {
    for (int i = 0; i < updatesPerBurst; ++i)
      backlog_->updateIs("eth" + std::to_string(i % interfaces), burst_ * updatesPerBurst + i);
    if (++burst_ < bursts) timeMinIs(Quor::now() + 0.010);
  }
  bool done() const { return burst_ == bursts; }

 private:
  Quor::Ptr<VellExample::KeyedBacklog<std::string, int>> backlog_;
  int burst_ = 0;
};

// Every 2 ms: proof that the loop stays responsive while the backlog drains.
class Heartbeat : public Quor::Clock::NotifieeConst {
 public:
  void onTime() override {
    ++beats_;
    timeMinIs(Quor::now() + 0.002);
  }
  int beats() const { return beats_; }

 private:
  int beats_ = 0;
};

}  // namespace

int main() {
  auto clock = Quor::clockFactory("backlogClock");
  int handled = 0;
  int lastValue = -1;
  auto backlog = VellExample::keyedBacklogFactory<std::string, int>(
      clock, 0.001, [&](std::string const& key, int const& value) {
        work();
        ++handled;
        if (key == "eth0") lastValue = value;
      });

  Quor::Ptr<Producer> producer = new Producer(backlog);
  producer->notifierIs(clock);
  producer->timeMinIs(Quor::now());
  Quor::Ptr<Heartbeat> heartbeat = new Heartbeat;
  heartbeat->notifierIs(clock);
  heartbeat->timeMinIs(Quor::now());

  auto loop = Quor::quorActivitySmFor(Quor::defaultActivityConfig());
  bool const drained = loop->runUntil([&] { return producer->done() && backlog->warm(); }, 0.9);

  std::printf("updates seen        %llu\n", static_cast<unsigned long long>(backlog->updatesSeen()));
  std::printf("updates processed   %llu (handler calls %d)\n",
              static_cast<unsigned long long>(backlog->updatesProcessed()), handled);
  std::printf("updates coalesced   %llu\n", static_cast<unsigned long long>(backlog->updatesCoalesced()));
  std::printf("slices              %llu, %llu of them yielded with work left\n",
              static_cast<unsigned long long>(backlog->dispatchCount()),
              static_cast<unsigned long long>(backlog->yieldBeforeFinishingCount()));
  std::printf("time used           %.1f ms\n", backlog->timeUsed() * 1e3);
  std::printf("heartbeats          %d\n", heartbeat->beats());
  std::printf("eth0 last value     %d\n", lastValue);
  std::printf("%s\n", drained ? "backlog drained" : "backlog not drained in time");
  return drained ? 0 : 1;
}
