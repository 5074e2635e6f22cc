// Value types shared by agents.
#include <Vell/ValueTypes.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Vell {

// The sequence numbers are templates: instantiated here, so that their type records
// register with the library.
template class Seqno<U16>;
template class Seqno<U32>;

// ---- MaybeU63 ----------------------------------------------------------------------

namespace {
[[noreturn]] void throwMaybeU63(char const* text) { throw Quor::Exception(text, Quor::valueParseErrorId); }
}  // namespace

Quor::String8 MaybeU63::stringValue() const {
  std::string s;
  quorWrite(s);
  return Quor::String8(std::move(s));
}

void MaybeU63::stringValueIs(Quor::String8 const& text) {
  auto it = text.begin();
  MaybeU63 const v = quorParse(it, text.end());
  if (it != text.end()) throwMaybeU63("Invalid Vell::MaybeU63");
  *this = v;
}

void MaybeU63::quorWrite(std::string& out) const {
  if (nullBit()) {
    out += "None";
  } else {
    Quor::writeValue(out, value());
  }
}

MaybeU63 MaybeU63::quorParse(Quor::StrepIt& it, Quor::StrepIt end) {
  if (it == end) throwMaybeU63("Error deserializing Vell::MaybeU63");
  if (end - it >= 4 && std::equal(it, it + 4, "None")) {
    it += 4;
    return MaybeU63();
  }
  try {
    // The number's 64 bits as they are: a negative one has bit 63 set and is null.
    return MaybeU63(static_cast<U64>(
        Quor::parseSigned(it, end, std::numeric_limits<Quor::S64>::min(), std::numeric_limits<Quor::S64>::max())));
  } catch (Quor::RangeException const&) {
    // Not a number either: one text for every failure of this parser.
    throwMaybeU63("Error deserializing Vell::MaybeU63");
  }
}

// ---- UniqueId ----------------------------------------------------------------------

namespace {
// Process-wide by nature: the counter numbers the ids this process made in one second.
bool anyIdMade = false;  // so that the first id is count 0 even at second 0
U32 lastTimestamp = 0;
U16 idCounter = 0;

/// Whole seconds of now(), truncated toward zero, low 32 bits; no out-of-range conversion.
U32 currentSecond() {
  double const s = std::trunc(Quor::now());
  if (!std::isfinite(s)) return 0;
  return static_cast<U32>(static_cast<U64>(static_cast<Quor::S64>(std::fmod(s, 4294967296.0))));
}
}  // namespace

void UniqueId::doInit() {
  if (!unset()) return;
  U32 t = currentSecond();
  if (!anyIdMade || t != lastTimestamp) {
    idCounter = 0;
  } else if (idCounter < 0xffff) {
    ++idCounter;
  } else {
    // All 65,536 counts of this second are used: wait for the next one.
    while (t == lastTimestamp) {
      Quor::sleep(1.0);
      t = currentSecond();
    }
    idCounter = 0;
  }
  timestamp_ = t;
  pid_ = static_cast<U16>(::getpid());
  count_ = idCounter;
  lastTimestamp = t;
  anyIdMade = true;
}

// ---- statistics accumulators ---------------------------------------------------------------
// Counts are U32: += wraps modulo 2^32 by design.

void ConditionStat::doUpdate(U1 value, double const& when) {
  if (value != current_) {
    ++changes_;
    lastChange_ = when;
  }
  current_ = value;
}

void EventStat::doUpdate(U1 value, double const& when) {
  current_ = value;
  if (value) {
    ++count_;
    last_ = when;
  }
}

void CountStat::doUpdate(unsigned int count, double const& when) {
  if (count == 0) return;
  count_ += count;
  last_ = when;
}

void EventOrCountStat::doUpdate(U1 value, unsigned int count, double const& when) {
  if (count != 0) {
    count_ += count;
  } else if (value) {
    ++count_;
  } else {
    return;
  }
  last_ = when;
}

void ConditionOrCountStat::doUpdate(U1 value, unsigned int count, double const& when) {
  if (count == 0) {
    if (value != current_) {
      ++changes_;
      lastChange_ = when;
    }
    current_ = value;
    return;
  }
  // Rising count times between the old and the new state: count rises, count - 1 falls
  // between them, one fall first if it was true, one fall last if it ends false.
  changes_ += 2 * U32{count} - 1 + (current_ ? 1 : 0) + (value ? 0 : 1);
  current_ = value;
  lastChange_ = when;
}

void ConditionOrChangedStat::doUpdate(U1 current, U1 changed, double const& when) {
  if (changed) {
    changes_ += current == current_ ? 2 : 1;  // changed and came back: two transitions
  } else if (current != current_) {
    ++changes_;
  } else {
    return;
  }
  current_ = current;
  lastChange_ = when;
}

// ---- Tokenizer ---------------------------------------------------------------------------

Tokenizer::Tokenizer(std::string const& text, std::string const& delimiters) {
  bool isDelimiter[256] = {};
  for (unsigned char c : delimiters) isDelimiter[c] = true;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && !isDelimiter[static_cast<unsigned char>(text[i])]) continue;
    if (i > start) words_.emplace(text, start, i - start);
    start = i + 1;
  }
}

std::string Tokenizer::string() const {
  std::string s;
  for (auto const& w : words_) {
    s += w;
    s += ' ';
  }
  return s;
}

}  // namespace Vell
