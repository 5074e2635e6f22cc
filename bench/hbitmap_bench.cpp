// HBitmap against flat bitmaps on 2^16, 2^20 and 2^24 bits: searches for the lowest and
// highest set and clear bit when the sought bits are sparse (one in a million, at least
// one, at random places), lone (a single one, in the middle: the linear scans' bad case)
// or dense (each bit a coin flip); single-bit updates, range updates and a search from
// the middle. The counter "at" is where the answer lies, as a fraction of the size. Peers:
// a plain std::vector<uint64_t> scanned word by word (always), boost::dynamic_bitset
// (find_first / find_next) and a compressed bitmap (minimum, maximum, iterator seek)
// where they offer the operation.
//
// HBitmap remembers its answers, so the "find" rows time a repeated search. The
// "findAfterUpdate" rows time one that must descend: each iteration takes the bit last
// found out of its state and puts it back (which forgets that answer), then searches;
// "findAfterUpdate/updatesAlone" does the two updates without the search, so the
// difference between the two rows is the descent.
//
// The update baseline "plainPerLevel" does one read-modify-write of a plain word per
// level of the same height: the least any summary tree can write.
#include <benchmark/benchmark.h>

#include <Vell/HBitmap.h>

#include <bit>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#ifdef VELL_HAVE_BOOST
#include <boost/dynamic_bitset.hpp>
#endif
#ifdef VELL_HAVE_ROARING
#include <roaring/roaring.h>
#endif

namespace {

using Vell::HBitmap;
using Vell::U32;
using Vell::U64;

constexpr U32 none = HBitmap::notFound;

// One bit pattern, held by every structure: the sought bits are in the sought state,
// all others in the opposite one.
struct Pattern {
  U32 size = 0;
  bool soughtSet = true;
  Quor::Ptr<HBitmap> hb;
  std::vector<U64> words;
#ifdef VELL_HAVE_BOOST
  boost::dynamic_bitset<U64> bs;  // only when the sought bits are set: it finds set bits only
#endif
#ifdef VELL_HAVE_ROARING
  roaring_bitmap_t* rb = nullptr;  // likewise
  ~Pattern() {
    if (rb) roaring_bitmap_free(rb);
  }
#endif
};

enum class Density { sparse, lone, dense };
char const* const densityName[] = {"sparse", "lone", "dense"};

Pattern& pattern(int log2, Density density, bool soughtSet) {
  static std::map<std::tuple<int, Density, bool>, std::unique_ptr<Pattern>> cache;
  auto& slot = cache[{log2, density, soughtSet}];
  if (slot) return *slot;
  slot = std::make_unique<Pattern>();
  Pattern& p = *slot;
  p.size = 1u << log2;
  p.soughtSet = soughtSet;
  std::mt19937_64 rng(static_cast<U64>(log2) * 8 + static_cast<U64>(density) * 2 + soughtSet);
  std::vector<U32> sought;
  if (density == Density::sparse) {
    for (U32 n = std::max<U32>(1, p.size / 1000000); n > 0; --n) sought.push_back(static_cast<U32>(rng() % p.size));
  } else if (density == Density::lone) {
    sought.push_back(p.size / 2 + 17);
  } else {
    for (U32 i = 0; i < p.size; ++i)
      if (rng() & 1) sought.push_back(i);
  }
  p.words.assign(p.size / 64, soughtSet ? 0 : ~U64(0));
  p.hb = Vell::hBitmapFactory(1, p.size, soughtSet ? HBitmap::Clear : HBitmap::Set);
  for (U32 b : sought) {
    U64 const m = U64(1) << (b % 64);
    p.words[b / 64] = soughtSet ? p.words[b / 64] | m : p.words[b / 64] & ~m;
    p.hb->updateBit(b, soughtSet ? HBitmap::Set : HBitmap::Clear);
  }
  if (soughtSet) {
#ifdef VELL_HAVE_BOOST
    p.bs = boost::dynamic_bitset<U64>(p.words.begin(), p.words.end());
#endif
#ifdef VELL_HAVE_ROARING
    p.rb = roaring_bitmap_create();
    roaring_bitmap_add_many(p.rb, sought.size(), sought.data());
    roaring_bitmap_run_optimize(p.rb);
#endif
  }
  return p;
}

U32 scanLo(std::vector<U64> const& w, bool soughtSet, std::size_t from = 0) {
  U64 const flip = soughtSet ? 0 : ~U64(0);
  for (std::size_t i = from; i < w.size(); ++i)
    if (U64 const x = w[i] ^ flip) return static_cast<U32>(i * 64 + std::countr_zero(x));
  return none;
}

U32 scanHi(std::vector<U64> const& w, bool soughtSet) {
  U64 const flip = soughtSet ? 0 : ~U64(0);
  for (std::size_t i = w.size(); i-- > 0;)
    if (U64 const x = w[i] ^ flip) return static_cast<U32>(i * 64 + 63 - std::countl_zero(x));
  return none;
}

// Runs `find` in the timing loop after checking its answer against the plain scan.
template <class F>
void timeSearch(benchmark::State& st, Pattern const& p, bool lo, F&& find) {
  U32 const want = lo ? scanLo(p.words, p.soughtSet) : scanHi(p.words, p.soughtSet);
  if (find() != want) {
    st.SkipWithError("wrong answer");
    return;
  }
  for (auto _ : st) benchmark::DoNotOptimize(find());
  st.counters["at"] = want == none ? -1.0 : double(want) / p.size;
}

void registerSearches() {
  for (int log2 : {16, 20, 24})
    for (Density density : {Density::sparse, Density::lone, Density::dense})
      for (bool set : {true, false})
        for (bool lo : {true, false}) {
          // Lone bits are symmetric in the direction and dense ones in the state: skip the mirrors.
          if ((density == Density::lone && !lo) || (density == Density::dense && !set)) continue;
          std::string const tag = "/2^" + std::to_string(log2) + "/" + densityName[int(density)] + "/" +
                                  (set ? "set" : "clear") + (lo ? "/lowest" : "/highest");
          auto const pref = lo ? HBitmap::preferLo : HBitmap::preferHi;
          auto const state = set ? HBitmap::Set : HBitmap::Clear;
          benchmark::RegisterBenchmark(("find/HBitmap" + tag).c_str(), [=](benchmark::State& st) {
            Pattern& p = pattern(log2, density, set);
            timeSearch(st, p, lo, [&] { return p.hb->findBitInState(pref, state); });
          });
          benchmark::RegisterBenchmark(("find/wordScan" + tag).c_str(), [=](benchmark::State& st) {
            Pattern& p = pattern(log2, density, set);
            timeSearch(st, p, lo, [&] { return lo ? scanLo(p.words, set) : scanHi(p.words, set); });
          });
#ifdef VELL_HAVE_BOOST
          if (set && lo)
            benchmark::RegisterBenchmark(("find/dynamicBitset" + tag).c_str(), [=](benchmark::State& st) {
              Pattern& p = pattern(log2, density, set);
              timeSearch(st, p, lo, [&] {
                auto const i = p.bs.find_first();
                return i == p.bs.npos ? none : static_cast<U32>(i);
              });
            });
#endif
#ifdef VELL_HAVE_ROARING
          if (set)
            benchmark::RegisterBenchmark(("find/roaring" + tag).c_str(), [=](benchmark::State& st) {
              Pattern& p = pattern(log2, density, set);
              timeSearch(st, p, lo, [&] { return lo ? roaring_bitmap_minimum(p.rb) : roaring_bitmap_maximum(p.rb); });
            });
#endif
        }
}

void registerDescents() {
  for (bool set : {true, false})
    for (bool lo : {true, false})
      for (bool search : {true, false}) {
        std::string const name = std::string("findAfterUpdate/") + (search ? "HBitmap" : "updatesAlone") +
                                 "/2^24/sparse/" + (set ? "set" : "clear") + (lo ? "/lowest" : "/highest");
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& st) {
          Pattern& p = pattern(24, Density::sparse, set);
          auto const pref = lo ? HBitmap::preferLo : HBitmap::preferHi;
          auto const state = set ? HBitmap::Set : HBitmap::Clear, other = set ? HBitmap::Clear : HBitmap::Set;
          U32 const want = lo ? scanLo(p.words, set) : scanHi(p.words, set);
          U32 found = p.hb->findBitInState(pref, state);
          for (auto _ : st) {
            p.hb->updateBit(found, other);
            p.hb->updateBit(found, state);
            if (search) found = p.hb->findBitInState(pref, state);
            benchmark::DoNotOptimize(found);
          }
          if (found != want || p.hb->findBitInState(pref, state) != want) st.SkipWithError("wrong answer");
          st.counters["at"] = double(want) / p.size;
        });
      }
}

// The lowest set bit at or above the middle, in the sparse pattern.
void registerRangeSearches() {
  for (int log2 : {16, 20, 24}) {
    std::string const tag = "/2^" + std::to_string(log2) + "/sparse/set/fromMiddle";
    auto check = [](benchmark::State& st, Pattern const& p, U32 got) {
      if (got != scanLo(p.words, true, p.size / 128)) st.SkipWithError("wrong answer");
    };
    benchmark::RegisterBenchmark(("findInRange/HBitmap" + tag).c_str(), [=](benchmark::State& st) {
      Pattern& p = pattern(log2, Density::sparse, true);
      check(st, p, p.hb->findSetBitInRange(p.size / 2, p.size - 1, HBitmap::preferLo));
      for (auto _ : st) benchmark::DoNotOptimize(p.hb->findSetBitInRange(p.size / 2, p.size - 1, HBitmap::preferLo));
    });
    benchmark::RegisterBenchmark(("findInRange/HBitmapSeek" + tag).c_str(), [=](benchmark::State& st) {
      Pattern& p = pattern(log2, Density::sparse, true);
      check(st, p, p.hb->seekBitInRange(p.size / 2, p.size - 1, HBitmap::Set, HBitmap::preferLo));
      for (auto _ : st)
        benchmark::DoNotOptimize(p.hb->seekBitInRange(p.size / 2, p.size - 1, HBitmap::Set, HBitmap::preferLo));
    });
    benchmark::RegisterBenchmark(("findInRange/wordScan" + tag).c_str(), [=](benchmark::State& st) {
      Pattern& p = pattern(log2, Density::sparse, true);
      for (auto _ : st) benchmark::DoNotOptimize(scanLo(p.words, true, p.size / 128));
    });
#ifdef VELL_HAVE_BOOST
    benchmark::RegisterBenchmark(("findInRange/dynamicBitset" + tag).c_str(), [=](benchmark::State& st) {
      Pattern& p = pattern(log2, Density::sparse, true);
      auto find = [&] {
        auto const i = p.bs.find_next(p.size / 2 - 1);
        return i == p.bs.npos ? none : static_cast<U32>(i);
      };
      check(st, p, find());
      for (auto _ : st) benchmark::DoNotOptimize(find());
    });
#endif
#ifdef VELL_HAVE_ROARING
    benchmark::RegisterBenchmark(("findInRange/roaring" + tag).c_str(), [=](benchmark::State& st) {
      Pattern& p = pattern(log2, Density::sparse, true);
      auto find = [&] {
        roaring_uint32_iterator_t it;
        roaring_init_iterator(p.rb, &it);
        return roaring_move_uint32_iterator_equalorlarger(&it, p.size / 2) ? it.current_value : none;
      };
      check(st, p, find());
      for (auto _ : st) benchmark::DoNotOptimize(find());
    });
#endif
  }
}

// Random bit indices; each benchmark sets them on its first pass and clears them on the next.
std::vector<U32> randomBits(U32 size, U32 count) {
  std::mt19937_64 rng(size);
  std::vector<U32> v(count);
  for (U32& b : v) b = static_cast<U32>(rng() % size);
  return v;
}

constexpr U32 indexCount = 4096;

void registerUpdates() {
  for (int log2 : {16, 20, 24}) {
    U32 const size = 1u << log2;
    std::string const tag = "/2^" + std::to_string(log2);
    benchmark::RegisterBenchmark(("updateBit/HBitmap" + tag).c_str(), [=](benchmark::State& st) {
      auto hb = Vell::hBitmapFactory(1, size, HBitmap::Clear);
      auto const bits = randomBits(size, indexCount);
      U32 i = 0;
      for (auto _ : st) {
        hb->updateBit(bits[i % indexCount], (i / indexCount) & 1 ? HBitmap::Clear : HBitmap::Set);
        ++i;
      }
      st.counters["height"] = hb->height();
    });
    benchmark::RegisterBenchmark(("updateBit/plainPerLevel" + tag).c_str(), [=](benchmark::State& st) {
      auto const layout = Vell::hBitmapFactory(1, size, HBitmap::Clear);
      U32 const height = layout->height();
      std::vector<U32> base(height);
      for (U32 h = 0; h < height; ++h) base[h] = layout->arrayBaseOffsetForHeight(h);
      std::vector<U64> words(base[height - 1] + 1);
      auto const bits = randomBits(size, indexCount);
      U32 i = 0;
      for (auto _ : st) {
        U32 const b = bits[i % indexCount];
        bool const set = !((i / indexCount) & 1);
        for (U32 h = 0; h < height; ++h) {
          U32 const index = b >> (6 * h);
          U64& w = words[base[h] + index / 64];
          U64 const m = U64(1) << (index % 64);
          w = set ? w | m : w & ~m;
        }
        benchmark::ClobberMemory();
        ++i;
      }
      st.counters["height"] = height;
    });
#ifdef VELL_HAVE_BOOST
    benchmark::RegisterBenchmark(("updateBit/dynamicBitset" + tag).c_str(), [=](benchmark::State& st) {
      boost::dynamic_bitset<U64> bs(size);
      auto const bits = randomBits(size, indexCount);
      U32 i = 0;
      for (auto _ : st) {
        bs.set(bits[i % indexCount], !((i / indexCount) & 1));
        benchmark::ClobberMemory();
        ++i;
      }
    });
#endif
#ifdef VELL_HAVE_ROARING
    benchmark::RegisterBenchmark(("updateBit/roaring" + tag).c_str(), [=](benchmark::State& st) {
      roaring_bitmap_t* rb = roaring_bitmap_create();
      auto const bits = randomBits(size, indexCount);
      U32 i = 0;
      for (auto _ : st) {
        (i / indexCount) & 1 ? roaring_bitmap_remove(rb, bits[i % indexCount]) : roaring_bitmap_add(rb, bits[i % indexCount]);
        ++i;
      }
      roaring_bitmap_free(rb);
    });
#endif
  }
}

void registerRangeUpdates() {
  for (int log2 : {16, 20, 24})
    for (U32 len : {64u, 4096u}) {
      U32 const size = 1u << log2;
      std::string const tag = "/2^" + std::to_string(log2) + "/len" + std::to_string(len);
      auto starts = [=] { return randomBits(size - len + 1, indexCount); };
      benchmark::RegisterBenchmark(("updateRange/HBitmap" + tag).c_str(), [=](benchmark::State& st) {
        auto hb = Vell::hBitmapFactory(1, size, HBitmap::Clear);
        auto const s = starts();
        U32 i = 0;
        for (auto _ : st) {
          U32 const a = s[i % indexCount];
          hb->updateBitsInRange(a, a + len - 1, (i / indexCount) & 1 ? HBitmap::Clear : HBitmap::Set);
          ++i;
        }
      });
      benchmark::RegisterBenchmark(("updateRange/wordArray" + tag).c_str(), [=](benchmark::State& st) {
        std::vector<U64> w(size / 64);
        auto const s = starts();
        U32 i = 0;
        for (auto _ : st) {
          U32 const a = s[i % indexCount], e = a + len - 1;
          bool const set = !((i / indexCount) & 1);
          for (U32 k = a / 64; k <= e / 64; ++k) {
            U64 m = ~U64(0);
            if (k == a / 64) m &= ~U64(0) << (a % 64);
            if (k == e / 64) m &= ~U64(0) >> (63 - e % 64);
            w[k] = set ? w[k] | m : w[k] & ~m;
          }
          benchmark::ClobberMemory();
          ++i;
        }
      });
#ifdef VELL_HAVE_BOOST
      benchmark::RegisterBenchmark(("updateRange/dynamicBitset" + tag).c_str(), [=](benchmark::State& st) {
        boost::dynamic_bitset<U64> bs(size);
        auto const s = starts();
        U32 i = 0;
        for (auto _ : st) {
          bs.set(s[i % indexCount], len, !((i / indexCount) & 1));
          benchmark::ClobberMemory();
          ++i;
        }
      });
#endif
#ifdef VELL_HAVE_ROARING
      benchmark::RegisterBenchmark(("updateRange/roaring" + tag).c_str(), [=](benchmark::State& st) {
        roaring_bitmap_t* rb = roaring_bitmap_create();
        auto const s = starts();
        U32 i = 0;
        for (auto _ : st) {
          U32 const a = s[i % indexCount];
          (i / indexCount) & 1 ? roaring_bitmap_remove_range_closed(rb, a, a + len - 1)
                               : roaring_bitmap_add_range_closed(rb, a, a + len - 1);
          ++i;
        }
        roaring_bitmap_free(rb);
      });
#endif
    }
}

}  // namespace

int main(int argc, char** argv) {
  registerSearches();
  registerDescents();
  registerRangeSearches();
  registerUpdates();
  registerRangeUpdates();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
