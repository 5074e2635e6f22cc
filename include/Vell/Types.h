// The library's names for the framework's integer types.
#pragma once
#include <Quor/Types.h>

namespace Vell {
using U8 = Quor::U8;
using U16 = Quor::U16;
using U32 = Quor::U32;
using U64 = Quor::U64;
/// A one-bit value. A bool is exactly that, and prints as 0/1 through the text form.
using U1 = bool;
}  // namespace Vell
