// BestFitAllocator: a randomized differential test against a plain model, an invariant
// walker run after every step, defragmentation replayed on real data, resizing, text
// forms, traces and assertion texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include <Vell/BestFitAllocator.h>

using Vell::U32;
using Vell::U64;
using BlkPtr = Quor::Ptr<Vell::BFA::Blk>;
using Runs = std::map<U32, U32>;  // relative start -> size

namespace {

// The model: free intervals and live blocks, both by relative start, and nothing else.
struct Model {
  U32 memSz, maxBlkSz;
  Runs free, live;

  void addFree(U32 start, U32 sz) {
    auto next = free.find(start + sz);
    if (next != free.end()) sz += next->second, free.erase(next);
    auto prev = free.lower_bound(start);
    if (prev != free.begin() && (--prev, prev->first + prev->second == start)) {
      prev->second += sz;
    } else {
      free[start] = sz;
    }
  }
  Runs::iterator holding(U32 i) {
    auto it = free.upper_bound(i);
    if (it == free.begin()) return free.end();
    --it;
    return i < it->first + it->second ? it : free.end();
  }
  bool isFree(U32 start, U32 sz) {
    auto it = holding(start);
    return it != free.end() && U64(start) + sz <= U64(it->first) + it->second;
  }
  void take(U32 start, U32 sz) {
    auto it = holding(start);
    U32 const f = it->first, s = it->second;
    free.erase(it);
    if (start > f) free[f] = start - f;
    if (start + sz < f + s) free[start + sz] = f + s - start - sz;
    live[start] = sz;
  }
  void release(U32 start) {
    U32 const sz = live.at(start);
    live.erase(start);
    addFree(start, sz);
  }
  U32 numFree() const {
    U32 n = 0;
    for (auto [s, z] : free) n += z;
    return n;
  }
  // Compaction: blocks packed from 0 in address order; returns (old, new, size) moves.
  std::vector<std::array<U32, 3>> defragment() {
    std::vector<std::array<U32, 3>> moves;
    if (free.empty()) return moves;
    Runs packed;
    U32 at = 0;
    for (auto [s, z] : live) {
      if (s != at) moves.push_back({s, at, z});
      packed[at] = z;
      at += z;
    }
    live = packed;
    free.clear();
    if (at < memSz) free[at] = memSz - at;
    return moves;
  }
};

// Checks every invariant of the allocator's collections and that they say what the model
// says: the runs, by start and by end; the sized sets and the jumbo set; the tiling of the
// space by runs and live blocks; numFreeEntries; the live-block map.
void walk(Vell::BestFitAllocator const& a, Model const& m) {
  Runs runs;
  U64 prevEnd = 0;
  bool firstRun = true;
  auto byEnd = a.freeBlkEndIndexToSzIterator();
  for (auto r = a.freeBlkStartIndexToSzIterator(); r; ++r, ++byEnd) {
    ASSERT_TRUE(byEnd);
    EXPECT_EQ(byEnd.key(), r.key() + r.value() - 1);
    EXPECT_TRUE(firstRun || r.key() > prevEnd) << "runs touch or overlap at " << r.key();
    firstRun = false;
    prevEnd = U64(r.key()) + r.value();
    EXPECT_EQ(a.freeBlkStartIndexToSz(r.key()), r.value());
    EXPECT_EQ(a.freeBlkEndIndexToSz(r.key() + r.value() - 1), r.value());
    if (r.value() <= a.maxBlkSz()) {
      auto set = a.freeBlkSet(r.value());
      ASSERT_TRUE(set) << r.value();
      EXPECT_TRUE(set->freeBlk(r.key()));
    } else {
      EXPECT_TRUE(a.jumboFreeBlk(Vell::BFA::JumboFreeBlk(r.value(), r.key())));
    }
    runs[r.key()] = r.value();
  }
  EXPECT_FALSE(byEnd);
  EXPECT_EQ(a.freeBlkStartIndexToSzs(), runs.size());
  EXPECT_EQ(a.freeBlkEndIndexToSzs(), runs.size());
  std::size_t indexed = a.jumboFreeBlks();
  a.forEachFreeBlkSet([&](Vell::BFA::FreeBlkSet const& set) {
    EXPECT_GT(set.freeBlks(), 0u);
    EXPECT_EQ(a.freeBlkSet(set.blkSz()).ptr(), &set);
    for (U32 s : set) EXPECT_EQ(runs.count(s) ? runs[s] : 0, set.blkSz()) << s;
    indexed += set.freeBlks();
  });
  a.forEachJumboFreeBlk([&](Vell::BFA::JumboFreeBlk const& j) {
    EXPECT_GT(j.blkSz(), a.maxBlkSz());
    EXPECT_EQ(runs.count(j.startIndex()) ? runs[j.startIndex()] : 0, j.blkSz());
  });
  EXPECT_EQ(indexed, runs.size()) << "a run is indexed twice or not at all";
  Runs live;
  a.forEachInUseBlock([&](Vell::BFA::Blk const& b) {
    EXPECT_EQ(a.inUseBlock(b.startIndex()).ptr(), &b);
    EXPECT_EQ(b.allocator().ptr(), &a);
    live[b.startIndex() - a.offset()] = b.blkSz();
  });
  // Tiling: walking runs and blocks in address order covers 0 .. memSz-1 exactly once.
  Runs all = runs;
  U64 sum = 0;
  for (auto [s, z] : runs) sum += z;
  for (auto [s, z] : live) EXPECT_TRUE(all.emplace(s, z).second) << "block on a free run at " << s;
  U64 at = 0;
  for (auto [s, z] : all) {
    EXPECT_EQ(s, at) << "hole or overlap";
    at = U64(s) + z;
  }
  EXPECT_EQ(at, a.memSz());
  EXPECT_EQ(a.numFreeEntries(), sum);
  EXPECT_EQ(runs, m.free);
  EXPECT_EQ(live, m.live);
  EXPECT_EQ(a.memSz(), m.memSz);
}

// An allocator, its model, and the caller's handles (some blocks held twice).
struct Harness {
  Quor::Ptr<Vell::BestFitAllocator> a;
  Model m;
  std::vector<BlkPtr> held;
  std::mt19937 rng;
  U32 const firstSz;

  Harness(U32 memSz, U32 offset, U32 maxBlkSz, unsigned seed)
      : a(Vell::bestFitAllocatorFactory("bfa", memSz, offset, maxBlkSz)), m{memSz, maxBlkSz, {{0, memSz}}, {}},
        rng(seed), firstSz(memSz) {}
  U32 rnd(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(rng); }
  U32 rel(BlkPtr const& b) const { return b->startIndex() - a->offset(); }

  void alloc(U32 sz) {
    BlkPtr b = a->alloc(sz);
    std::optional<U32> best;  // the smallest run that holds sz
    for (auto [s, z] : m.free)
      if (z >= sz && (!best || z < *best)) best = z;
    ASSERT_EQ(bool(b), bool(best)) << "alloc " << sz;
    if (!b) return;
    EXPECT_EQ(b->blkSz(), sz);
    ASSERT_TRUE(m.free.count(rel(b))) << "not at the start of a free run";
    EXPECT_EQ(m.free[rel(b)], *best) << "not the best fit";
    if (*best > m.maxBlkSz) {  // among equal jumbo runs, the lowest
      for (auto [s, z] : m.free) EXPECT_FALSE(z == *best && s < rel(b));
    }
    m.take(rel(b), sz);
    held.push_back(b);
  }
  void realloc(U32 start, U32 sz) {
    bool const fits = m.isFree(start, sz);
    BlkPtr b = a->realloc(start + a->offset(), sz);
    ASSERT_EQ(bool(b), fits) << "realloc " << start << "+" << sz;
    if (!b) return;
    EXPECT_EQ(rel(b), start);
    m.take(start, sz);
    held.push_back(b);
  }
  void drop(std::size_t i) {
    bool const last = held[i]->references() == 1;
    U32 const start = rel(held[i]);
    std::swap(held[i], held.back());
    held.pop_back();
    if (last) m.release(start);
  }
  void checkMoves(Quor::Ptr<Vell::BFA::PendingCmds> const& cmds, std::vector<std::array<U32, 3>> const& moves) {
    ASSERT_TRUE(cmds);
    ASSERT_EQ(cmds->pendingCmdLogs(), moves.size());
    std::size_t k = 0;
    cmds->forEachPendingCmdLog([&](U32, Vell::BFA::PendingCmd const& c) {
      EXPECT_EQ(c.oldIndex(), moves[k][0] + a->offset());
      EXPECT_EQ(c.blk()->startIndex(), moves[k][1] + a->offset());
      EXPECT_EQ(c.blk()->blkSz(), moves[k][2]);
      ++k;
    });
  }
  void defragment() { checkMoves(a->defragment(), m.defragment()); }
  void resize(U32 newSz) {
    auto cmds = a->resizeMemory(newSz);
    if (newSz > m.memSz) {
      m.addFree(m.memSz, newSz - m.memSz);
      m.memSz = newSz;
    } else if (newSz < m.memSz && !m.free.empty()) {
      U32 cut = m.memSz - newSz;
      auto tail = m.holding(m.memSz - 1);
      if (tail == m.free.end() || tail->second < cut) {
        checkMoves(cmds, m.defragment());
        cut = std::min(cut, m.numFree());
      } else {
        EXPECT_FALSE(cmds);
      }
      U32 const last = m.free.rbegin()->first;
      if ((m.free[last] -= cut) == 0) m.free.erase(last);
      m.memSz -= cut;
      return;
    }
    EXPECT_FALSE(cmds);
  }
  void step() {
    U32 const op = rnd(0, 99);
    if (op < 45) {
      alloc(rnd(0, 3) ? rnd(1, std::min<U32>(m.maxBlkSz, 8)) : rnd(1, m.maxBlkSz));
    } else if (op < 80 && !held.empty()) {
      drop(rnd(0, U32(held.size() - 1)));
    } else if (op < 88 && !held.empty()) {
      held.push_back(held[rnd(0, U32(held.size() - 1))]);  // a second holder
    } else if (op < 95) {
      U32 const sz = rnd(1, m.maxBlkSz);
      U32 start = rnd(0, m.memSz - sz);
      if (rnd(0, 1) && !m.free.empty()) {  // aim inside a free run, so some succeed
        auto it = m.free.begin();
        std::advance(it, rnd(0, U32(m.free.size() - 1)));
        start = std::min(it->first + rnd(0, it->second - 1), m.memSz - sz);
      }
      realloc(start, sz);
    } else if (op < 97) {
      defragment();
    } else {
      // Around the first size, and above maxBlkSz so that every size stays allocatable.
      resize(std::max(rnd(firstSz / 2, firstSz * 2), m.maxBlkSz + 1));
    }
  }
};

struct DiffCase {
  U32 memSz, offset, maxBlkSz, steps;
};

TEST(BestFitAllocator, AgreesWithModelUnderRandomChurn) {
  for (DiffCase c : {DiffCase{300, 0, 16, 6000}, DiffCase{1000, 1000000, 64, 6000}, DiffCase{64, 7, 63, 4000},
                     DiffCase{20000, 5, 8, 2500}}) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << "memSz " << c.memSz << " offset " << c.offset << " maxBlkSz "
                                      << c.maxBlkSz << " seed " << seed);
      Harness h(c.memSz, c.offset, c.maxBlkSz, seed);
      for (U32 i = 0; i < c.steps && !testing::Test::HasFailure(); ++i) {
        h.step();
        walk(*h.a, h.m);
      }
      // Dropping every handle, in random order, gives back one run of the whole space.
      std::shuffle(h.held.begin(), h.held.end(), h.rng);
      while (!h.held.empty()) h.drop(h.held.size() - 1);
      walk(*h.a, h.m);
      EXPECT_EQ(h.a->freeBlkStartIndexToSz(0), h.a->memSz());
      EXPECT_EQ(h.a->inUseBlocks(), 0u);
    }
  }
}

// Tens of thousands of free runs: the run index grows several levels, then shrinks back
// to a single run as every block goes, in random order.
TEST(BestFitAllocator, ManyRunsGrowAndShrinkTheIndex) {
  Harness h(40000, 3, 4, 7);
  while (h.m.numFree() > 0) h.alloc(h.rnd(1, std::min<U32>(4, h.m.numFree())));
  walk(*h.a, h.m);
  std::shuffle(h.held.begin(), h.held.end(), h.rng);
  for (std::size_t n = h.held.size() / 2, i = 0; i < n; ++i) h.drop(h.held.size() - 1);
  walk(*h.a, h.m);
  EXPECT_GT(h.a->freeBlkStartIndexToSzs(), 4000u);
  for (int round = 0; round < 2000 && !testing::Test::HasFailure(); ++round) {
    h.step();
    if (round % 200 == 0) walk(*h.a, h.m);
  }
  for (std::size_t i = 0; !h.held.empty(); ++i) {
    h.drop(h.held.size() - 1);
    if (i % 2000 == 0) walk(*h.a, h.m);
  }
  walk(*h.a, h.m);
  EXPECT_EQ(h.a->freeBlkStartIndexToSzs(), 1u);
}

// Fills the space with blocks of random sizes, then drops every short block and one in
// dropOneIn of the others: many small gaps, so many moves overlap their source.
void fragment(Harness& h, U32 dropOneIn, U32 shortSz) {
  while (h.m.numFree() > h.m.maxBlkSz) h.alloc(h.rnd(1, h.m.maxBlkSz));
  for (std::size_t i = h.held.size(); i-- > 0;)
    if (h.held[i]->blkSz() <= shortSz || h.rnd(1, dropOneIn) == 1) h.drop(i);
}

TEST(BestFitAllocator, DefragmentedDataSurvivesReplay) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    U32 const offset = 100;
    Harness h(5000, offset, 40, seed);
    fragment(h, 8, 4);
    for (int i = 0; i < 60; ++i) h.alloc(h.rnd(1, 40));
    // The caller's storage: each entry names its block and its place in it.
    std::vector<U64> mem(h.m.memSz, ~U64(0));
    auto tag = [](Vell::BFA::Blk const& b, U32 k) { return U64(&b) * 65536 + k; };
    for (auto const& b : h.held)
      for (U32 k = 0; k < b->blkSz(); ++k) mem[b->startIndex() - offset + k] = tag(*b, k);
    auto cmds = h.a->defragment();
    h.m.defragment();
    walk(*h.a, h.m);
    bool overlapped = false;
    U32 lastOld = 0;
    while (cmds->pendingCmdLogs()) {
      Vell::BFA::PendingCmd const c = cmds->pendingCmdLogDeq();
      U32 const from = c.oldIndex() - offset, to = c.blk()->startIndex() - offset, n = c.blk()->blkSz();
      EXPECT_LT(to, from);
      EXPECT_GT(from, lastOld) << "moves out of address order";
      lastOld = from;
      overlapped |= from - to < n;
      std::copy(mem.begin() + from, mem.begin() + from + n, mem.begin() + to);  // low to high
    }
    EXPECT_TRUE(overlapped) << "no move overlapped its source; the case went untested";
    for (auto const& b : h.held)
      for (U32 k = 0; k < b->blkSz(); ++k) ASSERT_EQ(mem[b->startIndex() - offset + k], tag(*b, k));
    // One run at the end, which alloc can use whole when it is short enough.
    U32 const freeSz = h.a->numFreeEntries();
    EXPECT_EQ(h.a->freeBlkEndIndexToSz(h.a->memSz() - 1), freeSz);
    while (h.m.numFree() > 40) h.alloc(40);
    if (h.m.numFree()) h.alloc(h.m.numFree());
    EXPECT_EQ(h.a->numFreeEntries(), 0u);
    walk(*h.a, h.m);
  }
}

TEST(BestFitAllocator, CommandsKeepTheirBlocks) {
  Harness h(100, 0, 10, 1);
  for (int i = 0; i < 10; ++i) h.alloc(10);
  for (int i = 0; i < 10; i += 2) h.held[i] = nullptr;  // every other block goes
  h.held.erase(std::remove(h.held.begin(), h.held.end(), nullptr), h.held.end());
  auto cmds = h.a->defragment();
  EXPECT_EQ(cmds->pendingCmdLogs(), 5u);
  h.held.clear();  // the commands still hold the moved blocks
  EXPECT_EQ(h.a->numFreeEntries(), 50u);
  EXPECT_EQ(h.a->inUseBlocks(), 5u);
  cmds = nullptr;
  EXPECT_EQ(h.a->freeBlkStartIndexToSz(0), 100u);
}

TEST(BestFitAllocator, ListedCases) {
  Harness h(1000, 50, 100, 1);
  EXPECT_EQ(h.a->jumboFreeBlks(), 1u);
  EXPECT_TRUE(h.a->jumboFreeBlk(Vell::BFA::JumboFreeBlk(1000, 0)));
  EXPECT_EQ(h.a->numFreeEntries(), 1000u);
  EXPECT_EQ(h.a->freeBlkStartIndexToSz(0xFFFFFFFF) + h.a->freeBlkEndIndexToSz(0xFFFFFFFF), 0u);
  // Best fit: the smallest run that holds the request, the low end of it.
  h.alloc(10);
  EXPECT_EQ(h.held[0]->startIndex(), 50u);
  h.realloc(100, 30);  // [100, 130) leaves runs of 90 ([10, 100)) and 870
  h.realloc(300, 60);  // runs 90, 170 ([130, 300)), 640
  h.alloc(80);
  EXPECT_EQ(h.rel(h.held.back()), 10u);
  h.alloc(100);  // no sized run holds 100: the shortest jumbo run does
  EXPECT_EQ(h.rel(h.held.back()), 130u);
  // A range that straddles a live block is refused.
  EXPECT_FALSE(h.a->realloc(50 + 95, 10));
  walk(*h.a, h.m);
  // The defragmentation example: blocks [0..9] and [15..34], free [10..14] and the tail.
  Harness d(100, 7, 30, 1);
  d.alloc(10), d.alloc(5), d.alloc(20);
  d.drop(1);
  auto cmds = d.a->defragment();
  d.m.defragment();
  ASSERT_EQ(cmds->pendingCmdLogs(), 1u);
  EXPECT_EQ(cmds->pendingCmdLog(cmds->pendingCmdLogHead()).oldIndex(), 15u + 7);
  EXPECT_EQ(d.held.back()->startIndex(), 10u + 7);
  EXPECT_EQ(d.a->freeBlkStartIndexToSz(30), 70u);
  EXPECT_EQ(d.a->defragment()->pendingCmdLogs(), 0u);  // already compact
  d.alloc(30), d.alloc(30), d.alloc(10);
  EXPECT_EQ(d.a->defragment()->pendingCmdLogs(), 0u);  // full
  walk(*d.a, d.m);
}

TEST(BestFitAllocator, ResizeGrowsShrinksAndDefragmentsWhenItMust) {
  Harness h(100, 3, 20, 1);
  h.alloc(20), h.alloc(20), h.alloc(20);
  h.resize(150);  // merges with the free tail
  EXPECT_EQ(h.a->freeBlkStartIndexToSz(60), 90u);
  h.resize(120);  // the tail is long enough: no moves
  h.drop(0);
  h.alloc(20), h.alloc(20), h.alloc(20), h.alloc(20);  // full now
  EXPECT_EQ(h.a->numFreeEntries(), 0u);
  h.resize(100);  // a full space does not shrink
  EXPECT_EQ(h.a->memSz(), 120u);
  h.drop(1), h.drop(0);
  // The last entry is in use: the shrink compacts first and returns the moves.
  h.resize(90);
  EXPECT_EQ(h.a->memSz(), 90u);
  walk(*h.a, h.m);
  // Asking for more than is free shrinks by what is free.
  h.drop(0);
  h.resize(10);
  EXPECT_EQ(h.a->memSz(), 60u);
  EXPECT_EQ(h.a->numFreeEntries(), 0u);
  walk(*h.a, h.m);
  // No absolute index may reach 0xFFFFFFFF; the space stays as it was.
  try {
    h.a->resizeMemory(0xFFFFFFFEu - 2);
    ADD_FAILURE() << "no exception";
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), "BestFitAllocator::memSz < 0 or > 4294967291 not allowed");
  }
  EXPECT_EQ(h.a->memSz(), 60u);
  h.resize(0xFFFFFFFEu - 3);
  EXPECT_EQ(h.a->numFreeEntries(), 0xFFFFFFFEu - 3 - 60);
}

TEST(BestFitAllocator, AllocatorLivesWhileItsBlocksDo) {
  auto a = Vell::bestFitAllocatorFactory("owner", 100, 0, 10);
  Vell::BestFitAllocator* raw = a.ptr();
  BlkPtr b1 = a->alloc(5), b2 = a->alloc(5);
  EXPECT_EQ(raw->references(), 3u);
  a = nullptr;  // the blocks keep it
  b1 = nullptr;
  EXPECT_EQ(raw->numFreeEntries(), 95u);
  EXPECT_EQ(b2->allocator().ptr(), raw);
  b2 = nullptr;  // the last reference: the allocator goes too (the leak checker sees it)
}

}  // namespace

namespace {

TEST(BestFitAllocatorText, ValuesPrintAndParseBack) {
  Vell::BFA::JumboFreeBlk const j(70, 3);
  EXPECT_EQ(Vell::valueToStrep(j), "Value('Vell::BFA::JumboFreeBlk', ** {'blkSz': 70, 'startIndex': 3})");
  EXPECT_EQ(Quor::strepToValue<Vell::BFA::JumboFreeBlk>(Vell::valueToStrep(j)), j);
  EXPECT_TRUE(Vell::BFA::JumboFreeBlk(5, 9) < Vell::BFA::JumboFreeBlk(6, 1));
  EXPECT_TRUE(Vell::BFA::JumboFreeBlk(5, 1) < Vell::BFA::JumboFreeBlk(5, 9));

  auto a = Vell::bestFitAllocatorFactory("text", 100, 10, 30);
  BlkPtr const b = a->alloc(20);
  Vell::BFA::PendingCmd const c(15, b);
  std::string const text = Vell::valueToStrep(c).str();
  EXPECT_EQ(text,
            "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 15, 'blk': Value('Vell::BFA::Blk', ** {'blkSz': 20, "
            "'startIndex': 10})})");
  // A block read back describes the range and belongs to no allocator: dropping it
  // frees nothing.
  {
    auto const back = Quor::strepToValue<Vell::BFA::PendingCmd>(text);
    EXPECT_EQ(back.oldIndex(), 15u);
    EXPECT_EQ(back.blk()->blkSz(), 20u);
    EXPECT_EQ(back.blk()->startIndex(), 10u);
    EXPECT_FALSE(back.blk()->allocator());
    EXPECT_EQ(Vell::valueToStrep(back).str(), text);
  }
  EXPECT_EQ(a->numFreeEntries(), 80u);
  Vell::BFA::PendingCmd const none;
  EXPECT_EQ(Vell::valueToStrep(none), "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 0, 'blk': None})");
  EXPECT_EQ(Quor::strepToValue<Vell::BFA::PendingCmd>(Vell::valueToStrep(none)), none);
}

TEST(BestFitAllocatorText, ParseErrors) {
  auto fails = [](auto parse, char const* input, std::string const& expected) {
    try {
      parse(Quor::String8(input));
      ADD_FAILURE() << "parsed " << input;
    } catch (Quor::RangeException const& e) {
      EXPECT_EQ(e.what(), expected) << input;
    }
  };
  auto jumbo = [](Quor::String8 const& t) { Quor::strepToValue<Vell::BFA::JumboFreeBlk>(t); };
  auto cmd = [](Quor::String8 const& t) { Quor::strepToValue<Vell::BFA::PendingCmd>(t); };
  fails(jumbo, "Value('Vell::BFA::JumboFreeBlk', ** {'blkSz': 5", "premature end of value type JumboFreeBlk");
  fails(jumbo, "Value('Vell::BFA::JumboFreeBlk', ** {'foo': 1})", "JumboFreeBlk has no such attribute: foo");
  fails(cmd, "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 5", "premature end of value type PendingCmd");
  fails(cmd, "Value('Vell::BFA::PendingCmd', ** {'x': 1})", "PendingCmd has no such attribute: x");
  fails(cmd, "Value('Vell::BFA::PendingCmd', ** {'blk': Value('Vell::BFA::Blk', ** {'at': 1})})",
        "Blk has no such attribute: at in attribute blk");
  fails(jumbo, "Value('Vell::BFA::JumboFreeBlk', ** {}) x",
        "junk at column 40 deserializing Value('Vell::BFA::JumboFreeBlk', ** {}) x");
}

TEST(BestFitAllocatorText, PendingCmdsIsAnIndexedQueue) {
  auto q = Vell::BFA::pendingCmdsFactory(3);
  Vell::BFA::PendingCmd const c1(1, nullptr), c2(2, nullptr), c3(3, nullptr);
  EXPECT_EQ(q->pendingCmdLogEnq(c1), 0u);
  EXPECT_EQ(q->pendingCmdLogEnq(c2), 1u);
  EXPECT_EQ(q->pendingCmdLogEnq(c3), 2u);
  auto full = [&] { q->pendingCmdLogEnq(c1); };
  EXPECT_THROW(full(), Quor::RangeException);
  q->pendingCmdLogDel(1);
  EXPECT_THROW(q->pendingCmdLog(1), Quor::RangeException);
  EXPECT_THROW(q->pendingCmdLogDel(3), Quor::RangeException);
  EXPECT_EQ(q->pendingCmdLogEnq(c2), 1u);  // freed indexes come back, lowest first
  q->pendingCmdLogIs(0, c3);               // in place: still the oldest
  EXPECT_THROW(q->newPendingCmdLog(0, c1), Quor::RangeException);
  EXPECT_EQ(q->pendingCmdLogDeq(), c3);
  q->pendingCmdLogIs(0, c1);  // absent: appended
  EXPECT_EQ(q->pendingCmdLogDeq(), c3);
  EXPECT_EQ(q->pendingCmdLogDeq(), c2);
  EXPECT_EQ(q->pendingCmdLogDeq(), c1);
  EXPECT_EQ(q->pendingCmdLogHead(), 0xFFFFFFFFu);
  try {
    q->pendingCmdLogDeq();
    ADD_FAILURE();
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index out of range");
  }
  try {
    q->newPendingCmdLog(0, c1), q->newPendingCmdLog(2, c2), q->newPendingCmdLog(1, c3);
    q->pendingCmdLogEnq(c1);
    ADD_FAILURE();
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  std::vector<U32> order;
  q->forEachPendingCmdLog([&](U32 i, Vell::BFA::PendingCmd const&) { order.push_back(i); });
  EXPECT_EQ(order, (std::vector<U32>{0, 2, 1}));
}

TEST(BestFitAllocatorTrace, OperationsTraceAtDetailLevelOnly) {
  std::vector<std::string> lines;
  Quor::traceSinkIs([&](Quor::TraceRecord const& r) {
    EXPECT_EQ(r.channel, "BestFitAllocator");
    EXPECT_EQ(r.stem, "BestFitAllocator");
    EXPECT_EQ(r.level, 7);
    lines.push_back(r.text);
  });
  Quor::traceLevelIs("BestFitAllocator", 6);
  auto a = Vell::bestFitAllocatorFactory("t", 40, 0, 16);
  EXPECT_TRUE(lines.empty());
  Quor::traceLevelIs("BestFitAllocator", 9);
  BlkPtr b1 = a->alloc(10), b2 = a->alloc(16), b3 = a->alloc(8);  // free: [34..39]
  lines.clear();
  EXPECT_FALSE(a->alloc(16));
  EXPECT_FALSE(a->realloc(5, 2));
  EXPECT_FALSE(a->realloc(33, 2));
  BlkPtr b4 = a->realloc(36, 4);
  EXPECT_FALSE(a->realloc(38, 1));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Alloc: blkSz 16", "Alloc: blkSz 16, no free blk available",
                       "Realloc: startIndex 5, blkSz 2, memSz 40", "Not all the required entries are free.",
                       "Realloc: startIndex 33, blkSz 2, memSz 40", "Not all the required entries are free.",
                       "Realloc: startIndex 36, blkSz 4, memSz 40", "Removing free blk: sz 6, index 34",
                       "Deleting freeBlkSet for blkSz = 6", "Adding a free block up till startIndex.",
                       "Adding free blk: sz 2, index 34", "Creating freeBlkSet for blkSz = 2",
                       "Realloc: blkSz 4, startIndex 36", "numFreeEntries decreased by 4, now = 2",
                       "Realloc: startIndex 38, blkSz 1, memSz 40", "No free blocks after startIndex"}));
  b1 = nullptr;
  lines.clear();
  a->defragment();
  std::vector<std::string> const before{"Free blocks before defragmenting", "start index = 0, Size = 10",
                                        "start index = 34, Size = 2",       "Used blocks before defragmenting",
                                        "start index = 10, Size = 16",      "start index = 26, Size = 8",
                                        "start index = 36, Size = 4"};
  std::vector<std::string> const after{"Free blocks after defragmenting", "start index = 28, Size = 12",
                                       "Used blocks after defragmenting", "start index = 0, Size = 16",
                                       "start index = 16, Size = 8",      "start index = 24, Size = 4"};
  ASSERT_GT(lines.size(), before.size() + after.size());
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 7), before);
  EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()), after);
  BlkPtr const full = a->realloc(28, 12);
  lines.clear();
  a->defragment();
  EXPECT_EQ(lines.back(), "No free blocks. Returning.");
  Quor::traceLevelIs("BestFitAllocator", -1);
  Quor::traceSinkIs(nullptr);
}

// Assertion texts, as printed: the condition, the source stem, a line, the function.
std::string died(std::string const& text, char const* function) {
  std::string re = "Assertion failed: ";
  for (char ch : text) {
    if (std::strchr("()[]{}.*+?^$|\\", ch)) re += '\\';
    re += ch;
  }
  return re + " \\[BestFitAllocator:[0-9]+\\] in .*Vell::BestFitAllocator::" + function;
}

TEST(BestFitAllocatorDeath, BrokenPreconditionsAbortWithTheirText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  using Vell::bestFitAllocatorFactory;
  EXPECT_DEATH(bestFitAllocatorFactory("d", 0, 0, 1), died("memSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0xFFFFFFF8u, 1),
               died("( memSz() + offset() ) < 0xFFFFFFFF", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 0), died("maxBlkSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 16), died("maxBlkSz() < memSz()", "handleInitialized"));
  auto a = bestFitAllocatorFactory("d", 100, 10, 20);
  EXPECT_DEATH(a->alloc(0), died("blkSz", "alloc"));
  EXPECT_DEATH(a->alloc(21), died("blkSz <= maxBlkSz()", "alloc"));
  EXPECT_DEATH(a->realloc(10, 0), died("blkSz", "realloc"));
  EXPECT_DEATH(a->realloc(10, 21), died("blkSz <= maxBlkSz()", "realloc"));
  EXPECT_DEATH(a->realloc(100, 11), died("startIndex + blkSz <= memSz()", "realloc"));
  EXPECT_DEATH(a->realloc(9, 1), died("startIndex + blkSz <= memSz()", "realloc"));  // below offset
}

TEST(BestFitAllocatorDeath, InconsistentFreeBlocksAbortWithTheirText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto a = Vell::bestFitAllocatorFactory("d", 100, 0, 10);
  BlkPtr x = a->alloc(5), y = a->alloc(5), z = a->alloc(5);
  y = nullptr;  // free: [5..9] sized, [15..99] jumbo
  EXPECT_DEATH(a->doAddFreeBlk(5, 5), died("!freeBlkSet( blkSz )->freeBlk( startIndex )", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(85, 15), died("!jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(3, 5), died("freeBlkStartIndexToSz( startIndex ) == 0", "doAddFreeBlk"));
  EXPECT_DEATH(a->doAddFreeBlk(2, 8), died("freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0", "doAddFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(4, 5), died("freeBlkSet( blkSz )", "doRemoveFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(5, 6), died("freeBlkSet( blkSz )->freeBlk( startIndex )", "doRemoveFreeBlk"));
  EXPECT_DEATH(a->doRemoveFreeBlk(84, 15), died("jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) )", "doRemoveFreeBlk"));
  // A range that is neither free nor a block behind the first run.
  x = nullptr;  // free: [0..9]
  a->doRemoveFreeBlk(10, 0);
  a->doAddFreeBlk(5, 0);
  EXPECT_DEATH(a->defragment(), died("i", "defragment"));
}

}  // namespace
