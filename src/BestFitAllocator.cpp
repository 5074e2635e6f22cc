// Best-fit allocator of contiguous index ranges, with defragmentation.
#include <Vell/BestFitAllocator.h>

#include <Quor/OrderedIndex.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace Vell {

namespace {

Quor::TraceHandle traceHandle("BestFitAllocator");
// Every trace of the allocator is detail: alloc and free sit on callers' fast paths.
constexpr int detail = 7;

}  // namespace

using Quor::detail::OrderedIndex;

/// Free runs keyed by relative start, valued by size. Runs never overlap, so ordering
/// by start is also ordering by last index: the "by end" view is answered from the same
/// index (the run at or before an index, and whether it ends there), and the two views
/// can never disagree.
class BestFitAllocator::RunIndex : public OrderedIndex<U32> {};

/// Jumbo runs ordered by size, then start: one 64-bit key, (size << 32) | start.
class BestFitAllocator::JumboIndex : public OrderedIndex<U64> {
 public:
  static U64 key(U32 sz, U32 start) { return U64(sz) << 32 | start; }
  static BFA::JumboFreeBlk blk(Run r) {
    return r.sz ? BFA::JumboFreeBlk(U32(r.start >> 32), U32(r.start)) : BFA::JumboFreeBlk();
  }
};

BestFitAllocator::FreeRunIteratorConst& BestFitAllocator::FreeRunIteratorConst::operator++() {
  if (sz_) {
    RunIndex::Run const r = runs_->after(start_);
    start_ = r.start;
    sz_ = r.sz;
  }
  return *this;
}

U32 BestFitAllocator::freeBlkStartIndexToSz(U32 startIndex) const { return runs_->find(startIndex); }

U32 BestFitAllocator::freeBlkEndIndexToSz(U32 endIndex) const {
  RunIndex::Run const r = runs_->atOrBefore(endIndex);
  return r.sz && r.start + r.sz - 1 == endIndex ? r.sz : 0;
}

U32 BestFitAllocator::freeBlkStartIndexToSzs() const { return runs_->size(); }

BestFitAllocator::FreeRunIteratorConst BestFitAllocator::freeBlkStartIndexToSzIterator() const {
  RunIndex::Run const r = runs_->first();
  return FreeRunIteratorConst(runs_, r.start, r.sz, false);
}

BestFitAllocator::FreeRunIteratorConst BestFitAllocator::freeBlkEndIndexToSzIterator() const {
  RunIndex::Run const r = runs_->first();
  return FreeRunIteratorConst(runs_, r.start, r.sz, true);
}

bool BestFitAllocator::jumboFreeBlk(BFA::JumboFreeBlk const& b) const {
  return jumbo_->find(JumboIndex::key(b.blkSz(), b.startIndex())) != 0;
}

U32 BestFitAllocator::jumboFreeBlks() const { return jumbo_->size(); }

BFA::JumboFreeBlk BestFitAllocator::jumboFreeBlkFirst() const { return JumboIndex::blk(jumbo_->first()); }

BFA::JumboFreeBlk BestFitAllocator::jumboFreeBlkAfter(BFA::JumboFreeBlk const& b) const {
  return JumboIndex::blk(jumbo_->after(JumboIndex::key(b.blkSz(), b.startIndex())));
}

Quor::Ptr<BFA::FreeBlkSet const> BestFitAllocator::freeBlkSet(U32 blkSz) const {
  return freeBlkSet_.member(blkSz);
}

// ---- blocks -----------------------------------------------------------------------

namespace BFA {

Blk::Blk(U32 blkSz, BestFitAllocator* allocator) : blkSz_(blkSz), allocator_(allocator) {
  if (allocator_) allocator_->newRef();
}

Blk::~Blk() {
  if (allocator_) allocator_->deleteRef();
}

Quor::Ptr<BestFitAllocator> Blk::allocator() const { return allocator_; }

void Blk::handleDel() {
  if (allocator_) allocator_->handleFree(this);
}

namespace {
// The text of a block: its size and where it is (the allocator is not part of it).
struct BlkText {
  U32 blkSz_ = 0;
  U32 startIndex_ = 0;
  QUOR_VALUE_TYPE(BlkText, "Vell::BFA::Blk", QUOR_FIELD(BlkText, blkSz), QUOR_FIELD(BlkText, startIndex))
};
}  // namespace

void Blk::quorWritePtr(std::string& out, Blk const* blk) {
  if (!blk) {
    out += "None";
    return;
  }
  Quor::writeValue(out, BlkText{blk->blkSz_, blk->startIndex_});
}

Quor::Ptr<Blk> Blk::quorParsePtr(Quor::StrepIt& it, Quor::StrepIt end) {
  Quor::StrepIt p = it;
  Quor::skipBlanks(p, end);
  if (end - p >= 4 && std::equal(p, p + 4, "None")) {
    it = p + 4;
    return nullptr;
  }
  BlkText t;
  Quor::parseValue(it, end, t);
  // A block read from text describes a range; it belongs to no allocator.
  Quor::Ptr<Blk> b(new Blk(t.blkSz_, nullptr));
  b->startIndex_ = t.startIndex_;
  return b;
}

void Blk::quorWriteNboPtr(Quor::NboAttrLog::Out& out, Blk const* blk) {
  out.u8(blk ? 1 : 0);
  if (!blk) return;
  out.u32(blk->blkSz_);
  out.u32(blk->startIndex_);
}

Quor::Ptr<Blk> Blk::quorReadNboPtr(Quor::NboAttrLog::In& in) {
  if (!in.payload<bool>()) return nullptr;
  U32 const sz = in.u32();
  U32 const start = in.u32();
  Quor::Ptr<Blk> b(new Blk(sz, nullptr));  // like a parsed one: a range of no allocator
  b->startIndex_ = start;
  return b;
}

PendingCmd PendingCmds::pendingCmdLogDeq() {
  if (pendingCmdLog_.empty()) Quor::throwRangeException("linkqueue index out of range");
  return pendingCmdLog_.popFront();
}

void PendingCmds::pendingCmdLogIs(U32 i, PendingCmd const& cmd) {
  if (pendingCmdLog_.contains(i)) {
    pendingCmdLog_.valueIs(i, cmd);
  } else {
    pendingCmdLog_.pushBackAt(i, cmd);
  }
}

Quor::Ptr<PendingCmds> pendingCmdsFactory(U32 indexSpace) { return Quor::Ptr<PendingCmds>(new PendingCmds(indexSpace)); }

}  // namespace BFA

// ---- the allocator ------------------------------------------------------------------

BestFitAllocator::BestFitAllocator(Quor::Name const& name, U32 memSz, U32 offset, U32 maxBlkSz)
    : Entity(name), memSz_(memSz), offset_(offset), maxBlkSz_(maxBlkSz), runs_(new RunIndex), jumbo_(new JumboIndex) {}

BestFitAllocator::~BestFitAllocator() {
  delete runs_;
  delete jumbo_;
}

Quor::Ptr<BestFitAllocator> bestFitAllocatorFactory(Quor::Name const& name, U32 memSz, U32 offset, U32 maxBlkSz) {
  Quor::Ptr<BestFitAllocator> a = Quor::makeEntity<BestFitAllocator>(name, memSz, offset, maxBlkSz);
  a->handleInitialized();
  return a;
}

void BestFitAllocator::handleInitialized() {
  Entity::handleInitialized();
  QUOR_ASSERT(memSz());
  QUOR_TRACE(traceHandle, detail,
             "memSz = " << memSz() << ", offset = " << offset() << ", maxBlkSz = " << maxBlkSz());
  // Summed in 64 bits: a space whose absolute indexes wrap past 2^32 is refused, not
  // let through by a wrapped sum.
  QUOR_ASSERT_TEXT(U64(memSz()) + offset() < 0xFFFFFFFF, "( memSz() + offset() ) < 0xFFFFFFFF");
  QUOR_ASSERT(maxBlkSz());
  QUOR_ASSERT(maxBlkSz() < memSz());
  doAddFreeBlk(memSz(), 0);
  numFreeEntries_ = memSz();
  QUOR_TRACE(traceHandle, detail,
             "Initialized allocator: memSz " << memSz() << " offset " << offset() << " maxBlkSz " << maxBlkSz());
}

void BestFitAllocator::numFreeEntriesInc(U32 n) {
  numFreeEntries_ += n;
  QUOR_TRACE(traceHandle, detail, "numFreeEntries increased by " << n << ", now = " << numFreeEntries_);
}

void BestFitAllocator::numFreeEntriesDec(U32 n) {
  numFreeEntries_ -= n;
  QUOR_TRACE(traceHandle, detail, "numFreeEntries decreased by " << n << ", now = " << numFreeEntries_);
}

void BestFitAllocator::doAddFreeBlk(U32 blkSz, U32 startIndex) {
  QUOR_TRACE(traceHandle, detail, "Adding free blk: sz " << blkSz << ", index " << startIndex);
  if (!blkSz) return;
  if (startIndex > 0) {
    if (U32 const s = freeBlkEndIndexToSz(startIndex - 1)) {
      startIndex -= s;
      doRemoveFreeBlk(s, startIndex);
      blkSz += s;
    }
  }
  U32 const end = startIndex + blkSz;
  if (end < memSz()) {
    if (U32 const s = freeBlkStartIndexToSz(end)) {
      doRemoveFreeBlk(s, end);
      blkSz += s;
    }
  }
  if (blkSz <= maxBlkSz()) {
    Quor::Ptr<BFA::FreeBlkSet>* set = freeBlkSet_.memberPtr(blkSz);
    if (!set) {
      QUOR_TRACE(traceHandle, detail, "Creating freeBlkSet for blkSz = " << blkSz);
      freeBlkSet_.memberIs(blkSz, Quor::Ptr<BFA::FreeBlkSet>(new BFA::FreeBlkSet(blkSz)));
      set = freeBlkSet_.memberPtr(blkSz);
    }
    QUOR_ASSERT_TEXT(!(*set)->freeBlk(startIndex), "!freeBlkSet( blkSz )->freeBlk( startIndex )");
    (*set)->freeBlkIs(startIndex);
  } else {
    U64 const key = JumboIndex::key(blkSz, startIndex);
    bool const present = jumbo_->find(key) != 0;
    QUOR_ASSERT_TEXT(!present, "!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )");
    jumbo_->insert(key, 1);
  }
  QUOR_ASSERT_TEXT(freeBlkStartIndexToSz(startIndex) == 0, "freeBlkStartIndexToSz( startIndex ) == 0");
  QUOR_ASSERT_TEXT(freeBlkEndIndexToSz(startIndex + blkSz - 1) == 0,
                   "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0");
  runs_->insert(startIndex, blkSz);
}

void BestFitAllocator::doRemoveFreeBlk(U32 blkSz, U32 startIndex) {
  QUOR_TRACE(traceHandle, detail, "Removing free blk: sz " << blkSz << ", index " << startIndex);
  if (blkSz <= maxBlkSz()) {
    Quor::Ptr<BFA::FreeBlkSet>* set = freeBlkSet_.memberPtr(blkSz);
    QUOR_ASSERT_TEXT(set, "freeBlkSet( blkSz )");
    QUOR_ASSERT_TEXT((*set)->freeBlk(startIndex), "freeBlkSet( blkSz )->freeBlk( startIndex )");
    (*set)->freeBlkDel(startIndex);
    if ((*set)->freeBlks() == 0) {
      QUOR_TRACE(traceHandle, detail, "Deleting freeBlkSet for blkSz = " << blkSz);
      freeBlkSet_.memberDel(blkSz);
    }
  } else {
    bool const removed = jumbo_->erase(JumboIndex::key(blkSz, startIndex)) != 0;
    QUOR_ASSERT_TEXT(removed, "jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )");
  }
  // One look-up answers both views: a run starts here, and it ends where blkSz says.
  U32 const sz = runs_->erase(startIndex);
  QUOR_ASSERT_TEXT(sz > 0, "freeBlkStartIndexToSz( startIndex ) > 0");
  QUOR_ASSERT_TEXT(sz == blkSz, "freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0");
}

Quor::Ptr<BFA::Blk> BestFitAllocator::newBlk(U32 blkSz, U32 relStart) {
  Quor::Ptr<BFA::Blk> b(new BFA::Blk(blkSz, this));
  b->startIndex_ = relStart + offset();
  inUseBlock_.insert(b->startIndex_, b.ptr());
  return b;
}

Quor::Ptr<BFA::Blk> BestFitAllocator::alloc(U32 blkSz) {
  QUOR_TRACE(traceHandle, detail, "Alloc: blkSz " << blkSz);
  QUOR_ASSERT(blkSz);
  QUOR_ASSERT(blkSz <= maxBlkSz());
  U32 sz;
  U32 start;
  auto const fit = freeBlkSet_.raw().lower_bound(blkSz);
  if (fit != freeBlkSet_.raw().end()) {
    sz = fit->first;
    start = fit->second->pick();
  } else if (jumbo_->size()) {
    // The shortest jumbo run, so the fallback is best fit too.
    BFA::JumboFreeBlk const j = JumboIndex::blk(jumbo_->first());
    sz = j.blkSz();
    start = j.startIndex();
  } else {
    QUOR_TRACE(traceHandle, detail, "Alloc: blkSz " << blkSz << ", no free blk available");
    return nullptr;
  }
  inUseBlock_.prefetch(start + offset());  // for newBlk, after the free runs are updated
  doRemoveFreeBlk(sz, start);
  if (sz > blkSz) doAddFreeBlk(sz - blkSz, start + blkSz);
  QUOR_TRACE(traceHandle, detail, "Alloc: blkSz " << blkSz << ", startIndex " << start);
  numFreeEntriesDec(blkSz);
  return newBlk(blkSz, start);
}

Quor::Ptr<BFA::Blk> BestFitAllocator::realloc(U32 startIndex, U32 blkSz) {
  startIndex -= offset();  // relative from here on
  QUOR_TRACE(traceHandle, detail,
             "Realloc: startIndex " << startIndex << ", blkSz " << blkSz << ", memSz " << memSz());
  QUOR_ASSERT(blkSz);
  QUOR_ASSERT(blkSz <= maxBlkSz());
  // In 64 bits, so that a start below offset() or near 2^32 cannot wrap into range.
  QUOR_ASSERT_TEXT(U64(startIndex) + blkSz <= memSz(), "startIndex + blkSz <= memSz()");
  // The free run with the least last index >= startIndex: the one holding startIndex,
  // or else the first one after it.
  RunIndex::Run run = runs_->atOrBefore(startIndex);
  if (!run.sz || run.start + run.sz - 1 < startIndex) run = runs_->after(startIndex);
  if (!run.sz) {
    QUOR_TRACE(traceHandle, detail, "No free blocks after startIndex");
    return nullptr;
  }
  U32 const first = run.start;
  U32 const last = run.start + run.sz - 1;
  if (startIndex < first || startIndex + blkSz - 1 > last) {
    QUOR_TRACE(traceHandle, detail, "Not all the required entries are free.");
    return nullptr;
  }
  inUseBlock_.prefetch(startIndex + offset());  // for newBlk, as in alloc
  doRemoveFreeBlk(run.sz, first);
  if (startIndex != first) {
    QUOR_TRACE(traceHandle, detail, "Adding a free block up till startIndex.");
    doAddFreeBlk(startIndex - first, first);
  }
  if (startIndex + blkSz - 1 != last) {
    QUOR_TRACE(traceHandle, detail, "Adding a free block after new realloced block ends.");
    doAddFreeBlk(last - startIndex - blkSz + 1, startIndex + blkSz);
  }
  QUOR_TRACE(traceHandle, detail, "Realloc: blkSz " << blkSz << ", startIndex " << startIndex);
  numFreeEntriesDec(blkSz);
  return newBlk(blkSz, startIndex);
}

void BestFitAllocator::handleFree(BFA::Blk* blk) {
  U32 const startIndex = blk->startIndex() - offset();
  U32 const blkSz = blk->blkSz();
  QUOR_TRACE(traceHandle, detail, "Free: startIndex " << startIndex << ", blkSz " << blkSz);
  QUOR_ASSERT(blkSz);
  // The block's entry is likely out of cache: load it while the free runs are merged.
  inUseBlock_.prefetch(blk->startIndex());
  doAddFreeBlk(blkSz, startIndex);
  // Raw look-up: a Ptr to the dying block would count it back up and free it twice.
  BFA::Blk* const* const registered = inUseBlock_.find(blk->startIndex());
  QUOR_ASSERT(registered && *registered == blk);
  inUseBlock_.erase(blk->startIndex());
  numFreeEntriesInc(blkSz);
}

Quor::Ptr<BFA::PendingCmds> BestFitAllocator::resizeMemory(U32 newSz) {
  QUOR_TRACE(traceHandle, detail, "Resize memory: old size = " << memSz() << ", new size = " << newSz);
  // The same bound as at creation: no absolute index may reach 0xFFFFFFFF.
  U32 const maxSz = 0xFFFFFFFEu - offset();
  Quor::checkRange("BestFitAllocator", "memSz", newSz, 0u, "0", maxSz, Quor::format("%u", maxSz).charPtr());
  Quor::Ptr<BFA::PendingCmds> result;
  if (newSz > memSz()) {
    U32 const grown = newSz - memSz();
    doAddFreeBlk(grown, memSz());
    memSz_ = newSz;
    numFreeEntriesInc(grown);
    return result;
  }
  if (newSz == memSz() || freeBlkStartIndexToSzs() == 0) return result;
  U32 cut = memSz() - newSz;
  U32 tail = freeBlkEndIndexToSz(memSz() - 1);
  if (cut > tail) {
    result = defragment();
    tail = freeBlkEndIndexToSz(memSz() - 1);
    cut = std::min(cut, tail);
  }
  doRemoveFreeBlk(tail, memSz() - tail);
  if (cut < tail) doAddFreeBlk(tail - cut, memSz() - tail);
  memSz_ -= cut;
  numFreeEntriesDec(cut);
  return result;
}

void BestFitAllocator::traceLayout(char const* freeTitle, char const* usedTitle) const {
  if (!traceHandle.enabled(detail)) return;  // the walks below are for the trace only
  QUOR_TRACE(traceHandle, detail, freeTitle);
  for (auto r = freeBlkStartIndexToSzIterator(); r; ++r)
    QUOR_TRACE(traceHandle, detail, "start index = " << r.key() << ", Size = " << r.value());
  QUOR_TRACE(traceHandle, detail, usedTitle);
  std::vector<std::pair<U32, U32>> used;  // relative and by address, like the free runs
  for (auto const& slot : inUseBlock_) used.emplace_back(slot.key - offset(), slot.value->blkSz());
  std::sort(used.begin(), used.end());
  for (auto const& [start, sz] : used) QUOR_TRACE(traceHandle, detail, "start index = " << start << ", Size = " << sz);
}

Quor::Ptr<BFA::PendingCmds> BestFitAllocator::defragment() {
  // Each block moves at most once, so the live blocks bound the number of commands.
  Quor::Ptr<BFA::PendingCmds> result = BFA::pendingCmdsFactory(std::max<U32>(inUseBlocks(), 1));
  traceLayout("Free blocks before defragmenting", "Used blocks before defragmenting");
  if (freeBlkStartIndexToSzs() == 0) {
    QUOR_TRACE(traceHandle, detail, "No free blocks. Returning.");
    return result;
  }
  for (;;) {
    if (freeBlkEndIndexToSzIterator().key() == memSz() - 1) break;  // one run, at the end
    auto const freeBlk = freeBlkStartIndexToSzIterator();
    QUOR_ASSERT(freeBlk);
    U32 const first = freeBlk.key();
    U32 const gap = freeBlk.value();
    // Free runs are maximal, so a live block starts right behind the first one.
    BFA::Blk* const* const found = inUseBlock_.find(first + gap + offset());
    BFA::Blk* const i = found ? *found : nullptr;
    QUOR_ASSERT(i);
    U32 const len = i->blkSz();
    U32 const oldIndex = i->startIndex();
    doRemoveFreeBlk(gap, first);
    doAddFreeBlk(len, first + gap);  // the block's old range, merged with what follows
    inUseBlock_.erase(oldIndex);
    inUseBlock_.insert(first + offset(), i);
    if (len < gap) {
      doAddFreeBlk(gap - len, first + len);
    } else if (len > gap) {
      // The freed run overlaps the block's new place by len - gap entries.
      U32 const run = freeBlkStartIndexToSz(first + gap);
      doRemoveFreeBlk(run, first + gap);
      doAddFreeBlk(run - (len - gap), first + len);
    }
    result->pendingCmdLogEnq(BFA::PendingCmd(oldIndex, Quor::Ptr<BFA::Blk>(i)));
    i->startIndex_ = first + offset();
  }
  QUOR_ASSERT(( freeBlkStartIndexToSzs() == 1 ) && ( freeBlkEndIndexToSzs() == 1 ) && ( freeBlkEndIndexToSzIterator().key() == memSz() - 1 ));
  traceLayout("Free blocks after defragmenting", "Used blocks after defragmenting");
  return result;
}

}  // namespace Vell
