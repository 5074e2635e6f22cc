// vellctl against an agent running in a child process: replies, exit statuses, the
// request limit, listing and timeouts.
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Vell/AgentSocketHandler.h>

namespace {

using Quor::Ptr;

std::string vellctlPath() {
  char self[4096];
  ssize_t const n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "";
  std::string dir(self, static_cast<std::size_t>(n));
  dir.erase(dir.find_last_of('/'));
  return dir + "/../tools/vellctl";
}

struct Outcome {
  int status = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;
};

std::string contents(int fd) {
  std::string s;
  char buf[65536];
  ssize_t n;
  ::lseek(fd, 0, SEEK_SET);
  while ((n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<std::size_t>(n));
  ::close(fd);
  return s;
}

Outcome runVellctl(std::vector<std::string> const& args) {
  std::string const path = vellctlPath();
  int const out = ::memfd_create("vellctl-out", MFD_CLOEXEC);
  int const err = ::memfd_create("vellctl-err", MFD_CLOEXEC);
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  Outcome o;
  o.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  o.out = contents(out);
  o.err = contents(err);
  return o;
}

class FunctionCallback : public Vell::AgentSocketCallback {
 public:
  FunctionCallback(std::string const& word, std::function<std::string(std::string const&)> f)
      : AgentSocketCallback("fn " + word, word), f_(std::move(f)) {}
  void handleCommand(unsigned int d, Quor::String8 args) override {
    std::string const reply = f_(args.str());
    std::size_t done = 0;
    while (done < reply.size()) {
      ssize_t const w = ::send(static_cast<int>(d), reply.data() + done, reply.size() - done, 0);
      if (w <= 0) return;
      done += static_cast<std::size_t>(w);
    }
  }

 private:
  std::function<std::string(std::string const&)> f_;
};

std::string bigReply() {
  std::string s(3 << 20, '\0');
  for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>('a' + i % 23);
  return s;
}

// An agent in a child process, serving until killed.
class ChildAgent {
 public:
  ChildAgent() : name_("vc" + std::to_string(::getpid()) + "-agent") {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      auto handler = Vell::agentSocketHandlerSmFactory(name_);
      handler->agentSocketCallbackIs(new FunctionCallback("echo", [](std::string const& a) { return a + "\n"; }));
      handler->agentSocketCallbackIs(new FunctionCallback("big", [](std::string const&) { return bigReply(); }));
      (void)!::write(ready[1], "r", 1);
      Quor::quorActivitySmFor(nullptr)->run();
      ::_exit(0);
    }
    ::close(ready[1]);
    char c;
    EXPECT_EQ(::read(ready[0], &c, 1), 1) << "the agent did not start";
    ::close(ready[0]);
  }
  ~ChildAgent() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  std::string const& name() const { return name_; }
  pid_t pid() const { return pid_; }

 private:
  std::string name_;
  pid_t pid_ = -1;
};

class VellctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(vellctlPath().c_str(), X_OK) != 0) GTEST_SKIP() << "vellctl is not built";
    if (!Vell::agentSocketSendBufferForceAllowed()) GTEST_SKIP() << "needs CAP_NET_ADMIN";
  }
};

TEST_F(VellctlTest, PrintsTheReplyAndExitsZero) {
  ChildAgent agent;
  Outcome o = runVellctl({agent.name(), "echo", "a  b", "c"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, "a  b c\n") << "arguments joined by single blanks, kept as given";
  EXPECT_EQ(o.err, "");

  o = runVellctl({"--timeout", "5", agent.name(), "nosuch"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, "Unknown Command \n");

  o = runVellctl({"--timeout=5", agent.name(), "big"});
  EXPECT_EQ(o.status, 0);
  EXPECT_TRUE(o.out == bigReply()) << "a reply larger than the socket buffers arrives whole (" << o.out.size()
                                   << " bytes)";
}

TEST_F(VellctlTest, RequestsAreLimitedTo1027Bytes) {
  ChildAgent agent;
  Outcome o = runVellctl({agent.name(), "echo", std::string(1022, 'x')});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, std::string(1022, 'x') + "\n");

  o = runVellctl({agent.name(), "echo", std::string(1023, 'x')});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "");
  EXPECT_NE(o.err.find("1028 bytes"), std::string::npos) << o.err;
  EXPECT_NE(o.err.find("1027"), std::string::npos) << o.err;
}

TEST_F(VellctlTest, ListShowsListeningAgentsWithTheirProcess) {
  ChildAgent agent;
  Outcome const o = runVellctl({"--list"});
  EXPECT_EQ(o.status, 0);
  std::string const line = agent.name() + " " + std::to_string(agent.pid()) + "\n";
  EXPECT_NE(o.out.find(line), std::string::npos) << o.out;
}

TEST_F(VellctlTest, MissingAgentUsageAndBadArguments) {
  std::string const missing = "vc" + std::to_string(::getpid()) + "-nobody";
  Outcome o = runVellctl({missing, "echo"});
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.out, "");
  EXPECT_NE(o.err.find("no agent named '" + missing + "'"), std::string::npos) << o.err;

  o = runVellctl({"--help"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out.rfind("Usage: vellctl", 0), 0u);
  for (auto const& bad : std::vector<std::vector<std::string>>{
           {}, {"agent"}, {"--timeout", "0", "a", "b"}, {"--timeout", "x", "a", "b"}, {"--timeout"},
           {"--frobnicate", "a", "b"}, {"a", ""}, {"--list", "extra"}}) {
    o = runVellctl(bad);
    EXPECT_EQ(o.status, 1) << (bad.empty() ? "" : bad[0]);
    EXPECT_NE(o.err.find("vellctl: "), std::string::npos);
  }
}

TEST_F(VellctlTest, TimeoutBoundsAStalledAgent) {
  ChildAgent agent;
  ::kill(agent.pid(), SIGSTOP);
  Outcome const o = runVellctl({"--timeout", "0.3", agent.name(), "echo", "x"});
  ::kill(agent.pid(), SIGCONT);
  EXPECT_EQ(o.status, 3);
  EXPECT_NE(o.err.find("timed out after 0.3 s"), std::string::npos) << o.err;
  EXPECT_EQ(runVellctl({agent.name(), "echo", "again"}).out, "again\n");
}

}  // namespace
