// The framework's pieces composed: quoted strings, doubles, signed numbers, enumerations
// (with their "<Type>(%d)" fallback) and a nested value type.
#include "FuzzSupport.h"

namespace VellFuzz {
enum class Mode : std::int32_t { on = 1, off = 2 };
QUOR_ENUM_TEXT(Mode, "Mode", {Mode::on, "on"}, {Mode::off, "off"})

struct Composite {
  QUOR_VALUE_TYPE(Composite, "Vell::Fuzz::Composite", QUOR_FIELD(Composite, name), QUOR_FIELD(Composite, mode),
                  QUOR_FIELD(Composite, ratio), QUOR_FIELD(Composite, delta), QUOR_FIELD(Composite, inner),
                  QUOR_FIELD(Composite, seq))
  Quor::String8 name_ = "x";
  Mode mode_ = Mode::on;
  double ratio_ = 0.5;
  std::int64_t delta_ = -1;
  Vell::EventStat inner_;
  Vell::Seqno32 seq_;
};
}  // namespace VellFuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const input(reinterpret_cast<char const*>(data), size);
  VellFuzz::checkParse(input, VellFuzz::Composite());
  VellFuzz::checkParse(input, VellFuzz::Mode::off);
  VellFuzz::checkParse(input, std::string("s"));
  VellFuzz::checkParse(input, 0.25);
  return 0;
}
