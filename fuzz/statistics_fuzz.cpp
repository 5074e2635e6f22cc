// The statistics samples and accumulators: each input is tried as every one of them.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Vell;
  std::string const input(reinterpret_cast<char const*>(data), size);
  VellFuzz::checkParse(input, Event(true, 1.5));
  VellFuzz::checkParse(input, Count(3, 1.5));
  VellFuzz::checkParse(input, EventOrCount(true, 3, 1.5));
  VellFuzz::checkParse(input, ConditionOrChanged(true, true, 1.5));
  VellFuzz::checkParse(input, ConditionStat(true, 3, 1.5));
  VellFuzz::checkParse(input, EventStat(true, 3, 1.5));
  VellFuzz::checkParse(input, CountStat(3, 1.5));
  VellFuzz::checkParse(input, EventOrCountStat(3, 1.5));
  VellFuzz::checkParse(input, ConditionOrCountStat(true, 3, 1.5));
  VellFuzz::checkParse(input, ConditionOrChangedStat(true, 3, 1.5));
  return 0;
}
