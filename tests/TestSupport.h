// Helpers shared by the test programs.
#pragma once
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Quor/Quor.h>

namespace VellTest {

/// The text of the Quor::RangeException that f throws, or "no exception".
template <class F>
std::string rangeText(F&& f) {
  try {
    f();
  } catch (Quor::RangeException const& e) {
    return e.what();
  }
  return "no exception";
}

/// A death-test pattern that matches `text` exactly.
inline std::string literally(std::string const& text) {
  std::string re;
  for (char c : text) re += std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos ? std::string{'\\', c} : std::string{c};
  return re;
}

/// Captures the trace records of `channel` at levels 0..maxLevel while it lives; the
/// channel is off again and the sink is standard error afterwards.
struct TraceCapture {
  std::string channel;
  std::vector<Quor::TraceRecord> records;
  explicit TraceCapture(std::string ch, int maxLevel = 9) : channel(std::move(ch)) {
    Quor::traceLevelIs(channel, maxLevel);
    Quor::traceSinkIs([this](Quor::TraceRecord const& r) { records.push_back(r); });
  }
  ~TraceCapture() {
    Quor::traceLevelIs(channel, -1);
    Quor::traceSinkIs(nullptr);
  }
  /// The texts of one level, or of every level when level is -1.
  std::vector<std::string> texts(int level = -1) const {
    std::vector<std::string> out;
    for (auto const& r : records)
      if (level < 0 || r.level == level) out.push_back(r.text);
    return out;
  }
};

/// The descriptors this process has open, for leak checks.
inline std::size_t openDescriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

/// True in a sanitizer build, whose runtime keeps freed memory in quarantine (resident
/// memory grows) and needs descriptors of its own (it probes memory through a pipe).
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif
#else
inline constexpr bool sanitized = false;
#endif

/// Captures log messages as "<name>/<severity>: <text>" while it lives.
struct LogCapture {
  std::vector<std::string> lines;
  LogCapture() {
    Quor::logSinkIs([this](Quor::LogRecord const& r) {
      lines.push_back(r.name + "/" + std::to_string(r.severity) + ": " + r.text);
    });
  }
  ~LogCapture() { Quor::logSinkIs(nullptr); }
};

/// Takes every descriptor the process may still open, under a limit lowered to at most
/// 4096, until release() (or destruction) gives them back and restores the limit.
struct DescriptorHog {
  rlimit old{};
  std::vector<int> fds;
  DescriptorHog() {
    ::getrlimit(RLIMIT_NOFILE, &old);
    rlimit low = old;
    low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 4096);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    for (int fd; (fd = ::dup(0)) >= 0;) fds.push_back(fd);
  }
  void release() {
    for (int fd : fds) ::close(fd);
    fds.clear();
    ::setrlimit(RLIMIT_NOFILE, &old);
  }
  ~DescriptorHog() { release(); }
};

/// Virtual time from 1000 s, the default loop and a clock. Every test ends with the loop as
/// it found it: no clock reactor left armed, no descriptor left registered. A fixture that
/// holds entities releases them in its own TearDown, then calls this one.
class LoopFixture : public ::testing::Test {
 protected:
  Quor::VirtualTime vt{1000};
  Quor::Ptr<Quor::ActivitySm> loop = Quor::quorActivitySmFor(nullptr);
  Quor::Ptr<Quor::Clock> clock = Quor::clockFactory("test clock");
  std::size_t const armedBefore = loop->armedClockReactors(), fdsBefore = loop->descriptors();
  void TearDown() override {
    EXPECT_EQ(loop->armedClockReactors(), armedBefore) << "a clock reactor was left armed";
    EXPECT_EQ(loop->descriptors(), fdsBefore) << "a descriptor was left in the loop";
  }
};

/// A generator whose seed every failure in the scope names: VELL_SEEDED(rng, seed).
struct Rng : std::mt19937_64 {
  using std::mt19937_64::mt19937_64;
  /// A number in 0 .. n-1.
  int pick(int n) { return static_cast<int>((*this)() % static_cast<unsigned>(n)); }
};
#define VELL_SEEDED(rng, seed)                   \
  SCOPED_TRACE("seed " + std::to_string(seed)); \
  ::VellTest::Rng rng(seed)

}  // namespace VellTest
