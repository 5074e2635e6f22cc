// Assertions that guard internal consistency: they print the failed condition, the
// source stem, the line and the function signature to standard error and abort.
#pragma once
#include <Quor/Types.h>

namespace Quor {
[[noreturn]] QUOR_API void assertFailed(char const* condition, char const* file, int line,
                                        char const* function);
}

/// Aborts with the condition's text when it is false. Always on: these guard invariants
/// whose breach would corrupt state, so release builds keep them.
#define QUOR_ASSERT(cond) \
  ((cond) ? (void)0 : ::Quor::assertFailed(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__))
/// The same with an explicit condition text (for messages that must read exactly so).
#define QUOR_ASSERT_TEXT(cond, text) \
  ((cond) ? (void)0 : ::Quor::assertFailed(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))
