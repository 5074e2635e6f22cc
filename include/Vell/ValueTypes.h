// Value types shared by agents, and the library's entry points to their text form.
//
// Every value type and enumeration has one text form (see Quor/Strep.h): it prints with
// valueToStrep() or operator<<, and parses back with sequenceToValue() or
// Quor::strepToValue<T>(). A new value type declares its name and fields once with
// QUOR_VALUE_TYPE and gets its writer, parser and equality from that.
//
// The types here are small plain values copied freely and stored in attributes: an
// optional 63-bit number, wrapping sequence numbers, a process-unique id, and the
// statistics samples and accumulators agents publish. None of them allocates.
#pragma once
#include <limits>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

/// The text form of a value.
template <Quor::HasTextForm T>
Quor::String8 valueToStrep(T const& value) {
  return Quor::valueToStrep(value);
}

/// Parses a value starting at it and leaves it just behind the parsed text. A failed
/// parse throws (Quor::RangeException, or Quor::Exception for MaybeU63) and leaves both
/// *value and it unchanged.
template <Quor::HasTextForm T>
void sequenceToValue(Quor::String8::IteratorConst& it, Quor::String8::IteratorConst end, T* value) {
  QUOR_ASSERT(value != nullptr);
  auto p = it;
  *value = Quor::TextForm<T>::parse(p, end);
  it = p;
}

// ---- MaybeU63 ----------------------------------------------------------------------

/// An unsigned 63-bit number, or nothing. One word: bits 0 to 62 hold the value, bit 63
/// (the null bit) is set when there is none. Text: the number in decimal, or "None".
class QUOR_API MaybeU63 {
 public:
  static constexpr U64 nullWord = U64{1} << 63;

  /// The null value.
  constexpr MaybeU63() = default;
  /// Holds v. A v with bit 63 set is no 63-bit number and gives the null value, as the
  /// parser does for a negative number.
  constexpr MaybeU63(U64 v) : word_((v & nullWord) ? nullWord : v) {}
  QUOR_TEXT_CONSTRUCTOR(MaybeU63)

  /// The value bits (0 for the null value).
  constexpr U64 value() const { return word_ & ~nullWord; }
  /// Set when there is no value.
  constexpr bool nullBit() const { return (word_ & nullWord) != 0; }

  /// The number in decimal, or "None".
  Quor::String8 stringValue() const;
  /// Parses a whole text. Throws Quor::Exception ("Error deserializing Vell::MaybeU63" or
  /// "Invalid Vell::MaybeU63", id 12) and keeps the old value when it is no MaybeU63.
  void stringValueIs(Quor::String8 const& text);

  void quorWrite(std::string& out) const;
  /// "None" or a signed 64-bit decimal; throws Quor::Exception, never reads past end.
  static MaybeU63 quorParse(Quor::StrepIt& it, Quor::StrepIt end);
  /// Binary: the one word, null bit included.
  void quorWriteNbo(Quor::NboAttrLog::Out& out) const { out.u64(word_); }
  static MaybeU63 quorReadNbo(Quor::NboAttrLog::In& in) {
    MaybeU63 v;
    v.word_ = in.u64();
    if ((v.word_ & nullWord) && v.word_ != nullWord) in.fail("MaybeU63 with the null bit and a value");
    return v;
  }
  static constexpr char const* quorTypeName = "Vell::MaybeU63";
  static inline Quor::TypeRegistration const quorTypeRegistration_{&Quor::valueTypeRecord<MaybeU63>};

  friend constexpr bool operator==(MaybeU63, MaybeU63) = default;
  friend std::ostream& operator<<(std::ostream& o, MaybeU63 const& v) { return Quor::writeTo(o, v); }

 private:
  U64 word_ = nullWord;
};

// ---- sequence numbers ----------------------------------------------------------------

/// A sequence number that wraps modulo 2^N and compares by serial-number arithmetic:
/// a < b exactly when a - b, taken modulo 2^N, has its top bit set. The order is only
/// meaningful between numbers less than half the space apart; numbers exactly half the
/// space apart are each below the other. No arithmetic: callers add to value() and
/// store the result. Text: the number in decimal.
template <class Raw>
class Seqno {
  static_assert(std::is_unsigned_v<Raw> && !std::is_same_v<Raw, bool>);
  static constexpr int bits = std::numeric_limits<Raw>::digits;

 public:
  constexpr Seqno() = default;
  /// From the raw number; implicit, so comparisons with a raw number read naturally.
  constexpr Seqno(Raw value) : value_(value) {}
  QUOR_TEXT_CONSTRUCTOR(Seqno)

  constexpr Raw value() const { return value_; }

  friend constexpr bool operator<(Seqno a, Seqno b) {
    return (static_cast<Raw>(a.value_ - b.value_) >> (bits - 1)) != 0;
  }
  friend constexpr bool operator>=(Seqno a, Seqno b) { return !(a < b); }
  friend constexpr bool operator<=(Seqno a, Seqno b) { return !(b < a); }
  friend constexpr bool operator>(Seqno a, Seqno b) { return b < a; }
  friend constexpr bool operator==(Seqno, Seqno) = default;

  QUOR_WRAPPED_VALUE_TYPE(Seqno, value)
  static constexpr char const* quorTypeName = bits == 16 ? "Vell::Seqno16" : "Vell::Seqno32";
  static inline Quor::TypeRegistration const quorTypeRegistration_{&Quor::valueTypeRecord<Seqno>};

 private:
  Raw value_ = 0;
};

using Seqno16 = Seqno<U16>;
using Seqno32 = Seqno<U32>;

// ---- UniqueId ------------------------------------------------------------------------

/// An id unique across the processes of one host: the second it was made in, the low 16
/// bits of the maker's process id, and how many ids that process made earlier in that
/// second. An id whose pid and count are both 0xffff is unset, whatever its timestamp.
class QUOR_API UniqueId {
 public:
  QUOR_VALUE_TYPE(UniqueId, "Vell::UniqueId", QUOR_FIELD(UniqueId, timestamp), QUOR_FIELD(UniqueId, pid),
                  QUOR_FIELD(UniqueId, count))

  /// An unset id.
  constexpr UniqueId() = default;
  constexpr UniqueId(U32 timestamp, U16 pid, U16 count) : timestamp_(timestamp), pid_(pid), count_(count) {}
  QUOR_TEXT_CONSTRUCTOR(UniqueId)

  constexpr U32 timestamp() const { return timestamp_; }
  constexpr U16 pid() const { return pid_; }
  constexpr U16 count() const { return count_; }
  constexpr bool unset() const { return pid_ == 0xffff && count_ == 0xffff; }

  /// Makes an unset id a fresh one (a set id is left alone). After 65,536 ids within one
  /// second it waits (Quor::sleep) for the next second. Ids come from one thread at a
  /// time: the last second and the counter are process-wide.
  void doInit();
  /// A parsed id is completed as if made here: an unset one becomes a fresh id.
  void quorAfterParse() { doInit(); }

  /// Ordered by timestamp, then pid, then count, all unsigned.
  friend constexpr bool operator<(UniqueId const& a, UniqueId const& b) {
    if (a.timestamp_ != b.timestamp_) return a.timestamp_ < b.timestamp_;
    if (a.pid_ != b.pid_) return a.pid_ < b.pid_;
    return a.count_ < b.count_;
  }
  friend constexpr bool operator>(UniqueId const& a, UniqueId const& b) { return b < a; }
  friend constexpr bool operator<=(UniqueId const& a, UniqueId const& b) { return !(b < a); }
  friend constexpr bool operator>=(UniqueId const& a, UniqueId const& b) { return !(a < b); }

 private:
  U32 timestamp_ = 0xffffffff;
  U16 pid_ = 0xffff;
  U16 count_ = 0xffff;
};

// ---- statistics samples -----------------------------------------------------------------
//
// One observation each. Times are on whatever clock the caller uses; these types never
// read a clock. Counts are U32 and wrap modulo 2^32.

/// Whether an event happened, and when.
class QUOR_API Event {
 public:
  QUOR_VALUE_TYPE(Event, "Vell::Event", QUOR_FIELD(Event, value), QUOR_FIELD(Event, when))
  Event() = default;
  QUOR_TEXT_CONSTRUCTOR(Event)
  Event(U1 value, double when) : value_(value), when_(when) {}
  U1 value() const { return value_; }
  double when() const { return when_; }

 private:
  U1 value_ = false;
  double when_ = 0.0;
};

/// How many times something happened since the last sample, and when.
class QUOR_API Count {
 public:
  QUOR_VALUE_TYPE(Count, "Vell::Count", QUOR_FIELD(Count, count), QUOR_FIELD(Count, when))
  Count() = default;
  QUOR_TEXT_CONSTRUCTOR(Count)
  Count(U32 count, double when) : count_(count), when_(when) {}
  U32 count() const { return count_; }
  double when() const { return when_; }

 private:
  U32 count_ = 0;
  double when_ = 0.0;
};

/// One event (value) or a number of them (count, when not 0), and when.
class QUOR_API EventOrCount {
 public:
  QUOR_VALUE_TYPE(EventOrCount, "Vell::EventOrCount", QUOR_FIELD(EventOrCount, value),
                  QUOR_FIELD(EventOrCount, count), QUOR_FIELD(EventOrCount, when))
  EventOrCount() = default;
  QUOR_TEXT_CONSTRUCTOR(EventOrCount)
  EventOrCount(U1 value, U32 count, double when) : value_(value), count_(count), when_(when) {}
  U1 value() const { return value_; }
  U32 count() const { return count_; }
  double when() const { return when_; }

 private:
  U1 value_ = false;
  U32 count_ = 0;
  double when_ = 0.0;
};

/// A condition's present state, and whether it changed (possibly back) since the last
/// sample.
class QUOR_API ConditionOrChanged {
 public:
  QUOR_VALUE_TYPE(ConditionOrChanged, "Vell::ConditionOrChanged", QUOR_FIELD(ConditionOrChanged, current),
                  QUOR_FIELD(ConditionOrChanged, changed), QUOR_FIELD(ConditionOrChanged, when))
  ConditionOrChanged() = default;
  QUOR_TEXT_CONSTRUCTOR(ConditionOrChanged)
  ConditionOrChanged(U1 current, U1 changed, double when) : current_(current), changed_(changed), when_(when) {}
  U1 current() const { return current_; }
  U1 changed() const { return changed_; }
  double when() const { return when_; }

 private:
  U1 current_ = false;
  U1 changed_ = false;
  double when_ = 0.0;
};

// ---- statistics accumulators ---------------------------------------------------------------
//
// Each folds samples into its state; updateIs(sample) and doUpdate(sample fields...) do
// the same thing.

/// A condition fed events: its state, how often it changed, and when it last did.
class QUOR_API ConditionStat {
 public:
  QUOR_VALUE_TYPE(ConditionStat, "Vell::ConditionStat", QUOR_FIELD(ConditionStat, current),
                  QUOR_FIELD(ConditionStat, changes), QUOR_FIELD(ConditionStat, lastChange))
  ConditionStat() = default;
  QUOR_TEXT_CONSTRUCTOR(ConditionStat)
  ConditionStat(U1 current, U32 changes, double lastChange)
      : current_(current), changes_(changes), lastChange_(lastChange) {}
  U1 current() const { return current_; }
  U32 changes() const { return changes_; }
  double lastChange() const { return lastChange_; }

  /// A new state counts as a change when it differs from current.
  void doUpdate(U1 value, double const& when);
  void updateIs(Event const& e) { doUpdate(e.value(), e.when()); }

 private:
  U1 current_ = false;
  U32 changes_ = 0;
  double lastChange_ = 0.0;
};

/// Events: whether the last sample was one, how many there were, and when the last was.
class QUOR_API EventStat {
 public:
  QUOR_VALUE_TYPE(EventStat, "Vell::EventStat", QUOR_FIELD(EventStat, current), QUOR_FIELD(EventStat, count),
                  QUOR_FIELD(EventStat, last))
  EventStat() = default;
  QUOR_TEXT_CONSTRUCTOR(EventStat)
  EventStat(U1 current, U32 count, double last) : current_(current), count_(count), last_(last) {}
  U1 current() const { return current_; }
  U32 count() const { return count_; }
  double last() const { return last_; }

  /// current follows the sample; a true sample counts one event at when.
  void doUpdate(U1 value, double const& when);
  void updateIs(Event const& e) { doUpdate(e.value(), e.when()); }

 private:
  U1 current_ = false;
  U32 count_ = 0;
  double last_ = 0.0;
};

/// Counts summed, and when the last non-zero one came.
class QUOR_API CountStat {
 public:
  QUOR_VALUE_TYPE(CountStat, "Vell::CountStat", QUOR_FIELD(CountStat, count), QUOR_FIELD(CountStat, last))
  CountStat() = default;
  QUOR_TEXT_CONSTRUCTOR(CountStat)
  CountStat(U32 count, double last) : count_(count), last_(last) {}
  U32 count() const { return count_; }
  double last() const { return last_; }

  /// Adds count at when; a zero count changes nothing.
  void doUpdate(unsigned int count, double const& when);
  void updateIs(Count const& c) { doUpdate(c.count(), c.when()); }

 private:
  U32 count_ = 0;
  double last_ = 0.0;
};

/// Events or counts summed, and when the last came.
class QUOR_API EventOrCountStat {
 public:
  QUOR_VALUE_TYPE(EventOrCountStat, "Vell::EventOrCountStat", QUOR_FIELD(EventOrCountStat, count),
                  QUOR_FIELD(EventOrCountStat, last))
  EventOrCountStat() = default;
  QUOR_TEXT_CONSTRUCTOR(EventOrCountStat)
  EventOrCountStat(U32 count, double last) : count_(count), last_(last) {}
  U32 count() const { return count_; }
  double last() const { return last_; }

  /// A non-zero count is added (value then ignored); otherwise a true value counts one.
  void doUpdate(U1 value, unsigned int count, double const& when);
  void updateIs(EventOrCount const& s) { doUpdate(s.value(), s.count(), s.when()); }

 private:
  U32 count_ = 0;
  double last_ = 0.0;
};

/// A condition fed its new state and how often it became true since the last sample;
/// counts every transition in between.
class QUOR_API ConditionOrCountStat {
 public:
  QUOR_VALUE_TYPE(ConditionOrCountStat, "Vell::ConditionOrCountStat", QUOR_FIELD(ConditionOrCountStat, current),
                  QUOR_FIELD(ConditionOrCountStat, changes), QUOR_FIELD(ConditionOrCountStat, lastChange))
  ConditionOrCountStat() = default;
  QUOR_TEXT_CONSTRUCTOR(ConditionOrCountStat)
  ConditionOrCountStat(U1 current, U32 changes, double lastChange)
      : current_(current), changes_(changes), lastChange_(lastChange) {}
  U1 current() const { return current_; }
  U32 changes() const { return changes_; }
  double lastChange() const { return lastChange_; }

  /// value: the new state; count: how many times the condition rose since the last sample.
  void doUpdate(U1 value, unsigned int count, double const& when);
  void updateIs(EventOrCount const& s) { doUpdate(s.value(), s.count(), s.when()); }

 private:
  U1 current_ = false;
  U32 changes_ = 0;
  double lastChange_ = 0.0;
};

/// A condition fed its new state and whether it changed since the last sample.
class QUOR_API ConditionOrChangedStat {
 public:
  QUOR_VALUE_TYPE(ConditionOrChangedStat, "Vell::ConditionOrChangedStat",
                  QUOR_FIELD(ConditionOrChangedStat, current), QUOR_FIELD(ConditionOrChangedStat, changes),
                  QUOR_FIELD(ConditionOrChangedStat, lastChange))
  ConditionOrChangedStat() = default;
  QUOR_TEXT_CONSTRUCTOR(ConditionOrChangedStat)
  ConditionOrChangedStat(U1 current, U32 changes, double lastChange)
      : current_(current), changes_(changes), lastChange_(lastChange) {}
  U1 current() const { return current_; }
  U32 changes() const { return changes_; }
  double lastChange() const { return lastChange_; }

  /// A flagged change that ends where it began counts two transitions (out and back).
  void doUpdate(U1 current, U1 changed, double const& when);
  void updateIs(ConditionOrChanged const& s) { doUpdate(s.current(), s.changed(), s.when()); }

 private:
  U1 current_ = false;
  U32 changes_ = 0;
  double lastChange_ = 0.0;
};

// ---- Tokenizer ---------------------------------------------------------------------------

/// The distinct words of a text, sorted: every character found in delimiters ends a
/// word, empty words are dropped.
class QUOR_API Tokenizer {
 public:
  Tokenizer(std::string const& text, std::string const& delimiters);

  /// The words in ascending byte order, each followed by one blank ("" for none).
  std::string string() const;
  std::set<std::string> const& words() const { return words_; }

  friend std::ostream& operator<<(std::ostream& o, Tokenizer const& t) { return o << t.string(); }

 private:
  std::set<std::string> words_;
};

}  // namespace Vell
