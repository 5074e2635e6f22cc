// Watching under a storm: a writer process closes files after writing in a watched
// directory (on tmpfs) as fast as it can (200,000 times, 64 names), while the reader
// takes the events. Each contender faces its own storm of the same size:
//   Vell_WatchDescriptor  the manager and one watch descriptor on the activity loop
//   Bare_ReadLoop         inotify read in a plain poll loop, counting records
//   Inotifywait           `inotifywait -m` (inotify-tools), counting its output lines
// events_per_second is events delivered over the storm's duration (from its start until
// the last event was taken); lost counts events that never arrived (queue overflow);
// reader_cpu_us_per_event is the reading process's CPU time per event delivered. Each
// storm runs three times; the median is reported (the writer shares two cores with
// the reader, so single runs vary by 10%).
#include <benchmark/benchmark.h>

#include <Vell/InotifyMgr.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;
constexpr long stormWrites = 200000;

// On tmpfs where there is one: a disk-backed directory bounds the writer at a few
// thousand files a second, and the storm would test the file system, not the readers.
struct TempDir {
  std::string path;
  TempDir() {
    fs::path const base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string t = (base / "vell-storm-XXXXXX").string();
    if (::mkdtemp(t.data())) path = t;
  }
  ~TempDir() { fs::remove_all(path); }
};

// Forks the writer; returns its pid.
pid_t startStorm(std::string const& dir) {
  pid_t const pid = ::fork();
  if (pid != 0) return pid;
  std::string names[64];
  for (int i = 0; i < 64; ++i) names[i] = dir + "/f" + std::to_string(i);
  for (long i = 0; i < stormWrites; ++i) {
    int const fd = ::open(names[i % 64].c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) ::_exit(1);
    if (::write(fd, "x", 1) != 1) ::_exit(1);
    ::close(fd);
  }
  ::_exit(0);
}

bool stormOver(pid_t& pid) {
  if (pid <= 0) return true;
  int status;
  if (::waitpid(pid, &status, WNOHANG) == pid) pid = 0;
  return pid == 0;
}

double cpuSeconds(rusage const& u) {
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// The reading process's CPU time so far (this process: the writer is a child).
double selfCpu() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return cpuSeconds(u);
}

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void report(benchmark::State& st, long delivered, long overflows, double elapsed, double readerCpu) {
  st.counters["events_per_second"] = static_cast<double>(delivered) / elapsed;
  st.counters["reader_cpu_us_per_event"] = readerCpu * 1e6 / static_cast<double>(std::max(delivered, 1L));
  st.counters["delivered"] = static_cast<double>(delivered);
  st.counters["lost"] = static_cast<double>(stormWrites - delivered);
  st.counters["overflows"] = static_cast<double>(overflows);
  st.SetIterationTime(elapsed);
}

struct Counter : Vell::WatchDescriptor::NotifieeConst {
  long events = 0, overflows = 0;
  double last = 0;
  void onWatchCount() override {
    if (notifier()->event().wd() < 0) {
      ++overflows;
    } else if (notifier()->event().mask() & IN_CLOSE_WRITE) {
      ++events;
      last = seconds();
    }
  }
};

void Vell_WatchDescriptor(benchmark::State& st) {
  for (auto _ : st) {
    TempDir dir;
    auto sm = Quor::quorActivitySmFor(nullptr);
    auto mgr = Vell::inotifyMgrFactory("storm");
    auto wd = Vell::watchDescriptorFactory("storm", mgr);
    wd->pathIs(dir.path);
    Quor::Ptr<Counter> c = new Counter;
    c->notifierIs(wd);
    double const cpu = selfCpu();
    double const start = seconds();
    pid_t pid = startStorm(dir.path);
    // The writer's end is looked for only when the loop found nothing to do.
    for (;;) {
      if (sm->runOnce(pid ? 0.01 : 0.05)) continue;
      if (!pid) break;
      stormOver(pid);
    }
    report(st, c->events, c->overflows, std::max(c->last, start + 1e-6) - start, selfCpu() - cpu);
    c->notifierIs(nullptr);
  }
}

void Bare_ReadLoop(benchmark::State& st) {
  for (auto _ : st) {
    TempDir dir;
    int const fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ::inotify_add_watch(fd, dir.path.c_str(), Vell::watchMask);
    long events = 0, overflows = 0;
    double last = 0;
    double const cpu = selfCpu();
    double const start = seconds();
    pid_t pid = startStorm(dir.path);
    alignas(inotify_event) char buf[4096];
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      int const ready = ::poll(&p, 1, pid ? 10 : 50);
      if (ready <= 0) {
        if (stormOver(pid)) break;
        continue;
      }
      ssize_t n;
      while ((n = ::read(fd, buf, sizeof buf)) > 0) {
        for (ssize_t off = 0; off < n;) {
          auto const* e = reinterpret_cast<inotify_event const*>(buf + off);
          if (e->mask & IN_Q_OVERFLOW) ++overflows;
          if (e->mask & IN_CLOSE_WRITE) ++events;
          off += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
        }
        last = seconds();
      }
      stormOver(pid);
    }
    ::close(fd);
    report(st, events, overflows, std::max(last, start + 1e-6) - start, selfCpu() - cpu);
  }
}

void Inotifywait(benchmark::State& st) {
  if (::system("command -v inotifywait >/dev/null 2>&1") != 0) {
    st.SkipWithError("inotifywait is not installed (Debian package inotify-tools)");
    for (auto _ : st) {
    }
    return;
  }
  for (auto _ : st) {
    TempDir dir;
    int out[2];
    if (::pipe(out) != 0) return st.SkipWithError("pipe");
    pid_t const waiter = ::fork();
    if (waiter == 0) {
      ::dup2(out[1], 1);
      ::close(out[0]);
      ::close(out[1]);
      int const devnull = ::open("/dev/null", O_WRONLY);
      ::dup2(devnull, 2);
      ::execlp("inotifywait", "inotifywait", "-m", "-q", "-e", "close_write", dir.path.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(out[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // its watch is set up
    long lines = 0, overflows = 0;
    double last = 0;
    double const start = seconds();
    pid_t pid = startStorm(dir.path);
    char buf[65536];
    std::string tail;
    for (;;) {
      pollfd p{out[0], POLLIN, 0};
      int const ready = ::poll(&p, 1, pid ? 10 : 200);
      if (ready <= 0) {
        if (stormOver(pid)) break;
        continue;
      }
      ssize_t const n = ::read(out[0], buf, sizeof buf);
      if (n <= 0) break;
      for (ssize_t i = 0; i < n; ++i) {
        tail += buf[i];
        if (buf[i] != '\n') continue;
        ++lines;
        overflows += tail.find("OVERFLOW") != std::string::npos;
        tail.clear();
      }
      last = seconds();
      stormOver(pid);
    }
    ::kill(waiter, SIGTERM);
    rusage u{};  // inotifywait's own CPU time (its set-up included)
    ::wait4(waiter, nullptr, 0, &u);
    ::close(out[0]);
    report(st, lines - overflows, overflows, std::max(last, start + 1e-6) - start, cpuSeconds(u));
  }
}

}  // namespace

#define VELL_STORM(f) BENCHMARK(f)->Iterations(1)->Repetitions(3)->ReportAggregatesOnly(true)->UseManualTime()->Unit(benchmark::kMillisecond)
VELL_STORM(Vell_WatchDescriptor);
VELL_STORM(Bare_ReadLoop);
VELL_STORM(Inotifywait);
BENCHMARK_MAIN();
