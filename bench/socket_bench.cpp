// Round trips per second on an agent's command socket (connect, one command, the reply,
// close), with 1 and with 32 concurrent clients, against the same exchange served by a
// minimal epoll server written here, which stands for what the machine can do.
//
// Each server runs in its own process and each client in its own process, so that
// neither side waits for the other's turn of a single loop. All servers listen with
// the same backlog (5) on the same kind of abstract address; the minimal one does no
// more than accept, receive, send and close. The agent runs twice: with SIGPIPE at its
// default disposition (the socket then ignores and restores it around each command)
// and with SIGPIPE ignored for the whole process, as the minimal server has it.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Vell/AgentSocketHandler.h>

namespace {

constexpr char request[] = "ping";
constexpr char reply[] = "pong\n";
constexpr int backlog = 5;

struct Server {
  char const* label;
  void (*serve)(std::string const& name, int ready);
  std::string name;
  pid_t pid = -1;
};

class Pong : public Vell::AgentSocketCallback {
 public:
  Pong() : AgentSocketCallback("pong", "ping") {}
  void handleCommand(unsigned int d, Quor::String8) override {
    (void)::send(static_cast<int>(d), reply, sizeof reply - 1, 0);
  }
};

[[noreturn]] void serveAgent(std::string const& name, int ready) {
  auto handler = Vell::agentSocketHandlerSmFactory(name);
  handler->agentSocketCallbackIs(new Pong);
  (void)!::write(ready, "r", 1);
  Quor::quorActivitySmFor(nullptr)->run();
  ::_exit(0);
}

[[noreturn]] void serveAgentIgnoringSigpipe(std::string const& name, int ready) {
  ::signal(SIGPIPE, SIG_IGN);
  serveAgent(name, ready);
}

// The minimal server: level-triggered epoll, accept until empty, one receive, one
// send, close.
[[noreturn]] void serveEpoll(std::string const& name, int ready) {
  int const ls = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un addr;
  socklen_t const len = Vell::agentSocketAddress(name, &addr);
  if (::bind(ls, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(ls, backlog) != 0) ::_exit(1);
  ::signal(SIGPIPE, SIG_IGN);
  int const ep = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = ls;
  ::epoll_ctl(ep, EPOLL_CTL_ADD, ls, &ev);
  (void)!::write(ready, "r", 1);
  epoll_event events[64];
  for (;;) {
    int const n = ::epoll_wait(ep, events, 64, -1);
    for (int i = 0; i < n; ++i) {
      int const fd = events[i].data.fd;
      if (fd == ls) {
        int c;
        while ((c = ::accept4(ls, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
          epoll_event cev{};
          cev.events = EPOLLIN;
          cev.data.fd = c;
          ::epoll_ctl(ep, EPOLL_CTL_ADD, c, &cev);
        }
        continue;
      }
      char buf[1028];
      if (::recv(fd, buf, 1027, 0) > 0) (void)::send(fd, reply, sizeof reply - 1, 0);
      ::close(fd);
    }
  }
}

pid_t startServer(Server const& server) {
  int p[2];
  if (::pipe(p) != 0) return -1;
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::close(p[0]);
    server.serve(server.name, p[1]);
  }
  ::close(p[1]);
  char c;
  bool const up = ::read(p[0], &c, 1) == 1;
  ::close(p[0]);
  return up ? pid : -1;
}

bool roundTrip(sockaddr_un const& addr, socklen_t len) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<sockaddr const*>(&addr), len) != 0) {
    ::close(fd);
    return false;
  }
  bool ok = ::send(fd, request, sizeof request - 1, MSG_NOSIGNAL) == sizeof request - 1;
  char buf[64];
  ssize_t n;
  std::size_t got = 0;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) got += static_cast<std::size_t>(n);
  ::close(fd);
  return ok && got == sizeof reply - 1;
}

// Client processes: each does the number of round trips it is told, then reports.
class ClientPool {
 public:
  ClientPool(std::string const& server, int clients) {
    int done[2];
    if (::pipe(done) != 0) return;
    doneFd_ = done[0];
    for (int i = 0; i < clients; ++i) {
      int control[2];
      if (::pipe(control) != 0) break;
      pid_t const pid = ::fork();
      if (pid == 0) {
        ::close(control[1]);
        ::close(done[0]);
        sockaddr_un addr;
        socklen_t const len = Vell::agentSocketAddress(server, &addr);
        unsigned count;
        while (::read(control[0], &count, sizeof count) == sizeof count) {
          char result = 'k';
          for (unsigned k = 0; k < count; ++k)
            if (!roundTrip(addr, len)) result = 'f';
          (void)!::write(done[1], &result, 1);
        }
        ::_exit(0);
      }
      ::close(control[0]);
      pids_.push_back(pid);
      controls_.push_back(control[1]);
    }
    ::close(done[1]);
  }
  ~ClientPool() {
    for (int c : controls_) ::close(c);
    for (pid_t p : pids_) ::waitpid(p, nullptr, 0);
    ::close(doneFd_);
  }
  /// Every client does `each` round trips; false if any failed.
  bool run(unsigned each) {
    for (int c : controls_) (void)!::write(c, &each, sizeof each);
    bool ok = true;
    for (std::size_t i = 0; i < controls_.size(); ++i) {
      char r = 'f';
      if (::read(doneFd_, &r, 1) != 1) r = 'f';
      ok &= r == 'k';
    }
    return ok;
  }
  std::size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
  std::vector<int> controls_;
  int doneFd_ = -1;
};

std::string const prefix = "vbench" + std::to_string(::getpid());
std::vector<Server> servers = {
    {"agent", serveAgent, prefix + "-agent"},
    {"agent, SIGPIPE ignored", serveAgentIgnoringSigpipe, prefix + "-agent-ign"},
    {"minimal epoll", serveEpoll, prefix + "-epoll"},
};

// The best figures seen per server and client count: the machine is shared, and the
// best of several interleaved runs is the least disturbed one. Besides round trips per
// second, the server's own CPU time per round trip, which other load disturbs less.
std::map<std::pair<std::string, int>, double> bestRates;
std::map<std::pair<std::string, int>, double> bestCpuPerTrip;

// Nanoseconds the process has run on a CPU (the scheduler's own account).
double cpuNanoseconds(pid_t pid) {
  std::FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/schedstat").c_str(), "r");
  if (!f) return 0;
  unsigned long long ns = 0;
  if (std::fscanf(f, "%llu", &ns) != 1) ns = 0;
  std::fclose(f);
  return static_cast<double>(ns);
}

void roundTrips(benchmark::State& state, Server const* server, int clients) {
  if (server->serve != serveEpoll && !Vell::agentSocketSendBufferForceAllowed()) {
    state.SkipWithError("needs CAP_NET_ADMIN: without it the agent refuses every command");
    return;
  }
  unsigned const each = clients == 1 ? 200 : 20;
  ClientPool pool(server->name, clients);
  if (pool.size() != static_cast<std::size_t>(clients)) {
    state.SkipWithError("could not start the clients");
    return;
  }
  std::uint64_t trips = 0;
  double const cpuAtStart = cpuNanoseconds(server->pid);
  auto const start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (!pool.run(each)) {
      state.SkipWithError("a round trip failed");
      return;
    }
    trips += static_cast<std::uint64_t>(each) * static_cast<std::uint64_t>(clients);
  }
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  double const cpuPerTrip = (cpuNanoseconds(server->pid) - cpuAtStart) / static_cast<double>(trips) / 1000.0;
  state.SetItemsProcessed(static_cast<std::int64_t>(trips));
  state.counters["serverCpuUsPerTrip"] = cpuPerTrip;
  if (seconds < 0.1) return;  // the framework's first short probe run: too short to count
  auto const key = std::make_pair(std::string(server->label), clients);
  double& best = bestRates[key];
  best = std::max(best, static_cast<double>(trips) / seconds);
  auto [it, fresh] = bestCpuPerTrip.emplace(key, cpuPerTrip);
  if (!fresh) it->second = std::min(it->second, cpuPerTrip);
}

// Runs alternate between the servers, so that a busy moment of the machine does not
// fall on one of them only.
void registerInterleaved(int rounds) {
  for (int round = 0; round < rounds; ++round)
    for (int clients : {1, 32})
      for (Server const& server : servers) {
        std::string name = std::string("RoundTrip/") + server.label + "/clients:" + std::to_string(clients);
        std::replace(name.begin(), name.end(), ' ', '_');
        benchmark::RegisterBenchmark(name.c_str(), roundTrips, &server, clients)->UseRealTime();
      }
}

}  // namespace

int main(int argc, char** argv) {
  int const rounds = 5;
  registerInterleaved(rounds);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  for (Server& server : servers) {
    server.pid = startServer(server);
    if (server.pid < 0) {
      std::fprintf(stderr, "socket_bench: the %s server did not start\n", server.label);
      return 1;
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (Server const& server : servers) {
    ::kill(server.pid, SIGKILL);
    ::waitpid(server.pid, nullptr, 0);
  }

  std::printf("\nround trips (connect, one command, reply, close), best of %d interleaved runs;\n"
              "ratio: round trips per second against the minimal epoll server\n\n",
              rounds);
  std::printf("%-24s %8s %12s %7s %16s\n", "server", "clients", "rt/s", "ratio", "server cpu/rt");
  for (int clients : {1, 32}) {
    auto const limit = bestRates.find({"minimal epoll", clients});
    for (Server const& server : servers) {
      auto const rate = bestRates.find({server.label, clients});
      if (rate == bestRates.end()) continue;
      double const ratio = limit == bestRates.end() ? 0 : 100.0 * rate->second / limit->second;
      std::printf("%-24s %8d %12.0f %6.0f%% %13.1f us\n", server.label, clients, rate->second, ratio,
                  bestCpuPerTrip[{server.label, clients}]);
    }
  }
  return 0;
}
