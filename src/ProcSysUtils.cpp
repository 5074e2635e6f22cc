// Process utilities: kernel tunables, releasing clean code pages, crash backtraces.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Vell/ProcSysUtils.h>

#include <Quor/Quor.h>

#include "ProcSysUtilsInternal.h"

namespace Vell {

namespace {
Quor::TraceHandle& traceHandle() {
  static Quor::TraceHandle* t = new Quor::TraceHandle("ProcSysUtils");
  return *t;
}

int openRetrying(char const* path, int flags) {
  int fd;
  do {
    fd = ::open(path, flags);
  } while (fd < 0 && errno == EINTR);
  return fd;
}
}  // namespace

int writeProcSys(char const* path, char const* value) {
  if (!path || !value) return EINVAL;  // nothing to open or to write: refuse, do not crash
  char cutPath[128];
  std::snprintf(cutPath, sizeof cutPath, "%s", path);
  QUOR_TRACE(traceHandle(), 3, "Writing " << value << " to " << cutPath);
  int const fd = openRetrying(cutPath, O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    int const err = errno;
    QUOR_TRACE(traceHandle(), 0, "Failed to open " << cutPath << " : " << std::strerror(err));
    return err;
  }
  // One write: a tunable takes its value in one piece, and a short write is the
  // kernel's business, not a reason to write the rest as a second value.
  ssize_t n;
  do {
    n = ::write(fd, value, std::strlen(value));
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    int const err = errno;
    QUOR_TRACE(traceHandle(), 0, "Failed to write " << cutPath << " : " << std::strerror(err));
    ::close(fd);
    return err;
  }
  ::close(fd);
  return 0;
}

namespace ProcSys {

namespace {
constexpr char const* counterNames[counterCount] = {
    "Size",          "Rss",           "Pss",        "Shared_Clean", "Shared_Dirty",   "Private_Clean",
    "Private_Dirty", "Referenced",    "Anonymous",  "Swap",         "KernelPageSize", "MMUPageSize"};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The field readers below take and return the position in the line; a null position
// means an earlier field was not where expected, and every later reader passes it on.

// Reads a number in `base` (16 or 10) into *v. Returns the end of the digits, or null
// when there are none or the value does not fit (*v is then left alone).
char const* parseNumber(char const* p, unsigned base, U64* v) {
  if (!p) return nullptr;
  U64 x = 0;
  char const* q = p;
  for (int d; (d = hexDigit(*q)) >= 0 && static_cast<unsigned>(d) < base; ++q) {
    if (x > (~U64(0) - static_cast<unsigned>(d)) / base) return nullptr;
    x = x * base + static_cast<unsigned>(d);
  }
  if (q == p) return nullptr;
  *v = x;
  return q;
}

char const* parseU32(char const* p, unsigned base, U32* v) {
  U64 x;
  p = parseNumber(p, base, &x);
  if (!p || x > 0xffffffffu) return nullptr;
  *v = static_cast<U32>(x);
  return p;
}

char const* expect(char const* p, char c) { return p && *p == c ? p + 1 : nullptr; }

// "r-xp": read, write, execute, then s(hared) or p(rivate).
char const* parsePermissions(char const* p, MappingRecord* rec) {
  if (!p || !p[0] || !p[1] || !p[2] || !p[3]) return nullptr;
  rec->permissions = (p[0] == 'r' ? permRead : 0) | (p[1] == 'w' ? permWrite : 0) | (p[2] == 'x' ? permExecute : 0);
  rec->sharing = p[3] == 's' ? sharingShared : p[3] == 'p' ? sharingPrivate : sharingNone;
  return p + 4;
}
}  // namespace

char const* counterName(Counter c) { return c < counterCount ? counterNames[c] : "?"; }

bool isMappingLine(char const* line) { return hexDigit(line[0]) >= 0 && std::strchr(line, '-'); }

// "start-end perms offset major:minor inode   path"
void parseMappingLine(char const* line, MappingRecord* rec) {
  std::memset(rec, 0, sizeof *rec);
  char const* p = parseNumber(line, 16, &rec->start);
  p = parseNumber(expect(p, '-'), 16, &rec->end);
  p = parsePermissions(expect(p, ' '), rec);
  p = parseNumber(expect(p, ' '), 16, &rec->offset);
  p = parseU32(expect(p, ' '), 16, &rec->deviceMajor);
  p = parseU32(expect(p, ':'), 16, &rec->deviceMinor);
  p = parseNumber(expect(p, ' '), 10, &rec->inode);
  if (!p) return;
  while (*p == ' ' || *p == '\t') ++p;
  std::snprintf(rec->path, sizeof rec->path, "%s", p);
}

void parseCounterLine(char const* line, MappingRecord* rec) {
  char const* colon = std::strchr(line, ':');
  if (!colon) return;
  std::size_t const keyLength = static_cast<std::size_t>(colon - line);
  // The key is compared over its own length, so a key that is a prefix of a name
  // matches it. The first match in table order takes the value: a dirty counter is
  // then only ever set by a key that names it beyond its shared prefix.
  for (U32 c = 0; c < counterCount; ++c) {
    if (std::strncmp(counterNames[c], line, keyLength) != 0) continue;
    char const* p = colon + 1;
    while (*p == ' ' || *p == '\t') ++p;
    U64 v;
    if (parseNumber(p, 10, &v)) rec->counter[c] = v;
    return;
  }
}

bool isDroppable(MappingRecord const& rec) {
  if (rec.counter[privateDirty] != 0 || rec.counter[sharedDirty] != 0) return false;
  if ((rec.permissions & (permWrite | permExecute)) != permExecute) return false;
  // A malformed line can leave end at or below start: never hand a wrapped length on.
  return rec.end > rec.start;
}

int dropPages(MappingRecord const& rec, MadviseFn const& madviseFn) {
  if (!isDroppable(rec)) return 0;
  QUOR_TRACE(traceHandle(), 5,
             "dropping " << std::hex << rec.start << "-" << rec.end << std::dec << " " << rec.path);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the mapping's address, read from smaps
  (void)madviseFn(reinterpret_cast<void*>(static_cast<std::uintptr_t>(rec.start)),
                  static_cast<std::size_t>(rec.end - rec.start), MADV_DONTNEED);
  return 0;
}

int walkSmaps(ReadFn const& read, MadviseFn const& madviseFn) {
  char buf[lineBufferSize];
  std::size_t held = 0;
  bool discarding = false;  // dropping the tail of a line too long for the buffer
  bool haveRecord = false;
  int result = 0;
  MappingRecord rec;

  // Returns false when the walk must end.
  auto handleLine = [&](char const* line) {
    if (isMappingLine(line)) {
      if (haveRecord && (result = dropPages(rec, madviseFn)) != 0) return false;
      parseMappingLine(line, &rec);
      haveRecord = true;
    } else if (haveRecord) {
      parseCounterLine(line, &rec);
    }
    return true;
  };

  for (;;) {
    ssize_t n;
    do {
      n = read(buf + held, lineBufferSize - held);
    } while (n < 0 && (errno == EINTR || errno == EAGAIN));
    if (n < 0) return -1;
    if (n == 0) break;
    held += static_cast<std::size_t>(n);
    while (char* nl = static_cast<char*>(std::memchr(buf, '\n', held))) {
      *nl = '\0';
      std::size_t const length = static_cast<std::size_t>(nl - buf) + 1;
      if (discarding) {
        discarding = false;
      } else if (!handleLine(buf)) {
        return result;
      }
      std::memmove(buf, buf + length, held - length);
      held -= length;
    }
    if (held == lineBufferSize) {
      // A full buffer without a newline: the line is longer than the buffer. Its head
      // (where a mapping line keeps every field but the path) is used, the rest is
      // dropped; skipping the whole line would pin the next mapping's counters on the
      // previous record.
      buf[lineBufferSize - 1] = '\0';
      if (!discarding && !handleLine(buf)) return result;
      discarding = true;
      held = 0;
    }
  }
  // A last line without a newline still counts.
  if (held > 0 && !discarding) {
    buf[held] = '\0';
    if (!handleLine(buf)) return result;
  }
  if (haveRecord) result = dropPages(rec, madviseFn);
  return result;
}

int walkSmapsFile(char const* smapsPath, MadviseFn const& madviseFn) {
  int const fd = openRetrying(smapsPath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  int const result =
      walkSmaps([fd](char* buf, std::size_t n) { return ::read(fd, buf, n); }, madviseFn);
  // On a read failure the descriptor is deliberately left open, so that nothing runs
  // between the failed read and the caller that could disturb its errno.
  if (result == -1) return -1;
  ::close(fd);
  return result;
}

int unpageFrom(char const* taskDir, char const* smapsPath, MadviseFn const& madviseFn) {
  struct stat st;
  if (::stat(taskDir, &st) != 0) return -1;
  // One subdirectory per thread, plus "." and "..": four links mean a second thread,
  // which could be running the very code whose pages would go.
  if (st.st_nlink >= 4) return 0;
  return walkSmapsFile(smapsPath, madviseFn);
}

}  // namespace ProcSys

int unpage() {
  QUOR_TRACE(traceHandle(), 1, "unpage");
  return ProcSys::unpageFrom("/proc/self/task", "/proc/self/smaps",
                             [](void* addr, std::size_t length, int advice) { return ::madvise(addr, length, advice); });
}

void installBacktraceHandlers() { Quor::SignalHandler::registerSignalHandler(); }

}  // namespace Vell

extern "C" int Vell_unpage(void) { return Vell::unpage(); }

extern "C" void Vell_installBacktraceHandlers(void) { Vell::installBacktraceHandlers(); }
