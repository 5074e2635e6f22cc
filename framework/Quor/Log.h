// Operator log messages: named, rate-limited, printf-formatted.
#pragma once
#include <functional>
#include <string>

#include <Quor/Types.h>
#include <Quor/String.h>

namespace Quor {

enum class LogSeverity : int { debug = 0, info = 1, notice = 2, warning = 3, error = 4, critical = 5 };
inline constexpr char const* NoActionRequired = "No action required.";

struct LogRecord {
  std::string name;
  int severity;
  std::string text;
};

/// Where log messages go; an empty function restores standard error.
QUOR_API void logSinkIs(std::function<void(LogRecord const&)>);

/// One operator message, declared once. Rate limit: a token bucket that refills one
/// token every `interval` seconds up to `burst` tokens; an interval of 0 means no limit.
class QUOR_API LogHandle {
 public:
  LogHandle(char const* name, LogSeverity severity, char const* format, char const* explanation,
            char const* action, double interval, double burst);

  char const* name() const { return name_; }
  char const* explanation() const { return explanation_; }
  char const* action() const { return action_; }
  /// Messages dropped by the rate limit since the last one emitted.
  U64 suppressed() const { return suppressed_; }

  /// True when n more messages may be emitted now (takes no token).
  bool okToLog(unsigned n = 1);
  /// Emits the message formatted with the (printf) arguments, if the rate limit allows.
  template <class... A>
  void log(A... args) {
    if (take()) emit(formatUnchecked(format_, args...));
  }

 private:
  // The format is declared data, not a literal, so it is formatted without the
  // compiler's literal check; declarations are reviewed instead.
  static String8 formatUnchecked(char const* fmt, ...);
  bool take();
  void emit(String8 const& text);
  void refill();
  char const* name_;
  LogSeverity severity_;
  char const* format_;
  char const* explanation_;
  char const* action_;
  double interval_;
  double burst_;
  double tokens_;
  Seconds lastRefill_;
  U64 suppressed_ = 0;
};

}  // namespace Quor
