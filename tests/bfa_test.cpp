// BestFitAllocator: a randomized differential test against a plain model, with an
// invariant walker after every step; defragmentation replayed on real data; resizing;
// text forms, traces and assertion texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include <Vell/BestFitAllocator.h>

using Vell::U32;
using Vell::U64;
using BlkPtr = Quor::Ptr<Vell::BFA::Blk>;
using Runs = std::map<U32, U32>;  // relative start -> size
using Moves = std::vector<std::array<U32, 3>>;  // old start, new start, size

namespace {

// The model: free intervals and live blocks by relative start, and nothing else.
struct Model {
  U32 memSz, maxBlkSz;
  Runs free, live;

  Runs::iterator holding(U32 i) {
    auto it = free.upper_bound(i);
    return it != free.begin() && i < (--it)->first + it->second ? it : free.end();
  }
  bool isFree(U32 start, U32 sz) {
    auto it = holding(start);
    return it != free.end() && U64(start) + sz <= U64(it->first) + it->second;
  }
  void addFree(U32 start, U32 sz) {
    if (auto next = free.find(start + sz); next != free.end()) sz += next->second, free.erase(next);
    if (auto prev = holding(start - 1); start && prev != free.end()) return void(prev->second += sz);
    free[start] = sz;
  }
  void take(U32 start, U32 sz) {
    auto it = holding(start);
    U32 const f = it->first, s = it->second;
    free.erase(it);
    if (start > f) free[f] = start - f;
    if (start + sz < f + s) free[start + sz] = f + s - start - sz;
    live[start] = sz;
  }
  U32 numFree() const {
    U32 n = 0;
    for (auto [s, z] : free) n += z;
    return n;
  }
  Moves defragment() {  // blocks packed from 0 in address order
    Moves moves;
    if (free.empty()) return moves;
    Runs packed;
    U32 at = 0;
    for (auto [s, z] : live) {
      if (s != at) moves.push_back({s, at, z});
      packed[at] = z, at += z;
    }
    live = packed, free.clear();
    if (at < memSz) free[at] = memSz - at;
    return moves;
  }
};

// Checks every invariant of the allocator's collections and that they say what the
// model says: the runs by start and by end, the sized and jumbo sets, the tiling of the
// space by runs and live blocks, numFreeEntries, the live-block map.
void walk(Vell::BestFitAllocator const& a, Model const& m) {
  std::string broken;  // the first problem found
  auto check = [&](bool ok, auto const&... what) {
    if (!ok && broken.empty()) broken = (testing::Message() << ... << what).GetString();
  };
  Runs runs;
  auto byEnd = a.freeBlkEndIndexToSzIterator();
  for (auto r = a.freeBlkStartIndexToSzIterator(); r; ++r, ++byEnd) {
    U32 const start = r.key(), sz = r.value();
    check(byEnd && byEnd.key() == start + sz - 1, "end view differs at run ", start);
    check(runs.empty() || start > runs.rbegin()->first + runs.rbegin()->second, "runs touch at ", start);
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
  Runs live, all = runs;
  a.forEachInUseBlock([&](Vell::BFA::Blk const& b) {
    check(a.inUseBlock(b.startIndex()).ptr() == &b && b.allocator().ptr() == &a, "block map at ", b.startIndex());
    live[b.startIndex() - a.offset()] = b.blkSz();
    check(all.emplace(b.startIndex() - a.offset(), b.blkSz()).second, "block on a free run at ", b.startIndex());
  });
  U64 at = 0, free = 0;
  for (auto [s, z] : all) check(s == at, "hole or overlap at ", at), at = U64(s) + z;
  for (auto [s, z] : runs) free += z;
  check(at == a.memSz() && a.memSz() == m.memSz, "tiling ends at ", at);
  check(a.numFreeEntries() == free, "numFreeEntries ", a.numFreeEntries(), " but runs hold ", free);
  check(runs == m.free && live == m.live, "the allocator differs from the model");
  EXPECT_EQ(broken, "");
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
    U32 best = 0;  // the shortest run that holds sz
    for (auto [s, z] : m.free)
      if (z >= sz && (!best || z < best)) best = z;
    ASSERT_EQ(bool(b), best != 0) << "alloc " << sz;
    if (!b) return;
    ASSERT_EQ(b->blkSz(), sz);
    ASSERT_TRUE(m.free.count(rel(b)) && m.free[rel(b)] == best) << "not the low end of a best fit";
    for (auto [s, z] : m.free)  // among equally long jumbo runs, the lowest
      if (best > m.maxBlkSz && z == best && s < rel(b)) ADD_FAILURE() << "jumbo run " << s << " is lower";
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
  void drop(std::size_t i) {  // frees the block when this was its last reference
    bool const last = held[i]->references() == 1;
    U32 const start = rel(held[i]);
    std::swap(held[i], held.back());
    held.pop_back();
    if (last) m.addFree(start, m.live[start]), m.live.erase(start);
  }
  void checkMoves(Quor::Ptr<Vell::BFA::PendingCmds> const& cmds, Moves const& moves) {
    ASSERT_TRUE(cmds);
    ASSERT_EQ(cmds->pendingCmdLogs(), moves.size());
    std::size_t k = 0;
    cmds->forEachPendingCmdLog([&](U32, Vell::BFA::PendingCmd const& c) {
      EXPECT_EQ(Moves::value_type({c.oldIndex(), c.blk()->startIndex(), c.blk()->blkSz()}),
                Moves::value_type({moves[k][0] + a->offset(), moves[k][1] + a->offset(), moves[k][2]}));
      ++k;
    });
  }
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
        cmds = nullptr;
      }
      U32 const last = m.free.rbegin()->first;
      if ((m.free[last] -= cut) == 0) m.free.erase(last);
      m.memSz -= cut;
    }
    EXPECT_FALSE(cmds) << "moves without a shrink that needed them";
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
      if (rnd(0, 1) && !m.free.empty()) {  // inside a free run, so that some succeed
        auto it = std::next(m.free.begin(), rnd(0, U32(m.free.size() - 1)));
        start = std::min(it->first + rnd(0, it->second - 1), m.memSz - sz);
      }
      realloc(start, sz);
    } else if (op < 97) {
      checkMoves(a->defragment(), m.defragment());
    } else {  // around the first size, above maxBlkSz so that every size stays possible
      resize(std::max(rnd(firstSz / 2, firstSz * 2), m.maxBlkSz + 1));
    }
  }
};

TEST(BestFitAllocator, AgreesWithModelUnderRandomChurn) {
  struct Case {
    U32 memSz, offset, maxBlkSz, steps;
  };
  for (Case c : {Case{300, 0, 16, 5000}, Case{1000, 1000000, 64, 5000}, Case{64, 7, 63, 3000}, Case{20000, 5, 8, 2000}})
    for (unsigned seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << "memSz " << c.memSz << " maxBlkSz " << c.maxBlkSz << " seed " << seed);
      Harness h(c.memSz, c.offset, c.maxBlkSz, seed);
      for (U32 i = 0; i < c.steps && !testing::Test::HasFailure(); ++i) h.step(), walk(*h.a, h.m);
      // Every handle dropped, in random order: one run of the whole space again.
      std::shuffle(h.held.begin(), h.held.end(), h.rng);
      while (!h.held.empty()) h.drop(h.held.size() - 1);
      walk(*h.a, h.m);
      EXPECT_EQ(h.a->freeBlkStartIndexToSz(0), h.a->memSz());
    }
}

// Thousands of free runs: the run index grows several levels, then shrinks back to a
// single run as every block goes, in random order; three times over.
TEST(BestFitAllocator, ManyRunsGrowAndShrinkTheIndex) {
  Harness h(40000, 3, 4, 7);
  for (int cycle = 0; cycle < 3 && !testing::Test::HasFailure(); ++cycle) {
    while (h.m.numFree() > 0) h.alloc(h.rnd(1, std::min<U32>(4, h.m.numFree())));
    std::shuffle(h.held.begin(), h.held.end(), h.rng);
    for (std::size_t n = h.held.size() / 2, i = 0; i < n; ++i) h.drop(h.held.size() - 1);
    EXPECT_GT(h.a->freeBlkStartIndexToSzs(), 4000u);
    for (int i = 0; i < 700; ++i)
      if (h.step(), i % 100 == 0) walk(*h.a, h.m);
    std::shuffle(h.held.begin(), h.held.end(), h.rng);
    for (std::size_t i = 1; !h.held.empty(); ++i)
      if (h.drop(h.held.size() - 1), i % 300 == 0) walk(*h.a, h.m);
    walk(*h.a, h.m);
  }
}

TEST(BestFitAllocator, DefragmentedDataSurvivesReplay) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    U32 const offset = 100;
    Harness h(5000, offset, 40, seed);
    // Full, then every short block and one in eight of the others dropped: many small
    // gaps, so that many moves overlap their source.
    while (h.m.numFree() > 40) h.alloc(h.rnd(1, 40));
    for (std::size_t i = h.held.size(); i-- > 0;)
      if (h.held[i]->blkSz() <= 4 || h.rnd(1, 8) == 1) h.drop(i);
    for (int i = 0; i < 60; ++i) h.alloc(h.rnd(1, 40));
    std::vector<U64> mem(h.m.memSz, ~U64(0));  // the caller's storage: block and place
    auto tag = [](Vell::BFA::Blk const& b, U32 k) { return U64(&b) * 65536 + k; };
    for (auto const& b : h.held)
      for (U32 k = 0; k < b->blkSz(); ++k) mem[h.rel(b) + k] = tag(*b, k);
    auto cmds = h.a->defragment();
    h.checkMoves(cmds, h.m.defragment());
    walk(*h.a, h.m);
    bool overlapped = false;
    cmds->forEachPendingCmdLog([&](U32, Vell::BFA::PendingCmd const& c) {
      U32 const from = c.oldIndex() - offset, to = c.blk()->startIndex() - offset, n = c.blk()->blkSz();
      overlapped |= from - to < n;
      std::copy(mem.begin() + from, mem.begin() + from + n, mem.begin() + to);  // low to high
    });
    EXPECT_TRUE(overlapped) << "no move overlapped its source: that case went untested";
    for (auto const& b : h.held)
      for (U32 k = 0; k < b->blkSz(); ++k) ASSERT_EQ(mem[h.rel(b) + k], tag(*b, k));
    // The commands hold the moved blocks after the caller lets go; then the space is free.
    h.held.clear();
    EXPECT_EQ(h.a->inUseBlocks(), cmds->pendingCmdLogs());
    cmds = nullptr;
    EXPECT_EQ(h.a->freeBlkStartIndexToSz(0), h.a->memSz());
  }
}

TEST(BestFitAllocator, ListedCases) {
  Harness h(1000, 50, 100, 1);
  EXPECT_TRUE(h.a->jumboFreeBlks() == 1 && h.a->jumboFreeBlk(Vell::BFA::JumboFreeBlk(1000, 0)));
  EXPECT_EQ(h.a->numFreeEntries(), 1000u);
  EXPECT_EQ(h.a->freeBlkStartIndexToSz(0xFFFFFFFF) + h.a->freeBlkEndIndexToSz(0xFFFFFFFF), 0u);
  h.alloc(10);
  EXPECT_EQ(h.held[0]->startIndex(), 50u);  // offset: the low end of the space
  h.realloc(100, 30), h.realloc(300, 60);   // runs: 90 at 10, 170 at 130, 640 at 360
  h.alloc(80);
  EXPECT_EQ(h.rel(h.held.back()), 10u);
  h.alloc(100);  // no sized run holds 100: the shortest jumbo run does
  EXPECT_EQ(h.rel(h.held.back()), 130u);
  EXPECT_FALSE(h.a->realloc(50 + 95, 10));  // straddles a live block
  walk(*h.a, h.m);
  // Blocks [0..9] and [15..34], free [10..14] and the tail: one move, 15 down to 10.
  Harness d(100, 7, 30, 1);
  d.alloc(10), d.alloc(5), d.alloc(20), d.drop(1);
  d.checkMoves(d.a->defragment(), d.m.defragment());
  EXPECT_EQ(d.a->freeBlkStartIndexToSz(30), 70u);
  EXPECT_EQ(d.a->defragment()->pendingCmdLogs(), 0u);  // already compact
  d.alloc(30), d.alloc(30), d.alloc(10);
  EXPECT_EQ(d.a->defragment()->pendingCmdLogs(), 0u);  // full
  walk(*d.a, d.m);
}

TEST(BestFitAllocator, ResizeGrowsAndShrinksDefragmentingWhenItMust) {
  Harness h(100, 3, 20, 1);
  h.alloc(20), h.alloc(20), h.alloc(20);
  h.resize(150);  // merges with the free tail
  h.resize(120);  // the tail is long enough: no moves
  h.drop(0), h.alloc(20), h.alloc(20), h.alloc(20), h.alloc(20);
  h.resize(100);  // full: no change
  EXPECT_EQ(h.a->memSz(), 120u);
  h.drop(1), h.drop(0);
  h.resize(90);  // the last entry is in use: compacts first, then shrinks
  EXPECT_EQ(h.a->memSz(), 90u);
  h.drop(0);
  h.resize(10);  // more than is free: shrinks by what is free
  EXPECT_EQ(h.a->memSz(), 60u);
  walk(*h.a, h.m);
  // No absolute index may reach 0xFFFFFFFF; a refused size changes nothing.
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
  Vell::BestFitAllocator* const raw = a.ptr();
  BlkPtr b1 = a->alloc(5), b2 = a->alloc(5);
  a = nullptr;  // the blocks keep it
  b1 = nullptr;
  EXPECT_EQ(raw->numFreeEntries(), 95u);
  EXPECT_EQ(raw->references(), 1u);
  b2 = nullptr;  // the last one: the allocator goes too (the leak checker sees it)
}

TEST(BestFitAllocatorText, ValuesPrintAndParseBack) {
  Vell::BFA::JumboFreeBlk const j(70, 3);
  EXPECT_EQ(Vell::valueToStrep(j), "Value('Vell::BFA::JumboFreeBlk', ** {'blkSz': 70, 'startIndex': 3})");
  EXPECT_EQ(Quor::strepToValue<Vell::BFA::JumboFreeBlk>(Vell::valueToStrep(j)), j);
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
  Vell::BFA::PendingCmd const none;
  EXPECT_EQ(Vell::valueToStrep(none), "Value('Vell::BFA::PendingCmd', ** {'oldIndex': 0, 'blk': None})");
  EXPECT_EQ(Quor::strepToValue<Vell::BFA::PendingCmd>(Vell::valueToStrep(none)), none);
  for (auto [input, error] : std::vector<std::pair<char const*, char const*>>{
           {"Value('Vell::BFA::JumboFreeBlk', ** {'blkSz': 5", "premature end of value type JumboFreeBlk"},
           {"Value('Vell::BFA::JumboFreeBlk', ** {'foo': 1})", "JumboFreeBlk has no such attribute: foo"},
           {"Value('Vell::BFA::PendingCmd', ** {'oldIndex': 5", "premature end of value type PendingCmd"},
           {"Value('Vell::BFA::PendingCmd', ** {'x': 1})", "PendingCmd has no such attribute: x"},
           {"Value('Vell::BFA::PendingCmd', ** {'blk': Value('Vell::BFA::Blk', ** {'at': 1})})",
            "Blk has no such attribute: at in attribute blk"}}) {
    auto parse = [&] {
      return std::strstr(input, "Jumbo") ? Vell::valueToStrep(Quor::strepToValue<Vell::BFA::JumboFreeBlk>(input))
                                         : Vell::valueToStrep(Quor::strepToValue<Vell::BFA::PendingCmd>(input));
    };
    try {
      parse();
      ADD_FAILURE() << "parsed " << input;
    } catch (Quor::RangeException const& e) {
      EXPECT_STREQ(e.what(), error);
    }
  }
}

TEST(BestFitAllocatorText, PendingCmdsIsAnIndexedQueue) {
  auto q = Vell::BFA::pendingCmdsFactory(3);
  Vell::BFA::PendingCmd const c1(1, nullptr), c2(2, nullptr), c3(3, nullptr);
  EXPECT_EQ(q->pendingCmdLogEnq(c1), 0u);
  EXPECT_EQ(q->pendingCmdLogEnq(c2), 1u);
  EXPECT_EQ(q->pendingCmdLogEnq(c3), 2u);
  EXPECT_THROW(q->pendingCmdLogEnq(c1), Quor::RangeException);  // index space full
  q->pendingCmdLogDel(1);
  EXPECT_THROW(q->pendingCmdLog(1), Quor::RangeException);
  EXPECT_EQ(q->pendingCmdLogEnq(c2), 1u);  // freed indexes come back, lowest first
  q->pendingCmdLogIs(0, c3);               // in place: still the oldest
  EXPECT_THROW(q->newPendingCmdLog(0, c1), Quor::RangeException);
  EXPECT_EQ(q->pendingCmdLogDeq(), c3);
  q->pendingCmdLogIs(0, c1);  // absent: appended
  std::vector<U32> order;
  q->forEachPendingCmdLog([&](U32 i, Vell::BFA::PendingCmd const& c) { order.push_back(i * 10 + c.oldIndex()); });
  EXPECT_EQ(order, (std::vector<U32>{23, 12, 1}));
  q->pendingCmdLogDeq(), q->pendingCmdLogDeq(), q->pendingCmdLogDeq();
  EXPECT_EQ(q->pendingCmdLogHead(), 0xFFFFFFFFu);
  try {
    q->pendingCmdLogDeq();
    ADD_FAILURE() << "dequeued from an empty queue";
  } catch (Quor::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index out of range");
  }
}

TEST(BestFitAllocatorTrace, OperationsTraceAtDetailLevelOnly) {
  std::vector<std::string> lines;
  Quor::traceSinkIs([&](Quor::TraceRecord const& r) {
    EXPECT_EQ(r.channel + "/" + r.stem + "/" + std::to_string(r.level), "BestFitAllocator/BestFitAllocator/7");
    lines.push_back(r.text);
  });
  Quor::traceLevelIs("BestFitAllocator", 6);
  auto a = Vell::bestFitAllocatorFactory("t", 40, 0, 16);
  EXPECT_TRUE(lines.empty());
  Quor::traceLevelIs("BestFitAllocator", 9);
  BlkPtr b1 = a->alloc(10), b2 = a->alloc(16), b3 = a->alloc(8);  // free: [34..39]
  lines.clear();
  EXPECT_FALSE(a->alloc(16));
  EXPECT_FALSE(a->realloc(33, 2));
  BlkPtr b4 = a->realloc(36, 4);
  EXPECT_FALSE(a->realloc(38, 1));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Alloc: blkSz 16", "Alloc: blkSz 16, no free blk available",
                       "Realloc: startIndex 33, blkSz 2, memSz 40", "Not all the required entries are free.",
                       "Realloc: startIndex 36, blkSz 4, memSz 40", "Removing free blk: sz 6, index 34",
                       "Deleting freeBlkSet for blkSz = 6", "Adding a free block up till startIndex.",
                       "Adding free blk: sz 2, index 34", "Creating freeBlkSet for blkSz = 2",
                       "Realloc: blkSz 4, startIndex 36", "numFreeEntries decreased by 4, now = 2",
                       "Realloc: startIndex 38, blkSz 1, memSz 40", "No free blocks after startIndex"}));
  b1 = nullptr;
  lines.clear();
  a->defragment();
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 5),
            (std::vector<std::string>{"Free blocks before defragmenting", "start index = 0, Size = 10",
                                      "start index = 34, Size = 2", "Used blocks before defragmenting",
                                      "start index = 10, Size = 16"}));
  EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end() - 2),
            (std::vector<std::string>{"Used blocks after defragmenting", "start index = 0, Size = 16"}));
  BlkPtr const rest = a->realloc(28, 12);
  a->defragment();
  EXPECT_EQ(lines.back(), "No free blocks. Returning.");
  Quor::traceLevelIs("BestFitAllocator", -1);
  Quor::traceSinkIs(nullptr);
}

// "Assertion failed: <text> [BestFitAllocator:<line>] in <...function>", as a regex.
std::string died(std::string const& text, char const* function) {
  std::string re = "Assertion failed: ";
  for (char ch : text) re += std::strchr("()[]{}.*+?^$|\\", ch) ? std::string("\\") + ch : std::string(1, ch);
  return re + " \\[BestFitAllocator:[0-9]+\\] in .*Vell::BestFitAllocator::" + function;
}

TEST(BestFitAllocatorDeath, BrokenPreconditionsAndInvariantsAbortWithTheirText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  using Vell::bestFitAllocatorFactory;
  EXPECT_DEATH(bestFitAllocatorFactory("d", 0, 0, 1), died("memSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0xFFFFFFF8u, 1),  // would wrap past 2^32
               died("( memSz() + offset() ) < 0xFFFFFFFF", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 0), died("maxBlkSz()", "handleInitialized"));
  EXPECT_DEATH(bestFitAllocatorFactory("d", 16, 0, 16), died("maxBlkSz() < memSz()", "handleInitialized"));
  auto a = bestFitAllocatorFactory("d", 100, 0, 10);
  EXPECT_DEATH(a->alloc(0), died("blkSz", "alloc"));
  EXPECT_DEATH(a->alloc(11), died("blkSz <= maxBlkSz()", "alloc"));
  EXPECT_DEATH(a->realloc(0, 0), died("blkSz", "realloc"));
  EXPECT_DEATH(a->realloc(0, 11), died("blkSz <= maxBlkSz()", "realloc"));
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
