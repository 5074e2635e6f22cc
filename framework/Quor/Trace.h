// Tracing: named channels with a maximum level, and statements that cost one integer
// compare when their channel is off.
//
// Channels are enabled from code (traceLevelIs) or from the environment variable
// QUORTRACE, read once when the first channel is made: "TimerWheel/9,HBitmap/0-7"
// (a single number is the maximum level; "a-b" enables levels a to b).
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>

#include <Quor/String.h>

namespace Quor {

/// One trace line as handed to the sink.
struct TraceRecord {
  std::string channel;
  int level;
  std::string stem;  ///< source file name without directory and extension
  int line;
  std::string function;
  std::string text;
};

/// A named trace channel. Declare one per module, at namespace scope or as a
/// function-local static; it registers itself so that traceLevelIs reaches it.
class QUOR_API TraceHandle {
 public:
  explicit TraceHandle(char const* name);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  char const* name() const { return name_.c_str(); }
  /// True when a statement of this level (0 to 63) must be built and written. With a
  /// constant level this is one load and a bit test.
  bool enabled(int level) const {
    return level >= 0 && level < 64 && ((mask_.load(std::memory_order_relaxed) >> level) & 1) != 0;
  }
  /// Enables levels lo..hi (within 0..63); an empty range turns the channel off.
  void levelsIs(int lo, int hi) {
    lo = lo < 0 ? 0 : lo;
    hi = hi > 63 ? 63 : hi;
    std::uint64_t const mask = lo > hi ? 0 : (~std::uint64_t(0) >> (63 - (hi - lo))) << lo;
    mask_.store(mask, std::memory_order_relaxed);
  }

 private:
  std::string name_;
  std::atomic<std::uint64_t> mask_{0};  // bit l: level l is on
};

/// Enables levels 0..maxLevel of a channel (now and for handles made later); -1 turns it off.
QUOR_API void traceLevelIs(std::string const& channel, int maxLevel);
/// Enables levels lo..hi of a channel.
QUOR_API void traceLevelsIs(std::string const& channel, int lo, int hi);
/// Where trace lines go; an empty function restores standard error.
QUOR_API void traceSinkIs(std::function<void(TraceRecord const&)>);
/// Writes one line; called only by QUOR_TRACE once the channel is known to be on.
QUOR_API void traceHelper(TraceHandle const& h, int level, char const* file, int line,
                          char const* function, std::string const& text);
/// "dir/HTimerWheel.cpp" -> "HTimerWheel".
QUOR_API std::string sourceStem(char const* file);

}  // namespace Quor

/// Traces `expr` (a << chain) on `handle` at `level`. The chain is evaluated only when
/// the channel is on at that level: a macro is the only way to skip building it.
#define QUOR_TRACE(handle, level, expr)                                                     \
  do {                                                                                      \
    if ((handle).enabled(level)) {                                                          \
      std::ostringstream quorTraceStream_;                                                  \
      quorTraceStream_ << expr; /* NOLINT(bugprone-macro-parentheses): a << chain */        \
      ::Quor::traceHelper((handle), (level), __FILE__, __LINE__, __func__, quorTraceStream_.str()); \
    }                                                                                       \
  } while (0)
