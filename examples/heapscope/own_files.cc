// The files that the library writes for the collector: where they are, and how they are opened.
//
// The library opens them with fopen, which this library takes the place of, so that their
// descriptors can be kept away from the program's.

#include "examples/heapscope/own_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "examples/heapscope/file_pattern.h"
#include "examples/heapscope/internal.h"
#include "host/host.h"
#include "zelrt/locks.h"

namespace heapscope {
namespace {

constinit ZelSpinLock g_lock = {};
constexpr char kResult[] = "xml";
constexpr char kLog[] = "log";

constinit OwnDescriptor g_latestStream = {};

// False when there is no directory.
bool PathInDirectory(const char* ending, char* path, size_t size) {
  const char* const directory = g_options.OutDirectory();
  if (directory == nullptr) return false;
  const int length =
      std::snprintf(path, size, "%s/heapscope.%d.%s", directory, g_process.id, ending);
  return length > 0 && static_cast<size_t>(length) < size;
}

}  // namespace

void LockOwnFiles() {
  __ZelAcquireSpinLockTid(&g_lock, static_cast<uint32_t>(zelhost::NativeThreadId()));
}
void UnlockOwnFiles() { __ZelReleaseSpinLock(&g_lock); }

bool LogFilePath(char* path, size_t size) {
  const char* const pattern = g_options.LogPattern();
  if (pattern != nullptr) return ExpandFilePattern(pattern, g_process.id, path, size);
  return PathInDirectory(kLog, path, size);
}

bool ResultFilePath(char* path, size_t size) { return PathInDirectory(kResult, path, size); }

bool SnapshotFilePath(uint32_t number, char* path, size_t size) {
  char ending[32];
  std::snprintf(ending, sizeof ending, "%u.%s", number, kResult);
  return PathInDirectory(ending, path, size);
}

FILE* OpenOwnStream(const char* path, const char* mode) {
  const int emptyOrEnd = mode[0] == 'w' ? O_TRUNC : O_APPEND;
  // This library's own open: a descriptor that the program does not come upon.
  const int opened = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | emptyOrEnd, 0666);
  if (opened < 0) return nullptr;
  const bool isDuplicated = g_latestStream.Duplicate(opened);
  close(opened);
  if (!isDuplicated) return nullptr;
  FILE* const stream = fdopen(g_latestStream.Number(), mode);
  if (stream == nullptr) g_latestStream.Close();
  return stream;
}

OwnDescriptor LatestOwnStream() { return g_latestStream; }

}  // namespace heapscope
