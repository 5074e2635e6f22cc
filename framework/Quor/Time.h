// Time: the wall clock, or virtual time for deterministic tests.
#pragma once
#include <cmath>

#include <Quor/Types.h>

namespace Quor {

/// The current time in seconds since the epoch, or the virtual time while a
/// VirtualTime lives. It starts at the system's wall-clock time on first use and then
/// advances with the monotonic clock, so it never jumps when the system clock is set
/// (by an operator or NTP): a step back would stall every armed reactor by that much,
/// a step forward would fire them all at once. It drifts from the wall clock by what
/// such steps and slewing add up to; use wallClockNow() to show a date.
QUOR_API Seconds now();
/// The system's wall clock, seconds since the epoch, as it is now (steps included).
/// For display and for timestamps exchanged with other processes, never for deadlines.
QUOR_API Seconds wallClockNow();
/// True while virtual time is on.
QUOR_API bool virtualTimeActive();

/// Virtual time while it lives: now() moves only through advance(), Quor::sleep() and
/// the activity loop's jumps to the next armed timeMin. Not nestable.
class QUOR_API VirtualTime {
 public:
  explicit VirtualTime(Seconds start);
  ~VirtualTime();
  VirtualTime(VirtualTime const&) = delete;
  VirtualTime& operator=(VirtualTime const&) = delete;
  /// Moves now() forward by delta (>= 0); runs nothing by itself.
  void advance(Seconds delta);
  /// Sets now() to t when t is later (used by the loop's jumps).
  static void jumpTo(Seconds t);
};

/// Sleeps for the given seconds (retrying on signals), or moves virtual time.
QUOR_API void sleep(Seconds seconds);

namespace detail {
/// Test hook: replaces the system clocks behind now() and wallClockNow() (null
/// functions restore the real ones) and restarts now() from the wall clock. Lets a test
/// step the wall clock without touching the machine's.
QUOR_API void systemClocksIs(Seconds (*wall)(), Seconds (*monotonic)());
}  // namespace detail

/// Milliseconds from now until t, clamped to [0, maxMs]; infinite and NaN never reach
/// an integer conversion.
QUOR_API int millisecondsUntil(Seconds t, int maxMs);

}  // namespace Quor
