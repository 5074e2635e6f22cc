// vellctl: the operators' client of an agent's command socket.
//
//   vellctl [--timeout SECONDS] AGENT COMMAND [ARGS...]   one command, reply on stdout
//   vellctl --list                                       agents listening on this host
//
// One connection carries one request; the agent closes it after replying, so the reply
// ends at end of stream.
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/AgentSocketHandler.h>

namespace {

enum ExitStatus : int { exitOk = 0, exitUsage = 1, exitNoAgent = 2, exitFailed = 3 };

char const usageText[] =
    "Usage: vellctl [--timeout SECONDS] AGENT COMMAND [ARGS...]\n"
    "       vellctl --list\n"
    "       vellctl --help\n"
    "\n"
    "Sends one command to the agent AGENT through its command socket (the abstract Unix\n"
    "address @s<AGENT>) and prints the reply until the agent closes the connection. The\n"
    "command word and the arguments are joined by single blanks; the request may hold at\n"
    "most 1027 bytes.\n"
    "\n"
    "  --timeout SECONDS  give up after this long (default 5)\n"
    "  --list             list the agents listening on this host, with their process ids\n"
    "  --help             show this text\n"
    "\n"
    "Exit status: 0 reply printed; 1 usage error or request too long; 2 no such agent;\n"
    "3 timed out or connection failed.\n"
    "A command the agent refuses (for instance when it lacks CAP_NET_ADMIN) gets an empty\n"
    "reply.\n";

int usageError(char const* what) {
  std::fprintf(stderr, "vellctl: %s\n(vellctl --help for usage)\n", what);
  return exitUsage;
}

int msecsLeft(Quor::Seconds deadline) { return Quor::millisecondsUntil(deadline, 1 << 30); }

bool writeAll(int fd, char const* p, std::size_t n) {
  while (n) {
    ssize_t const w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<std::size_t>(w);
  }
  return true;
}

// ---- one command ----

int runCommand(std::string const& agent, std::string const& request, Quor::Seconds timeout) {
  Quor::Seconds const deadline = Quor::now() + timeout;
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::fprintf(stderr, "vellctl: socket: %s\n", std::strerror(errno));
    return exitFailed;
  }
  // A blocking connect waits while the agent's backlog is full; bound that wait.
  timeval tv;
  tv.tv_sec = static_cast<time_t>(timeout);
  tv.tv_usec = static_cast<suseconds_t>((timeout - static_cast<double>(tv.tv_sec)) * 1e6);
  if (tv.tv_sec == 0 && tv.tv_usec == 0) tv.tv_usec = 1;  // zero would mean no limit
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);

  sockaddr_un addr;
  socklen_t const len = Vell::agentSocketAddress(agent, &addr);
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), len);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    int const err = errno;
    ::close(fd);
    if (err == ECONNREFUSED || err == ENOENT) {
      std::fprintf(stderr, "vellctl: no agent named '%s' is listening on this host (abstract socket @%s)\n",
                   agent.c_str(), addr.sun_path + 1);
      return exitNoAgent;
    }
    if (err == EAGAIN || err == EINPROGRESS) {
      std::fprintf(stderr, "vellctl: timed out after %g s connecting to agent '%s'\n", timeout, agent.c_str());
      return exitFailed;
    }
    std::fprintf(stderr, "vellctl: connecting to agent '%s': %s\n", agent.c_str(), std::strerror(err));
    return exitFailed;
  }

  // The agent serves whatever one receive yields: send the request in one piece.
  ssize_t const sent = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(request.size())) {
    std::fprintf(stderr, "vellctl: sending to agent '%s': %s\n", agent.c_str(),
                 sent < 0 ? std::strerror(errno) : "short send");
    ::close(fd);
    return exitFailed;
  }

  char buf[65536];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    int const ready = ::poll(&p, 1, msecsLeft(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      std::fprintf(stderr, "vellctl: timed out after %g s waiting for the reply of agent '%s'\n", timeout,
                   agent.c_str());
      ::close(fd);
      return exitFailed;
    }
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    // A reset after the reply means only that the agent left part of a request
    // unread; the reply is complete either way.
    if (n == 0 || (n < 0 && errno == ECONNRESET)) break;
    if (n < 0) {
      std::fprintf(stderr, "vellctl: reading the reply: %s\n", std::strerror(errno));
      ::close(fd);
      return exitFailed;
    }
    if (!writeAll(STDOUT_FILENO, buf, static_cast<std::size_t>(n))) {
      std::fprintf(stderr, "vellctl: writing the reply: %s\n", std::strerror(errno));
      ::close(fd);
      return exitFailed;
    }
  }
  ::close(fd);
  return exitOk;
}

// ---- listing ----

// Process ids by socket inode, from the descriptors we are allowed to read.
std::map<unsigned long, long> socketOwners() {
  std::map<unsigned long, long> owners;
  DIR* proc = ::opendir("/proc");
  if (!proc) return owners;
  while (dirent* e = ::readdir(proc)) {
    char* end;
    long const pid = std::strtol(e->d_name, &end, 10);
    if (*end || pid <= 0) continue;
    std::string const dir = std::string("/proc/") + e->d_name + "/fd";
    DIR* fds = ::opendir(dir.c_str());
    if (!fds) continue;
    while (dirent* f = ::readdir(fds)) {
      char target[64];
      std::string const link = dir + "/" + f->d_name;
      ssize_t const n = ::readlink(link.c_str(), target, sizeof target - 1);
      if (n <= 0) continue;
      target[n] = '\0';
      unsigned long inode;
      if (std::sscanf(target, "socket:[%lu]", &inode) == 1) owners.emplace(inode, pid);
    }
    ::closedir(fds);
  }
  ::closedir(proc);
  return owners;
}

// Listening stream sockets whose abstract name begins with 's': "@s<agent>" in
// /proc/net/unix. Another program's abstract socket named so would be listed too.
int listAgents() {
  FILE* f = std::fopen("/proc/net/unix", "r");
  if (!f) {
    std::fprintf(stderr, "vellctl: /proc/net/unix: %s\n", std::strerror(errno));
    return exitFailed;
  }
  constexpr unsigned long acceptingConnections = 0x10000;  // __SO_ACCEPTCON
  constexpr unsigned streamType = 1;
  std::vector<std::pair<std::string, unsigned long>> agents;
  char line[512];
  (void)std::fgets(line, sizeof line, f);  // the header
  while (std::fgets(line, sizeof line, f)) {
    unsigned long refCount, protocol, flags, inode;
    unsigned type, state;
    int pathAt = 0;
    if (std::sscanf(line, "%*[^:]: %lx %lx %lx %x %x %lu %n", &refCount, &protocol, &flags, &type, &state, &inode,
                    &pathAt) != 6 || pathAt == 0)
      continue;
    std::string path(line + pathAt);
    while (!path.empty() && (path.back() == '\n' || path.back() == ' ')) path.pop_back();
    if (!(flags & acceptingConnections) || type != streamType || path.size() < 3 || path.compare(0, 2, "@s") != 0)
      continue;
    agents.emplace_back(path.substr(2), inode);
  }
  std::fclose(f);
  std::sort(agents.begin(), agents.end());
  std::map<unsigned long, long> const owners = agents.empty() ? std::map<unsigned long, long>() : socketOwners();
  for (auto const& [name, inode] : agents) {
    auto it = owners.find(inode);
    if (it == owners.end())
      std::printf("%s -\n", name.c_str());
    else
      std::printf("%s %ld\n", name.c_str(), it->second);
  }
  return exitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Quor::Seconds timeout = 5;
  int i = 1;
  for (; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) break;
    if (arg == "--help" || arg == "-h") {
      std::fputs(usageText, stdout);
      return exitOk;
    }
    if (arg == "--list") {
      if (i + 1 != argc) return usageError("--list takes no arguments");
      return listAgents();
    }
    if (arg == "--timeout" || arg.compare(0, 10, "--timeout=") == 0) {
      char const* value = arg == "--timeout" ? (i + 1 < argc ? argv[++i] : nullptr) : argv[i] + 10;
      if (!value) return usageError("--timeout needs a number of seconds");
      char* end;
      double const t = std::strtod(value, &end);
      if (end == value || *end || !(t > 0) || !(t <= 86400))
        return usageError("--timeout must be a number of seconds above 0 and at most 86400");
      timeout = t;
      continue;
    }
    return usageError(("unknown option " + arg).c_str());
  }
  if (argc - i < 2) return usageError("an agent name and a command are needed");
  std::string const agent = argv[i++];
  if (agent.empty()) return usageError("the agent name is empty");
  std::string request = argv[i++];
  if (request.empty()) return usageError("the command word is empty");
  for (; i < argc; ++i) (request += ' ') += argv[i];
  if (request.size() > Vell::agentSocketRequestMax) {
    std::fprintf(stderr, "vellctl: the request is %zu bytes; an agent reads at most %u, so it was not sent\n",
                 request.size(), Vell::agentSocketRequestMax);
    return exitUsage;
  }
  return runCommand(agent, request, timeout);
}
