// Time: the wall clock, or virtual time for deterministic tests.
#pragma once
#include <cmath>

#include <Quor/Types.h>

namespace Quor {

/// The current time: wall-clock seconds since the epoch, or the virtual time while a
/// VirtualTime lives.
QUOR_API Seconds now();
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

/// Milliseconds from now until t, clamped to [0, maxMs]; infinite and NaN never reach
/// an integer conversion.
QUOR_API int millisecondsUntil(Seconds t, int maxMs);

}  // namespace Quor
