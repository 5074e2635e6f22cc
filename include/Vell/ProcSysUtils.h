// Process utilities that agents call around start-up: writing a kernel tunable,
// releasing the resident pages of clean code, and installing crash backtraces.
//
// Workload assumed: called a few times per process life, from the agent's one thread,
// typically once set-up is done and before the process settles into its loop. None of
// them keeps state between calls.
#pragma once
#include <Quor/Types.h>
#include <Vell/Types.h>

namespace Vell {

/// Writes `value` (no newline added) into the kernel tunable file `path`, with one
/// write; a short write counts as success. A path longer than 127 characters is cut,
/// and the cut path is the one opened. Returns 0, or the errno of the failing step
/// (EINVAL for a null argument).
QUOR_API int writeProcSys(char const* path, char const* value);

/// Drops the resident pages of every clean, executable, non-writable mapping of the
/// process (the kernel reloads them from their files on the next use), to give back
/// memory that start-up code will not touch again. Does nothing and returns 0 in a
/// process with more than one thread, where another thread might be running that
/// code. Returns 0, or -1 when the task directory cannot be read or the smaps file
/// fails to read.
QUOR_API int unpage();

/// Installs handlers that print a backtrace to standard error on fatal signals and then
/// let the signal end the process as it would have. Idempotent.
QUOR_API void installBacktraceHandlers();

}  // namespace Vell

// Plain entry points with the same behaviour, for callers that bind by symbol name.
extern "C" {
QUOR_API int Vell_unpage(void);
QUOR_API void Vell_installBacktraceHandlers(void);
}
