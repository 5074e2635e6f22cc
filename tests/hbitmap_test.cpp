#include <gtest/gtest.h>

#include <Vell/HBitmap.h>
#include <Vell/ValueTypes.h>

#include <algorithm>
#include <array>
#include <bit>
#include <random>
#include <vector>

using Vell::HBitmap;
using Vell::U32;
using Vell::U64;

namespace {

constexpr U32 none = HBitmap::notFound;
using State = HBitmap::BitState;
using Pref = HBitmap::IndexPreference;

// The summary invariant, checked word by word from the layout, padding included, plus
// the layout's own shape and the exact set-bit count.
testing::AssertionResult invariantHolds(HBitmap const& b) {
  U32 count = 0;
  for (U32 h = 0; h < b.height(); ++h) {
    U32 const n = b.numBitsAtHeight(h), base = b.arrayBaseOffsetForHeight(h), words = std::max(1u, (n + 63) / 64);
    if (h + 1 < b.height() && (b.numBitsAtHeight(h + 1) != words || b.arrayBaseOffsetForHeight(h + 1) != base + words))
      return testing::AssertionFailure() << "bad layout above level " << h;
    if (h + 1 == b.height() && words != 1) return testing::AssertionFailure() << "top level is not one word";
    for (U32 k = 0; k < words; ++k) {
      U32 const bits = n > 64 * k ? std::min(64u, n - 64 * k) : 0;
      U64 const pad = bits == 64 ? 0 : ~0ull << bits;
      U64 wantSet = b.setBm(base + k) & ~pad, wantClr = wantSet | pad;
      if (h > 0) {
        wantSet = 0;
        wantClr = pad;
        for (U32 i = 0; i < bits; ++i) {
          U32 const child = b.arrayBaseOffsetForHeight(h - 1) + 64 * k + i;
          wantSet |= U64(b.setBm(child) != 0) << i;
          wantClr |= U64(b.clearBm(child) == ~0ull) << i;
        }
      } else {
        count += static_cast<U32>(std::popcount(wantSet));
      }
      if (b.setBm(base + k) != wantSet || b.clearBm(base + k) != wantClr)
        return testing::AssertionFailure() << "level " << h << " word " << k << ": set " << std::hex
                                           << b.setBm(base + k) << " want " << wantSet << ", clear "
                                           << b.clearBm(base + k) << " want " << wantClr;
    }
  }
  if (count != b.numBitsInSetState())
    return testing::AssertionFailure() << "numBitsInSetState " << b.numBitsInSetState() << " counted " << count;
  return testing::AssertionSuccess();
}

// Reference: the lowest or highest index in lo .. hi (clipped to the size) in `state`.
U32 modelFind(std::vector<bool> const& m, U32 lo, U64 hi, State state, Pref pref) {
  hi = std::min<U64>(hi, m.size());
  bool const want = state == HBitmap::Set;
  if (pref == HBitmap::preferLo) {
    for (U64 i = lo; i < hi; ++i)
      if (m[i] == want) return static_cast<U32>(i);
  } else {
    for (U64 i = hi; i-- > lo;)
      if (m[i] == want) return static_cast<U32>(i);
  }
  return none;
}

struct Fuzzer {
  std::mt19937_64 rng;
  U32 below(U64 n) { return static_cast<U32>(rng() % n); }
  // Ranges: a third tiny, a third up to a few words, a third anywhere.
  std::pair<U32, U32> range(U32 size) {
    U32 const start = below(size);
    U32 const span = std::array<U32, 3>{4, 300, size}[below(3)];
    return {start, static_cast<U32>(std::min<U64>(size - 1, U64(start) + below(span)))};
  }
  State state() { return below(2) ? HBitmap::Set : HBitmap::Clear; }
  Pref pref() { return below(2) ? HBitmap::preferLo : HBitmap::preferHi; }
  // Random single-bit and range changes to a bitmap and its model, through every entry point.
  void scramble(HBitmap& b, std::vector<bool>& m, int steps) {
    for (int i = 0; i < steps && !m.empty(); ++i) {
      State const s = state();
      bool const set = s == HBitmap::Set;
      if (below(2)) {
        auto [lo, hi] = range(b.size());
        below(2) ? b.updateBitsInRange(lo, hi, s) : set ? b.setBitsInRange(lo, hi) : b.clearBitsInRange(lo, hi);
        std::fill(m.begin() + lo, m.begin() + hi + 1, set);
      } else {
        U32 const bit = below(m.size());
        below(2) ? b.updateBit(bit, s) : set ? b.setBit(bit) : b.clearBit(bit);
        m[bit] = set;
      }
    }
  }
};

void runDifferential(U32 size, U64 seed, int steps) {
  SCOPED_TRACE(testing::Message() << "size " << size << " seed " << seed);
  Fuzzer f{std::mt19937_64(seed)};
  State const init = f.state();
  auto b = Vell::hBitmapFactory(seed, size, init);
  std::vector<bool> m(size, init == HBitmap::Set);
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    U32 const op = f.below(10);
    if (op < 7) {
      f.scramble(*b, m, 1);
    } else if (op < 9) {  // combine with an equal or larger bitmap whose extra bits are random
      U32 const otherSize = size + (f.below(2) ? 0 : f.below(200));
      State const otherInit = f.state();
      auto other = Vell::hBitmapFactory(seed + 1, otherSize, otherInit);
      std::vector<bool> om(otherSize, otherInit == HBitmap::Set);
      f.scramble(*other, om, 8);
      bool const isAnd = op == 7;
      isAnd ? b->doAnd(other) : b->doOr(other);
      for (U32 i = 0; i < size; ++i) m[i] = isAnd ? m[i] && om[i] : m[i] || om[i];
    } else {
      b->doLogicalOp(b, HBitmap::LogicalOp(2));  // unknown: nothing changes
    }
    ASSERT_TRUE(invariantHolds(*b));
    for (U32 w = 0; w < (size + 63) / 64; ++w) {
      U64 want = 0;
      for (U32 i = 64 * w; i < std::min(size, 64 * w + 64); ++i) want |= U64(m[i]) << (i % 64);
      ASSERT_EQ(b->setBm(w), want) << "leaf word " << w;
    }
    for (State s : {HBitmap::Set, HBitmap::Clear})
      for (Pref p : {HBitmap::preferLo, HBitmap::preferHi})
        ASSERT_EQ(b->findBitInState(p, s), modelFind(m, 0, size, s, p)) << s << " " << p;
    U32 const lo = f.below(U64(size) + 1), hi = lo + f.below(U64(size) - lo + 1);  // hi may be size
    State const s = f.state();
    Pref const p = f.pref();
    ASSERT_EQ(b->findBitInRange(lo, hi, s, p), modelFind(m, lo, U64(hi) + 1, s, p)) << lo << ".." << hi;
    U32 const probe = f.below(U64(size) + 130);
    ASSERT_EQ(b->isBitSet(probe), probe < size && m[probe]) << probe;
  }
}

TEST(HBitmap, RandomOperationsAgreeWithVectorBool) {
  std::vector<U32> sizes = {0, 1, 63, 64, 65, 4095, 4096, 4097, 262145};
  std::mt19937_64 pick(7);
  for (int i = 0; i < 6; ++i) sizes.push_back(static_cast<U32>(pick() % 5000));
  for (std::size_t i = 0; i < sizes.size(); ++i) runDifferential(sizes[i], 1000 + i, sizes[i] > 100000 ? 150 : 600);
}

TEST(HBitmap, LevelLayout) {
  struct Case {
    U32 size;
    std::vector<U32> bits, offsets;
  };
  for (Case const& c : std::vector<Case>{{0, {0}, {0}},
                                         {1, {1}, {0}},
                                         {64, {64}, {0}},
                                         {65, {65, 2}, {0, 2}},
                                         {4096, {4096, 64}, {0, 64}},
                                         {4097, {4097, 65, 2}, {0, 65, 67}},
                                         {10000, {10000, 157, 3}, {0, 157, 160}},
                                         {262145, {262145, 4097, 65, 2}, {0, 4097, 4162, 4164}}}) {
    SCOPED_TRACE(c.size);
    for (State init : {HBitmap::Set, HBitmap::Clear}) {
      auto b = Vell::hBitmapFactory(3, c.size, init);
      ASSERT_EQ(b->height(), c.bits.size());
      for (U32 h = 0; h < b->height(); ++h) {
        EXPECT_EQ(b->numBitsAtHeight(h), c.bits[h]);
        EXPECT_EQ(b->arrayBaseOffsetForHeight(h), c.offsets[h]);
      }
      EXPECT_TRUE(b->initialized());
      EXPECT_EQ(b->numBitsInSetState(), init == HBitmap::Set ? c.size : 0);
      EXPECT_TRUE(invariantHolds(*b));
    }
  }
}

TEST(HBitmap, TextFormsAndBadArguments) {
  EXPECT_EQ(Vell::valueToStrep(HBitmap::Set), "Set");
  EXPECT_EQ(Vell::valueToStrep(HBitmap::preferHi), "preferHi");
  EXPECT_EQ(Vell::valueToStrep(HBitmap::Or), "Or");
  EXPECT_EQ(Vell::valueToStrep(State(7)), "HBitmap::BitState(7)");
  EXPECT_EQ(Vell::valueToStrep(Pref(2)), "HBitmap::IndexPreference(2)");
  EXPECT_EQ(Vell::valueToStrep(HBitmap::LogicalOp(3)), "HBitmap::LogicalOp(3)");
  EXPECT_EQ(Quor::strepToValue<State>("Clear"), HBitmap::Clear);
  EXPECT_EQ(Quor::strepToValue<HBitmap::LogicalOp>("And"), HBitmap::And);

  auto expectThrow = [](auto&& f, char const* text) {
    try {
      f();
      ADD_FAILURE() << "no exception, wanted " << text;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), text);
    }
  };
  expectThrow([] { Vell::hBitmapFactory(1, 8, State(2)); }, "HBitmap::initialBitState < 0 or > 1 not allowed");
  auto b = Vell::hBitmapFactory(1, 100, HBitmap::Clear);
  expectThrow([&] { b->updateBit(3, State(2)); }, "HBitmap::state < 0 or > 1 not allowed");
  expectThrow([&] { b->updateBitsInRange(3, 9, State(2)); }, "HBitmap::state < 0 or > 1 not allowed");
  expectThrow([&] { b->findBitInState(Pref(2), HBitmap::Set); }, "HBitmap::indexPref < 0 or > 1 not allowed");
  expectThrow([&] { b->doAnd(nullptr); }, "null _hbmp parameter to mutator for Vell::HBitmap::hbmp not allowed\"");
  EXPECT_EQ(b->numBitsInSetState(), 0u);
  EXPECT_TRUE(invariantHolds(*b));
}

TEST(HBitmap, TracesNameTheOperationAndItsDetails) {
  std::vector<Quor::TraceRecord> lines;
  Quor::traceSinkIs([&](Quor::TraceRecord const& r) { lines.push_back(r); });
  Quor::traceLevelIs("HBitmap", 9);
  auto b = Vell::hBitmapFactory(5, 100, HBitmap::Clear);
  b->setBitsInRange(64, 99);
  b->findSetBitInRange(3, 7, HBitmap::preferLo);
  b->doLogicalOp(b, HBitmap::LogicalOp(9));
  Quor::traceLevelIs("HBitmap", -1);
  b->setBit(1);  // off: nothing more
  Quor::traceSinkIs({});
  std::vector<std::string> texts;
  for (auto const& r : lines) {
    EXPECT_EQ(r.channel, "HBitmap");
    EXPECT_EQ(r.stem, "HBitmap");
    texts.push_back(r.text);
  }
  for (char const* t : {"Initialized HBitmap 5 sz 100 height 2", "HBitmap::updateBitsInRange", "startWord = 1, endWord = 1",
                        "HBitmap::findBitInRange", "Initialized HBitmap 6 sz 100 height 2", "start = 3, end = 7, state = Set",
                        "HBitmap::doLogicalOp", "Unknown logical op: HBitmap::LogicalOp(9)"})
    EXPECT_NE(std::find(texts.begin(), texts.end(), t), texts.end()) << t;
  EXPECT_EQ(std::find(texts.begin(), texts.end(), "HBitmap::updateBit"), texts.end());
}

std::string literally(std::string const& text) {
  std::string re;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) re += '\\';
    re += c;
  }
  return re;
}

TEST(HBitmapDeathTest, PreconditionsAbortWithTheConditionAndValues) {
  auto b = Vell::hBitmapFactory(1, 100, HBitmap::Clear);
  auto smaller = Vell::hBitmapFactory(2, 99, HBitmap::Clear);
  EXPECT_DEATH(b->setBit(100), literally("Failed(bit < size()) bit = 100, size() = 100 [HBitmap:") +
                                   ".*" + literally("] in void Vell::HBitmap::updateBit("));
  EXPECT_DEATH(b->clearBitsInRange(5, 4), literally("Failed(start <= end) start = 5, end = 4 [HBitmap:"));
  EXPECT_DEATH(b->setBitsInRange(0, 100), literally("Failed(end < size()) end = 100, size() = 100 [HBitmap:"));
  EXPECT_DEATH(b->findSetBitInRange(5, 4, HBitmap::preferLo), literally("Failed(start <= end) start = 5, end = 4"));
  EXPECT_DEATH(b->findClearBitInRange(0, 101, HBitmap::preferHi), literally("Failed(end <= size()) end = 101, size() = 100"));
  EXPECT_DEATH(b->doAnd(smaller), literally("Failed(size() <= hbmp->size()) size() = 100, hbmp->size() = 99"));
  EXPECT_DEATH(HBitmap::highestSetBitOf(0), literally("Failed(j < 64) j = 4294967295, 64 = 64 [HBitmap:"));
  EXPECT_DEATH(HBitmap::lowestSetBitOf(0), literally("Assertion failed: j [HBitmap:"));
  EXPECT_DEATH(Vell::hBitmapFactory(1, 0xFFFFFFC1, HBitmap::Clear), literally("Assertion failed: i [HBitmap:"));
  b->setBmIs(b->arrayBaseOffsetForHeight(1), 1);  // a summary that points at an empty word
  EXPECT_DEATH(b->findBitInSetState(HBitmap::preferLo), literally("Assertion failed: val [HBitmap:"));
}

}  // namespace
