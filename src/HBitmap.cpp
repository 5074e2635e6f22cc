#include <Vell/HBitmap.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Vell {

namespace {

// Rounds up to a multiple of 64; a zero result from a non-zero input is overflow past 2^32.
U32 roundup64(U32 x) {
  U32 const i = (x + 63u) & ~63u;
  QUOR_ASSERT_TEXT(i != 0 || x == 0, "i");
  return i;
}

Quor::TraceHandle traceHandle("HBitmap");

constexpr U64 allOnes = ~U64(0);

/// Writes "Failed(<condition>) <lhs> = <value>, <rhs> = <value> [<stem>:<line>] in
/// <function>" to standard error and aborts: a violated precondition is a caller's bug,
/// and the values say which one.
[[noreturn]] void failed(char const* condition, char const* lhsText, U64 lhs, char const* rhsText, U64 rhs,
                         char const* file, int line, char const* function) {
  std::fprintf(stderr, "Failed(%s) %s = %llu, %s = %llu [%s:%d] in %s\n", condition, lhsText,
               static_cast<unsigned long long>(lhs), rhsText, static_cast<unsigned long long>(rhs),
               Quor::sourceStem(file).c_str(), line, function);
  std::fflush(stderr);
  std::abort();
}

#define HBITMAP_CHECK_IN(function, a, op, b)                                                          \
  ((a)op(b) ? (void)0                                                                                 \
            : failed(#a " " #op " " #b, #a, static_cast<U64>(a), #b, static_cast<U64>(b), __FILE__, \
                     __LINE__, function))
#define HBITMAP_CHECK(a, op, b) HBITMAP_CHECK_IN(__PRETTY_FUNCTION__, a, op, b)

// Enumerations hold any 32-bit number; an operation refuses one that is no enumerator.
// The message is built out of line so the check stays one compare on the search path.
[[gnu::cold, gnu::noinline]] void refuseEnum(U32 value, char const* attr) {
  QUOR_CHECK_RANGE("HBitmap", attr, value, 0, 1);
}

template <class E>
inline E checkedEnum(E e, char const* attr) {
  if (static_cast<U32>(e) > 1) [[unlikely]] refuseEnum(static_cast<U32>(e), attr);
  return e;
}

HBitmap::BitState opposite(HBitmap::BitState s) { return s == HBitmap::Set ? HBitmap::Clear : HBitmap::Set; }

}  // namespace

HBitmap::HBitmap(U64 quorIndex, U32 size, BitState initialBitState)
    : Quor::Entity(Quor::Name(std::to_string(quorIndex))),
      quorIndex_(quorIndex),
      size_(size),
      initialBitState_(checkedEnum(initialBitState, "initialBitState")),
      trace_(&traceHandle) {
  handleInitialized();
}

void HBitmap::handleInitialized() {
  Quor::Entity::handleInitialized();
  buildLayout();
  fillLevels();
  if (initialBitState_ == Set) numBitsInSetState_ = size_;
  // A uniform bitmap's answers need no search: its first and last bit, or none at all.
  U32 const first = size_ ? 0 : notFound, last = size_ - 1;  // size 0: last wraps to notFound
  answers_[U32(initialBitState_)] = {first, last};
  answers_[U32(opposite(initialBitState_))] = {notFound, notFound};
  known_ = 0xF;
  QUOR_TRACE(traceHandle, 7, "Initialized HBitmap " << quorIndex_ << " sz " << size_ << " height " << height_);
}

// Each level has one bit per word of the level below; the level whose words fit in one
// word is the top.
void HBitmap::buildLayout() {
  U32 h = 0, bits = size_, offset = 0, r;
  do {
    numBitsAtHeight_.elementIs(h, bits);
    arrayBaseOffsetForHeight_.elementIs(h, offset);
    ++h;
    r = roundup64(bits);
    bits = r / 64;
    offset += bits;
  } while (r > 64);
  height_ = h;
  U32 const words = arrayBaseOffsetForHeight_[height_ - 1] + 1;
  setBm_.sizeIs(words);
  clearBm_.sizeIs(words);
  // All padding to start with: a level of no bits (size 0) is never written again.
  std::fill(clearBm_.data(), clearBm_.data() + words, allOnes);
}

// Every meaningful bit of every level takes the initial state (a uniform leaf level gives
// uniform summaries); padding is 0 in setBm and 1 in clearBm.
void HBitmap::fillLevels() {
  U64 const fill = initialBitState_ == Set ? allOnes : 0;
  U64* const set = setBm_.data();
  U64* const clr = clearBm_.data();
  for (U32 h = 0; h < height_; ++h) {
    U32 w = arrayBaseOffsetForHeight_[h];
    U32 n = numBitsAtHeight_[h];
    for (; n > 63; n -= 64, ++w) set[w] = clr[w] = fill;
    if (U32 const r = n % 64) {
      set[w] = fill >> (64 - r);
      clr[w] = fill | (allOnes << r);
    }
  }
}

namespace {
// Sets or clears the bits of `mask` in leaf word w of both trees (they agree at the
// leaves) and keeps the set-bit count exact.
inline void writeLeaf(U64* set, U64* clr, U32& numSet, U32 w, U64 mask, bool toSet) {
  U32 const wasSet = static_cast<U32>(std::popcount(set[w] & mask));
  if (toSet) {
    numSet += static_cast<U32>(std::popcount(mask)) - wasSet;
    set[w] |= mask;
    clr[w] |= mask;
  } else {
    numSet -= wasSet;
    set[w] &= ~mask;
    clr[w] &= ~mask;
  }
}
}  // namespace

// The checks of the inline calls name the call the caller made.
void HBitmap::checkUpdateBit(U32 bit, BitState state) const {
  QUOR_TRACE(traceHandle, 1, "HBitmap::updateBit");
  HBITMAP_CHECK_IN("void Vell::HBitmap::updateBit(U32, BitState)", bit, <, size());
  checkedEnum(state, "state");
}

bool HBitmap::isBitSet(U32 bit) const {
  QUOR_TRACE(traceHandle, 1, "HBitmap::isBitSet");
  // Bits at or beyond size() read as clear, rather than as summary words of a higher level.
  return bit < size_ && (setBm_[arrayBaseOffsetForHeight_[0] + bit / 64] >> (bit % 64) & 1);
}

void HBitmap::updateBitsInRange(U32 start, U32 end, BitState state) {
  QUOR_TRACE(traceHandle, 1, "HBitmap::updateBitsInRange");
  HBITMAP_CHECK(start, <=, end);
  HBITMAP_CHECK(end, <, size());
  checkedEnum(state, "state");
  U32 const startWord = arrayBaseOffsetForHeight_[0] + start / 64;
  U32 const endWord = arrayBaseOffsetForHeight_[0] + end / 64;
  QUOR_TRACE(traceHandle, 7, "startWord = " << startWord << ", endWord = " << endWord);
  U64* const set = setBm_.data();
  U64* const clr = clearBm_.data();
  for (U32 w = startWord; w <= endWord; ++w) {
    U64 mask = allOnes;
    if (w == startWord) mask &= allOnes << (start % 64);
    if (w == endWord) mask &= allOnes >> (63 - end % 64);
    writeLeaf(set, clr, numBitsInSetState_, w, mask, state == Set);
  }
  noteRange(start, end, state);
  // Only the summaries above the changed words can differ, so only they are recomputed:
  // the same result as rebuilding whole levels, at a cost in the range, not the size.
  rebuildSummaries(startWord - arrayBaseOffsetForHeight_[0], endWord - arrayBaseOffsetForHeight_[0]);
}

// Recomputes, level by level, the summary bits of leaf words lo .. hi and of their
// ancestors. Only those bits can have changed; the others and the padding keep their values.
void HBitmap::rebuildSummaries(U32 lo, U32 hi) {
  U64* const set = setBm_.data();
  U64* const clr = clearBm_.data();
  for (U32 h = 1; h < height_; ++h) {
    U64 const* const childSet = set + arrayBaseOffsetForHeight_[h - 1];
    U64 const* const childClr = clr + arrayBaseOffsetForHeight_[h - 1];
    for (U32 k = lo / 64; k <= hi / 64; ++k) {
      U32 const last = std::min(hi, 64 * k + 63);
      U64 mask = 0, s = 0, c = 0;
      for (U32 i = std::max(lo, 64 * k); i <= last; ++i) {
        U64 const bit = U64(1) << (i % 64);
        mask |= bit;
        s |= childSet[i] != 0 ? bit : 0;
        c |= childClr[i] == allOnes ? bit : 0;
      }
      U32 const w = arrayBaseOffsetForHeight_[h] + k;
      set[w] = (set[w] & ~mask) | s;
      clr[w] = (clr[w] & ~mask) | c;
    }
    lo /= 64;
    hi /= 64;
  }
}

U32 HBitmap::lowestSetBitOf(U64 word) {
  int const j = __builtin_ffsll(static_cast<long long>(word));  // 1-based; 0 for no bit
  QUOR_ASSERT(j);
  return static_cast<U32>(j - 1);
}

U32 HBitmap::highestSetBitOf(U64 word) {
  U32 const j = static_cast<U32>(std::bit_width(word)) - 1;  // wraps for no bit
  HBITMAP_CHECK(j, <, 64);
  return j;
}

// The long way of findBitInState: traces, enumeration checks, and a forgotten answer.
U32 HBitmap::searchAndRemember(IndexPreference indexPref, BitState state) const {
  QUOR_TRACE(traceHandle, 1, "HBitmap::findBitInState");
  checkedEnum(indexPref, "indexPref");
  checkedEnum(state, "state");
  Answers& a = answers_[U32(state)];
  U32& answer = indexPref == preferLo ? a.lo : a.hi;
  U32 const bit = U32(1) << knownBit(indexPref, state);
  if (!(known_ & bit)) {
    answer = search(indexPref, state);
    known_ |= bit;
  }
  return answer;
}

// From the top word down, one word per level: each probe bit says "a bit in the wanted
// state lies below", so the walk never backtracks.
U32 HBitmap::search(IndexPreference indexPref, BitState state) const {
  auto probe = [&](U32 h, U32 index) {
    U32 const w = arrayBaseOffsetForHeight_[h] + index;
    return state == Set ? setBm_[w] : ~clearBm_[w];
  };
  U32 h = height_ - 1, index = 0;
  if (probe(h, 0) == 0) return notFound;
  for (;;) {
    U64 const val = probe(h, index);
    QUOR_ASSERT(val);
    index = index * 64 + (indexPref == preferLo ? lowestSetBitOf(val) : highestSetBitOf(val));
    if (h == 0) return index;
    --h;
  }
}

namespace {
// Level h's word w as "a bit in the wanted state lies below each set bit": the set tree as
// it is, the clear tree inverted (its padding, all ones, then reads as nothing). Raw reads:
// the walks stay within the levels, and the arrays' checked reads would double a search.
struct Probe {
  U32 const* base;
  U64 const* words;
  U64 flip;
  U64 operator()(U32 h, U32 w) const { return words[base[h] + w] ^ flip; }
};
}  // namespace

// Climbs from `start`: at each level, the rest of the current word; when it is empty, the
// next word's bit one level up. The first bit found leads down, lowest child first, to
// the lowest wanted bit at or after start; past `end`, or past the top, there is none.
U32 HBitmap::seekLo(U32 start, U32 end, BitState state) const {
  Probe const probe{arrayBaseOffsetForHeight_.data(), state == Set ? setBm_.data() : clearBm_.data(),
                    state == Set ? 0 : allOnes};
  U32 p = start;
  for (U32 h = 0; h < height_; ++h) {
    if (U64 const word = probe(h, p / 64) & (allOnes << (p % 64))) {
      p = (p & ~63u) + static_cast<U32>(std::countr_zero(word));
      for (; h > 0; --h) p = p * 64 + static_cast<U32>(std::countr_zero(probe(h - 1, p)));
      return p <= end ? p : notFound;
    }
    p = p / 64 + 1;  // the next word of level h, as a bit of level h + 1
    if ((U64(p) << (6 * (h + 1))) > end) return notFound;  // always so past the top level
  }
  return notFound;
}

// The mirror image: from `end` down to the highest wanted bit at or before it.
U32 HBitmap::seekHi(U32 start, U32 end, BitState state) const {
  Probe const probe{arrayBaseOffsetForHeight_.data(), state == Set ? setBm_.data() : clearBm_.data(),
                    state == Set ? 0 : allOnes};
  U32 p = end;
  for (U32 h = 0; h < height_; ++h) {
    if (U64 const word = probe(h, p / 64) & (allOnes >> (63 - p % 64))) {
      p = (p & ~63u) + 63 - static_cast<U32>(std::countl_zero(word));
      for (; h > 0; --h) p = p * 64 + 63 - static_cast<U32>(std::countl_zero(probe(h - 1, p)));
      return p >= start ? p : notFound;
    }
    if (p < 64) return notFound;
    p = p / 64 - 1;  // the previous word of level h, as a bit of level h + 1
    if (((U64(p) + 1) << (6 * (h + 1))) <= start) return notFound;
  }
  return notFound;
}

void HBitmap::checkSeekBitInRange(U32 start, U32 end, BitState state, IndexPreference indexPref) const {
  QUOR_TRACE(traceHandle, 1, "HBitmap::seekBitInRange");
  char const* const function = "U32 Vell::HBitmap::seekBitInRange(U32, U32, BitState, IndexPreference) const";
  HBITMAP_CHECK_IN(function, start, <=, end);
  HBITMAP_CHECK_IN(function, end, <=, size());
  checkedEnum(state, "state");
  checkedEnum(indexPref, "indexPref");
}

U32 HBitmap::findBitInRange(U32 start, U32 end, BitState state, IndexPreference indexPref) const {
  QUOR_TRACE(traceHandle, 1, "HBitmap::findBitInRange");
  HBITMAP_CHECK(start, <=, end);
  HBITMAP_CHECK(end, <=, size());
  checkedEnum(state, "state");
  checkedEnum(indexPref, "indexPref");
  // A scratch bitmap in `state` inside the range and in the opposite state outside it;
  // combined with this one (And for Set, Or for Clear) only in-range bits can be found.
  HBitmap scratch(quorIndex_ + 1, size_, state);
  QUOR_TRACE(traceHandle, 7, "start = " << start << ", end = " << end << ", state = " << state);
  if (start > 0) scratch.updateBitsInRange(0, start - 1, opposite(state));
  // Widened: size_ - 1 would wrap for an empty bitmap.
  if (U64(end) + 1 < size_) scratch.updateBitsInRange(end + 1, size_ - 1, opposite(state));
  scratch.combineWith(this, state == Set ? And : Or);
  return scratch.search(indexPref, state);
}

void HBitmap::doLogicalOp(Quor::Ptr<HBitmap const> const& hbmp, LogicalOp op) {
  QUOR_TRACE(traceHandle, 1, "HBitmap::doLogicalOp");
  Quor::checkNotNull("Vell::HBitmap", "hbmp", hbmp);  // a null bitmap is a bad argument, not a crash
  combineWith(hbmp.ptr(), op);
}

void HBitmap::combineWith(HBitmap const* hbmp, LogicalOp op) {
  HBITMAP_CHECK(size(), <=, hbmp->size());
  if (op != And && op != Or) {
    QUOR_TRACE(traceHandle, 7, "Unknown logical op: " << op);  // once, not once per word
    return;
  }
  forgetAnswers();  // any bit may have changed; the next searches descend once
  U32 const words = roundup64(size_) / 64;
  U64 const lastPad = size_ % 64 ? allOnes << (size_ % 64) : 0;
  // Leaves start at word 0 in both bitmaps, so word i of one matches word i of the other
  // even when hbmp is larger; its bits beyond our size are masked off by the padding.
  U64* const set = setBm_.data();
  U64* const clr = clearBm_.data();
  U64 const* const otherSet = hbmp->setBm_.data();
  U64 const* const otherClr = hbmp->clearBm_.data();
  U32 total = 0;
  for (U32 i = 0; i < words; ++i) {
    U64 const pad = i + 1 == words ? lastPad : 0;
    if (op == And) {
      set[i] &= otherSet[i];
      clr[i] = (clr[i] & otherClr[i]) | pad;
    } else {
      set[i] = (set[i] | otherSet[i]) & ~pad;
      clr[i] |= otherClr[i];
    }
    total += static_cast<U32>(std::popcount(set[i]));
  }
  numBitsInSetState_ = total;
  if (words > 0) rebuildSummaries(0, words - 1);
}

Quor::Ptr<HBitmap> hBitmapFactory(U64 quorIndex, U32 size, HBitmap::BitState initialBitState) {
  return Quor::makeEntity<HBitmap>(quorIndex, size, initialBitState);
}

}  // namespace Vell
