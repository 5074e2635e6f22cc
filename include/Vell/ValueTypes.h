// Value types shared by agents, and the library's entry points to their text form.
//
// Every value type and enumeration has one text form (see Quor/Strep.h): it prints with
// valueToStrep() or operator<<, and parses back with sequenceToValue() or
// Quor::strepToValue<T>(). A new value type declares its name and fields once with
// QUOR_VALUE_TYPE and gets its writer, parser and equality from that.
#pragma once
#include <Quor/Quor.h>

namespace Vell {

/// The text form of a value.
template <Quor::HasTextForm T>
Quor::String8 valueToStrep(T const& value) {
  return Quor::valueToStrep(value);
}

/// Parses a value starting at it and leaves it just behind the parsed text. A failed
/// parse throws (Quor::RangeException, or Quor::Exception for MaybeU63) and leaves
/// *value unchanged.
template <Quor::HasTextForm T>
void sequenceToValue(Quor::String8::IteratorConst& it, Quor::String8::IteratorConst end, T* value) {
  Quor::parseValue(it, end, *value);
}

}  // namespace Vell
