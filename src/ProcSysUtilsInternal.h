// The smaps walk behind Vell::unpage(), in pieces that tests drive on crafted texts.
//
// Not part of the public interface: exported only so that the tests can reach it.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <functional>

#include <Quor/Types.h>

namespace Vell::ProcSys {

/// Size of the line buffer: each read asks for this much minus what is held.
inline constexpr std::size_t lineBufferSize = 4096;
/// Size of a record's path field, terminator included.
inline constexpr std::size_t pathSize = 4096;

/// The per-mapping kilobyte counters, in record order.
enum Counter : U32 {
  size,
  rss,
  pss,
  sharedClean,
  sharedDirty,
  privateClean,
  privateDirty,
  referenced,
  anonymous,
  swap,
  kernelPageSize,
  mmuPageSize,
  counterCount
};
/// The smaps key of each counter ("Size", "Rss", ...).
QUOR_API char const* counterName(Counter c);

/// Permission bits of a record.
inline constexpr U32 permRead = 1, permWrite = 2, permExecute = 4;
/// Sharing flag of a record.
inline constexpr U32 sharingNone = 0, sharingShared = 1, sharingPrivate = 2;

/// One mapping of the smaps file. Addresses and the offset are full 64-bit values: a
/// cut address would point the page release at some other mapping. Counters are 64-bit
/// too, since sanitizer shadow mappings exceed 4 TiB.
struct MappingRecord {
  U64 start;
  U64 end;
  U64 offset;
  U32 permissions;  ///< permRead | permWrite | permExecute
  U32 sharing;      ///< sharingShared or sharingPrivate
  U32 deviceMajor;
  U32 deviceMinor;
  U64 inode;
  U64 counter[counterCount];
  char path[pathSize];
};

/// Receives the ranges to drop: madvise(addr, length, advice) or a test's recorder.
using MadviseFn = std::function<int(void* addr, std::size_t length, int advice)>;
/// Delivers the next bytes of the text, like read(2): > 0 bytes, 0 at the end, or -1
/// with errno set.
using ReadFn = std::function<ssize_t(char* buf, std::size_t n)>;

/// True for a line that starts a mapping record: a hexadecimal digit first, and a "-".
QUOR_API bool isMappingLine(char const* line);
/// Clears *rec and fills it from a mapping line; parsing stops at the first field that
/// is not where expected, and what was read so far stands.
QUOR_API void parseMappingLine(char const* line, MappingRecord* rec);
/// Stores the number of a "Key: N kB" line in the first counter (table order) whose
/// name starts with the key; other keys are ignored.
QUOR_API void parseCounterLine(char const* line, MappingRecord* rec);
/// True for a mapping whose pages may go: no dirty pages, executable and not writable,
/// and a non-empty range.
QUOR_API bool isDroppable(MappingRecord const& rec);
/// The page-dropping step: hands a droppable mapping's range to `madviseFn` with
/// MADV_DONTNEED, ignoring its result. Returns 0 (a non-zero result would end the walk).
QUOR_API int dropPages(MappingRecord const& rec, MadviseFn const& madviseFn);
/// Walks smaps text from `read`, dropping pages record by record. Retries reads that
/// fail with EINTR or EAGAIN; returns -1 at once on any other read failure, else the
/// result of the last page-dropping step (0).
QUOR_API int walkSmaps(ReadFn const& read, MadviseFn const& madviseFn);
/// Opens `smapsPath` and walks it; 0 when it cannot be opened.
QUOR_API int walkSmapsFile(char const* smapsPath, MadviseFn const& madviseFn);
/// unpage() with its inputs named: the task directory decides whether the process is
/// single-threaded (link count below 4), and only then is `smapsPath` opened.
QUOR_API int unpageFrom(char const* taskDir, char const* smapsPath, MadviseFn const& madviseFn);

}  // namespace Vell::ProcSys
