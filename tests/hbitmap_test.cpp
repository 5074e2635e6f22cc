// HBitmap: a randomized differential test against std::vector<bool> with a word-by-word
// invariant walker, aimed at stale remembered answers and at both range searches; the level layout; text forms, bad
// arguments, traces, assertion texts.

#include "TestSupport.h"

#include <Vell/HBitmap.h>
#include <Vell/ValueTypes.h>

#include <array>

using Vell::HBitmap;
using Vell::U32;
using Vell::U64;

namespace {

using VellTest::literally;
using VellTest::rangeText;

using State = HBitmap::BitState;
using Pref = HBitmap::IndexPreference;

// The layout rule (each level one bit per word of the level below, packed after it, the
// top a single word) and the summary invariant word by word, with its padding.
testing::AssertionResult invariantHolds(HBitmap const& b) {
  U32 n = b.size(), base = 0, below = 0;
  for (U32 h = 0; h < b.height(); ++h) {
    U32 const words = std::max(1u, (n + 63) / 64);
    if (b.numBitsAtHeight(h) != n || b.arrayBaseOffsetForHeight(h) != base || (h + 1 == b.height()) != (n <= 64))
      return testing::AssertionFailure() << "bad layout at level " << h;
    for (U32 k = 0; k < words; ++k) {
      U32 const bits = n > 64 * k ? std::min(64u, n - 64 * k) : 0;
      U64 const pad = bits == 64 ? 0 : ~0ull << bits;
      U64 wantSet = h ? 0 : b.setBm(base + k) & ~pad, wantClr = h ? pad : wantSet | pad;
      for (U32 i = 0; h && i < bits; ++i) {
        wantSet |= U64(b.setBm(below + 64 * k + i) != 0) << i;
        wantClr |= U64(b.clearBm(below + 64 * k + i) == ~0ull) << i;
      }
      if (b.setBm(base + k) != wantSet || b.clearBm(base + k) != wantClr)
        return testing::AssertionFailure() << "level " << h << " word " << k << std::hex << ": want set " << wantSet
                                           << ", clear " << wantClr;
    }
    below = base, base += words, n = words;
  }
  return testing::AssertionSuccess();
}

// Reference: the lowest or highest index in lo .. hi-1 (clipped to the size) in `state`.
U32 modelFind(std::vector<bool> const& m, U64 lo, U64 hi, State state, Pref pref) {
  hi = std::min<U64>(hi, m.size());
  for (U64 k = 0; lo + k < hi; ++k)
    if (U64 const i = pref == HBitmap::preferLo ? lo + k : hi - 1 - k; m[i] == (state == HBitmap::Set)) return U32(i);
  return HBitmap::notFound;
}

// Puts bits lo .. hi of the bitmap and its model in one state, through a random entry point.
void change(std::mt19937_64& rng, HBitmap& b, std::vector<bool>& m, U32 lo, U32 hi, bool set) {
  State const s = set ? HBitmap::Set : HBitmap::Clear;
  bool const generic = rng() & 1;
  if (lo == hi && rng() & 1)
    generic ? b.updateBit(lo, s) : set ? b.setBit(lo) : b.clearBit(lo);
  else
    generic ? b.updateBitsInRange(lo, hi, s) : set ? b.setBitsInRange(lo, hi) : b.clearBitsInRange(lo, hi);
  std::fill(m.begin() + lo, m.begin() + hi + 1, set);
}

// Random single bits (half the time) and ranges: a third tiny, a third up to a few words,
// a third anywhere.
void scramble(std::mt19937_64& rng, HBitmap& b, std::vector<bool>& m, int steps) {
  auto below = [&](U64 n) { return static_cast<U32>(rng() % n); };
  for (int i = 0; i < steps && !m.empty(); ++i) {
    U32 const lo = below(m.size());
    U32 const hi = below(2) ? lo : U32(std::min<U64>(m.size() - 1, lo + below(std::array<U64, 3>{4, 300, m.size()}[below(3)])));
    change(rng, b, m, lo, hi, below(2));
  }
}

// Searches are remembered between steps, so the mix aims at what invalidates them: the
// bit a search just returned leaves its state (alone or in a small range), a state in
// which nothing was found gains a bit, the whole bitmap is filled, bitmaps are combined.
void runDifferential(U32 size, U64 seed, int steps) {
  SCOPED_TRACE(testing::Message() << "size " << size << " seed " << seed);
  std::mt19937_64 rng(seed);
  auto below = [&](U64 n) { return static_cast<U32>(rng() % n); };
  auto state = [&] { return below(2) ? HBitmap::Set : HBitmap::Clear; };
  State const init = state();
  auto b = Vell::hBitmapFactory(seed, size, init);
  std::vector<bool> m(size, init == HBitmap::Set);
  std::array<U32, 4> found{};  // the last answers: lowest set, highest set, lowest clear, highest clear
  for (int step = 0; step <= steps; ++step) {  // step 0 checks the new bitmap
    SCOPED_TRACE(testing::Message() << "step " << step);
    U32 const op = step ? below(20) : 20;
    if (op < 10) {
      scramble(rng, *b, m, 1 + below(3));
    } else if (op < 14 && size) {  // a found bit leaves search k's state, or a random one joins it
      U32 const k = below(4), r = below(2) ? 0 : below(3), a = found[k] != HBitmap::notFound ? found[k] : below(size);
      change(rng, *b, m, a - std::min(a, r), std::min(size - 1, a + r), (k < 2) == (found[k] == HBitmap::notFound));
    } else if (op < 15 && size) {
      change(rng, *b, m, 0, size - 1, below(2));
    } else if (op < 19) {  // combine with an equal or larger bitmap whose extra bits are random
      U32 const otherSize = size + (below(2) ? 0 : below(200));
      State const otherInit = state();
      auto other = Vell::hBitmapFactory(seed + 1, otherSize, otherInit);
      std::vector<bool> om(otherSize, otherInit == HBitmap::Set);
      scramble(rng, *other, om, 8);
      bool const isAnd = below(2);
      isAnd ? b->doAnd(other) : b->doOr(other);
      for (U32 i = 0; i < size; ++i) m[i] = isAnd ? m[i] && om[i] : m[i] || om[i];
    } else if (op == 19) {
      b->doLogicalOp(b, HBitmap::LogicalOp(2));  // unknown: nothing changes
    }
    ASSERT_TRUE(invariantHolds(*b));
    std::vector<U64> leaves((size + 63) / 64);
    for (U32 i = 0; i < size; ++i) leaves[i / 64] |= U64(m[i]) << (i % 64);
    for (U32 w = 0; w < leaves.size(); ++w) ASSERT_EQ(b->setBm(w), leaves[w]) << "leaf word " << w;
    for (U32 probe : {size, below(U64(size) + 130)})  // bits beyond the size read as clear
      ASSERT_EQ(b->isBitSet(probe), probe < size && m[probe]) << probe;
    ASSERT_EQ(b->numBitsInSetState(), U32(std::count(m.begin(), m.end(), true)));
    for (U32 k = 0; k < 4; ++k) found[k] = modelFind(m, 0, size, k < 2 ? HBitmap::Set : HBitmap::Clear, Pref(k % 2));
    // Some of the four are asked, so that updates meet every mix of remembered and
    // forgotten answers; the second round answers from what the first remembered.
    U32 const asked = step ? below(16) : 15;
    for (int round = 0; round < 2; ++round)
      for (U32 k = 0; k < 4; ++k)
        if (asked >> k & 1) {
          ASSERT_EQ(b->findBitInState(Pref(k % 2), k < 2 ? HBitmap::Set : HBitmap::Clear), found[k]) << "search " << k;
        }
    // Ranges: the written search on one (it costs the size), the walking one on several,
    // among them ranges around the answers just found.
    for (int r = 0; r < 6; ++r) {
      U32 lo = below(U64(size) + 1), hi = lo + below(U64(size) - lo + 1);  // hi may be size
      if (r >= 4 && size && found[r - 4] != HBitmap::notFound) lo = found[r - 4] - std::min(found[r - 4], below(3)), hi = std::min(size, found[r - 4] + below(3));
      for (State s : {HBitmap::Set, HBitmap::Clear})
        for (Pref p : {HBitmap::preferLo, HBitmap::preferHi}) {
          U32 const want = modelFind(m, lo, U64(hi) + 1, s, p);
          ASSERT_EQ(b->seekBitInRange(lo, hi, s, p), want) << s << " " << p << " " << lo << ".." << hi;
          if (r == 0) {
            ASSERT_EQ(b->findBitInRange(lo, hi, s, p), want) << s << " " << p << " " << lo << ".." << hi;
          }
        }
    }
  }
}

TEST(HBitmap, RandomOperationsAgreeWithVectorBool) {
  // Sizes at level boundaries, where the walker's layout rule changes the height.
  std::vector<U32> sizes = {0, 1, 63, 64, 65, 4095, 4096, 4097, 262145};
  std::mt19937_64 pick(7);
  for (int i = 0; i < 6; ++i) sizes.push_back(static_cast<U32>(pick() % 5000));
  for (std::size_t i = 0; i < sizes.size(); ++i) runDifferential(sizes[i], 1000 + i, sizes[i] > 100000 ? 150 : 600);
}

TEST(HBitmap, TextFormsAndBadArguments) {
  EXPECT_EQ((std::vector<std::string>{Vell::valueToStrep(HBitmap::Set).str(), Vell::valueToStrep(State(7)).str(),
                                      Vell::valueToStrep(Pref(2)).str(), Vell::valueToStrep(HBitmap::LogicalOp(3)).str()}),
            (std::vector<std::string>{"Set", "HBitmap::BitState(7)", "HBitmap::IndexPreference(2)", "HBitmap::LogicalOp(3)"}));
  auto b = Vell::hBitmapFactory(1, 100, HBitmap::Clear);
  EXPECT_EQ(rangeText([] { Vell::hBitmapFactory(1, 8, State(2)); }), "HBitmap::initialBitState < 0 or > 1 not allowed");
  EXPECT_EQ(rangeText([&] { b->updateBitsInRange(3, 9, State(2)); }), "HBitmap::state < 0 or > 1 not allowed");
  EXPECT_EQ(rangeText([&] { b->findBitInState(Pref(2), HBitmap::Set); }), "HBitmap::indexPref < 0 or > 1 not allowed");
  EXPECT_EQ(rangeText([&] { b->doAnd(nullptr); }), "null _hbmp parameter to mutator for Vell::HBitmap::hbmp not allowed\"");
}

TEST(HBitmap, TracesNameTheOperationAndItsDetails) {
  VellTest::TraceCapture traces("HBitmap");  // the channel is right when enabling it by name yields any
  auto b = Vell::hBitmapFactory(5, 100, HBitmap::Clear);
  b->findSetBitInRange(3, 7, HBitmap::preferLo);
  b->doLogicalOp(b, HBitmap::LogicalOp(9));
  EXPECT_EQ(traces.texts(), (std::vector<std::string>{
                       "Initialized HBitmap 5 sz 100 height 2", "HBitmap::findBitInRange",
                       "Initialized HBitmap 6 sz 100 height 2", "start = 3, end = 7, state = Set",
                       "HBitmap::updateBitsInRange", "startWord = 0, endWord = 0", "HBitmap::updateBitsInRange",
                       "startWord = 0, endWord = 1", "HBitmap::doLogicalOp", "Unknown logical op: HBitmap::LogicalOp(9)"}));
}

TEST(HBitmapDeathTest, PreconditionsAbortWithTheConditionAndValues) {
  auto b = Vell::hBitmapFactory(1, 100, HBitmap::Clear);
  auto smaller = Vell::hBitmapFactory(2, 99, HBitmap::Clear);
  EXPECT_DEATH(b->setBit(100), literally("Failed(bit < size()) bit = 100, size() = 100") + " \\[[A-Za-z_]+:" +
                                   ".*" + literally("] in void Vell::HBitmap::updateBit("));
  EXPECT_DEATH(b->clearBitsInRange(5, 4), literally("Failed(start <= end) start = 5, end = 4") + " \\[[A-Za-z_]+:");
  EXPECT_DEATH(b->setBitsInRange(0, 100), literally("Failed(end < size()) end = 100, size() = 100") + " \\[[A-Za-z_]+:");
  EXPECT_DEATH(b->findSetBitInRange(5, 4, HBitmap::preferLo), literally("Failed(start <= end) start = 5, end = 4"));
  EXPECT_DEATH(b->findClearBitInRange(0, 101, HBitmap::preferHi), literally("Failed(end <= size()) end = 101, size() = 100"));
  EXPECT_DEATH(b->doAnd(smaller), literally("Failed(size() <= hbmp->size()) size() = 100, hbmp->size() = 99"));
  EXPECT_DEATH(HBitmap::highestSetBitOf(0), literally("Failed(j < 64) j = 4294967295, 64 = 64") + " \\[[A-Za-z_]+:");
  EXPECT_DEATH(HBitmap::lowestSetBitOf(0), literally("Assertion failed: j") + " \\[[A-Za-z_]+:");
  EXPECT_DEATH(Vell::hBitmapFactory(1, 0xFFFFFFC1, HBitmap::Clear), literally("Assertion failed: i") + " \\[[A-Za-z_]+:");
  // Raw writes forget the remembered answers, so each search below descends and meets them.
  ASSERT_EQ(b->findBitInClearState(HBitmap::preferLo), 0u);
  b->clearBmIs(0, ~0ull);  // a full leaf word under a summary that says it has a clear bit
  EXPECT_DEATH(b->findBitInClearState(HBitmap::preferLo), literally("Assertion failed: val") + " \\[[A-Za-z_]+:");
  ASSERT_EQ(b->findBitInSetState(HBitmap::preferLo), HBitmap::notFound);
  b->setBmIs(b->arrayBaseOffsetForHeight(1), 1);  // a summary that points at an empty word
  EXPECT_DEATH(b->findBitInSetState(HBitmap::preferLo), literally("Assertion failed: val") + " \\[[A-Za-z_]+:");
}

}  // namespace
