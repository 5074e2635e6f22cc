// Basic scalar types and time of the Quor framework.
#pragma once
#include <cstdint>
#include <limits>

#define QUOR_API __attribute__((visibility("default")))
/// For members of an exported class that only the class's own source calls: they are
/// not interposable, so calls to them stay direct and can be inlined.
#define QUOR_LOCAL __attribute__((visibility("hidden")))

namespace Quor {
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S64 = std::int64_t;

/// A point in time or a duration, in seconds (wall clock: since the epoch).
using Seconds = double;
/// "Never": positive infinity, so that every finite time compares below it.
inline constexpr Seconds endOfTime = std::numeric_limits<double>::infinity();
}  // namespace Quor
