// What every fuzz target checks: any input ends in a value or a parse error with the
// texts of the text form, never a crash, a hang or a read past the end; a value writes a
// text that reads back to the same text; a failed parse changes neither the target nor
// the position.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <Vell/ValueTypes.h>

namespace VellFuzz {

[[noreturn]] inline void fail(char const* what, std::string const& input) {
  std::fprintf(stderr, "%s: [%s]\n", what, input.c_str());
  std::abort();
}

inline void checkError(Quor::Exception const& e, std::string const& input) {
  if (e.id() != Quor::valueParseErrorId) fail("parse error without its id", input);
  if (dynamic_cast<Quor::RangeException const*>(&e) == nullptr && e.text() != "Error deserializing Vell::MaybeU63" &&
      e.text() != "Invalid Vell::MaybeU63")
    fail("unexpected exception text", input);
}

/// Parses [begin, begin + size) of text as a sequence: "<stop>: <value text>" or
/// "error: <text>". A failed parse must change neither the target nor the position.
template <class T>
std::string sequenceOutcome(Quor::String8 const& text, std::size_t size, T const& sentinel, std::string const& input) {
  T target = sentinel;
  auto it = text.begin();
  auto const end = text.begin() + static_cast<std::ptrdiff_t>(size);
  try {
    Vell::sequenceToValue(it, end, &target);
  } catch (Quor::Exception const& e) {
    checkError(e, input);
    if (!(target == sentinel) || it != text.begin()) fail("failed parse changed its target", input);
    return "error: " + e.text().str();
  }
  if (it > end) fail("parse stopped past the end", input);
  return std::to_string(it - text.begin()) + ": " + Vell::valueToStrep(target).str();
}

/// Parses input as a T, whole and as a sequence. The sequence parse is also run with
/// text behind the end that would continue a value: a parser that looks past the end
/// gives another outcome. deterministic is false for a type whose parse makes
/// something new (an unset UniqueId becomes a fresh id), whose texts then differ.
template <class T>
void checkParse(std::string const& input, T const& sentinel, bool deterministic = true) {
  Quor::String8 const text(input);
  try {
    T const v = Quor::strepToValue<T>(text);
    std::string const written = Vell::valueToStrep(v).str();
    std::string const again = Vell::valueToStrep(Quor::strepToValue<T>(written)).str();
    if (deterministic && again != written) fail("round trip", input);
  } catch (Quor::Exception const& e) {
    checkError(e, input);
  }

  static std::string const guards[] = {"None", "one", "ne", "e", "0123456789e+5", "'x': 1})", " } ) ", "\\'", "(7)"};
  std::string const exact = sequenceOutcome(text, input.size(), sentinel, input);
  for (auto const& guard : guards) {
    std::string const padded = sequenceOutcome(Quor::String8(input + guard), input.size(), sentinel, input);
    bool const same = deterministic ? padded == exact
                                    : padded.substr(0, padded.find(':')) == exact.substr(0, exact.find(':'));
    if (!same) fail("parse looked past the end", input);
  }
}

}  // namespace VellFuzz

// Runs under virtual time, so that making more than 65,536 ids in a second costs no
// real sleep, and hands this target's dictionary and seeds to libFuzzer.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static Quor::VirtualTime* const vt = new Quor::VirtualTime(1.0e9);
  (void)vt;
  static std::vector<std::string> extra;
  static std::vector<char*> args;
  bool hasDict = false;
  for (int i = 0; i < *argc; ++i) hasDict |= std::strncmp((*argv)[i], "-dict=", 6) == 0;
  if (!hasDict) extra.push_back(std::string("-dict=") + VELL_FUZZ_DICT);
  if (std::strlen(VELL_FUZZ_SEEDS) != 0) extra.push_back(std::string("-seed_inputs=") + VELL_FUZZ_SEEDS);
  args.assign(*argv, *argv + *argc);
  for (auto& e : extra) args.push_back(e.data());
  args.push_back(nullptr);
  *argc = static_cast<int>(args.size() - 1);
  *argv = args.data();
  return 0;
}
