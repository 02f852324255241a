// The files that the library writes for the collector: where they are, and how they are opened.
//
// The library opens them with fopen, which this library takes the place of, so that their
// descriptors can be kept away from the program's.

#include "examples/heapscope/own_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

constinit char g_directory[PATH_MAX] = "";  // empty: no files
constinit OwnDescriptor g_latestStream = {};

}  // namespace

void OpenOwnFiles() {
  const char* const directory = std::getenv("HEAPSCOPE_DIRECTORY");
  if (directory == nullptr) return;
  const size_t length = std::strlen(directory);
  if (length < sizeof g_directory) std::memcpy(g_directory, directory, length + 1);
}

bool HasOwnFiles() { return g_directory[0] != '\0'; }

bool OwnFilePath(const char* kind, char* path, size_t size) {
  const int length =
      std::snprintf(path, size, "%s/heapscope.%d.%s", g_directory, g_process.id, kind);
  return HasOwnFiles() && length > 0 && static_cast<size_t>(length) < size;
}

FILE* OpenOwnStream(const char* path, const char* mode) {
  const int emptyOrEnd = mode[0] == 'w' ? O_TRUNC : O_APPEND;
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
