// Best-fit allocator of contiguous index ranges, with defragmentation.
//
// A BestFitAllocator hands out runs of indexes ("blocks") from a linear space of memSz
// entries that begins at offset: hardware table slots, buffer cells, ids that must be
// contiguous. A caller asks for blkSz entries and gets a BFA::Blk handle; when the last
// reference to the handle goes, its range is free again, merged with its free neighbours.
//
// Workload assumed: many live blocks (up to millions), sizes up to maxBlkSz that is small
// next to memSz, alloc and free interleaved at high rates, and occasional compaction.
// Free space is kept as maximal runs. Runs of at most maxBlkSz entries are indexed by
// exact size, so best fit is one search in an ordered map of sizes plus a hash probe;
// longer ("jumbo") runs sit in a set ordered by size. All runs are also indexed by
// position (a B+tree: a few cache lines per look-up at a million runs), where freeing
// finds both neighbours with one descent. Live blocks are found by start in a flat hash
// table. Nothing here is thread-safe: like every entity, one activity uses it.
//
// Indexes: block handles carry absolute indexes (relative + offset); every internal
// collection and every trace uses relative ones.
//
// Lifetime: a block holds a reference to its allocator and the allocator holds only raw
// pointers to its blocks, so there is no cycle: the allocator lives while any of its
// blocks does, and a block can always give its range back.
//
// Defragmentation moves blocks toward index 0. The allocator owns only the indexes, so
// each move is also recorded as a BFA::PendingCmd that the caller replays, in order, on
// its own storage.
#pragma once
#include <string>
#include <vector>

#include <Quor/IndexTable.h>
#include <Quor/Quor.h>
#include <Vell/Types.h>
#include <Vell/ValueTypes.h>

namespace Vell {

class BestFitAllocator;

namespace BFA {

/// A free run longer than maxBlkSz. Ordered by size, then by start.
class QUOR_API JumboFreeBlk {
 public:
  JumboFreeBlk() = default;
  JumboFreeBlk(U32 blkSz, U32 startIndex) : blkSz_(blkSz), startIndex_(startIndex) {}

  U32 blkSz() const { return blkSz_; }
  /// Relative start index.
  U32 startIndex() const { return startIndex_; }

  friend bool operator<(JumboFreeBlk const& a, JumboFreeBlk const& b) {
    return a.blkSz_ != b.blkSz_ ? a.blkSz_ < b.blkSz_ : a.startIndex_ < b.startIndex_;
  }
  QUOR_VALUE_TYPE(JumboFreeBlk, "Vell::BFA::JumboFreeBlk", QUOR_FIELD(JumboFreeBlk, blkSz),
                  QUOR_FIELD(JumboFreeBlk, startIndex))

 private:
  U32 blkSz_ = 0;
  U32 startIndex_ = 0;
};

using Quor::detail::BitReversedHash;
using Quor::detail::IdentityHash;
using Quor::detail::IndexTable;

/// The free runs of exactly blkSz entries (relative start indexes).
class QUOR_API FreeBlkSet : public Quor::PtrInterface {
 public:
  struct Nothing {};
  using Members = IndexTable<Nothing, BitReversedHash>;

  explicit FreeBlkSet(U32 blkSz) : blkSz_(blkSz) {}
  U32 blkSz() const { return blkSz_; }
  /// True when a free run of blkSz entries starts at startIndex.
  bool freeBlk(U32 startIndex) const { return freeBlk_.contains(startIndex); }
  U32 freeBlks() const { return freeBlk_.size(); }

  class IteratorConst {
   public:
    explicit IteratorConst(Members::IteratorConst it) : it_(it) {}
    U32 operator*() const { return (*it_).key; }
    IteratorConst& operator++() {
      ++it_;
      return *this;
    }
    bool operator==(IteratorConst const& o) const { return it_ == o.it_; }

   private:
    Members::IteratorConst it_;
  };
  IteratorConst begin() const { return IteratorConst(freeBlk_.begin()); }
  IteratorConst end() const { return IteratorConst(freeBlk_.end()); }

 private:
  friend class Vell::BestFitAllocator;
  void freeBlkIs(U32 startIndex) { lastSlot_ = freeBlk_.insert(startIndex, Nothing{}); }
  void freeBlkDel(U32 startIndex) { freeBlk_.erase(startIndex); }
  /// The run that alloc takes: the most recently added one while it is still here (its
  /// entries are the likeliest to be in cache), else the next one in slot order.
  U32 pick() const { return freeBlk_.firstFrom(lastSlot_); }

  U32 blkSz_;
  U32 lastSlot_ = 0;
  Members freeBlk_;
};

/// A live block: blkSz entries from startIndex (absolute). Dropping the last reference
/// gives the range back to the allocator. Made only by the allocator, or detached (no
/// allocator, frees nothing) when read back from text. A counted object without the
/// name and flags of a full entity, so that a million blocks cost 32 bytes each.
class QUOR_API Blk : public Quor::PtrInterface {
 public:
  U32 blkSz() const { return blkSz_; }
  /// Absolute start index; defragmentation moves it.
  U32 startIndex() const { return startIndex_; }
  /// The allocator that made the block; null for a detached block.
  Quor::Ptr<BestFitAllocator> allocator() const;

  /// The text form: "Value('Vell::BFA::Blk', ** {'blkSz': 20, 'startIndex': 10})", or
  /// "None" for a null handle. Parsing gives a detached block.
  static void quorWritePtr(std::string& out, Blk const* blk);
  static Quor::Ptr<Blk> quorParsePtr(Quor::StrepIt& it, Quor::StrepIt end);
  /// The binary form: a presence byte, then blkSz and startIndex; read back detached.
  static void quorWriteNboPtr(Quor::NboAttrLog::Out& out, Blk const* blk);
  static Quor::Ptr<Blk> quorReadNboPtr(Quor::NboAttrLog::In& in);
  friend std::ostream& operator<<(std::ostream& o, Blk const& b) {
    std::string s;
    quorWritePtr(s, &b);
    return o << s;
  }

 protected:
  /// Gives the range back (the framework calls it when the last reference goes).
  void handleDel() override;

 private:
  friend class Vell::BestFitAllocator;
  Blk(U32 blkSz, BestFitAllocator* allocator);
  ~Blk() override;
  U32 blkSz_;
  U32 startIndex_ = 0;
  BestFitAllocator* allocator_;  // holds one reference, taken in the constructor
};

}  // namespace BFA
}  // namespace Vell

/// A block handle inside a value (a PendingCmd) prints as the block's own text.
template <>
struct Quor::TextForm<Quor::Ptr<Vell::BFA::Blk>> {
  static void write(std::string& out, Quor::Ptr<Vell::BFA::Blk> const& b) { Vell::BFA::Blk::quorWritePtr(out, b.ptr()); }
  static Quor::Ptr<Vell::BFA::Blk> parse(Quor::StrepIt& it, Quor::StrepIt end) {
    return Vell::BFA::Blk::quorParsePtr(it, end);
  }
};

template <>
struct Quor::NboAttrLog::Codec<Quor::Ptr<Vell::BFA::Blk>> {
  static void write(Out& out, Quor::Ptr<Vell::BFA::Blk> const& b) { Vell::BFA::Blk::quorWriteNboPtr(out, b.ptr()); }
  static Quor::Ptr<Vell::BFA::Blk> read(In& in) { return Vell::BFA::Blk::quorReadNboPtr(in); }
};

namespace Vell {
namespace BFA {

/// One move of a defragmentation: copy blk->blkSz() entries from oldIndex to
/// blk->startIndex() (already the destination). Holding the command keeps the block.
class QUOR_API PendingCmd {
 public:
  PendingCmd() = default;
  PendingCmd(U32 oldIndex, Quor::Ptr<Blk> blk) : oldIndex_(oldIndex), blk_(std::move(blk)) {}

  /// Absolute start index of the block before the move.
  U32 oldIndex() const { return oldIndex_; }
  Quor::Ptr<Blk> const& blk() const { return blk_; }

  QUOR_VALUE_TYPE(PendingCmd, "Vell::BFA::PendingCmd", QUOR_FIELD(PendingCmd, oldIndex),
                  QUOR_FIELD(PendingCmd, blk))

 private:
  U32 oldIndex_ = 0;
  Quor::Ptr<Blk> blk_;
};

/// The moves of one defragmentation, oldest first: replay them front to back. Each
/// entry also has an index of its own, drawn from a bounded space.
class QUOR_API PendingCmds : public Quor::PtrInterface {
 public:
  explicit PendingCmds(U32 indexSpace) : pendingCmdLog_(indexSpace) {}

  U32 pendingCmdLogs() const { return static_cast<U32>(pendingCmdLog_.members()); }
  U32 pendingCmdLogIndexSpace() const { return pendingCmdLog_.indexSpace(); }
  /// Entry i. Throws Quor::RangeException "linkqueue index out of range".
  PendingCmd const& pendingCmdLog(U32 i) const { return pendingCmdLog_.at(i); }
  /// Index of the oldest entry; 0xFFFFFFFF when empty.
  U32 pendingCmdLogHead() const { return pendingCmdLog_.empty() ? 0xFFFFFFFFu : pendingCmdLog_.front(); }

  /// Appends cmd; returns its index. Throws "linkqueue index space full".
  U32 pendingCmdLogEnq(PendingCmd const& cmd) { return pendingCmdLog_.pushBack(cmd); }
  /// Removes and returns the oldest entry. Throws "linkqueue index out of range" when
  /// empty.
  PendingCmd pendingCmdLogDeq();
  /// Writes entry i: replaces it in place, or appends it under index i when absent.
  void pendingCmdLogIs(U32 i, PendingCmd const& cmd);
  /// Appends cmd under index i, which must be free ("linkqueue index in use").
  void newPendingCmdLog(U32 i, PendingCmd const& cmd) { pendingCmdLog_.pushBackAt(i, cmd); }
  /// Removes entry i. Throws "linkqueue index out of range".
  void pendingCmdLogDel(U32 i) { pendingCmdLog_.remove(i); }

  /// Calls f(index, cmd) for each entry, oldest first; f may remove entries.
  template <class F>
  void forEachPendingCmdLog(F&& f) const {
    pendingCmdLog_.forEach(f);
  }

 private:
  Quor::LinkQueue<PendingCmd> pendingCmdLog_;
};

/// A new, empty command queue whose entries draw indexes from 0 .. indexSpace-1.
QUOR_API Quor::Ptr<PendingCmds> pendingCmdsFactory(U32 indexSpace = 1024);

}  // namespace BFA

class QUOR_API BestFitAllocator : public Quor::Entity {
 public:
  class RunIndex;
  class JumboIndex;

  /// A walk over the free runs in ascending order: by start (key() is the start) or by
  /// last index (key() is start + size - 1); value() is the size.
  class QUOR_API FreeRunIteratorConst {
   public:
    explicit operator bool() const { return sz_ != 0; }
    U32 key() const { return byEnd_ ? start_ + sz_ - 1 : start_; }
    U32 value() const { return sz_; }
    FreeRunIteratorConst& operator++();

   private:
    friend class BestFitAllocator;
    FreeRunIteratorConst(RunIndex const* runs, U32 start, U32 sz, bool byEnd)
        : runs_(runs), start_(start), sz_(sz), byEnd_(byEnd) {}
    RunIndex const* runs_;
    U32 start_;
    U32 sz_;  // 0 at the end
    bool byEnd_;
  };

  ~BestFitAllocator() override;

  U32 memSz() const { return memSz_; }
  U32 offset() const { return offset_; }
  U32 maxBlkSz() const { return maxBlkSz_; }
  U32 numFreeEntries() const { return numFreeEntries_; }

  /// A block of blkSz entries from the smallest free run that holds it (its low end);
  /// null when none does, and then nothing changes.
  /// Preconditions (asserted): 0 < blkSz <= maxBlkSz().
  Quor::Ptr<BFA::Blk> alloc(U32 blkSz);
  /// Claims exactly startIndex .. startIndex+blkSz-1 (absolute); null when any entry of
  /// it is in use, and then nothing changes.
  /// Preconditions (asserted): 0 < blkSz <= maxBlkSz(), the range lies inside the space.
  Quor::Ptr<BFA::Blk> realloc(U32 startIndex, U32 blkSz);
  /// Grows or shrinks the space to newSz. A shrink takes free entries from the end; when
  /// the free tail is too short it first defragments, and returns those moves (null
  /// otherwise). It never takes live entries: with too little free space it shrinks by
  /// less, with none by nothing. Read memSz() afterwards.
  /// Throws Quor::RangeException when newSz + offset() would reach 0xFFFFFFFF.
  Quor::Ptr<BFA::PendingCmds> resizeMemory(U32 newSz);
  /// Slides every live block toward index 0 until all free space is one run at the
  /// end. Returns the moves in the order they must be replayed (ascending old address,
  /// each block at most once, every move downward, so a low-to-high copy is safe even
  /// when source and destination overlap); block handles already carry their new
  /// startIndex. The queue's index space is the number of live blocks, so it can hold
  /// every move. numFreeEntries() is unchanged.
  Quor::Ptr<BFA::PendingCmds> defragment();

  /// The only writers of the free-space collections; relative start indexes. Adding
  /// merges with free neighbours. Low-level: the caller keeps free runs and live blocks
  /// tiling the space (broken invariants abort).
  void doAddFreeBlk(U32 blkSz, U32 startIndex);
  void doRemoveFreeBlk(U32 blkSz, U32 startIndex);

  // ---- inspection ----

  /// The set of free runs of exactly blkSz entries; null when there is none.
  Quor::Ptr<BFA::FreeBlkSet const> freeBlkSet(U32 blkSz) const;
  U32 freeBlkSets() const { return static_cast<U32>(freeBlkSet_.members()); }
  /// Calls f(FreeBlkSet const&) in ascending size.
  template <class F>
  void forEachFreeBlkSet(F&& f) const {
    for (auto const& [sz, set] : freeBlkSet_) f(*set);
  }
  /// The size of the free run starting at (ending at) a relative index; 0 when none.
  U32 freeBlkStartIndexToSz(U32 startIndex) const;
  U32 freeBlkEndIndexToSz(U32 endIndex) const;
  U32 freeBlkStartIndexToSzs() const;
  U32 freeBlkEndIndexToSzs() const { return freeBlkStartIndexToSzs(); }
  FreeRunIteratorConst freeBlkStartIndexToSzIterator() const;
  FreeRunIteratorConst freeBlkEndIndexToSzIterator() const;
  bool jumboFreeBlk(BFA::JumboFreeBlk const& b) const;
  U32 jumboFreeBlks() const;
  /// The least jumbo run (blkSz() 0 when there is none), and the one after b.
  BFA::JumboFreeBlk jumboFreeBlkFirst() const;
  BFA::JumboFreeBlk jumboFreeBlkAfter(BFA::JumboFreeBlk const& b) const;
  /// Calls f(JumboFreeBlk const&) in ascending order.
  template <class F>
  void forEachJumboFreeBlk(F&& f) const {
    for (BFA::JumboFreeBlk j = jumboFreeBlkFirst(); j.blkSz(); j = jumboFreeBlkAfter(j)) f(j);
  }
  /// The live block starting at an absolute index; null when none.
  Quor::Ptr<BFA::Blk> inUseBlock(U32 startIndex) const {
    BFA::Blk* const* b = inUseBlock_.find(startIndex);
    return b ? *b : nullptr;
  }
  U32 inUseBlocks() const { return inUseBlock_.size(); }
  /// Calls f(Blk const&) for each live block, in no particular order.
  template <class F>
  void forEachInUseBlock(F&& f) const {
    for (auto const& slot : inUseBlock_) f(*slot.value);
  }

  QUOR_ENTITY_TYPE(BestFitAllocator, "Vell::BestFitAllocator",
                   Quor::attr("memSz", &BestFitAllocator::memSz),
                   Quor::attr("offset", &BestFitAllocator::offset),
                   Quor::attr("maxBlkSz", &BestFitAllocator::maxBlkSz),
                   Quor::attr("numFreeEntries", &BestFitAllocator::numFreeEntries),
                   Quor::attr("inUseBlocks", &BestFitAllocator::inUseBlocks),
                   Quor::attr("freeBlkSets", &BestFitAllocator::freeBlkSets))

 protected:
  void handleInitialized() override;

 private:
  friend class BFA::Blk;
  friend QUOR_API Quor::Ptr<BestFitAllocator> bestFitAllocatorFactory(Quor::Name const&, U32, U32, U32);
  template <class T, class... A>
  friend Quor::Ptr<T> Quor::makeEntity(A&&... args);
  BestFitAllocator(Quor::Name const& name, U32 memSz, U32 offset, U32 maxBlkSz);

  /// Gives a dying block's range back; called by Blk::handleDel only.
  void handleFree(BFA::Blk* blk);
  Quor::Ptr<BFA::Blk> newBlk(U32 blkSz, U32 relStart);
  void numFreeEntriesInc(U32 n);
  void numFreeEntriesDec(U32 n);
  void traceLayout(char const* freeTitle, char const* usedTitle) const;

  U32 memSz_;
  U32 const offset_;
  U32 const maxBlkSz_;
  U32 numFreeEntries_ = 0;
  Quor::RbTreeMap<Quor::Ptr<BFA::FreeBlkSet>, U32> freeBlkSet_;
  RunIndex* runs_;  // free runs by start; the end view is derived from it
  JumboIndex* jumbo_;  // jumbo runs by (size, start): the least is the best fit
  BFA::IndexTable<BFA::Blk*, BFA::IdentityHash> inUseBlock_;
};

/// A new allocator over memSz entries from absolute index offset; blocks are at most
/// maxBlkSz entries. Asserts memSz > 0, 0 < maxBlkSz < memSz and memSz + offset <
/// 0xFFFFFFFF.
QUOR_API Quor::Ptr<BestFitAllocator> bestFitAllocatorFactory(Quor::Name const& name, U32 memSz, U32 offset,
                                                            U32 maxBlkSz);

}  // namespace Vell
