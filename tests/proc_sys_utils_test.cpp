#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/ProcSysUtils.h>

#include "../src/ProcSysUtilsInternal.h"

namespace {

using namespace Vell::ProcSys;
using Vell::U32;
using Vell::U64;

// ---- temporary files ----

class TempDir {
 public:
  TempDir() {
    char const* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/procsysXXXXXX";
    path_ = ::mkdtemp(tmpl.data()) ? tmpl : std::string();
    EXPECT_FALSE(path_.empty()) << std::strerror(errno);
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string const& path() const { return path_; }
  std::string file(std::string const& name, std::string const& content) const {
    std::string p = path_ + "/" + name;
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  std::string path_;
};

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// ---- writeProcSys ----

class WriteProcSysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Quor::traceLevelIs("ProcSysUtils", 9);
    Quor::traceSinkIs([this](Quor::TraceRecord const& r) {
      if (r.channel == "ProcSysUtils") traces.push_back(std::to_string(r.level) + " " + r.stem + ": " + r.text);
    });
  }
  void TearDown() override {
    Quor::traceSinkIs({});
    Quor::traceLevelIs("ProcSysUtils", -1);
  }
  TempDir dir;
  std::vector<std::string> traces;
};

TEST_F(WriteProcSysTest, WritesTheValueAsGiven) {
  std::string const p = dir.file("tunable", "");
  EXPECT_EQ(Vell::writeProcSys(p.c_str(), "42"), 0);
  EXPECT_EQ(slurp(p), "42");  // no newline added
  EXPECT_EQ(traces, std::vector<std::string>{"3 ProcSysUtils: Writing 42 to " + p});

  // An empty value is a zero-length write: success, file untouched.
  std::string const q = dir.file("kept", "abc");
  EXPECT_EQ(Vell::writeProcSys(q.c_str(), ""), 0);
  EXPECT_EQ(slurp(q), "abc");
}

TEST_F(WriteProcSysTest, FailuresReturnErrnoAndTrace) {
  std::string const missing = dir.path() + "/missing";
  EXPECT_EQ(Vell::writeProcSys(missing.c_str(), "1"), ENOENT);
  EXPECT_NE(::access(missing.c_str(), F_OK), 0);  // nothing created
  EXPECT_EQ(traces.back(), "0 ProcSysUtils: Failed to open " + missing + " : " + std::strerror(ENOENT));

  EXPECT_EQ(Vell::writeProcSys(dir.path().c_str(), "1"), EISDIR);

  // Opens, then the write fails.
  EXPECT_EQ(Vell::writeProcSys("/dev/full", "1"), ENOSPC);
  EXPECT_EQ(traces.back(), std::string("0 ProcSysUtils: Failed to write /dev/full : ") + std::strerror(ENOSPC));

  EXPECT_EQ(Vell::writeProcSys(nullptr, "1"), EINVAL);
  EXPECT_EQ(Vell::writeProcSys("/dev/null", nullptr), EINVAL);
}

TEST_F(WriteProcSysTest, LongPathsAreCutTo127Characters) {
  std::string const base = dir.path() + "/";
  ASSERT_LT(base.size(), 100u);
  std::string const cut = base + std::string(127 - base.size(), 'a');
  dir.file(cut.substr(base.size()), "");
  EXPECT_EQ(Vell::writeProcSys((cut + "bcdef").c_str(), "7"), 0);
  EXPECT_EQ(slurp(cut), "7");
  EXPECT_EQ(traces.back(), "3 ProcSysUtils: Writing 7 to " + cut);
  // Exactly 127 characters are not cut.
  EXPECT_EQ(Vell::writeProcSys(cut.c_str(), "8"), 0);
  EXPECT_EQ(slurp(cut), "8");
  // The cut path is what is opened, so a longer path to an existing file can miss.
  std::string const longer = base + std::string(130 - base.size(), 'b');
  dir.file(longer.substr(base.size()), "");
  EXPECT_EQ(Vell::writeProcSys(longer.c_str(), "9"), ENOENT);
}

// ---- the smaps walk on crafted texts ----

struct Drop {
  U64 addr;
  U64 length;
  int advice;
  bool operator==(Drop const&) const = default;
};
std::ostream& operator<<(std::ostream& o, Drop const& d) {
  return o << std::hex << "0x" << d.addr << "+0x" << d.length << std::dec << "/" << d.advice;
}

struct Recorder {
  std::vector<Drop> drops;
  MadviseFn fn() {
    return [this](void* addr, std::size_t length, int advice) {
      drops.push_back({reinterpret_cast<std::uintptr_t>(addr), length, advice});
      return -1;  // ignored by the walk
    };
  }
};

// Reads `text` in chunks of at most `chunk` bytes.
ReadFn reader(std::string const& text, std::size_t chunk = lineBufferSize) {
  auto pos = std::make_shared<std::size_t>(0);
  return [text, chunk, pos](char* buf, std::size_t n) -> ssize_t {
    std::size_t const k = std::min({n, chunk, text.size() - *pos});
    std::memcpy(buf, text.data() + *pos, k);
    *pos += k;
    return static_cast<ssize_t>(k);
  };
}

std::string mapping(std::string const& range, std::string const& perms, U64 privateDirty = 0, U64 sharedDirty = 0,
                    std::string const& path = "/usr/lib/libx.so") {
  return range + " " + perms + " 00001000 fd:01 1234567 " + path +
         "\nSize:                132 kB\nRss:                  64 kB\nShared_Clean:         60 kB\n"
         "Shared_Dirty:  " + std::to_string(sharedDirty) + " kB\nPrivate_Clean:         4 kB\n"
         "Private_Dirty:  " + std::to_string(privateDirty) + " kB\nSwapPss:               0 kB\n"
         "VmFlags: rd ex mr mw me\n";
}

Drop dropOf(U64 start, U64 end) { return {start, end - start, MADV_DONTNEED}; }

TEST(SmapsWalk, DropsOnlyCleanExecutableReadOnlyMappings) {
  std::string const text =
      mapping("7f3a5c000000-7f3a5c021000", "r-xp") +         // dropped, above 4 GiB
      mapping("7f3a5c021000-7f3a5c022000", "rwxp") +         // writable: kept
      mapping("7f3a5c022000-7f3a5c023000", "r--p") +         // not executable: kept
      mapping("7f3a5c023000-7f3a5c024000", "r-xp", 4) +      // private dirty: kept
      mapping("7f3a5c024000-7f3a5c025000", "r-xp", 0, 8) +   // shared dirty: kept
      mapping("400000-401000", "--xp", 0, 0, "") +           // execute only: dropped
      mapping("ffffffffff600000-ffffffffff601000", "r-xs");  // shared, clean: dropped
  Recorder r;
  EXPECT_EQ(walkSmaps(reader(text), r.fn()), 0);
  EXPECT_EQ(r.drops, (std::vector<Drop>{dropOf(0x7f3a5c000000, 0x7f3a5c021000), dropOf(0x400000, 0x401000),
                                        dropOf(0xffffffffff600000, 0xffffffffff601000)}));
}

TEST(SmapsWalk, MappingLineFields) {
  MappingRecord rec;
  parseMappingLine("7f3a5c000000-7f3a5c021000 r-xs 1234567890ab fd:1f 123456789012   /opt/a b (deleted)", &rec);
  EXPECT_EQ(rec.start, 0x7f3a5c000000u);
  EXPECT_EQ(rec.end, 0x7f3a5c021000u);
  EXPECT_EQ(rec.offset, 0x1234567890abu);
  EXPECT_EQ(rec.permissions, permRead | permExecute);
  EXPECT_EQ(rec.sharing, sharingShared);
  EXPECT_EQ(rec.deviceMajor, 0xfdu);
  EXPECT_EQ(rec.deviceMinor, 0x1fu);
  EXPECT_EQ(rec.inode, 123456789012u);
  EXPECT_STREQ(rec.path, "/opt/a b (deleted)");

  // Parsing stops at the first misplaced field; the fields before it stand, the rest
  // are zero (the record is cleared first).
  rec.counter[privateDirty] = 5;
  parseMappingLine("1000-2000 rwxp zz 08:01 7 /x", &rec);
  EXPECT_EQ(rec.end, 0x2000u);
  EXPECT_EQ(rec.permissions, permRead | permWrite | permExecute);
  EXPECT_EQ(rec.sharing, sharingPrivate);
  EXPECT_EQ(rec.offset, 0u);
  EXPECT_EQ(rec.inode, 0u);
  EXPECT_EQ(rec.counter[privateDirty], 0u);
  EXPECT_STREQ(rec.path, "");

  parseMappingLine("1000-2000 r-x", &rec);  // three permission characters: not a field
  EXPECT_EQ(rec.permissions, 0u);
  EXPECT_FALSE(isDroppable(rec));
  parseMappingLine("1000-0800 r-xp 0 0:0 0", &rec);  // end below start
  EXPECT_FALSE(isDroppable(rec));
  parseMappingLine("10000000000000000-2 r-xp 0 0:0 0", &rec);  // start beyond 64 bits
  EXPECT_EQ(rec.start, 0u);
  EXPECT_EQ(rec.end, 0u);

  EXPECT_TRUE(isMappingLine("a-"));
  EXPECT_FALSE(isMappingLine("Anonymous: 0 kB"));  // hexadecimal first, but no "-"
  EXPECT_FALSE(isMappingLine("VmFlags: rd ex mr-mw"));
}

TEST(SmapsWalk, CounterKeysMatchOverTheirOwnLength) {
  MappingRecord rec{};
  for (U32 c = 0; c < counterCount; ++c) {
    parseCounterLine((std::string(counterName(Counter(c))) + ":  " + std::to_string(c + 10) + " kB").c_str(), &rec);
    EXPECT_EQ(rec.counter[c], c + 10) << counterName(Counter(c));
  }
  rec = MappingRecord{};
  // A prefix of a name matches it; the first name in table order takes the value.
  parseCounterLine("Private: 8 kB", &rec);
  EXPECT_EQ(rec.counter[privateClean], 8u);
  EXPECT_EQ(rec.counter[privateDirty], 0u);
  parseCounterLine("Private_D: 9 kB", &rec);
  EXPECT_EQ(rec.counter[privateDirty], 9u);
  parseCounterLine("S: 3 kB", &rec);
  EXPECT_EQ(rec.counter[size], 3u);
  // Keys longer than a name, unknown keys, and lines without a number change nothing.
  MappingRecord const before = rec;
  for (char const* line : {"SwapPss: 4 kB", "Pss_Dirty: 4 kB", "Locked: 4 kB", "THPeligible:    1",
                           "Private_Dirty: kB", "no colon here"})
    parseCounterLine(line, &rec);
  EXPECT_EQ(std::memcmp(&before, &rec, sizeof rec), 0);

  // Through the walk: "Private" does not make a mapping dirty, "Private_Di" does.
  Recorder r;
  walkSmaps(reader("1000-2000 r-xp 0 0:0 0\nPrivate: 4 kB\n3000-4000 r-xp 0 0:0 0\nPrivate_Di: 4 kB\n"), r.fn());
  EXPECT_EQ(r.drops, std::vector<Drop>{dropOf(0x1000, 0x2000)});
}

TEST(SmapsWalk, ReadsSplitAnywhereAndOverlongLines) {
  std::string const longPath = "/" + std::string(6000, 'p');
  std::string const text = mapping("1000-2000", "r-xp") + "VmFlags: " + std::string(9000, 'v') + "\n" +
                           mapping("2000-3000", "r-xp", 0, 0, longPath) +     // header longer than the buffer
                           mapping("3000-4000", "r-xp", 4, 0, longPath) +     // dirty after a long header
                           "Private_Dirty: 0 kB" + std::string(5000, ' ') +  // long counter line, kept head
                           "\n" + mapping("4000-5000", "r-xp");
  std::vector<Drop> const expected{dropOf(0x1000, 0x2000), dropOf(0x2000, 0x3000), dropOf(0x3000, 0x4000),
                                   dropOf(0x4000, 0x5000)};
  for (std::size_t chunk : {std::size_t(1), std::size_t(7), std::size_t(100), std::size_t(4095), lineBufferSize}) {
    Recorder r;
    EXPECT_EQ(walkSmaps(reader(text, chunk), r.fn()), 0);
    EXPECT_EQ(r.drops, expected) << "chunk " << chunk;
  }
  // The last line needs no newline; counter lines before any mapping are ignored.
  Recorder r;
  EXPECT_EQ(walkSmaps(reader("Private_Dirty: 4 kB\n1000-2000 r-xp 0 0:0 0\nPrivate_Dirty: 4 kB"), r.fn()), 0);
  EXPECT_TRUE(r.drops.empty());
  EXPECT_EQ(walkSmaps(reader(""), r.fn()), 0);
  EXPECT_TRUE(r.drops.empty());
}

TEST(SmapsWalk, ReadFailures) {
  // EINTR and EAGAIN are retried; any other failure ends the walk with -1, and the
  // record still being read is not handed on.
  std::string const text = mapping("1000-2000", "r-xp") + mapping("2000-3000", "r-xp");
  std::size_t pos = 0;
  int calls = 0;
  Recorder r;
  int const result = walkSmaps(
      [&](char* buf, std::size_t n) -> ssize_t {
        ++calls;
        if (calls % 3 == 1) {
          errno = calls % 2 ? EINTR : EAGAIN;
          return -1;
        }
        if (pos >= text.size() - 10) {
          errno = EIO;
          return -1;
        }
        std::size_t const k = std::min<std::size_t>(n, 40);
        std::memcpy(buf, text.data() + pos, k);
        pos += k;
        return static_cast<ssize_t>(k);
      },
      r.fn());
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(r.drops, std::vector<Drop>{dropOf(0x1000, 0x2000)});
}

// A random smaps text in the kernel's layout, and the drops a correct walk makes.
std::string randomSmaps(std::mt19937_64& rng, std::vector<Drop>* expected) {
  static char const* const perms[] = {"r-xp", "rwxp", "r--p", "rw-p", "--xp", "r-xs", "---p", "rw-s"};
  auto coin = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
  std::string text;
  int const records = static_cast<int>(rng() % 60);
  for (int i = 0; i < records; ++i) {
    U64 const start = (coin(50) ? rng() & 0xffffffff : rng() & 0xffffffffffff) & ~U64(0xfff);
    U64 const end = start + ((rng() % 64) << 12);
    std::string const perm = perms[rng() % 8];
    U64 const privateDirty = coin(30) ? rng() % 100 + 1 : 0;
    U64 const sharedDirty = coin(20) ? rng() % 100 + 1 : 0;
    std::string path = coin(30) ? "" : coin(50) ? "/usr/lib/x86_64-linux-gnu/libfoo.so.1" : "[heap]";
    if (coin(5)) path = "/" + std::string(4000 + rng() % 3000, 'q');
    char head[128];
    std::snprintf(head, sizeof head, "%08llx-%08llx %s %08llx %02x:%02x %llu", (unsigned long long)start,
                  (unsigned long long)end, perm.c_str(), (unsigned long long)(rng() & 0xffffffffff),
                  unsigned(rng() % 256), unsigned(rng() % 256), (unsigned long long)(rng() % 100000000000));
    text += head + std::string(coin(50) ? 26 : 1, ' ') + path + "\n";
    // The kernel's keys in its order; the two dirty counters decide, the rest is noise.
    for (char const* key : {"Size", "KernelPageSize", "MMUPageSize", "Rss", "Pss", "Pss_Dirty", "Shared_Clean",
                            "Shared_Dirty", "Private_Clean", "Private_Dirty", "Referenced", "Anonymous", "LazyFree",
                            "AnonHugePages", "Swap", "SwapPss", "Locked"}) {
      std::string const k = key;
      U64 const v = k == "Shared_Dirty" ? sharedDirty : k == "Private_Dirty" ? privateDirty : rng() % 1000;
      text += k + ":        " + std::to_string(v) + " kB\n";
    }
    text += "THPeligible:    0\n";
    text += "VmFlags: rd ex mr mw me" + (coin(5) ? std::string(5000, 'x') : std::string()) + "\n";
    bool const writable = perm[1] == 'w', executable = perm[2] == 'x';
    if (executable && !writable && !privateDirty && !sharedDirty && end > start)
      expected->push_back(dropOf(start, end));
  }
  return text;
}

TEST(SmapsWalk, RandomizedAgainstModel) {
  for (U64 seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    std::vector<Drop> expected;
    std::string const text = randomSmaps(rng, &expected);
    std::size_t pos = 0;
    Recorder r;
    int const result = walkSmaps(
        [&](char* buf, std::size_t n) -> ssize_t {
          EXPECT_GT(n, 0u);  // the walk never asks for nothing
          EXPECT_LE(n, lineBufferSize);
          if (rng() % 20 == 0) {
            errno = rng() % 2 ? EINTR : EAGAIN;
            return -1;
          }
          std::size_t const want = rng() % 2 ? 1 + rng() % 64 : 1 + rng() % lineBufferSize;
          std::size_t const k = std::min({n, want, text.size() - pos});
          std::memcpy(buf, text.data() + pos, k);
          pos += k;
          return static_cast<ssize_t>(k);
        },
        r.fn());
    ASSERT_EQ(result, 0);
    ASSERT_EQ(r.drops, expected);
  }
}

// ---- unpage: the thread check, files, and the live process ----

// Counts the IN_OPEN events of one file while it lives.
class OpenWatch {
 public:
  explicit OpenWatch(std::string const& path) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_GE(fd_, 0);
    EXPECT_GE(::inotify_add_watch(fd_, path.c_str(), IN_OPEN), 0);
  }
  ~OpenWatch() { ::close(fd_); }
  int opens() {
    alignas(inotify_event) char buf[4096];
    int n = 0;
    for (ssize_t k; (k = ::read(fd_, buf, sizeof buf)) > 0;)
      for (char* p = buf; p < buf + k; p += sizeof(inotify_event) + reinterpret_cast<inotify_event*>(p)->len) ++n;
    return n;
  }

 private:
  int fd_;
};

TEST(Unpage, ThreadCheckComesBeforeTheFile) {
  TempDir dir;
  std::string const smaps = dir.file("smaps", mapping("1000-2000", "r-xp"));
  std::string const task = dir.path() + "/task";
  ASSERT_EQ(::mkdir(task.c_str(), 0700), 0);
  Recorder r;
  OpenWatch watch(smaps);
  // One thread: "." and ".." and one task subdirectory, three links: walked.
  ASSERT_EQ(::mkdir((task + "/1").c_str(), 0700), 0);
  EXPECT_EQ(unpageFrom(task.c_str(), smaps.c_str(), r.fn()), 0);
  EXPECT_EQ(r.drops, std::vector<Drop>{dropOf(0x1000, 0x2000)});
  EXPECT_EQ(watch.opens(), 1);
  // Two threads: four links, the file is not even opened.
  ASSERT_EQ(::mkdir((task + "/2").c_str(), 0700), 0);
  EXPECT_EQ(unpageFrom(task.c_str(), smaps.c_str(), r.fn()), 0);
  EXPECT_EQ(r.drops.size(), 1u);
  EXPECT_EQ(watch.opens(), 0);

  EXPECT_EQ(unpageFrom((dir.path() + "/none").c_str(), smaps.c_str(), r.fn()), -1);
  EXPECT_EQ(walkSmapsFile((dir.path() + "/none").c_str(), r.fn()), 0);
}

TEST(Unpage, LiveProcessWithASecondThreadDoesNothing) {
  TempDir dir;
  std::string const smaps = dir.file("smaps", mapping("1000-2000", "r-xp"));
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) std::this_thread::yield();
  });
  Recorder r;
  OpenWatch watch(smaps);
  EXPECT_EQ(unpageFrom("/proc/self/task", smaps.c_str(), r.fn()), 0);
  EXPECT_EQ(Vell::unpage(), 0);
  EXPECT_EQ(Vell_unpage(), 0);
  stop = true;
  other.join();
  EXPECT_TRUE(r.drops.empty());
  EXPECT_EQ(watch.opens(), 0);
}

__attribute__((noinline)) int busyWork(int n) {
  int s = 0;
  for (int i = 0; i < n; ++i) s += i % 7;
  return s;
}

bool containsAddress(std::vector<Drop> const& drops, void const* p) {
  auto const a = reinterpret_cast<std::uintptr_t>(p);
  for (Drop const& d : drops)
    if (a >= d.addr && a - d.addr < d.length) return true;
  return false;
}

int staticData = 1;

// In a forked child, which is single-threaded whatever the test process is.
TEST(UnpageDeathTest, LiveProcessDropsCodeAndKeepsRunning) {
  EXPECT_EXIT(
      {
        // First with a recorder: library code is chosen (the C library's, whose file
        // pages are long clean; a freshly built file's pages count as dirty until
        // written back), data, heap and stack are not.
        Recorder r;
        int const walked = unpageFrom("/proc/self/task", "/proc/self/smaps", r.fn());
        int local = 0;
        int* heap = new int(0);
        if (walked != 0 || !containsAddress(r.drops, reinterpret_cast<void const*>(&::getpid)) ||
            containsAddress(r.drops, &staticData) || containsAddress(r.drops, &local) ||
            containsAddress(r.drops, heap)) {
          std::fprintf(stderr, "wrong choice: %d, %zu drops\n", walked, r.drops.size());
          _exit(3);
        }
        delete heap;
        // Then for real: the pages go, and the code they held still runs.
        int const result = Vell::unpage();
        int const again = Vell_unpage();
        std::fprintf(stderr, "unpaged %d %d, still running %d\n", result, again, busyWork(1000));
        _exit(result == 0 && again == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "unpaged 0 0, still running 2997");
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

TEST(EntryPoints, ExportedUnderTheirPlainNames) {
  void* lib = ::dlopen("libVell.so.0", RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(lib, nullptr) << ::dlerror();
  EXPECT_EQ(::dlsym(lib, "Vell_unpage"), reinterpret_cast<void*>(&Vell_unpage));
  EXPECT_EQ(::dlsym(lib, "Vell_installBacktraceHandlers"), reinterpret_cast<void*>(&Vell_installBacktraceHandlers));
  ::dlclose(lib);
}

TEST(BacktraceDeathTest, CrashPrintsTheCrashingFunctionAndStillDies) {
  EXPECT_EXIT(
      {
        auto install = reinterpret_cast<void (*)()>(::dlsym(RTLD_DEFAULT, "Vell_installBacktraceHandlers"));
        if (!install) _exit(2);
        install();
        vellTestCrashHere();
        _exit(0);
      },
      ::testing::KilledBySignal(SIGSEGV), "backtrace[^\n]*\n(.*\n)*[^\n]*vellTestCrashHere");
  EXPECT_EXIT(
      {
        Vell::installBacktraceHandlers();
        Vell::installBacktraceHandlers();  // idempotent
        vellTestCrashHere();
        _exit(0);
      },
      ::testing::KilledBySignal(SIGSEGV), "vellTestCrashHere");
}

}  // namespace
