// Sequence numbers of both widths.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const input(reinterpret_cast<char const*>(data), size);
  VellFuzz::checkParse(input, Vell::Seqno16(77));
  VellFuzz::checkParse(input, Vell::Seqno32(77));
  return 0;
}
