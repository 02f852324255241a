// Where the summary goes: a file, or the standard error that the program was started with.
//
// The option -summary is a pattern for the file's name. A file named without a process id is shared
// by all processes of a run, so it is appended to; the launcher empties it first.
//
// HEAPSCOPE_STDERR is "process:device:inode", the launcher's id, which becomes the program's, and
// its standard error. Other processes keep silent, and so does the program when it was replaced by
// one whose standard error is another file: somebody reads that, and a summary would change what it
// says.
//
// The descriptor is made when the process starts, since the program may close, redirect, change its
// root or its user.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "examples/heapscope/descriptors.h"
#include "examples/heapscope/file_pattern.h"
#include "examples/heapscope/internal.h"
#include "examples/heapscope/writing.h"

namespace heapscope {
namespace {

constexpr int kPollTimeoutMs = 1000;

struct Output {
  char pattern[PATH_MAX];  // empty: standard error
  bool isPerProcess;       // the pattern has the process id in it
  OwnDescriptor descriptor;
};
constinit Output g_output = {};

void OpenFile() {
  char path[PATH_MAX];
  if (!ExpandFilePattern(g_output.pattern, g_process.id, path, sizeof path)) return;
  // A file of this id from before is another process's.
  const int truncation = g_output.isPerProcess ? O_TRUNC : 0;
  const int opened = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | truncation, 0666);
  if (opened < 0) return;
  g_output.descriptor.Duplicate(opened);
  close(opened);
}

void TakeStandardError() {
  FileIdentity file;
  if (!Identify(STDERR_FILENO, &file)) return;
  if (const char* const expected = std::getenv("HEAPSCOPE_STDERR"); expected != nullptr) {
    char actual[64];
    std::snprintf(actual, sizeof actual, "%d:%llu:%llu", g_process.id, 0ULL + file.device,
                  0ULL + file.inode);
    if (std::strcmp(actual, expected) != 0) return;
  }
  g_output.descriptor.Duplicate(STDERR_FILENO);
}

int UsableDescriptor() {
  if (g_output.descriptor.IsIntact()) return g_output.descriptor.Number();
  const bool hadOne = g_output.descriptor.Number() >= 0;
  g_output.descriptor.Forget();
  if (g_output.pattern[0] == '\0')
    return hadOne && g_output.descriptor.IsSameFile(STDERR_FILENO) ? STDERR_FILENO : -1;
  OpenFile();
  return g_output.descriptor.Number();
}

// A descriptor that the program made non-blocking can be full for a while.
bool CanGoOnAfterError(int descriptor) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  pollfd waited = {descriptor, POLLOUT, 0};
  return poll(&waited, 1, kPollTimeoutMs) > 0;
}

}  // namespace

void OpenOutput() {
  const char* const pattern = g_options.SummaryPattern();
  if (pattern == nullptr) return TakeStandardError();
  const size_t length = std::strlen(pattern);
  if (length >= sizeof g_output.pattern) return;
  std::memcpy(g_output.pattern, pattern, length + 1);
  g_output.isPerProcess = HasProcessId(pattern);
  OpenFile();
}

// A file of the child's own is opened when there is something to write: most children exec.
void KeepOutputInChild() {
  const bool isShared = g_output.pattern[0] != '\0' && !g_output.isPerProcess;
  if (isShared) return;
  g_output.descriptor.Close();
}

void WriteOutput(const char* text, size_t length) {
  const WriteSignalsBlocked blocked;
  const int descriptor = UsableDescriptor();
  if (descriptor < 0) return;
  while (length > 0) {
    const ssize_t written = write(descriptor, text, length);
    if (written < 0) {
      if (!CanGoOnAfterError(descriptor)) return;
      continue;
    }
    text += written;
    length -= static_cast<size_t>(written);
  }
}

}  // namespace heapscope
