// vellctl against an agent running in a child process: replies, exit statuses, the
// request limit, listing and timeouts.
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>

#include <Vell/AgentSocketHandler.h>

#include "TestSupport.h"

namespace {

std::string const vellctl = [] {
  char self[4096];
  ssize_t const n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  std::string const exe(self, n > 0 ? static_cast<std::size_t>(n) : 0);
  return exe.substr(0, exe.find_last_of('/')) + "/../tools/vellctl";
}();

struct Outcome {
  int status;  // exit status, or -1 when it did not exit normally
  std::string out, err;
};

std::string contents(int fd) {
  std::string s;
  char buf[65536];
  ::lseek(fd, 0, SEEK_SET);
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) s.append(buf, static_cast<std::size_t>(n));
  ::close(fd);
  return s;
}

// Runs vellctl and checks its exit status, and that its errors hold `err` (are empty
// when `err` is).
Outcome run(std::vector<std::string> args, int status, std::string const& err = "") {
  int const outFd = ::memfd_create("vellctl-out", MFD_CLOEXEC), errFd = ::memfd_create("vellctl-err", MFD_CLOEXEC);
  std::string what;
  for (auto const& a : args) what.append(" ").append(a, 0, 40);
  args.insert(args.begin(), vellctl);
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(outFd, STDOUT_FILENO);
    ::dup2(errFd, STDERR_FILENO);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(vellctl.c_str(), argv.data());
    ::_exit(127);
  }
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) continue;
  Outcome o{WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, contents(outFd), contents(errFd)};
  EXPECT_EQ(o.status, status) << "vellctl" << what << ": " << o.err;
  EXPECT_TRUE(err.empty() ? o.err.empty() : o.err.find(err) != std::string::npos) << "vellctl" << what << ": " << o.err;
  return o;
}

std::string bigReply() {
  std::string s(3 << 20, '\0');
  for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>('a' + i % 23);
  return s;
}

// "echo" replies its argument text and a newline; "big" more than the socket buffers
// hold (a blocking send writes it all).
struct Echo : Vell::AgentSocketCallback {
  explicit Echo(std::string const& word) : AgentSocketCallback("echo " + word, word) {}
  void handleCommand(unsigned int d, Quor::String8 args) override {
    std::string const reply = commandType().str() == "big" ? bigReply() : args.str() + "\n";
    (void)!::send(static_cast<int>(d), reply.data(), reply.size(), 0);
  }
};

// An agent in a child process, serving until killed.
struct ChildAgent {
  std::string const name = "vc" + std::to_string(::getpid()) + "-agent";
  pid_t pid = -1;
  ChildAgent() {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    if ((pid = ::fork()) == 0) {
      auto handler = Vell::agentSocketHandlerSmFactory(name);
      handler->agentSocketCallbackIs(new Echo("echo"));
      handler->agentSocketCallbackIs(new Echo("big"));
      (void)!::write(ready[1], "r", 1);
      Quor::quorActivitySmFor(nullptr)->run();
      ::_exit(0);
    }
    ::close(ready[1]);  // a child that dies before it is ready ends the read
    char c;
    EXPECT_EQ(::read(ready[0], &c, 1), 1) << "the agent did not start";
    ::close(ready[0]);
  }
  ~ChildAgent() {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
};

class VellctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(vellctl.c_str(), X_OK) != 0) GTEST_SKIP() << "vellctl is not built";
    if (!Vell::agentSocketSendBufferForceAllowed()) GTEST_SKIP() << "needs CAP_NET_ADMIN";
  }
};

TEST_F(VellctlTest, RepliesLimitListingAndTimeout) {
  ChildAgent agent;
  EXPECT_EQ(run({agent.name, "echo", "a  b", "c"}, 0).out, "a  b c\n") << "arguments joined by single blanks";
  EXPECT_EQ(run({"--timeout", "5", agent.name, "nosuch"}, 0).out, "Unknown Command \n");
  std::string const big = run({"--timeout=5", agent.name, "big"}, 0).out;
  EXPECT_TRUE(big == bigReply()) << "a reply larger than the socket buffers arrives whole (" << big.size() << " bytes)";

  EXPECT_EQ(run({agent.name, "echo", std::string(1022, 'x')}, 0).out, std::string(1022, 'x') + "\n");
  Outcome const tooLong = run({agent.name, "echo", std::string(1023, 'x')}, 1, "1028 bytes");
  EXPECT_EQ(tooLong.out, "");
  EXPECT_NE(tooLong.err.find("1027"), std::string::npos) << tooLong.err;

  std::string const line = agent.name + " " + std::to_string(agent.pid) + "\n";
  EXPECT_NE(run({"--list"}, 0).out.find(line), std::string::npos) << "--list lacks " << line;

  ::kill(agent.pid, SIGSTOP);
  run({"--timeout", "0.3", agent.name, "echo", "x"}, 3, "timed out after 0.3 s");
  ::kill(agent.pid, SIGCONT);
  EXPECT_EQ(run({agent.name, "echo", "again"}, 0).out, "again\n");
}

TEST_F(VellctlTest, MissingAgentUsageAndBadArguments) {
  std::string const missing = "vc" + std::to_string(::getpid()) + "-nobody";
  EXPECT_EQ(run({missing, "echo"}, 2, "no agent named '" + missing + "'").out, "");
  EXPECT_EQ(run({"--help"}, 0).out.rfind("Usage: vellctl", 0), 0u);
  std::vector<std::vector<std::string>> const bad = {
      {}, {"agent"}, {"--timeout", "0", "a", "b"}, {"--timeout", "x", "a", "b"}, {"--timeout"},
      {"--frobnicate", "a", "b"}, {"a", ""}, {"--list", "extra"}};
  for (auto const& args : bad) run(args, 1, "vellctl: ");
}

}  // namespace
