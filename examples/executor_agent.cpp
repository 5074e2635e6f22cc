// An executor in a process of its own: it reads its configurations from a coordinator
// in another process and answers into a status directory that the coordinator mirrors.
//
//   executor_agent COORDINATOR EXECUTOR [SECONDS]
//
// mirrors the config directory EXECUTOR that COORDINATOR serves as "COORDINATOR-config",
// serves its own status directory EXECUTOR as "COORDINATOR-EXECUTOR", and answers every
// configuration with success after SECONDS (default 1). Stops on SIGINT or SIGTERM. Run
// again after a crash, it resynchronises and goes on.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <Quor/Quor.h>
#include <Vell/AttrMirror.h>
#include <Vell/XactLib.h>

namespace {

// Answers each configuration with success, `delay` seconds after it came.
class DelayedExecutor : public Vell::XactExecutorSm {
 public:
  DelayedExecutor(Quor::String8 name, Quor::Ptr<Vell::XactStatusDir> const& statuses,
                  Quor::Ptr<Quor::Clock> const& clock, Quor::Seconds delay)
      : XactExecutorSm(std::move(name), statuses, clock, 0.005), clock_(clock), delay_(delay) {}

  Vell::ExecResult doExecute(Vell::XactConfig const& c) override {
    Quor::Ptr<Answer> a = new Answer;
    a->status = Vell::XactStatus(c.id(), Vell::xactSuccess, "", c.configVersion());
    a->dir = xactStatusDir();
    a->self = a;  // kept alive until it fires
    a->notifierIs(clock_);
    a->timeMinIs(Quor::now() + delay_);
    return {Vell::xactInProgress, ""};
  }

 private:
  struct Answer : Quor::Clock::NotifieeConst {
    Vell::XactStatus status;
    Quor::Ptr<Vell::XactStatusDir> dir;
    Quor::Ptr<Answer> self;
    void onTime() override {
      std::printf("executor_agent: %s answers %u\n", dir->name().charPtr(), status.id());
      std::fflush(stdout);
      dir->xactStatusIs(status);
      self = nullptr;
    }
  };
  Quor::Ptr<Quor::Clock> clock_;
  Quor::Seconds delay_;
};

class StopOnSignal : public Quor::FileDescriptor::NotifieeConst {
 public:
  explicit StopOnSignal(Quor::Ptr<Quor::ActivitySm> loop) : loop_(std::move(loop)) {}
  void onReadableCount() override {
    signalfd_siginfo info;
    (void)::read(notifier()->descriptor(), &info, sizeof info);
    loop_->stop();
  }

 private:
  Quor::Ptr<Quor::ActivitySm> loop_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "Usage: executor_agent COORDINATOR EXECUTOR [SECONDS]\n");
    return 1;
  }
  std::string const coordinator = argv[1];
  std::string const executor = argv[2];
  Quor::Seconds const delay = argc == 4 ? std::atof(argv[3]) : 1.0;

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &stop, nullptr);
  auto loop = Quor::quorActivitySmFor(Quor::defaultActivityConfig());
  auto signals = Quor::fileDescriptorFactory("executor signals");
  signals->descriptorIs(::signalfd(-1, &stop, SFD_CLOEXEC));
  Quor::Ptr<StopOnSignal> stopper = new StopOnSignal(loop);
  stopper->notifierIs(signals);
  signals->notifyOnReadableIs(true);

  // The whole wiring of a remote executor: a mirrored config directory in, a served
  // status directory out.
  auto clock = Quor::clockFactory("executor clock");
  auto configs = Vell::mirrorSinkSmFactory(coordinator + "-config", clock);
  auto statuses = Vell::xactStatusDirFactory(executor);
  auto statusSource = Vell::mirrorSourceSmFactory(coordinator + "-" + executor);
  statusSource->entityIs(statuses);
  auto exec = Quor::makeEntity<DelayedExecutor>(executor, statuses, clock, delay);
  exec->xactConfigDirIs(configs->mirror<Vell::XactConfigDir>(executor));

  std::printf("executor_agent: %s for %s, pid %d\n", executor.c_str(), coordinator.c_str(), static_cast<int>(::getpid()));
  std::fflush(stdout);
  loop->run();
  exec->xactConfigDirDel();
  return 0;
}
