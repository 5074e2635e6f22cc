// Crash reporting: a backtrace of the crashing thread on fatal signals.
#pragma once
#include <Quor/Types.h>

namespace Quor {
class QUOR_API SignalHandler {
 public:
  /// Installs handlers for SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT that print a
  /// backtrace to standard error, then let the signal end the process as it would have
  /// (default action restored and the signal raised again). Idempotent.
  static void registerSignalHandler();
};
}  // namespace Quor
