// Strings, exceptions, assertions and time.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include <Quor/Quor.h>

namespace Quor {

String8 vformat(char const* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int const n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0) return String8();
  std::string s(static_cast<std::size_t>(n), '\0');
  std::vsnprintf(s.data(), s.size() + 1, fmt, ap);
  return String8(std::move(s));
}

String8 format(char const* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  String8 s = vformat(fmt, ap);
  va_end(ap);
  return s;
}

void throwRangeException(String8 const& text) { throw RangeException(text); }
void throwInternalException(String8 const& text) { throw InternalException(text); }
void throwNameInUseException(String8 const& text) { throw NameInUseException(text); }

String8 rangeMessage(char const* cls, char const* attr, char const* min, char const* max) {
  return String8(std::string(cls) + "::" + attr + " < " + min + " or > " + max + " not allowed");
}

String8 nullParameterMessage(char const* qualifiedClass, char const* attr) {
  return String8(std::string("null _") + attr + " parameter to mutator for " + qualifiedClass + "::" + attr +
                 " not allowed\"");
}

char const* constInstanceMessage() { return "attempting to modify a const instance"; }

std::string sourceStem(char const* file) {
  std::string s(file ? file : "");
  auto const slash = s.find_last_of('/');
  if (slash != std::string::npos) s.erase(0, slash + 1);
  auto const dot = s.find('.');
  if (dot != std::string::npos) s.erase(dot);
  return s;
}

void assertFailed(char const* condition, char const* file, int line, char const* function) {
  // The signature is the function's, not its declaration's: the compiler's "virtual "
  // in front of an overriding member is dropped.
  std::string_view fn(function ? function : "");
  if (fn.starts_with("virtual ")) fn.remove_prefix(8);
  std::fprintf(stderr, "Assertion failed: %s [%s:%d] in %.*s\n", condition, sourceStem(file).c_str(), line,
               static_cast<int>(fn.size()), fn.data());
  std::fflush(stderr);
  std::abort();
}

// ---- time ----

namespace {
// Virtual time is process-wide by nature: every now() in the process must agree.
bool virtualOn = false;
Seconds virtualNow = 0;
}  // namespace

namespace {
Seconds readClock(clockid_t id) {
  timespec ts;
  ::clock_gettime(id, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
Seconds systemWall() { return readClock(CLOCK_REALTIME); }
Seconds systemMonotonic() { return readClock(CLOCK_MONOTONIC); }

Seconds (*wallSource)() = systemWall;
Seconds (*monotonicSource)() = systemMonotonic;
// now() = wall clock at the first call + monotonic time since then.
bool originSet = false;
Seconds originOffset = 0;  // wall - monotonic at the first call

[[gnu::noinline]] Seconds setOrigin() {
  Seconds const mono = monotonicSource();
  originOffset = wallSource() - mono;
  originSet = true;
  return mono;
}
}  // namespace

Seconds now() {
  if (virtualOn) return virtualNow;
  if (!originSet) [[unlikely]] {
    Seconds const mono = setOrigin();  // before reading the offset it sets
    return originOffset + mono;
  }
  // The hook is for tests; the common path calls the clock directly.
  if (monotonicSource != systemMonotonic) [[unlikely]] return originOffset + monotonicSource();
  return originOffset + readClock(CLOCK_MONOTONIC);
}

Seconds wallClockNow() { return wallSource(); }

void detail::systemClocksIs(Seconds (*wall)(), Seconds (*monotonic)()) {
  wallSource = wall ? wall : systemWall;
  monotonicSource = monotonic ? monotonic : systemMonotonic;
  originSet = false;
}

bool virtualTimeActive() { return virtualOn; }

VirtualTime::VirtualTime(Seconds start) {
  QUOR_ASSERT(!virtualOn);
  QUOR_ASSERT(std::isfinite(start));
  virtualOn = true;
  virtualNow = start;
}

VirtualTime::~VirtualTime() { virtualOn = false; }

void VirtualTime::advance(Seconds delta) {
  QUOR_ASSERT(delta >= 0 && std::isfinite(delta));
  virtualNow += delta;
}

void VirtualTime::jumpTo(Seconds t) {
  if (virtualOn && std::isfinite(t) && t > virtualNow) virtualNow = t;
}

void sleep(Seconds seconds) {
  if (!(seconds > 0)) return;  // also NaN
  if (virtualOn) {
    if (std::isfinite(seconds)) virtualNow += seconds;
    return;
  }
  if (!std::isfinite(seconds)) seconds = 1e9;
  timespec req;
  req.tv_sec = static_cast<time_t>(seconds);
  req.tv_nsec = static_cast<long>((seconds - static_cast<double>(req.tv_sec)) * 1e9);
  while (::nanosleep(&req, &req) != 0 && errno == EINTR) {
  }
}

int millisecondsUntil(Seconds t, int maxMs) {
  double const ms = std::ceil((t - now()) * 1000.0);
  if (!(ms > 0)) return 0;  // past, or NaN
  if (ms >= static_cast<double>(maxMs)) return maxMs;
  return static_cast<int>(ms);
}

}  // namespace Quor
