// Trace channels, their levels and the sink; operator log messages.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <Quor/Quor.h>

namespace Quor {

namespace {

struct Levels {
  int lo;
  int hi;
};

// The channel registry: levels asked for by name (from code or QUORTRACE) and the
// live handles, so that a level set before a handle exists still reaches it.
struct TraceRegistry {
  std::map<std::string, Levels> levels;
  std::multimap<std::string, TraceHandle*> handles;
  std::function<void(TraceRecord const&)> sink;

  TraceRegistry() { parseEnvironment(std::getenv("QUORTRACE")); }

  // "TimerWheel/9,HBitmap/0-7": a single number is the maximum level, "a-b" a range.
  void parseEnvironment(char const* spec) {
    if (!spec) return;
    std::string s(spec);
    std::size_t pos = 0;
    while (pos <= s.size()) {
      std::size_t comma = s.find(',', pos);
      if (comma == std::string::npos) comma = s.size();
      std::string item = s.substr(pos, comma - pos);
      auto slash = item.find('/');
      if (!item.empty()) {
        Levels l{0, 9};
        std::string name = item.substr(0, slash);
        if (slash != std::string::npos) {
          std::string range = item.substr(slash + 1);
          auto dash = range.find('-');
          if (dash == std::string::npos) {
            l.hi = std::atoi(range.c_str());
          } else {
            l.lo = std::atoi(range.substr(0, dash).c_str());
            l.hi = std::atoi(range.substr(dash + 1).c_str());
          }
        }
        levels[name] = l;
      }
      pos = comma + 1;
    }
  }

  void set(std::string const& name, Levels l) {
    levels[name] = l;
    auto range = handles.equal_range(name);
    for (auto it = range.first; it != range.second; ++it) it->second->levelsIs(l.lo, l.hi);
  }
};

TraceRegistry& registry() {
  static TraceRegistry* r = new TraceRegistry;  // never freed: handles outlive main
  return *r;
}

std::function<void(LogRecord const&)>& logSink() {
  static auto* s = new std::function<void(LogRecord const&)>;
  return *s;
}

}  // namespace

TraceHandle::TraceHandle(char const* name) : name_(name) {
  auto& r = registry();
  r.handles.emplace(name_, this);
  auto it = r.levels.find(name_);
  if (it != r.levels.end()) levelsIs(it->second.lo, it->second.hi);
}

TraceHandle::~TraceHandle() {
  auto& r = registry();
  auto range = r.handles.equal_range(name_);
  for (auto it = range.first; it != range.second; ++it)
    if (it->second == this) {
      r.handles.erase(it);
      break;
    }
}

void traceLevelIs(std::string const& channel, int maxLevel) {
  registry().set(channel, Levels{0, maxLevel});
}

void traceLevelsIs(std::string const& channel, int lo, int hi) { registry().set(channel, Levels{lo, hi}); }

void traceSinkIs(std::function<void(TraceRecord const&)> sink) { registry().sink = std::move(sink); }

void traceHelper(TraceHandle const& h, int level, char const* file, int line, char const* function,
                 std::string const& text) {
  TraceRecord rec{h.name(), level, sourceStem(file), line, function, text};
  auto& r = registry();
  if (r.sink) {
    r.sink(rec);
    return;
  }
  std::fprintf(stderr, "%.6f %s/%d <unknown> %s:%d %s: %s\n", now(), rec.channel.c_str(), level,
               rec.stem.c_str(), line, function, text.c_str());
}

// ---- operator log messages ----

void logSinkIs(std::function<void(LogRecord const&)> sink) { logSink() = std::move(sink); }

LogHandle::LogHandle(char const* name, LogSeverity severity, char const* format, char const* explanation,
                     char const* action, double interval, double burst)
    : name_(name),
      severity_(severity),
      format_(format),
      explanation_(explanation),
      action_(action),
      interval_(interval),
      burst_(burst < 1 ? 1 : burst),
      tokens_(burst_),
      lastRefill_(now()) {}

void LogHandle::refill() {
  Seconds const t = now();
  if (interval_ > 0 && t > lastRefill_) {
    tokens_ = std::min(burst_, tokens_ + (t - lastRefill_) / interval_);
  }
  lastRefill_ = t;
}

bool LogHandle::okToLog(unsigned n) {
  if (!(interval_ > 0)) return true;
  refill();
  return tokens_ >= static_cast<double>(n);
}

bool LogHandle::take() {
  if (!okToLog(1)) {
    ++suppressed_;
    return false;
  }
  if (interval_ > 0) tokens_ -= 1;
  return true;
}

String8 LogHandle::formatUnchecked(char const* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  String8 s = vformat(fmt, ap);
  va_end(ap);
  return s;
}

void LogHandle::emit(String8 const& text) {
  LogRecord rec{name_, static_cast<int>(severity_), text.str()};
  if (suppressed_) {
    rec.text += format(" (%llu similar messages suppressed)", static_cast<unsigned long long>(suppressed_)).str();
    suppressed_ = 0;
  }
  if (logSink()) {
    logSink()(rec);
    return;
  }
  std::fprintf(stderr, "%.6f LOG %s[%d]: %s\n", now(), rec.name.c_str(), rec.severity, rec.text.c_str());
}

}  // namespace Quor
