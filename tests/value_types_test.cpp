// The text form of value types, the scalar value types and the tokenizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <cstdint>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

#include <Vell/ValueTypes.h>

using namespace Vell;
using Quor::String8;

// Named, not anonymous: the hidden operator<< of an unused enumeration would warn.
namespace ValueTypesTest {

// A composite of every kind of field the text form knows, nesting a library type.
enum class Colour : std::int32_t { red = 1, green = 2 };
QUOR_ENUM_TEXT(Colour, "Colour", {Colour::red, "red"}, {Colour::green, "green"})

struct Sample {
  enum class Kind : std::uint32_t { small, large };
  QUOR_ENUM_TEXT_IN_CLASS(Kind, "Sample::Kind", {Kind::small, "small"}, {Kind::large, "large"})
  QUOR_VALUE_TYPE(Sample, "Vell::Test::Sample", QUOR_FIELD(Sample, id), QUOR_FIELD(Sample, colour),
                  QUOR_FIELD(Sample, kind), QUOR_FIELD(Sample, label), QUOR_FIELD(Sample, ratio),
                  QUOR_FIELD(Sample, delta), QUOR_FIELD(Sample, seq))
  Sample() = default;
  QUOR_TEXT_CONSTRUCTOR(Sample)
  UniqueId id_{1, 2, 3};
  Colour colour_ = Colour::red;
  Kind kind_ = Kind::small;
  String8 label_;
  double ratio_ = 0;
  std::int64_t delta_ = 0;
  Seqno16 seq_;
};

}  // namespace ValueTypesTest

namespace {

using namespace ValueTypesTest;
constexpr std::uint64_t kSeed = 0x5eed0003;

// ---- random values of every type ----

using Rng = std::mt19937_64;
U32 rnd32(Rng& r) { return static_cast<U32>(r()); }
bool rndBit(Rng& r) { return r() & 1; }
double rndDouble(Rng& r) {  // any finite double, subnormals included
  for (;;) {
    double const d = std::bit_cast<double>(r());
    if (std::isfinite(d)) return (r() % 4 == 0) ? static_cast<double>(rnd32(r)) : d;
  }
}
std::string rndString(Rng& r) {
  std::string s(r() % 12, ' ');
  for (char& c : s) c = "ab'\"\\\n\tx{},:"[r() % 13];  // no blank: loosen() edits ", " and ": "
  return s;
}

void randomize(Rng& r, MaybeU63& v) { v = (r() % 5 == 0) ? MaybeU63() : MaybeU63(r() >> (r() % 64) >> 1); }
void randomize(Rng& r, Seqno16& v) { v = static_cast<U16>(r()); }
void randomize(Rng& r, Seqno32& v) { v = rnd32(r); }
void randomize(Rng& r, UniqueId& v) { v = UniqueId(rnd32(r), static_cast<U16>(r() % 0xffff), static_cast<U16>(r())); }
void randomize(Rng& r, Event& v) { v = Event(rndBit(r), rndDouble(r)); }
void randomize(Rng& r, Count& v) { v = Count(rnd32(r), rndDouble(r)); }
void randomize(Rng& r, EventOrCount& v) { v = EventOrCount(rndBit(r), rnd32(r), rndDouble(r)); }
void randomize(Rng& r, ConditionOrChanged& v) { v = ConditionOrChanged(rndBit(r), rndBit(r), rndDouble(r)); }
template <class Stat>
  requires std::is_constructible_v<Stat, U1, U32, double>
void randomize(Rng& r, Stat& v) { v = Stat(rndBit(r), rnd32(r), rndDouble(r)); }
template <class Stat>
  requires std::is_constructible_v<Stat, U32, double> && (!std::is_same_v<Stat, Count>)
void randomize(Rng& r, Stat& v) { v = Stat(rnd32(r), rndDouble(r)); }
void randomize(Rng& r, Sample& v) {
  randomize(r, v.id_);
  v.colour_ = static_cast<Colour>(r() % 4);  // 0 and 3 are no enumerators
  v.kind_ = static_cast<Sample::Kind>(r() % 3);
  v.label_ = rndString(r);
  v.ratio_ = rndDouble(r);
  v.delta_ = static_cast<std::int64_t>(r());
  randomize(r, v.seq_);
}

// Blanks wherever the grammar allows them, to exercise blank skipping.
std::string loosen(std::string s) {
  for (auto [from, to] : {std::pair{"Value('", " \tValue (\n'"}, {"', ** {'", "' ,  ** { '"},
                          {"': ", "'  :  "}, {", '", " ,\t'"}, {"})", " }\r) "}}) {
    for (std::size_t p = 0; (p = s.find(from, p)) != std::string::npos; p += std::strlen(to))
      s.replace(p, std::strlen(from), to);
  }
  return s;
}

template <class T>
class TextRoundTrip : public ::testing::Test {};
using AllValueTypes = ::testing::Types<MaybeU63, Seqno16, Seqno32, UniqueId, Event, Count, EventOrCount,
                                       ConditionOrChanged, ConditionStat, EventStat, CountStat, EventOrCountStat,
                                       ConditionOrCountStat, ConditionOrChangedStat, Sample>;
TYPED_TEST_SUITE(TextRoundTrip, AllValueTypes);

TYPED_TEST(TextRoundTrip, WriteParseCompare) {
  Rng r(kSeed);
  for (int i = 0; i < 3000; ++i) {
    TypeParam v;
    randomize(r, v);
    String8 const text = valueToStrep(v);
    std::ostringstream os;
    os << v;
    ASSERT_EQ(os.str(), text.str());
    ASSERT_EQ(Quor::strepToValue<TypeParam>(text), v) << text;

    // The sequence parser stops just behind the value and leaves the rest.
    String8 const longer = text + ",rest";
    auto it = longer.begin();
    TypeParam w;
    sequenceToValue(it, longer.end(), &w);
    ASSERT_EQ(w, v);
    ASSERT_EQ(std::string(it, longer.end()), ",rest");

    auto it2 = longer.begin();
    ASSERT_EQ(TypeParam(it2, longer.end()), v);
    ASSERT_TRUE(it2 == it);
    if constexpr (Quor::FieldValue<TypeParam>) {
      ASSERT_EQ(Quor::strepToValue<TypeParam>(loosen(text.str())), v) << loosen(text.str());
    }
  }
}

// Fields in any order, absent ones keep their default, a repeated one takes the last.
TYPED_TEST(TextRoundTrip, FieldsInAnyOrder) {
  if constexpr (Quor::FieldValue<TypeParam>) {
    Rng r(kSeed + 1);
    for (int i = 0; i < 500; ++i) {
      TypeParam v, other;
      randomize(r, v);
      randomize(r, other);
      TypeParam const dflt{};
      // Each field's overridden text, if any, comes before its final one.
      std::vector<std::pair<std::uint64_t, std::string>> items;
      std::apply(
          [&](auto const&... f) {
            auto add = [&](auto const& field) {
              auto item = [&](TypeParam const& from) {
                std::string s = "'" + std::string(field.name) + "': ";
                Quor::writeValue(s, from.*(field.member));
                return s;
              };
              if (v.*(field.member) == dflt.*(field.member) && rndBit(r)) return;  // absent
              std::uint64_t const k1 = r(), k2 = r();
              if (r() % 3 == 0) items.emplace_back(std::min(k1, k2), item(other));
              items.emplace_back(std::max(k1, k2), item(v));
            };
            (add(f), ...);
          },
          TypeParam::quorFields());
      std::sort(items.begin(), items.end());
      std::string text = std::string("Value('") + TypeParam::quorTypeName + "', ** {";
      for (std::size_t k = 0; k < items.size(); ++k) text += (k ? ", " : "") + items[k].second;
      text += "})";
      ASSERT_EQ(Quor::strepToValue<TypeParam>(text), v) << text;
    }
  }
}

// ---- error texts ----

template <class T>
std::string parseError(std::string const& text) {
  try {
    (void)Quor::strepToValue<T>(text);
  } catch (Quor::RangeException const& e) {
    EXPECT_EQ(e.id(), Quor::valueParseErrorId);
    return e.text().str();
  }
  return "(parsed)";
}

TEST(TextForm, ErrorTexts) {
  std::string const id = "Value('Vell::UniqueId', ** {'timestamp': 12, 'pid': 34, 'count': 0})";
  EXPECT_EQ(parseError<UniqueId>("Value('Vell::UniqueId', ** {'timestamp': 5"),
            "premature end of value type UniqueId");
  EXPECT_EQ(parseError<UniqueId>("Value('Vell::UniqueId', ** { "), "premature end of value type UniqueId");
  EXPECT_EQ(parseError<UniqueId>("Value('Vell::UniqueId', ** {'foo': 1}"), "UniqueId has no such attribute: foo");
  EXPECT_EQ(parseError<UniqueId>(id + " x"), "junk at column " + std::to_string(id.size() + 1) +
                                                  " deserializing " + id + " x");
  std::string const withNul = id + std::string("\0z", 2);  // the whole input, even past a NUL
  EXPECT_EQ(parseError<UniqueId>(withNul), "junk at column " + std::to_string(id.size()) + " deserializing " + withNul);
  EXPECT_EQ(parseError<Seqno16>("17 "), "junk at column 2 deserializing 17 ");
  EXPECT_EQ(parseError<MaybeU63>("12x"), "junk at column 2 deserializing 12x");
  EXPECT_EQ(parseError<ConditionStat>("Value('Vell::ConditionStat', ** {'changes': 4294967296})"),
            "number out of range (> 4294967295) in attribute changes");
  EXPECT_EQ(parseError<Sample>("Value('Vell::Test::Sample', ** {'id': Value('Vell::UniqueId', ** {'pid': x})})"),
            "expected an unsigned number in attribute pid in attribute id");
  EXPECT_EQ(parseError<Sample>("Value('Vell::Test::Sample', ** {'colour': blue})"),
            "Colour has no enumerator blue in attribute colour");
  EXPECT_EQ(parseError<EventStat>(id), "expected \" 'Vell::EventStat'\"");
  EXPECT_EQ(parseError<Sample>("Value('Vell::Test::Sample', ** {'label': 'open"),
            "unterminated quoted string in attribute label");
}

TEST(TextForm, FailedParseChangesNothing) {
  for (std::string const bad : {"Value('Vell::UniqueId', ** {'timestamp': 5, 'pid': 6", "Value('Vell::UniqueId', ** {'count': -1})",
                                "Value('Vell::UniqueId', ** {'count': 1, 'bar': 2})", "", "Value"}) {
    UniqueId id(7, 8, 9);
    String8 const text(bad);
    auto it = text.begin();
    EXPECT_THROW(sequenceToValue(it, text.end(), &id), Quor::RangeException) << bad;
    EXPECT_EQ(id, UniqueId(7, 8, 9));
    EXPECT_TRUE(it == text.begin());
  }
}

TEST(TextForm, Enumerations) {
  EXPECT_EQ(valueToStrep(Colour::green), "green");
  EXPECT_EQ(valueToStrep(static_cast<Colour>(7)), "Colour(7)");
  EXPECT_EQ(valueToStrep(static_cast<Sample::Kind>(9)), "Sample::Kind(9)");
  EXPECT_EQ(Quor::strepToValue<Colour>("red"), Colour::red);
  EXPECT_EQ(Quor::strepToValue<Sample::Kind>("Sample::Kind(9)"), static_cast<Sample::Kind>(9));
}

// ---- MaybeU63 ----

TEST(MaybeU63, TextAndErrors) {
  MaybeU63 m(12);
  EXPECT_EQ(m.stringValue(), "12");
  m.stringValueIs("None");
  EXPECT_TRUE(m.nullBit());
  EXPECT_EQ(m, MaybeU63());
  EXPECT_EQ(m.stringValue(), "None");
  m.stringValueIs("-1");  // a negative number sets bit 63
  EXPECT_EQ(m, MaybeU63());
  m.stringValueIs("9223372036854775807");
  EXPECT_EQ(m.value(), 0x7fffffffffffffffu);
  EXPECT_FALSE(m.nullBit());

  auto expectError = [&](auto&& parse, char const* text) {
    MaybeU63 const before = m;
    try {
      parse();
      ADD_FAILURE() << "no exception";
    } catch (Quor::RangeException const&) {
      ADD_FAILURE() << "a RangeException";
    } catch (Quor::Exception const& e) {
      EXPECT_STREQ(e.what(), text);
      EXPECT_EQ(e.id(), 12u);
    }
    EXPECT_EQ(m, before);
  };
  expectError([&] { m.stringValueIs("12x"); }, "Invalid Vell::MaybeU63");
  expectError([&] { m.stringValueIs("None "); }, "Invalid Vell::MaybeU63");
  for (char const* bad : {"", "Non", "x", "99999999999999999999"}) {
    String8 const text(bad);
    auto it = text.begin();
    expectError([&] { sequenceToValue(it, text.end(), &m); }, "Error deserializing Vell::MaybeU63");
    EXPECT_TRUE(it == text.begin());
  }
  String8 const none("None");  // "Non" then the end: nothing behind the end is read
  auto it = none.begin();
  expectError([&] { sequenceToValue(it, none.begin() + 3, &m); }, "Error deserializing Vell::MaybeU63");
}

// ---- sequence numbers ----

template <class S, class Signed>
void checkSeqnoAgainstSignedDifference(Rng& r) {
  using Raw = decltype(S().value());
  auto ref = [](Raw a, Raw b) { return static_cast<Signed>(static_cast<Raw>(a - b)) < 0; };
  constexpr Raw half = Raw(1) << (std::numeric_limits<Raw>::digits - 1);
  for (int i = 0; i < 200000; ++i) {
    Raw const a = static_cast<Raw>(r());
    Raw const b = static_cast<Raw>(i % 4 == 0 ? a + half + (r() % 5) - 2 : i % 4 == 1 ? a + (r() % 5) - 2 : r());
    S const sa(a), sb(b);
    ASSERT_EQ(sa < sb, ref(a, b)) << a << " " << b;
    ASSERT_EQ(sa < b, ref(a, b));
    ASSERT_EQ(sa >= sb, !ref(a, b));
    ASSERT_EQ(sa <= sb, !ref(b, a));
    ASSERT_EQ(sa > sb, ref(b, a));
    ASSERT_EQ(sa > b, ref(b, a));
    ASSERT_EQ(sa == sb, a == b);
  }
  // Half the space apart: each is below the other, neither <= nor >= holds.
  S const lo(0), hi(half);
  EXPECT_TRUE(lo < hi && hi < lo && lo > hi && hi > lo);
  EXPECT_FALSE(lo <= hi || lo >= hi || hi <= lo || hi >= lo);
  EXPECT_TRUE(S(static_cast<Raw>(~Raw(0))) < S(0));  // wraps
  EXPECT_TRUE(S(5) <= S(5) && S(5) >= S(5) && !(S(5) < S(5)) && !(S(5) > S(5)));
}

TEST(Seqno, ComparisonIsSignedDifference) {
  Rng r(kSeed + 2);
  checkSeqnoAgainstSignedDifference<Seqno16, std::int16_t>(r);
  checkSeqnoAgainstSignedDifference<Seqno32, std::int32_t>(r);
  EXPECT_EQ(valueToStrep(Seqno32(4000000000u)), "4000000000");
  EXPECT_EQ(parseError<Seqno16>("65536"), "number out of range (> 65535)");
}

// ---- UniqueId ----

U16 ownPid() { return static_cast<U16>(::getpid()); }

// Each test runs in seconds no other test uses: the id counter is process-wide.
TEST(UniqueId, CountsWithinOneSecondAndWaitsAfter65536) {
  Quor::VirtualTime vt(1000.25);
  for (U32 i = 0; i <= 0xffff; ++i) {
    UniqueId id;
    id.doInit();
    ASSERT_EQ(id, UniqueId(1000, ownPid(), static_cast<U16>(i)));
  }
  UniqueId next;
  next.doInit();  // all counts of second 1000 are used: waits one (virtual) second
  EXPECT_EQ(next, UniqueId(1001, ownPid(), 0));
  EXPECT_DOUBLE_EQ(Quor::now(), 1001.25);
  vt.advance(0.5);
  UniqueId again;
  again.doInit();
  EXPECT_EQ(again, UniqueId(1001, ownPid(), 1));
  EXPECT_LT(next, again);
}

TEST(UniqueId, UnsetMeansPidAndCountAllOnes) {
  Quor::VirtualTime vt(4294967296.0 * 3 + 2000.9);  // timestamp keeps the low 32 bits
  UniqueId stale(77, 0xffff, 0xffff);
  EXPECT_TRUE(stale.unset());
  stale.doInit();
  EXPECT_EQ(stale, UniqueId(2000, ownPid(), 0));
  UniqueId set(77, 0xffff, 0xfffe);
  set.doInit();
  EXPECT_EQ(set, UniqueId(77, 0xffff, 0xfffe));

  // Parsing completes an unset id as if it were made now.
  EXPECT_EQ(Quor::strepToValue<UniqueId>("Value('Vell::UniqueId', ** {})"), UniqueId(2000, ownPid(), 1));
  EXPECT_EQ(Quor::strepToValue<UniqueId>("Value('Vell::UniqueId', ** {'timestamp': 5, 'pid': 65535, 'count': 65535})"),
            UniqueId(2000, ownPid(), 2));
}

TEST(UniqueId, FirstIdOfAProcessCountsFromZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no id made yet
  EXPECT_EXIT(
      {
        Quor::VirtualTime vt(0.5);
        UniqueId id;
        id.doInit();
        std::exit(id == UniqueId(0, ownPid(), 0) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(UniqueId, OrderIsTimestampPidCount) {
  Rng r(kSeed + 3);
  for (int i = 0; i < 100000; ++i) {
    auto pick = [&] { return std::tuple<U32, U16, U16>(r() % 3, r() % 3, r() % 3); };
    auto const ta = pick(), tb = pick();
    UniqueId const a(std::get<0>(ta), std::get<1>(ta), std::get<2>(ta));
    UniqueId const b(std::get<0>(tb), std::get<1>(tb), std::get<2>(tb));
    ASSERT_EQ(a < b, ta < tb);
    ASSERT_EQ(a <= b, ta <= tb);
    ASSERT_EQ(a > b, ta > tb);
    ASSERT_EQ(a >= b, ta >= tb);
    ASSERT_EQ(a == b, ta == tb);
    ASSERT_EQ(a != b, ta != tb);
  }
}

// ---- Tokenizer ----

TEST(Tokenizer, SortedUniqueWords) {
  EXPECT_EQ(Tokenizer("b,a,,b", ",").string(), "a b ");
  EXPECT_EQ(Tokenizer("", ",").string(), "");
  EXPECT_EQ(Tokenizer(",,,", ",").string(), "");
  std::ostringstream os;
  os << Tokenizer(std::string("x\0y z", 5), std::string(" \0", 2));
  EXPECT_EQ(os.str(), "x y z ");

  // Against splitting with find_first_of.
  Rng r(kSeed + 4);
  for (int i = 0; i < 5000; ++i) {
    std::string text(r() % 20, ' '), delims(r() % 3, ' ');
    for (char& c : text) c = "abc,; "[r() % 6];
    for (char& c : delims) c = ",; "[r() % 3];
    std::set<std::string> ref;
    for (std::size_t p = 0; p <= text.size();) {
      std::size_t const q = std::min(text.find_first_of(delims, p), text.size());
      if (q > p) ref.insert(text.substr(p, q - p));
      p = q + 1;
    }
    ASSERT_EQ(Tokenizer(text, delims).words(), ref) << text << "|" << delims;
  }
}

}  // namespace
