// The unique id, whose parse ends by making an unset id a fresh one.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const input(reinterpret_cast<char const*>(data), size);
  VellFuzz::checkParse(input, Vell::UniqueId(1, 2, 3), false);
  return 0;
}
