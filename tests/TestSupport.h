// Helpers shared by the test programs.
#pragma once
#include <string>

#include <Quor/Exception.h>

namespace VellTest {

/// The text of the Quor::RangeException that f throws, or "no exception".
template <class F>
std::string rangeText(F&& f) {
  try {
    f();
  } catch (Quor::RangeException const& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace VellTest
