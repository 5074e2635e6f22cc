// BestFitAllocator: a randomized differential test against a plain model, with an
// invariant walker after every step; defragmentation replayed on real data; resizing;
// text forms, traces and assertion texts.

#include "TestSupport.h"

#include <array>
#include <cstring>
#include <map>

#include <Vell/BestFitAllocator.h>

using Vell::U32;
using Vell::U64;
using BlkPtr = Quor::Ptr<Vell::BFA::Blk>;
using Runs = std::map<U32, U32>;                // relative start -> size
using Moves = std::vector<std::array<U32, 3>>;  // old start, new start, size

namespace {

using VellTest::rangeText;

// The model: per relative index, 0 when free, else 1 + the start of the block holding it.
// Free runs and live blocks are read off it, so they are maximal and tile the space by
// construction.
struct Model {
  std::vector<U32> at;

  U32 memSz() const { return U32(at.size()); }
  U32 numFree() const { return U32(std::count(at.begin(), at.end(), 0u)); }
  bool isFree(U32 start, U32 sz) const { return std::count(at.begin() + start, at.begin() + start + sz, 0u) == sz; }
  void fill(U32 start, U32 sz, bool used) { std::fill_n(at.begin() + start, sz, used ? start + 1 : 0); }
  Runs runs(bool live) const {  // the free runs, or the live blocks
    Runs r;
    for (U32 i = 0, j = 0; i < memSz(); i = j) {
      while (++j < memSz() && at[j] == at[i]) {
      }
      if ((at[i] != 0) == live) r[i] = j - i;
    }
    return r;
  }
  Moves defragment() {  // blocks packed from 0 in address order
    Moves moves;
    U32 to = 0;
    for (auto [s, z] : runs(true)) {
      if (s != to) moves.push_back({s, to, z});
      fill(to, z, true), to += z;
    }
    fill(to, memSz() - to, false);
    return moves;
  }
};

// Checks the allocator's collections against each other and against the model: the runs
// by start and by end, the sized and jumbo sets, numFreeEntries, the live-block map. Equal
// to the model's, the runs and blocks are maximal and tile the space.
void walk(Vell::BestFitAllocator const& a, Model const& m) {
  std::string broken;  // the first problem found
  auto check = [&](bool ok, auto const&... what) {
    if (!ok && broken.empty()) broken = (testing::Message() << ... << what).GetString();
  };
  Runs runs, live;
  auto byEnd = a.freeBlkEndIndexToSzIterator();
  for (auto r = a.freeBlkStartIndexToSzIterator(); r; ++r, ++byEnd) {
    U32 const start = r.key(), sz = r.value();
    check(byEnd && byEnd.key() == start + sz - 1, "end view differs at run ", start);
    check(a.freeBlkStartIndexToSz(start) == sz && a.freeBlkEndIndexToSz(start + sz - 1) == sz, "look-up ", start);
    check(sz <= a.maxBlkSz() ? a.freeBlkSet(sz) && a.freeBlkSet(sz)->freeBlk(start)
                             : a.jumboFreeBlk(Vell::BFA::JumboFreeBlk(sz, start)),
          "run ", start, " missing from its size index");
    runs[start] = sz;
  }
  check(!byEnd && a.freeBlkStartIndexToSzs() == runs.size() && a.freeBlkEndIndexToSzs() == runs.size(), "counts");
  std::size_t indexed = a.jumboFreeBlks();
  a.forEachFreeBlkSet([&](Vell::BFA::FreeBlkSet const& set) {
    check(set.freeBlks() > 0 && a.freeBlkSet(set.blkSz()).ptr() == &set, "empty or stray set ", set.blkSz());
    for (U32 s : set) check(runs.count(s) && runs[s] == set.blkSz(), "set ", set.blkSz(), " holds ", s);
    indexed += set.freeBlks();
  });
  a.forEachJumboFreeBlk([&](Vell::BFA::JumboFreeBlk const& j) {
    check(j.blkSz() > a.maxBlkSz() && runs.count(j.startIndex()) && runs[j.startIndex()] == j.blkSz(), j);
  });
  check(indexed == runs.size(), "a run is indexed twice or not at all");
  a.forEachInUseBlock([&](Vell::BFA::Blk const& b) {
    check(a.inUseBlock(b.startIndex()).ptr() == &b && b.allocator().ptr() == &a, "block map at ", b.startIndex());
    live[b.startIndex() - a.offset()] = b.blkSz();
  });
  check(a.numFreeEntries() == m.numFree(), "numFreeEntries ", a.numFreeEntries(), " but ", m.numFree(), " are free");
  check(a.memSz() == m.memSz() && runs == m.runs(false) && live == m.runs(true), "the allocator differs from the model");
  EXPECT_EQ(broken, "");
}

// An allocator, its model, the caller's handles (some blocks held twice), and the caller's
// storage, in which every entry of a live block names its block and place.
struct Harness {
  Quor::Ptr<Vell::BestFitAllocator> a;
  Model m;
  U32 const maxBlkSz, firstSz;
  std::vector<BlkPtr> held;
  std::vector<U64> mem;
  std::mt19937 rng;
  std::size_t overlaps = 0;  // replayed moves whose source and destination overlap

  Harness(U32 memSz, U32 offset, U32 maxBlkSz, unsigned seed)
      : a(Vell::bestFitAllocatorFactory("bfa", memSz, offset, maxBlkSz)), m{std::vector<U32>(memSz)},
        maxBlkSz(maxBlkSz), firstSz(memSz), mem(memSz), rng(seed) {}
  U32 rnd(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(rng); }
  U32 rel(BlkPtr const& b) const { return b->startIndex() - a->offset(); }
  static U64 tag(Vell::BFA::Blk const& b, U32 k) { return U64(&b) * 65536 + k; }

  void took(BlkPtr const& b) {
    m.fill(rel(b), b->blkSz(), true), held.push_back(b);
    for (U32 k = 0; k < b->blkSz(); ++k) mem[rel(b) + k] = tag(*b, k);
  }

  void alloc(U32 sz) {
    BlkPtr const b = a->alloc(sz);
    Runs const free = m.runs(false);
    auto fit = free.end();  // the shortest run that holds sz; of equally long ones, the lowest
    for (auto r = free.begin(); r != free.end(); ++r)
      if (r->second >= sz && (fit == free.end() || r->second < fit->second)) fit = r;
    ASSERT_EQ(bool(b), fit != free.end()) << "alloc " << sz;
    if (!b) return;
    // The low end of a best fit: any of equally long sized runs, the lowest of jumbo ones.
    ASSERT_TRUE(b->blkSz() == sz && free.count(rel(b)) && free.at(rel(b)) == fit->second &&
                (fit->second <= maxBlkSz || rel(b) == fit->first))
        << "alloc " << sz << " took " << rel(b);
    took(b);
  }
  void realloc(U32 start, U32 sz) {
    bool const fits = m.isFree(start, sz);
    BlkPtr const b = a->realloc(start + a->offset(), sz);
    ASSERT_EQ(bool(b), fits) << "realloc " << start << "+" << sz;
    if (!b) return;
    EXPECT_EQ(rel(b), start);
    took(b);
  }
  void drop(std::size_t i) {  // frees the block when this was its last reference
    if (held[i]->references() == 1) m.fill(rel(held[i]), held[i]->blkSz(), false);
    std::swap(held[i], held.back());
    held.pop_back();
  }
  // The commands must be the model's moves. Replayed on the caller's storage front to
  // back, each copying low to high, they leave every live block's entries intact.
  void checkMoves(Quor::Ptr<Vell::BFA::PendingCmds> const& cmds, Moves const& moves) {
    ASSERT_TRUE(cmds);
    Moves got;  // relative, as the model's
    cmds->forEachPendingCmdLog([&](U32, Vell::BFA::PendingCmd const& c) {
      U32 const from = c.oldIndex() - a->offset(), to = c.blk()->startIndex() - a->offset(), n = c.blk()->blkSz();
      got.push_back({from, to, n});
      ASSERT_TRUE(to < from && U64(from) + n <= mem.size()) << "not a move down: " << from << " to " << to;
      overlaps += from - to < n;
      std::copy(mem.begin() + from, mem.begin() + from + n, mem.begin() + to);
    });
    EXPECT_EQ(got, moves);
    for (auto const& b : held)
      for (U32 k = 0; k < b->blkSz(); ++k) ASSERT_EQ(mem[rel(b) + k], tag(*b, k)) << "lost at " << rel(b) + k;
  }
  // A shrink takes the free tail; when the tail is too short it compacts first, and then
  // shrinks by at most what is free.
  void resize(U32 newSz) {
    U32 const tail = m.at.back() ? 0 : m.runs(false).rbegin()->second;
    bool const compacts = newSz < m.memSz() && m.numFree() > 0 && tail < m.memSz() - newSz;
    auto const cmds = a->resizeMemory(newSz);
    EXPECT_EQ(bool(cmds), compacts) << "moves come only with a shrink that needs them";
    if (compacts) checkMoves(cmds, m.defragment());
    m.at.resize(std::max(newSz, m.memSz() - m.numFree()));
    mem.resize(m.memSz());
  }
  void step() {
    U32 const op = rnd(0, 99);
    if (op < 45) {
      alloc(rnd(0, 3) ? rnd(1, std::min<U32>(maxBlkSz, 8)) : rnd(1, maxBlkSz));
    } else if (op < 80 && !held.empty()) {
      drop(rnd(0, U32(held.size() - 1)));
    } else if (op < 88 && !held.empty()) {
      held.push_back(held[rnd(0, U32(held.size() - 1))]);  // a second holder
    } else if (op < 95) {
      U32 const sz = rnd(1, maxBlkSz);
      U32 start = rnd(0, m.memSz() - sz);
      auto const onFree = std::find(m.at.begin() + start, m.at.end(), 0u);
      if (rnd(0, 1) && onFree != m.at.end()) start = std::min(U32(onFree - m.at.begin()), m.memSz() - sz);
      realloc(start, sz);  // half of them on a free entry, so that some succeed
    } else if (op < 97) {
      checkMoves(a->defragment(), m.defragment());
    } else {  // around the first size, above maxBlkSz so that every size stays possible
      resize(std::max(rnd(firstSz / 2, firstSz * 2), maxBlkSz + 1));
    }
  }
};

// Every compaction is replayed on the caller's data.
TEST(BestFitAllocator, AgreesWithModelAndKeepsDataUnderRandomChurn) {
  std::size_t overlaps = 0;
  for (auto [memSz, offset, maxBlkSz, steps] : std::vector<std::array<U32, 4>>{
           {300, 0, 16, 5000}, {1000, 1000000, 64, 5000}, {64, 7, 63, 3000}, {20000, 5, 8, 2000}})
    for (unsigned seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << "memSz " << memSz << " maxBlkSz " << maxBlkSz << " seed " << seed);
      Harness h(memSz, offset, maxBlkSz, seed);
      walk(*h.a, h.m);
      for (U32 i = 0; i < steps && !testing::Test::HasFailure(); ++i) h.step(), walk(*h.a, h.m);
      // Every handle dropped, in random order: the walk after the last finds one run.
      std::shuffle(h.held.begin(), h.held.end(), h.rng);
      while (!h.held.empty())
        if (h.drop(h.held.size() - 1), h.held.size() % 512 == 0) walk(*h.a, h.m);
      overlaps += h.overlaps;
    }
  EXPECT_GT(overlaps, 0u) << "no move overlapped its source: that case went untested";
}

TEST(BestFitAllocator, CornerCasesAndResizing) {
  Harness d(1000, 50, 100, 1);  // runs: 90 at 10, 170 at 130, 640 at 360; no sized run holds 100
  d.alloc(10), d.realloc(100, 30), d.realloc(300, 60), d.alloc(100);
  EXPECT_EQ(d.rel(d.held.back()), 130u);    // the shortest jumbo run does
  EXPECT_FALSE(d.a->realloc(50 + 95, 10));  // straddles a live block
  // Blocks [0..9] and [15..34], free [10..14] and the tail: one move, 15 down to 10.
  Harness h(100, 7, 30, 1);
  h.alloc(10), h.alloc(5), h.alloc(20), h.drop(1);
  auto cmds = h.a->defragment();
  h.checkMoves(cmds, Moves(1, {15, 10, 20}));
  h.m.defragment();
  EXPECT_EQ(h.a->defragment()->pendingCmdLogs(), 0u);  // already compact
  h.alloc(30), h.alloc(30), h.alloc(10);
  EXPECT_EQ(h.a->defragment()->pendingCmdLogs(), 0u);  // full
  h.resize(90);  // full: no change
  h.drop(2);
  h.resize(90);   // the last entry is in use: compacts first, then shrinks
  h.resize(140);  // merges with the free tail
  h.resize(120);  // the tail is long enough: no moves
  h.drop(0);
  h.resize(10);  // more than is free: compacts, then shrinks by what is free
  EXPECT_EQ(h.a->memSz(), 60u);
  walk(*h.a, h.m);
  // No absolute index may reach 0xFFFFFFFF; a refused size changes nothing.
  EXPECT_EQ(rangeText([&] { h.a->resizeMemory(0xFFFFFFFEu - 6); }), "BestFitAllocator::memSz < 0 or > 4294967287 not allowed");
  h.a->resizeMemory(0xFFFFFFFEu - 7);
  EXPECT_EQ(h.a->numFreeEntries(), 0xFFFFFFFEu - 7 - 60);
  // The commands keep the blocks they moved after the caller lets go, the blocks keep the
  // allocator and free into it, and the last block takes it along (the leak checker sees).
  Vell::BestFitAllocator* const raw = h.a.ptr();
  h.a = nullptr, h.held.clear();
  EXPECT_EQ(raw->inUseBlocks(), cmds->pendingCmdLogs());
  EXPECT_EQ(raw->references(), 1u);
  EXPECT_EQ(raw->numFreeEntries(), 0xFFFFFFFEu - 7 - 20);
}

TEST(BestFitAllocatorText, ValuesPrintAndParseBack) {
  auto a = Vell::bestFitAllocatorFactory("text", 100, 10, 30);
  BlkPtr const b = a->alloc(20);
  std::string const text = Vell::valueToStrep(Vell::BFA::PendingCmd(15, b)).str();
  EXPECT_EQ(text, "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 15, 'blk': Value('Vell::BFA::Blk', ** "
                  "{'blkSz': 20, 'startIndex': 10})})");
  {  // a block read back describes a range of no allocator: dropping it frees nothing
    auto const back = Quor::strepToValue<Vell::BFA::PendingCmd>(text);
    EXPECT_FALSE(back.blk()->allocator());
    EXPECT_EQ(Vell::valueToStrep(back).str(), text);
  }
  EXPECT_EQ(a->numFreeEntries(), 80u);
  EXPECT_EQ(Vell::valueToStrep(Vell::BFA::PendingCmd()), "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 0, 'blk': None})");
  char const* const badBlk = "Value('Vell::BFA::PendingCmd', ** {'blk': Value('Vell::BFA::Blk', ** {'at': 1})})";
  EXPECT_EQ(rangeText([&] { Quor::strepToValue<Vell::BFA::PendingCmd>(badBlk); }), "Blk has no such attribute: at in attribute blk");
}

TEST(BestFitAllocatorText, PendingCmdsIsAnIndexedQueue) {
  auto q = Vell::BFA::pendingCmdsFactory(3);
  Vell::BFA::PendingCmd const c1(1, nullptr), c2(2, nullptr);
  q->pendingCmdLogIs(q->pendingCmdLogEnq(c1), c2);  // present: replaced in place
  q->pendingCmdLogIs(2, c1);                        // absent: appended
  EXPECT_EQ(q->pendingCmdLogDeq(), c2);
  EXPECT_EQ(q->pendingCmdLogDeq(), c1);
  EXPECT_EQ(q->pendingCmdLogHead(), 0xFFFFFFFFu);
  EXPECT_EQ(rangeText([&] { q->pendingCmdLogDeq(); }), "linkqueue index out of range");
}

TEST(BestFitAllocatorTrace, OperationsTraceAtDetailLevelOnly) {
  VellTest::TraceCapture traces("BestFitAllocator", 6);
  auto a = Vell::bestFitAllocatorFactory("t", 40, 0, 16);
  BlkPtr const b1 = a->alloc(10), b2 = a->alloc(16), b3 = a->alloc(8);  // free: [34..39]
  EXPECT_TRUE(traces.records.empty());
  Quor::traceLevelIs("BestFitAllocator", 9);
  EXPECT_FALSE(a->alloc(16) || a->realloc(33, 2));
  BlkPtr const b4 = a->realloc(36, 4);
  EXPECT_FALSE(a->realloc(38, 1));
  EXPECT_EQ(traces.texts(7), traces.texts()) << "only detail level 7";
  EXPECT_EQ(traces.texts(), (std::vector<std::string>{
                       "Alloc: blkSz 16", "Alloc: blkSz 16, no free blk available", "Realloc: startIndex 33, blkSz 2, memSz 40",
                       "Not all the required entries are free.", "Realloc: startIndex 36, blkSz 4, memSz 40",
                       "Removing free blk: sz 6, index 34", "Deleting freeBlkSet for blkSz = 6",
                       "Adding a free block up till startIndex.", "Adding free blk: sz 2, index 34",
                       "Creating freeBlkSet for blkSz = 2", "Realloc: blkSz 4, startIndex 36",
                       "numFreeEntries decreased by 4, now = 2", "Realloc: startIndex 38, blkSz 1, memSz 40",
                       "No free blocks after startIndex"}));
  BlkPtr const rest = a->realloc(34, 2);
  a->defragment();
  auto const lines = traces.texts();
  EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
            (std::vector<std::string>{"start index = 34, Size = 2", "start index = 36, Size = 4", "No free blocks. Returning."}));
}

// "Assertion failed: <text> [BestFitAllocator:<line>] in <...function>", as a regex.
std::string died(std::string const& text, char const* function) {
  return "Assertion failed: " + VellTest::literally(text) + " \\[[A-Za-z_]+:[0-9]+\\] in .*Vell::BestFitAllocator::" + function;
}

TEST(BestFitAllocatorDeath, BrokenPreconditionsAndInvariantsAbortWithTheirText) {
  using Vell::bestFitAllocatorFactory;
  EXPECT_DEATH(bestFitAllocatorFactory("d", 0, 0, 1), died("memSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0xFFFFFFF8u, 1),  // would wrap past 2^32
               died("( memSz() + offset() ) < 0xFFFFFFFF", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 0), died("maxBlkSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 16), died("maxBlkSz() < memSz()", "handleInitialized"));
  auto a = bestFitAllocatorFactory("d", 100, 0, 10);
  EXPECT_DEATH(a->alloc(0), died("blkSz", "alloc"));
  EXPECT_DEATH(a->alloc(11), died("blkSz <= maxBlkSz()", "alloc"));
  EXPECT_DEATH(a->realloc(95, 6), died("startIndex + blkSz <= memSz()", "realloc"));
  EXPECT_DEATH(a->realloc(0xFFFFFFFF, 2), died("startIndex + blkSz <= memSz()", "realloc"));
  BlkPtr x = a->alloc(5), y = a->alloc(5), z = a->alloc(5);
  y = nullptr;  // free: [5..9] sized, [15..99] jumbo
  EXPECT_DEATH(a->doAddFreeBlk(5, 5), died("!freeBlkSet( blkSz )->freeBlk( startIndex )", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(85, 15), died("!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(3, 5), died("freeBlkStartIndexToSz( startIndex ) == 0", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(2, 8), died("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0", "doAddFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(4, 5), died("freeBlkSet( blkSz )", "doRemoveFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(5, 6), died("freeBlkSet( blkSz )->freeBlk( startIndex )", "doRemoveFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(84, 15), died("jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )", "doRemoveFreeBlk"));
  x = nullptr;  // free: [0..9]; then [5..9] neither free nor a block, right behind a run
  a->doRemoveFreeBlk(10, 0), a->doAddFreeBlk(5, 0);
  EXPECT_DEATH(a->defragment(), died("i", "defragment"));
}

}  // namespace
