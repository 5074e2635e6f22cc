// Vell::HBitmap: a fixed-size bitmap that finds its lowest or highest set or clear bit in
// time proportional to its height (about log64 of its size), not to its size.
//
// Workload: index spaces of up to a few hundred million entries (slots, ports, ids) in
// which single bits flip often and "give me the lowest free one" is asked even more
// often. Beside the leaf bits the bitmap keeps two trees of summary words, one summary
// bit per child word:
//   setBm    bit is 1 when the child word has some set bit (leaves: the bit itself);
//   clearBm  bit is 1 when the child word is all ones, so a 0 points at a clear bit.
// Both trees live in one word array each, leaves first, each level right after the one
// below; the top level is a single word. Padding bits (beyond a level's meaningful bits in
// its last word) are 0 in setBm and 1 in clearBm, so no search ever lands on them.
//
// Searches are asked far more often than the answer changes, so the bitmap remembers its
// four whole-bitmap answers (lowest / highest, set / clear) while they stay exact:
// updates move an answer outwards to the changed bits or forget it when they change the
// very bit it names; logical operations and raw word writes forget them all.
//
// Costs: single-bit updates write one word per level in each tree and never stop early
// (no data-dependent branches), plus a few compares on the remembered answers when any
// answer is remembered (one test when none is); they are inline, as is a range search's
// first word, since the timer wheel runs both per slot. A whole-bitmap search answers
// from memory; a forgotten one reads one word per level (dependent loads, top down) and
// is remembered. Range updates cost their range plus the summaries above it. Logical
// operations and findBitInRange cost the whole size (it works on a scratch copy);
// seekBitInRange reads at most two words per level.
//
// Preconditions are asserted (a bad index is a programming error and aborts with the
// condition and the values); finding nothing is not an error but 0xFFFFFFFF.
#pragma once
#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class QUOR_API HBitmap final : public Quor::Entity {
 public:
  enum class BitState : U32 { Set = 0, Clear = 1 };
  enum class IndexPreference : U32 { preferLo = 0, preferHi = 1 };
  enum class LogicalOp : U32 { And = 0, Or = 1 };
  using enum BitState;
  using enum IndexPreference;
  using enum LogicalOp;
  QUOR_ENUM_TEXT_IN_CLASS(BitState, "HBitmap::BitState", {BitState::Set, "Set"}, {BitState::Clear, "Clear"})
  QUOR_ENUM_TEXT_IN_CLASS(IndexPreference, "HBitmap::IndexPreference", {IndexPreference::preferLo, "preferLo"},
                          {IndexPreference::preferHi, "preferHi"})
  QUOR_ENUM_TEXT_IN_CLASS(LogicalOp, "HBitmap::LogicalOp", {LogicalOp::And, "And"}, {LogicalOp::Or, "Or"})

  /// What every search returns when no bit is in the wanted state.
  static constexpr U32 notFound = 0xFFFFFFFF;

  HBitmap(HBitmap const&) = delete;
  HBitmap& operator=(HBitmap const&) = delete;

  // ---- attributes ----
  /// The bitmap's identity (its key), fixed by the factory.
  U64 quorIndex() const { return quorIndex_; }
  /// Number of usable bits: indexes 0 .. size()-1. Never changes.
  U32 size() const { return size_; }
  BitState initialBitState() const { return initialBitState_; }
  /// Number of leaf bits that are Set; exact after every operation.
  U32 numBitsInSetState() const { return numBitsInSetState_; }
  /// Number of levels, leaves included; at least 1.
  U32 height() const { return height_; }
  /// Meaningful bits at level h (level 0 holds the leaves); 0 beyond the top.
  U32 numBitsAtHeight(U32 h) const { return numBitsAtHeight_[h]; }
  /// Index of level h's first word in setBm and clearBm; 0 beyond the top.
  U32 arrayBaseOffsetForHeight(U32 h) const { return arrayBaseOffsetForHeight_[h]; }
  /// Word w of the set tree / the clear tree; 0 beyond the arrays.
  U64 setBm(U32 w) const { return setBm_[w]; }
  U64 clearBm(U32 w) const { return clearBm_[w]; }
  /// Raw word writes (a write past the end grows the array), for repair tools and tests.
  /// A write that breaks the summary invariant misleads every later search; a search
  /// that meets a contradiction aborts. Forgets the remembered answers.
  void setBmIs(U32 w, U64 word) {
    setBm_.elementIs(w, word);
    forgetAnswers();
  }
  void clearBmIs(U32 w, U64 word) {
    clearBm_.elementIs(w, word);
    forgetAnswers();
  }

  // ---- single bits ----
  /// Puts one bit in `state`. Precondition: bit < size(). Throws Quor::RangeException for
  /// a state that is neither Set nor Clear.
  void updateBit(U32 bit, BitState state) {
    // Inline for callers that flip bits on their hot path (the timer wheel's slots): a
    // trace, a bad bit or a bad state take the checked call.
    if (trace_->enabled(1) || bit >= size_ || U32(state) > 1) [[unlikely]]
      checkUpdateBit(bit, state);
    writeBit(bit, state);
  }
  void setBit(U32 bit) { updateBit(bit, Set); }
  void clearBit(U32 bit) { updateBit(bit, Clear); }
  /// The leaf bit; false for any bit at or beyond size() (no precondition).
  bool isBitSet(U32 bit) const;

  // ---- ranges, both ends inclusive ----
  /// Puts bits start .. end in `state`. Preconditions: start <= end, end < size().
  void updateBitsInRange(U32 start, U32 end, BitState state);
  void setBitsInRange(U32 start, U32 end) { updateBitsInRange(start, end, Set); }
  void clearBitsInRange(U32 start, U32 end) { updateBitsInRange(start, end, Clear); }

  // ---- searches ----
  /// The lowest (preferLo) or highest (preferHi) bit in `state`, or notFound. O(1) when
  /// the answer is remembered (asked before and not invalidated since); otherwise reads
  /// one word per level, height() dependent loads, and remembers the answer.
  U32 findBitInState(IndexPreference indexPref, BitState state) const {
    // A remembered answer comes back without a call; traces, a bad enumeration and a
    // forgotten answer take the long way.
    if (U32(state) <= 1 && U32(indexPref) <= 1 && (known_ >> knownBit(indexPref, state) & 1) &&
        !trace_->enabled(1))
      return indexPref == preferLo ? answers_[U32(state)].lo : answers_[U32(state)].hi;
    return searchAndRemember(indexPref, state);
  }
  U32 findBitInSetState(IndexPreference indexPref) const { return findBitInState(indexPref, Set); }
  U32 findBitInClearState(IndexPreference indexPref) const { return findBitInState(indexPref, Clear); }
  /// The same within start .. end, or notFound. Preconditions: start <= end, end <= size()
  /// (end == size() is accepted and searches up to the last bit). Costs O(size()).
  U32 findBitInRange(U32 start, U32 end, BitState state, IndexPreference indexPref) const;
  U32 findSetBitInRange(U32 start, U32 end, IndexPreference indexPref) const {
    return findBitInRange(start, end, Set, indexPref);
  }
  U32 findClearBitInRange(U32 start, U32 end, IndexPreference indexPref) const {
    return findBitInRange(start, end, Clear, indexPref);
  }
  /// The same answer as findBitInRange, found by walking the summary levels: up from
  /// the range's near end until a summary word shows a wanted bit ahead, then down to
  /// it. Costs at most 2 x height() word reads, whatever the size and the range.
  /// Preconditions as findBitInRange's.
  U32 seekBitInRange(U32 start, U32 end, BitState state, IndexPreference indexPref) const {
    if (trace_->enabled(1) || start > end || end > size_ || U32(state) > 1 || U32(indexPref) > 1) [[unlikely]]
      checkSeekBitInRange(start, end, state, indexPref);
    end = end < size_ ? end : size_ - 1;  // wraps for size 0, hence the size test
    if (size_ == 0 || start > end) return notFound;
    if (indexPref == preferHi) return seekHi(start, end, state);
    // The lowest wanted bit is most often in the start's own leaf word (the wheel's next
    // used slot): read it here, and climb the levels out of line only when it is empty.
    U64 const leaf = state == Set ? setBm_.data()[start / 64] : ~clearBm_.data()[start / 64];
    if (U64 const ahead = leaf & (~U64(0) << (start % 64))) {
      U32 const p = (start & ~63u) + static_cast<U32>(__builtin_ctzll(ahead));
      return p <= end ? p : notFound;
    }
    return seekLo(start, end, state);
  }

  // ---- whole-bitmap operations ----
  /// Combines hbmp into this bitmap in place, bit by bit; hbmp's bits beyond size() are
  /// ignored. Precondition: size() <= hbmp->size(). Throws Quor::RangeException for a null
  /// hbmp. An unknown op is traced and changes nothing. Costs O(size()).
  void doLogicalOp(Quor::Ptr<HBitmap const> const& hbmp, LogicalOp op);
  void doAnd(Quor::Ptr<HBitmap const> const& hbmp) { doLogicalOp(hbmp, And); }
  void doOr(Quor::Ptr<HBitmap const> const& hbmp) { doLogicalOp(hbmp, Or); }

  // ---- word helpers (also for callers that scan setBm / clearBm themselves) ----
  /// Index of the lowest 1 in word. Precondition: word != 0.
  static U32 lowestSetBitOf(U64 word);
  /// Index of the highest 1 in word. Precondition: word != 0.
  static U32 highestSetBitOf(U64 word);

  QUOR_ENTITY_TYPE(HBitmap, "Vell::HBitmap",
                   Quor::attr("size", &HBitmap::size),
                   Quor::attr("numBitsInSetState", &HBitmap::numBitsInSetState),
                   Quor::attr("height", &HBitmap::height))

 protected:
  /// Builds the levels and fills them with initialBitState; run once, by the constructor.
  void handleInitialized() override;

 private:
  template <class T, class... A>
  friend Quor::Ptr<T> Quor::makeEntity(A&&... args);
  HBitmap(U64 quorIndex, U32 size, BitState initialBitState);

  void buildLayout();
  void fillLevels();
  // The traces and precondition checks of the inline calls: they return only when the
  // call may go on.
  void checkUpdateBit(U32 bit, BitState state) const;
  void checkSeekBitInRange(U32 start, U32 end, BitState state, IndexPreference indexPref) const;
  inline void writeBit(U32 bit, BitState state);
  U32 search(IndexPreference indexPref, BitState state) const;
  U32 seekLo(U32 start, U32 end, BitState state) const;
  U32 seekHi(U32 start, U32 end, BitState state) const;
  U32 searchAndRemember(IndexPreference indexPref, BitState state) const;
  void combineWith(HBitmap const* hbmp, LogicalOp op);
  void rebuildSummaries(U32 loLeafWord, U32 hiLeafWord);
  inline void noteRange(U32 start, U32 end, BitState state);
  void forgetAnswers() { known_ = 0; }
  // The bit of known_ that says answers_[state]'s lo (preferLo) or hi (preferHi) is exact.
  static U32 knownBit(IndexPreference indexPref, BitState state) { return 2 * U32(state) + U32(indexPref); }

  U64 quorIndex_;
  U32 size_;
  BitState initialBitState_;
  U32 numBitsInSetState_ = 0;
  U32 height_ = 0;
  Quor::DynArray<U32> numBitsAtHeight_;
  Quor::DynArray<U32> arrayBaseOffsetForHeight_;
  Quor::DynArray<U64> setBm_;
  Quor::DynArray<U64> clearBm_;
  // The whole-bitmap search answers per state (indexed by BitState); an answer is exact
  // while its bit in known_ is set and meaningless otherwise. One word of flags lets an
  // update that has nothing remembered to keep up (the timer wheel's buckets, which only
  // ask range questions) skip the upkeep in one test. Searches are const, hence mutable.
  struct Answers {
    U32 lo = 0, hi = 0;
  };
  mutable Answers answers_[2];
  mutable U32 known_ = 0;
  Quor::TraceHandle const* trace_;  // the block's channel, for the inline search
};

// Bits start .. end have just been put in `state`. A remembered answer in that state can
// only move outwards to the range (and notFound gives way to it); one in the other state
// stays exact unless it lay inside the range. Past the one test, without branches:
// updateBit runs this.
inline void HBitmap::noteRange(U32 start, U32 end, BitState state) {
  if (!known_) return;
  Answers& gained = answers_[U32(state)];
  BitState const other = BitState(U32(state) ^ 1);
  Answers const& lost = answers_[U32(other)];
  gained.lo = gained.lo < start ? gained.lo : start;  // notFound is the largest U32
  gained.hi = (gained.hi + 1 > end + 1 ? gained.hi + 1 : end + 1) - 1;  // + 1 wraps notFound to 0
  U32 const loInside = lost.lo - start <= end - start;  // inside start .. end, in one compare
  U32 const hiInside = lost.hi - start <= end - start;
  known_ &= ~(loInside << knownBit(preferLo, other) | hiInside << knownBit(preferHi, other));
}

// One bit, its count and every summary above it. Precondition: bit < size(), state valid.
inline void HBitmap::writeBit(U32 bit, BitState state) {
  U64* const set = setBm_.data();
  U64* const clr = clearBm_.data();
  U32 const* const base = arrayBaseOffsetForHeight_.data();
  // Leaves are words 0 and up of both trees, which differ only in padding, never at a bit
  // below size(): both take the same bit. One bit needs no population count.
  bool const toSet = state == Set;
  U64 const mask = U64(1) << (bit % 64);
  U32 const wasSet = (set[bit / 64] & mask) != 0;
  numBitsInSetState_ += toSet ? 1 - wasSet : 0 - wasSet;
  U64 childSet = toSet ? set[bit / 64] | mask : set[bit / 64] & ~mask;
  U64 childClr = toSet ? clr[bit / 64] | mask : clr[bit / 64] & ~mask;
  set[bit / 64] = childSet;
  clr[bit / 64] = childClr;
  noteRange(bit, bit, state);
  // Every level is rewritten, changed or not: a fixed walk beats a data-dependent exit.
  U32 index = bit;
  U32 const height = height_;
  for (U32 h = 1; h < height; ++h) {
    index >>= 6;
    U32 const word = base[h] + index / 64;
    U64 const m = U64(1) << (index % 64);
    childSet = (set[word] & ~m) | (childSet != 0 ? m : 0);
    childClr = (clr[word] & ~m) | (childClr == ~U64(0) ? m : 0);
    set[word] = childSet;
    clr[word] = childClr;
  }
}

/// A bitmap of `size` bits, every one in initialBitState, ready to use. Throws
/// Quor::RangeException for a state that is neither Set nor Clear; a size above
/// 0xFFFFFFC0 (whose word count overflows) aborts.
QUOR_API Quor::Ptr<HBitmap> hBitmapFactory(U64 quorIndex, U32 size, HBitmap::BitState initialBitState);

}  // namespace Vell
