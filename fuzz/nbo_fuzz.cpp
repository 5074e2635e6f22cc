// Binary attribute logs: any bytes are read record by record, each whole or refused with
// a RangeException; a change that decodes is applied to a directory of its type.
#include "FuzzSupport.h"

#include <Vell/XactLib.h>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const input(reinterpret_cast<char const*>(data), size);
  static auto configs = Vell::xactConfigDirFactory("exec-a");
  static auto statuses = Vell::xactStatusDirFactory("exec-a");
  Quor::NboAttrLog::In in(input);
  try {
    while (!in.atEnd()) {
      Quor::NboAttrLog::In peek = in;
      if (peek.u8() == Quor::NboAttrLog::changeRecord) {
        Quor::AttrChange const c = Quor::nboReadChange(in);
        if (c.type == "Vell::XactConfigDir") c.apply(*configs);
        else if (c.type == "Vell::XactStatusDir") c.apply(*statuses);
      } else {
        (void)Quor::nboRecordText(in);
      }
    }
  } catch (Quor::RangeException const& e) {
    if (e.id() != Quor::nboParseErrorId) VellFuzz::fail("a refusal without the binary-record id", std::string(input));
  }
  return 0;
}
