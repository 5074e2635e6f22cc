// The text and binary forms of every value type of the library, the scalar value types
// and the tokenizer.

#include <bit>
#include <cmath>
#include <cstdint>
#include <set>
#include <sstream>
#include <tuple>

#include <Vell/BestFitAllocator.h>
#include <Vell/HTimerWheel.h>
#include <Vell/InotifyMgr.h>
#include <Vell/ValueTypes.h>
#include <Vell/XactLib.h>

#include "TestSupport.h"

using namespace Vell;
using Quor::String8;

namespace {

// A composite of every kind of field the text form knows, nesting a library type. The
// enumeration's qualified name checks that its "<Type>(%d)" form reads back.
enum class Colour : std::int32_t { red = 1, green = 2 };
QUOR_ENUM_TEXT(Colour, "Test::Colour", {Colour::red, "red"}, {Colour::green, "green"})

struct Sample {
  QUOR_VALUE_TYPE(Sample, "Vell::Test::Sample", QUOR_FIELD(Sample, id), QUOR_FIELD(Sample, colour),
                  QUOR_FIELD(Sample, label), QUOR_FIELD(Sample, ratio), QUOR_FIELD(Sample, delta),
                  QUOR_FIELD(Sample, seq))
  Sample() = default;
  QUOR_TEXT_CONSTRUCTOR(Sample)
  UniqueId id_{1, 2, 3};
  Colour colour_ = Colour::red;
  String8 label_;
  double ratio_ = 0;
  std::int64_t delta_ = 0;
  Seqno16 seq_;
};

using Rng = std::mt19937_64;
constexpr std::uint64_t kSeed = 0x5eed0003;

// ---- random values of every type, field by field ----

void randomize(Rng& r, bool& v) { v = r() & 1; }
template <std::integral I>
void randomize(Rng& r, I& v) { v = static_cast<I>(r()); }
template <Quor::TextEnum E>
void randomize(Rng& r, E& v) { v = static_cast<E>(r() % 4); }  // two of 0..3 are no enumerators
void randomize(Rng& r, double& d) {  // any finite double, subnormals included
  do d = (r() % 4 == 0) ? static_cast<double>(static_cast<U32>(r())) : std::bit_cast<double>(r());
  while (!std::isfinite(d));
}
void randomize(Rng& r, String8& v) {
  std::string s(r() % 12, ' ');
  for (char& c : s) c = "ab'\"\\\n\t {},:"[r() % 13];
  v = String8(s);
}
void randomize(Rng& r, MaybeU63& v) { v = (r() % 5 == 0) ? MaybeU63() : MaybeU63(r() >> (r() % 64) >> 1); }
template <class Raw>
void randomize(Rng& r, Seqno<Raw>& v) { v = static_cast<Raw>(r()); }
// Never unset: parsing would replace an unset id with a fresh one.
void randomize(Rng& r, UniqueId& v) {
  v = UniqueId(static_cast<U32>(r()), static_cast<U16>(r() % 0xffff), static_cast<U16>(r()));
}
void randomize(Rng& r, BucketSize& v) { v = BucketSize(2 + static_cast<U32>(r() % 0xfffffffd)); }
void randomize(Rng& r, Quor::Ptr<BFA::Blk>& b) {  // a block of no allocator, or none
  b = r() % 4 ? Quor::strepToValue<Quor::Ptr<BFA::Blk>>(Quor::format(
                    "Value('Vell::BFA::Blk', ** {'blkSz': %u, 'startIndex': %u})", unsigned(r() % 1000 + 1), unsigned(r() % 100000)))
              : nullptr;
}
template <Quor::FieldValue T>
void randomize(Rng& r, T& v) {
  std::apply([&](auto const&... f) { (randomize(r, v.*(f.member)), ...); }, T::quorFields());
}

// Equal values; a block reference read back is another object, so it compares by text.
template <class T>
bool same(T const& a, T const& b) {
  if constexpr (std::is_same_v<T, BFA::PendingCmd>) return valueToStrep(a) == valueToStrep(b);
  else return a == b;
}

template <class T>
std::string streamed(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

// None or a few blanks: the grammar allows them around every token.
std::string blanks(Rng& r) {
  std::string s;
  while (r() % 3 == 0) s += " \t\n\r"[r() % 4];
  return s;
}

// v's text with blanks between the tokens, the fields in random order, a field that
// holds its default sometimes left out, and some given first with a value that the
// final one overrides.
template <class T>
std::string scrambledText(Rng& r, T const& v) {
  T other;
  T const dflt{};
  randomize(r, other);
  std::vector<std::pair<std::uint64_t, std::string>> items;  // sorted by random keys
  auto add = [&](auto const& f) {
    auto item = [&](T const& from) {
      return "'" + std::string(f.name) + "'" + blanks(r) + ":" + blanks(r) + Quor::valueToStrep(from.*(f.member)).str();
    };
    if (v.*(f.member) == dflt.*(f.member) && (r() & 1)) return;
    std::uint64_t const k1 = r(), k2 = r();
    if (r() % 3 == 0) items.emplace_back(std::min(k1, k2), item(other));
    items.emplace_back(std::max(k1, k2), item(v));
  };
  std::apply([&](auto const&... f) { (add(f), ...); }, T::quorFields());
  std::sort(items.begin(), items.end());
  std::string text = blanks(r) + "Value" + blanks(r) + "(" + blanks(r) + "'" + T::quorTypeName + "'" + blanks(r) + "," +
                     blanks(r) + "**" + blanks(r) + "{";
  for (std::size_t k = 0; k < items.size(); ++k) text += blanks(r) + (k ? "," : "") + blanks(r) + items[k].second;
  return text + blanks(r) + "}" + blanks(r) + ")" + blanks(r);
}

template <class T>
class TextRoundTrip : public ::testing::Test {};
using AllValueTypes = ::testing::Types<MaybeU63, Seqno16, Seqno32, UniqueId, Event, Count, EventOrCount,
                                       ConditionOrChanged, ConditionStat, EventStat, CountStat, EventOrCountStat,
                                       ConditionOrCountStat, ConditionOrChangedStat, Sample, XactConfig, XactStatus,
                                       ExecResult, BFA::JumboFreeBlk, BFA::PendingCmd, InotifyEvent, BucketSize>;
TYPED_TEST_SUITE(TextRoundTrip, AllValueTypes);

TYPED_TEST(TextRoundTrip, WriteParseCompare) {
  using Quor::NboAttrLog::In;
  Rng r(kSeed);
  for (int i = 0; i < 3000; ++i) {
    TypeParam v, w;
    randomize(r, v);
    String8 const text = valueToStrep(v);
    ASSERT_EQ(streamed(v), text.str());
    ASSERT_TRUE(same(Quor::strepToValue<TypeParam>(text), v)) << text;

    // The sequence parser and the text constructor stop just behind the value.
    String8 const longer = text + ",rest";
    auto it = longer.begin(), it2 = longer.begin();  // it2: for types with a text constructor
    sequenceToValue(it, longer.end(), &w);
    ASSERT_TRUE(same(w, v)) << text;
    ASSERT_EQ(std::string(it, longer.end()), ",rest");
    if constexpr (std::is_constructible_v<TypeParam, decltype(it2), decltype(it2)>) {
      ASSERT_TRUE(same(TypeParam(it2, longer.end()), v));
      ASSERT_TRUE(it2 == it);
    }
    if constexpr (Quor::FieldValue<TypeParam> && !std::is_same_v<TypeParam, BucketSize>) {  // it prints as a number
      std::string const scrambled = scrambledText(r, v);
      ASSERT_TRUE(same(Quor::strepToValue<TypeParam>(scrambled), v)) << scrambled;
      // A text cut anywhere fails and leaves both the target and the position alone.
      randomize(r, w);
      TypeParam const before = w;
      String8 const cut(text.str().substr(0, r() % text.size()));
      auto at = cut.begin();
      ASSERT_THROW(sequenceToValue(at, cut.end(), &w), Quor::RangeException) << cut;
      ASSERT_TRUE(same(w, before)) << cut;
      ASSERT_TRUE(at == cut.begin());
    }

    // The binary record reads back whole, prints as the text form, and refuses every cut.
    Quor::NboAttrLog::Out out;
    out.value(v);
    In in(out.bytes()), again(out.bytes());
    ASSERT_TRUE(same(in.value<TypeParam>(), v)) << text;
    ASSERT_TRUE(in.atEnd());
    ASSERT_EQ(Quor::nboRecordText(again), text);
    for (std::size_t cut = 0; i < 100 && cut < out.bytes().size(); ++cut) {
      In part(std::string_view(out.bytes()).substr(0, cut));
      ASSERT_THROW(part.value<TypeParam>(), Quor::RangeException) << "cut " << cut;
    }
  }
}

TEST(TextForm, WrittenForms) {
  Sample s;
  s.label_ = "it's \\", s.ratio_ = 0.1, s.delta_ = -3, s.seq_ = 65535;
  EXPECT_EQ(valueToStrep(s),
            "Value('Vell::Test::Sample', ** {'id': Value('Vell::UniqueId', ** {'timestamp': 1, 'pid': 2, 'count': 3}), "
            "'colour': red, 'label': 'it\\'s \\\\', 'ratio': 0.1, 'delta': -3, 'seq': 65535})");
  EXPECT_EQ(streamed(Colour::green), "green");
  EXPECT_EQ(valueToStrep(EventStat(true, 4294967295u, 1.5)),
            "Value('Vell::EventStat', ** {'current': 1, 'count': 4294967295, 'last': 1.5})");
}

// ---- error texts ----

// The text of the parse error f throws (RangeException or only Exception, as expected).
template <class F>
std::string errorOf(F&& f, bool range = true) {
  try {
    f();
  } catch (Quor::Exception const& e) {
    EXPECT_EQ(e.id(), Quor::valueParseErrorId);
    EXPECT_EQ(dynamic_cast<Quor::RangeException const*>(&e) != nullptr, range) << e.text();
    return e.text().str();
  }
  return "(parsed)";
}
template <class T>
std::string parseError(std::string const& text) {
  return errorOf([&] { (void)Quor::strepToValue<T>(text); });
}

TEST(TextForm, ErrorTexts) {
  std::string const id = "Value('Vell::UniqueId', ** {'timestamp': 12, 'pid': 34, 'count': 0})";
  std::string const junk = id + std::string(" \0z", 3);  // the whole input, even past a NUL
  EXPECT_EQ(parseError<UniqueId>(junk), "junk at column " + std::to_string(id.size() + 1) + " deserializing " + junk);
  EXPECT_EQ(parseError<UniqueId>("Value('Vell::UniqueId', ** {'timestamp': 5"), "premature end of value type UniqueId");
  EXPECT_EQ(parseError<UniqueId>("Value('Vell::UniqueId', ** {'foo': 1}"), "UniqueId has no such attribute: foo");
  EXPECT_EQ(parseError<EventStat>(id), "expected \" 'Vell::EventStat'\"");
  EXPECT_EQ(parseError<Seqno16>("65536"), "number out of range (> 65535)");
  std::string const sample = "Value('Vell::Test::Sample', ** {";
  EXPECT_EQ(parseError<Sample>(sample + "'id': Value('Vell::UniqueId', ** {'pid': x})})"),
            "expected an unsigned number in attribute pid in attribute id");
  EXPECT_EQ(parseError<Sample>(sample + "'colour': blue})"), "Test::Colour has no enumerator blue in attribute colour");
  EXPECT_EQ(parseError<Sample>(sample + "'label': 'open"), "unterminated quoted string in attribute label");
}

// ---- MaybeU63 ----

TEST(MaybeU63, TextAndErrors) {
  EXPECT_TRUE(MaybeU63().nullBit() && !MaybeU63(0).nullBit());
  MaybeU63 m(12);
  // A negative number sets bit 63: the null value.
  for (auto [text, want, printed] : {std::tuple{"-1", MaybeU63(), "None"}, {"0", MaybeU63(0), "0"},
                                     {"9223372036854775807", MaybeU63(0x7fffffffffffffffu), "9223372036854775807"},
                                     {"None", MaybeU63(), "None"}, {"12", MaybeU63(12), "12"}}) {
    m.stringValueIs(text);
    EXPECT_EQ(m, want) << text;
    EXPECT_EQ(m.stringValue(), printed);
  }
  for (char const* bad : {"12x", "None "})
    EXPECT_EQ(errorOf([&] { m.stringValueIs(bad); }, false), "Invalid Vell::MaybeU63") << bad;
  EXPECT_EQ(m, MaybeU63(12));
  // "None" cut before its last letter checks that nothing behind the end is read.
  for (auto [bad, length] : {std::pair{"", 0}, {"x", 1}, {"99999999999999999999", 20}, {"None", 3}}) {
    String8 const text(bad);
    auto it = text.begin(), end = text.begin() + length;
    EXPECT_EQ(errorOf([&] { sequenceToValue(it, end, &m); }, false),
              "Error deserializing Vell::MaybeU63") << bad;
    EXPECT_TRUE(it == text.begin());
    EXPECT_EQ(m, MaybeU63(12));
  }
}

// ---- sequence numbers ----

template <class Raw>
void checkSeqnoAgainstSignedDifference(Rng& r) {
  using S = Seqno<Raw>;
  auto lt = [](Raw a, Raw b) { return static_cast<std::make_signed_t<Raw>>(static_cast<Raw>(a - b)) < 0; };
  constexpr Raw half = Raw(1) << (std::numeric_limits<Raw>::digits - 1);
  for (int i = 0; i < 200000; ++i) {  // near-equal, about half apart, or anywhere
    Raw const a = static_cast<Raw>(r());
    Raw const b = static_cast<Raw>(i % 4 == 0 ? a + half + (r() % 5) - 2 : i % 4 == 1 ? a + (r() % 5) - 2 : r());
    S const sa(a), sb(b);
    ASSERT_EQ(std::tuple(sa < sb, sa < b, sa >= sb, sa <= sb, sa > sb, sa > b, sa == sb),
              std::tuple(lt(a, b), lt(a, b), !lt(a, b), !lt(b, a), lt(b, a), lt(b, a), a == b))
        << a << " " << b;
  }
  // Half the space apart: each is below the other, neither <= nor >= holds.
  EXPECT_TRUE(S(0) < S(half) && S(half) < S(0) && !(S(0) <= S(half)) && !(S(0) >= S(half)));
}

TEST(Seqno, ComparisonIsSignedDifference) {
  Rng r(kSeed + 2);
  checkSeqnoAgainstSignedDifference<U16>(r);
  checkSeqnoAgainstSignedDifference<U32>(r);
}

// ---- UniqueId ----

U16 ownPid() { return static_cast<U16>(::getpid()); }

// Each test runs in seconds no other test uses: the id counter is process-wide.
TEST(UniqueId, CountsWithinOneSecondAndWaitsAfter65536) {
  Quor::VirtualTime vt(1000.25);
  for (U32 i = 0; i < 0x10002; ++i) {  // the 65,537th id waits for the next (virtual) second
    UniqueId id;
    id.doInit();
    ASSERT_EQ(id, UniqueId(1000 + i / 0x10000, ownPid(), static_cast<U16>(i))) << i;
  }
  EXPECT_DOUBLE_EQ(Quor::now(), 1001.25);
  vt.advance(1);  // a new second starts the count again
  UniqueId next;
  next.doInit();
  EXPECT_EQ(next, UniqueId(1002, ownPid(), 0));
}

TEST(UniqueId, UnsetMeansPidAndCountAllOnes) {
  Quor::VirtualTime vt(4294967296.0 * 3 + 2000.9);  // timestamp keeps the low 32 bits
  auto parsed = [](std::string const& fields) {
    return Quor::strepToValue<UniqueId>("Value('Vell::UniqueId', ** {" + fields + "})");
  };
  UniqueId stale(77, 0xffff, 0xffff);
  stale.doInit();
  EXPECT_EQ(stale, UniqueId(2000, ownPid(), 0));
  // Parsing completes an unset id as if it were made now; pid 0xffff alone is a set id.
  EXPECT_EQ(parsed(""), UniqueId(2000, ownPid(), 1));
  EXPECT_EQ(parsed("'timestamp': 5, 'pid': 65535, 'count': 65534"), UniqueId(5, 0xffff, 0xfffe));
}

TEST(UniqueId, FirstIdOfAProcessCountsFromZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no id made yet
  auto firstId = [] { Quor::VirtualTime vt(0.5); UniqueId id; id.doInit(); return id; };
  EXPECT_EXIT(std::exit(firstId() == UniqueId(0, ownPid(), 0) ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST(UniqueId, OrderIsTimestampPidCount) {
  Rng r(kSeed + 3);
  for (int i = 0; i < 100000; ++i) {
    std::tuple<U32, U16, U16> const ta(r() % 3, r() % 3, r() % 3), tb(r() % 3, r() % 3, r() % 3);
    UniqueId const a = std::make_from_tuple<UniqueId>(ta), b = std::make_from_tuple<UniqueId>(tb);
    ASSERT_EQ(std::tuple(a < b, a <= b, a > b, a >= b, a == b, a != b),
              std::tuple(ta < tb, ta <= tb, ta > tb, ta >= tb, ta == tb, ta != tb)) << a << " " << b;
  }
}

// ---- Tokenizer ----

TEST(Tokenizer, SortedUniqueWords) {
  EXPECT_EQ(Tokenizer("b,a,,b", ",").string(), "a b ");
  // Against splitting with find_first_of; a NUL is an ordinary character in both texts.
  Rng r(kSeed + 4);
  for (int i = 0; i < 5000; ++i) {
    std::string text(r() % 20, ' '), delims(r() % 3, ' ');
    for (char& c : text) c = "ab\0,; "[r() % 6];
    for (char& c : delims) c = ",;\0 "[r() % 4];
    std::set<std::string> ref;
    for (std::size_t p = 0; p <= text.size();) {
      std::size_t const q = std::min(text.find_first_of(delims, p), text.size());
      if (q > p) ref.insert(text.substr(p, q - p));
      p = q + 1;
    }
    std::string joined;
    for (auto const& w : ref) joined += w + ' ';
    Tokenizer const t(text, delims);
    ASSERT_EQ(t.words(), ref) << text << "|" << delims;
    ASSERT_EQ(streamed(t), joined);
  }
}

}  // namespace
