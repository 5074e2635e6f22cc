// The optional number: "None" or a signed decimal, through every entry point.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const input(reinterpret_cast<char const*>(data), size);
  VellFuzz::checkParse(input, Vell::MaybeU63(77));
  Vell::MaybeU63 m(77);
  try {
    m.stringValueIs(input);
    if (m.stringValue() != Vell::valueToStrep(m)) VellFuzz::fail("stringValue differs", input);
  } catch (Quor::Exception const& e) {
    VellFuzz::checkError(e, input);
    if (!(m == Vell::MaybeU63(77))) VellFuzz::fail("failed stringValueIs changed the value", input);
  }
  return 0;
}
