// writeProcSys on temporary files; the smaps walk on crafted and random texts against
// a model, and on the live process; the backtrace handlers in crashing children.

#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <fstream>
#include <iterator>
#include <thread>
#include <tuple>

#include <Vell/ProcSysUtils.h>

#include "../src/ProcSysUtilsInternal.h"
#include "TestSupport.h"

namespace {

using namespace Vell::ProcSys;
using Vell::U64;

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// ---- writeProcSys ----

TEST(WriteProcSys, WritesTheValueAsGivenOrReturnsErrno) {
  char const* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/procsysXXXXXX";
  ASSERT_NE(::mkdtemp(dir.data()), nullptr);
  auto file = [&](std::string const& name, std::string const& content) {
    std::ofstream(dir + "/" + name, std::ios::binary) << content;
    return dir + "/" + name;
  };
  VellTest::TraceCapture traces("ProcSysUtils");
  // A path over 127 characters is cut, and the cut path is the one opened.
  ASSERT_LT(dir.size(), 100u);
  std::string const cut = file(std::string(126 - dir.size(), 'a'), "");
  EXPECT_EQ(Vell::writeProcSys((cut + "bcdef").c_str(), "42"), 0);
  EXPECT_EQ(slurp(cut), "42");  // no newline added
  EXPECT_EQ(traces.texts(3), std::vector<std::string>{"Writing 42 to " + cut});
  // An empty value is a zero-length write: success, file untouched.
  std::string const kept = file("kept", "abc");
  EXPECT_EQ(Vell::writeProcSys(kept.c_str(), ""), 0);
  EXPECT_EQ(slurp(kept), "abc");
  std::string const missing = dir + "/missing";
  EXPECT_EQ(Vell::writeProcSys(missing.c_str(), "1"), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(missing));  // nothing created
  EXPECT_EQ(Vell::writeProcSys("/dev/full", "1"), ENOSPC);  // opens, then the write fails
  EXPECT_EQ(traces.texts(0), (std::vector<std::string>{"Failed to open " + missing + " : " + std::strerror(ENOENT),
                                                       std::string("Failed to write /dev/full : ") + std::strerror(ENOSPC)}));
  EXPECT_EQ(Vell::writeProcSys(nullptr, "1"), EINVAL);
  EXPECT_EQ(Vell::writeProcSys("/dev/null", nullptr), EINVAL);
  std::filesystem::remove_all(dir);
}

// ---- the smaps walk on crafted texts ----

using Drop = std::tuple<U64, U64, int>;  // address, length, advice
using Drops = std::vector<Drop>;
Drop dropOf(U64 start, U64 end) { return {start, end - start, MADV_DONTNEED}; }

MadviseFn recorder(Drops* drops) {
  return [drops](void* addr, std::size_t length, int advice) {
    drops->emplace_back(reinterpret_cast<std::uintptr_t>(addr), length, advice);
    return -1;  // ignored by the walk
  };
}

// Reads `text` in pieces of the sizes `next()` picks; a negative pick fails with that errno.
ReadFn reader(std::string const& text, std::function<ssize_t()> next = [] { return ssize_t(lineBufferSize); }) {
  auto pos = std::make_shared<std::size_t>(0);
  return [=](char* buf, std::size_t n) -> ssize_t {
    EXPECT_TRUE(n > 0 && n <= lineBufferSize) << n;  // the walk never asks for nothing
    ssize_t const want = next();
    if (want < 0) return errno = static_cast<int>(-want), -1;
    std::size_t const k = std::min({n, static_cast<std::size_t>(want), text.size() - *pos});
    std::memcpy(buf, text.data() + *pos, k);
    *pos += k;
    return static_cast<ssize_t>(k);
  };
}

Drops walk(ReadFn const& read, int expectedResult = 0) {
  Drops drops;
  EXPECT_EQ(walkSmaps(read, recorder(&drops)), expectedResult);
  return drops;
}

// One smaps record; the counters come in the kernel's order, and only the two dirty
// ones decide.
std::string mapping(std::string const& range, std::string const& perms, U64 privateDirty = 0, U64 sharedDirty = 0,
                    std::string const& path = "/usr/lib/libx.so") {
  std::string text = range + " " + perms + " 00001000 fd:01 1234567    " + path + "\n";
  for (std::string const k : {"Size", "KernelPageSize", "MMUPageSize", "Rss", "Pss", "Pss_Dirty", "Shared_Clean",
                              "Shared_Dirty", "Private_Clean", "Private_Dirty", "Referenced", "Anonymous", "LazyFree",
                              "AnonHugePages", "Swap", "SwapPss", "Locked"})
    text += k + ":    " + std::to_string(k == "Shared_Dirty" ? sharedDirty : k == "Private_Dirty" ? privateDirty : 4) +
            " kB\n";
  return text + "THPeligible:    0\nVmFlags: rd ex mr mw me\n";
}

TEST(SmapsWalk, RecordLinesAndCounterKeys) {
  MappingRecord rec;
  parseMappingLine("7f3a5c000000-7f3a5c021000 r-xs 1234567890ab fd:1f 123456789012   /opt/a b (deleted)", &rec);
  EXPECT_EQ(rec.offset, 0x1234567890abu);  // full width, like the addresses
  EXPECT_STREQ(rec.path, "/opt/a b (deleted)");
  // A malformed line never yields a range to drop: a missing sharing flag, a range
  // that would wrap, numbers that do not fit in 64 bits.
  for (char const* line : {"1000-2000 r-x", "1000-0800 r-xp 0 0:0 0", "10000000000001000-10000000000002000 r-xp"}) {
    parseMappingLine(line, &rec);
    EXPECT_FALSE(isDroppable(rec)) << line;
  }
  EXPECT_FALSE(isMappingLine("VmFlags: rd ex mr-mw"));  // a "-", but not hexadecimal first

  rec = MappingRecord{};
  // A key matches the first name in table order that it is a prefix of.
  for (char const* line : {"Private: 8 kB", "Private_D: 9 kB", "S: 3 kB"}) parseCounterLine(line, &rec);
  EXPECT_EQ(rec.counter[privateClean], 8u);
  EXPECT_EQ(rec.counter[privateDirty], 9u);
  EXPECT_EQ(rec.counter[size], 3u);
  // Keys longer than a name, unknown keys, and lines without a number change nothing.
  MappingRecord const before = rec;
  for (char const* line : {"SwapPss: 4 kB", "Pss_Dirty: 4 kB", "Locked: 4 kB", "Private_Dirty: kB", "no colon"})
    parseCounterLine(line, &rec);
  EXPECT_EQ(std::memcmp(&before, &rec, sizeof rec), 0);
}

TEST(SmapsWalk, ReadsSplitAnywhereOverlongLinesAndFailures) {
  std::string const longPath = "/" + std::string(6000, 'p');
  std::string const text = mapping("1000-2000", "r-xp") + "VmFlags: " + std::string(9000, 'v') + "\n" +
                           mapping("2000-3000", "r-xp", 0, 0, longPath) +     // header longer than the buffer
                           mapping("3000-4000", "r-xp", 4, 0, longPath) +     // dirty after a long header
                           "Private_Dirty: 0 kB" + std::string(5000, ' ') +  // long counter line, kept head
                           "\n" + mapping("4000-5000", "r-xp");
  Drops const expected{dropOf(0x1000, 0x2000), dropOf(0x2000, 0x3000), dropOf(0x3000, 0x4000),
                       dropOf(0x4000, 0x5000)};
  for (ssize_t chunk : {1, 7, 4095, 4096}) EXPECT_EQ(walk(reader(text, [=] { return chunk; })), expected) << chunk;
  // Counter lines before any mapping are ignored, each record starts clean, and the
  // last line needs no newline.
  EXPECT_EQ(walk(reader("Private_Dirty: 4 kB\n1000-2000 r-xp 0 0:0 0\nPrivate_Dirty: 4 kB\n3000-4000 r-xp 0 0:0 0")),
            Drops{dropOf(0x3000, 0x4000)});
  EXPECT_EQ(walk(reader("")), Drops{});
  // A failed read ends the walk with its errno; the record being read is not handed on.
  std::string const first = mapping("1000-2000", "r-xp");
  auto eioInSecond = [n = (first.size() + 100) / 40]() mutable -> ssize_t { return n-- > 0 ? 40 : -EIO; };
  EXPECT_EQ(walk(reader(first + mapping("2000-3000", "r-xp"), eioInSecond), -1), Drops{dropOf(0x1000, 0x2000)});
  EXPECT_EQ(errno, EIO);
}

// A random smaps text, and the drops a correct walk makes: clean, executable, not
// writable mappings, shared or private, anywhere in the address space.
std::string randomSmaps(std::mt19937_64& rng, Drops* expected) {
  static char const* const perms[] = {"r-xp", "rwxp", "r--p", "rw-p", "--xp", "r-xs", "---p", "rw-s"};
  auto coin = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
  std::string text;
  for (int i = static_cast<int>(rng() % 60); i > 0; --i) {
    U64 const start = (coin(3) ? 0xffffffffff600000 : coin(50) ? rng() & 0xffffffff : rng() & 0xffffffffffff) & ~U64(0xfff);
    U64 const end = start + ((rng() % 64) << 12);
    std::string const perm = perms[rng() % 8];
    U64 const privateDirty = coin(30) ? rng() % 100 + 1 : 0, sharedDirty = coin(20) ? rng() % 100 + 1 : 0;
    char range[40];
    std::snprintf(range, sizeof range, "%08llx-%08llx", (unsigned long long)start, (unsigned long long)end);
    text += mapping(range, perm, privateDirty, sharedDirty,
                    coin(5) ? "/" + std::string(4000 + rng() % 3000, 'q') : coin(50) ? "[heap]" : "");
    if (perm[1] != 'w' && perm[2] == 'x' && !privateDirty && !sharedDirty && end > start)
      expected->push_back(dropOf(start, end));
  }
  return text;
}

TEST(SmapsWalk, RandomizedAgainstModel) {
  for (U64 seed = 1; seed <= 200; ++seed) {
    VELL_SEEDED(rng, seed);
    Drops expected;
    std::string const text = randomSmaps(rng, &expected);
    // Reads of random size, some interrupted (retried by the walk).
    auto read = reader(text, [&]() -> ssize_t {
      if (rng() % 20 == 0) return rng() % 2 ? -EINTR : -EAGAIN;
      return static_cast<ssize_t>(rng() % 2 ? 1 + rng() % 64 : 1 + rng() % lineBufferSize);
    });
    ASSERT_EQ(walk(read), expected);
  }
}

// ---- unpage on the live process ----

TEST(Unpage, WithASecondThreadDoesNothingAndOpensNothing) {
  // A directory as the smaps file: opening it would end the walk with -1 (EISDIR).
  char const* const dir = "/proc/self";
  Drops drops;
  EXPECT_EQ(walkSmapsFile(dir, recorder(&drops)), -1);
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) std::this_thread::yield();
  });
  EXPECT_EQ(unpageFrom("/proc/self/task", dir, recorder(&drops)), 0);
  EXPECT_EQ(Vell::unpage(), 0);
  EXPECT_EQ(Vell_unpage(), 0);
  stop = true;
  other.join();
  // An unreadable task directory is an error; a missing smaps file is not.
  EXPECT_EQ(unpageFrom("/proc/self/none", dir, recorder(&drops)), -1);
  EXPECT_EQ(walkSmapsFile("/proc/self/none", recorder(&drops)), 0);
  EXPECT_EQ(drops, Drops{});
}

bool containsAddress(Drops const& drops, void const* p) {
  auto const a = reinterpret_cast<std::uintptr_t>(p);
  return std::any_of(drops.begin(), drops.end(),
                     [a](Drop const& d) { return a >= std::get<0>(d) && a - std::get<0>(d) < std::get<1>(d); });
}

int staticData = 1;

// In a forked child, which is single-threaded whatever the test process is.
TEST(UnpageDeathTest, LiveProcessDropsCodeAndKeepsRunning) {
  EXPECT_EXIT(
      {
        // First with a recorder: library code is chosen (the C library's, whose file
        // pages are long clean; a freshly built file's pages count as dirty until
        // written back), data, heap and stack are not.
        Drops drops;
        int const walked = unpageFrom("/proc/self/task", "/proc/self/smaps", recorder(&drops));
        int local = 0;
        int* heap = new int(0);
        if (walked != 0 || !containsAddress(drops, reinterpret_cast<void const*>(&::getpid)) ||
            containsAddress(drops, &staticData) || containsAddress(drops, &local) || containsAddress(drops, heap)) {
          std::fprintf(stderr, "wrong choice: %d, %zu drops\n", walked, drops.size());
          _exit(3);
        }
        delete heap;
        // Then for real: the pages go, and the C library code they held still runs.
        std::fprintf(stderr, "unpaged %d %d, still running\n", Vell::unpage(), Vell_unpage());
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "unpaged 0 0, still running");
}

// ---- backtrace handlers ----

}  // namespace

// Visible in the dynamic symbol table (the test is linked with exports on), so that the
// backtrace can name it.
extern "C" QUOR_API __attribute__((noinline)) void vellTestCrashHere() {
  void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<int volatile*>(page) = 1;
  ::munmap(page, 4096);
}

namespace {

TEST(BacktraceDeathTest, CrashPrintsTheCrashingFunctionAndStillDies) {
  EXPECT_EXIT(
      {
        Vell_installBacktraceHandlers();
        Vell::installBacktraceHandlers();  // idempotent
        vellTestCrashHere();
        _exit(0);
      },
      ::testing::KilledBySignal(SIGSEGV), "backtrace[^\n]*\n(.*\n)*[^\n]*vellTestCrashHere");
}

}  // namespace
