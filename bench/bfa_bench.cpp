// BestFitAllocator under load, beside a plain first-fit allocator over a std::map of free
// runs (the baseline).
//
//   Churn/N        steady state with N live blocks: drop a random block, allocate one of
//                  a random size (1..32) in its place. One iteration = one free + one alloc.
//                  Victims are drawn two iterations ahead and the caller's slot and handle
//                  are loaded early, as a caller freeing a block it has just used would have
//                  them: the loop times the allocator, not the caller's own cache misses on
//                  its array of a million handles.
//   ChurnColdVictim/N  the same with the victim's slot and handle loaded only when dropped.
//   ReallocChurn/N drop a random block and claim a random part of its range with realloc
//                  (victims drawn ahead as in Churn).
//   ReallocProbe/N realloc of a random range anywhere; most of them find entries in use.
//   Defragment/N   compact a space where half of N blocks were dropped at random.
//
// The space is 25% larger than the live blocks need. After the fill, both allocators run
// the same warmUp churn operations (the same random sequence) before the clock starts;
// each size keeps its state between the runs that Google Benchmark makes. The baseline's
// scans lengthen as its free runs multiply, so its cost at 10^6, measured this early, is
// an underestimate: reaching its steady state there would take hours.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include <Vell/BestFitAllocator.h>

using Vell::U32;

namespace {

constexpr U32 maxSz = 32;

struct Rng {  // xorshift: cheap, so that the loop measures the allocators
  Vell::U64 s = 0x9e3779b97f4a7c15ull;
  U32 next() {
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    return static_cast<U32>(s >> 32);
  }
  U32 below(U32 n) { return static_cast<U32>((Vell::U64(next()) * n) >> 32); }
};

// The next victims, drawn ahead of use: Victims<2> gives each one two iterations' notice.
template <class T>
struct Victims {
  std::vector<T>& live;
  Rng rng{0x2545f4914f6cdd1dull};
  U32 next = rng.below(U32(live.size()));
  U32 after = rng.below(U32(live.size()));

  explicit Victims(std::vector<T>& l) : live(l) {}
  /// The slot to drop now. Starts loading the slot of the one after and the handle of
  /// the next (when it is a pointer).
  T& take(bool warm) {
    T& victim = live[next];
    next = after;
    after = rng.below(U32(live.size()));
    if (warm) {
      __builtin_prefetch(&live[after]);
      if constexpr (requires { live[next].ptr(); }) {
        if (auto const* h = live[next].ptr()) __builtin_prefetch(h, 1);
      }
    }
    return victim;
  }
};

U32 spaceFor(U32 live) { return live * (maxSz + 1) / 2 * 5 / 4; }
U32 warmUp(U32 live) { return std::min<U32>(live, 20000); }

// ---- the library's allocator ----

struct BestFit {
  Quor::Ptr<Vell::BestFitAllocator> a;
  std::vector<Quor::Ptr<Vell::BFA::Blk>> live;
  Rng rng;
  Victims<Quor::Ptr<Vell::BFA::Blk>> victims{live};
  Vell::U64 misses = 0;

  explicit BestFit(U32 n) : a(Vell::bestFitAllocatorFactory("bench", spaceFor(n), 0, maxSz)), live(n) {
    for (auto& b : live) b = a->alloc(1 + rng.below(maxSz));
    for (U32 i = 0; i < warmUp(n); ++i) churn();
  }
  void churn(bool warm = true) {
    auto& slot = victims.take(warm);
    slot = nullptr;
    slot = a->alloc(1 + rng.below(maxSz));
    misses += !slot;
  }
  void reallocChurn() {
    auto& slot = victims.take(true);
    if (!slot) return churn();
    U32 const start = slot->startIndex(), sz = slot->blkSz();
    slot = nullptr;
    U32 const part = 1 + rng.below(sz);
    slot = a->realloc(start + rng.below(sz - part + 1), part);
  }
  void reallocProbe() {
    U32 const sz = 1 + rng.below(maxSz);
    benchmark::DoNotOptimize(a->realloc(rng.below(a->memSz() - sz + 1), sz));
  }
};

// ---- the baseline: first fit over an ordered map of free runs ----

struct FirstFit {
  struct Block {
    U32 start = 0, sz = 0;
  };
  U32 memSz;
  std::map<U32, U32> free;  // start -> size
  std::vector<Block> live;
  Rng rng;
  Victims<Block> victims{live};
  Vell::U64 misses = 0;

  explicit FirstFit(U32 n) : memSz(spaceFor(n)), live(n) {
    free[0] = memSz;
    for (auto& b : live) b = alloc(1 + rng.below(maxSz));
    for (U32 i = 0; i < warmUp(n); ++i) churn();
  }
  Block alloc(U32 sz) {
    for (auto it = free.begin(); it != free.end(); ++it) {
      if (it->second < sz) continue;
      Block const b{it->first, sz};
      if (it->second > sz) free.emplace_hint(std::next(it), it->first + sz, it->second - sz);
      free.erase(it);
      return b;
    }
    return Block{};
  }
  void release(Block b) {
    if (!b.sz) return;
    auto next = free.lower_bound(b.start);
    if (next != free.end() && next->first == b.start + b.sz) b.sz += next->second, next = free.erase(next);
    if (next != free.begin()) {
      auto prev = std::prev(next);
      if (prev->first + prev->second == b.start) {
        prev->second += b.sz;
        return;
      }
    }
    free.emplace_hint(next, b.start, b.sz);
  }
  Block claim(U32 start, U32 sz) {
    auto it = free.upper_bound(start);
    if (it == free.begin()) return Block{};
    --it;
    U32 const f = it->first, s = it->second;
    if (start + sz > f + s) return Block{};
    free.erase(it);
    if (start > f) free.emplace(f, start - f);
    if (start + sz < f + s) free.emplace(start + sz, f + s - start - sz);
    return Block{start, sz};
  }
  void churn(bool warm = true) {
    auto& slot = victims.take(warm);
    release(slot);
    slot = alloc(1 + rng.below(maxSz));
    misses += !slot.sz;
  }
  void reallocChurn() {
    auto& slot = victims.take(true);
    if (!slot.sz) return churn();
    Block const old = slot;
    release(old);
    U32 const part = 1 + rng.below(old.sz);
    slot = claim(old.start + rng.below(old.sz - part + 1), part);
  }
  void reallocProbe() {
    U32 const sz = 1 + rng.below(maxSz);
    Block const b = claim(rng.below(memSz - sz + 1), sz);
    benchmark::DoNotOptimize(b);
    release(b);
  }
};

template <class A>
A& steady(U32 n) {
  static std::map<U32, std::unique_ptr<A>> states;
  auto& s = states[n];
  if (!s) s = std::make_unique<A>(n);
  return *s;
}

template <class A, bool warm = true>
void Churn(benchmark::State& state) {
  A& a = steady<A>(U32(state.range(0)));
  Vell::U64 const misses = a.misses;
  for (auto _ : state) a.churn(warm);
  state.SetItemsProcessed(state.iterations());
  state.counters["misses"] = double(a.misses - misses);
  if constexpr (std::is_same_v<A, BestFit>) {
    state.counters["runs"] = a.a->freeBlkStartIndexToSzs();
    state.counters["jumbo"] = a.a->jumboFreeBlks();
  }
}

template <class A>
void ReallocChurn(benchmark::State& state) {
  A& a = steady<A>(U32(state.range(0)));
  for (auto _ : state) a.reallocChurn();
  state.SetItemsProcessed(state.iterations());
}

template <class A>
void ReallocProbe(benchmark::State& state) {
  A& a = steady<A>(U32(state.range(0)));
  for (auto _ : state) a.reallocProbe();
  state.SetItemsProcessed(state.iterations());
}

void Defragment(benchmark::State& state) {
  U32 const n = U32(state.range(0));
  Vell::U64 moves = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto a = Vell::bestFitAllocatorFactory("defrag", spaceFor(n), 0, maxSz);
    std::vector<Quor::Ptr<Vell::BFA::Blk>> live;
    Rng rng;
    for (U32 i = 0; i < n; ++i) live.push_back(a->alloc(1 + rng.below(maxSz)));
    for (auto& b : live)
      if (rng.next() & 1) b = nullptr;
    state.ResumeTiming();
    auto cmds = a->defragment();
    moves += cmds->pendingCmdLogs();
    state.PauseTiming();
    cmds = nullptr;
    live.clear();
    a = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(moves));  // items: moved blocks
}

}  // namespace

BENCHMARK_TEMPLATE(Churn, BestFit)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK_TEMPLATE(Churn, FirstFit)->Arg(1000)->Arg(100000)->Arg(1000000);
template <class A>
void ChurnColdVictim(benchmark::State& state) {
  Churn<A, false>(state);
}
BENCHMARK_TEMPLATE(ChurnColdVictim, BestFit)->Arg(1000)->Arg(1000000);
BENCHMARK_TEMPLATE(ReallocChurn, BestFit)->Arg(1000)->Arg(1000000);
BENCHMARK_TEMPLATE(ReallocChurn, FirstFit)->Arg(1000)->Arg(1000000);
BENCHMARK_TEMPLATE(ReallocProbe, BestFit)->Arg(1000)->Arg(1000000);
BENCHMARK_TEMPLATE(ReallocProbe, FirstFit)->Arg(1000)->Arg(1000000);
BENCHMARK(Defragment)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
