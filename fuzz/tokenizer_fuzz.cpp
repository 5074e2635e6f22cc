// The tokenizer: the first byte says how many of the following bytes are delimiters.
#include <set>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t const n = std::min<std::size_t>(data[0] % 8, size - 1);
  std::string const delims(reinterpret_cast<char const*>(data) + 1, n);
  std::string const text(reinterpret_cast<char const*>(data) + 1 + n, size - 1 - n);
  Vell::Tokenizer const t(text, delims);
  std::string joined;
  for (auto const& w : t.words()) {
    if (w.empty() || w.find_first_of(delims) != std::string::npos) VellFuzz::fail("bad word", text);
    joined += w + " ";
  }
  if (joined != t.string()) VellFuzz::fail("string() differs from the words", text);
  return 0;
}
