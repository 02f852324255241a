// Where the summary goes: a file, or the standard error that the program was started with.
//
// HEAPSCOPE_OUTPUT is a pattern for the file's name. A file named without a process id is shared by
// all processes of a run, so it is appended to; the launcher empties it first.
//
// HEAPSCOPE_STDERR is "process:device:inode", the launcher's id, which becomes the program's, and
// its standard error. Other processes keep silent, and so does the program when it was replaced by
// one whose standard error is another file: somebody reads that, and a summary would change what it
// says.
//
// The descriptor is made when the process starts, since the program may close, redirect, change its
// root or its user. It is far above those that the program gets. Before it is written to, it is
// compared with what it was: the program may have closed it and got its number for another file.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "examples/heapscope/file_pattern.h"
#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

constexpr int kPreferredDescriptors[] = {900, 200, STDERR_FILENO + 1};
constexpr int kPollTimeoutMs = 1000;

struct FileIdentity {
  dev_t device;
  ino_t inode;
  bool operator==(const FileIdentity&) const = default;
};

struct Output {
  char pattern[PATH_MAX];  // empty: standard error
  bool isPerProcess;       // the pattern has the process id in it
  int descriptor;          // -1: none
  FileIdentity file;       // behind the descriptor
};
constinit Output g_output = {"", false, -1, {}};

bool Identify(int descriptor, FileIdentity* file) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return false;
  *file = {status.st_dev, status.st_ino};
  return true;
}

bool IsOutput(int descriptor) {
  FileIdentity file;
  return descriptor >= 0 && Identify(descriptor, &file) && file == g_output.file;
}

void TakeDescriptor(int descriptor) {
  g_output.descriptor = -1;
  for (const int lowest : kPreferredDescriptors) {
    g_output.descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest);
    if (g_output.descriptor >= 0) break;  // the others are above the limit, if not all
  }
  if (g_output.descriptor >= 0) Identify(g_output.descriptor, &g_output.file);
}

void OpenFile() {
  char path[PATH_MAX];
  if (!ExpandFilePattern(g_output.pattern, g_process.id, path, sizeof path)) return;
  // A file of this id from before is another process's.
  const int truncation = g_output.isPerProcess ? O_TRUNC : 0;
  const int opened = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | truncation, 0666);
  if (opened < 0) return;
  TakeDescriptor(opened);
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
  TakeDescriptor(STDERR_FILENO);
}

int UsableDescriptor() {
  if (IsOutput(g_output.descriptor)) return g_output.descriptor;
  const bool hadOne = g_output.descriptor >= 0;
  g_output.descriptor = -1;
  if (g_output.pattern[0] == '\0') return hadOne && IsOutput(STDERR_FILENO) ? STDERR_FILENO : -1;
  OpenFile();
  return g_output.descriptor;
}

// Keeps from the program the signals that a failing write raises.
class WriteSignalsBlocked {
 public:
  WriteSignalsBlocked() {
    sigemptyset(&signals_);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU}) sigaddset(&signals_, signal);
    sigpending(&pendingBefore_);
    pthread_sigmask(SIG_BLOCK, &signals_, &maskBefore_);
  }
  ~WriteSignalsBlocked() {
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTOU}) {
      if (sigismember(&pending, signal) == 0 || sigismember(&pendingBefore_, signal) == 1) continue;
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, signal);
      const timespec now = {};
      sigtimedwait(&one, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
  }
  WriteSignalsBlocked(const WriteSignalsBlocked&) = delete;
  WriteSignalsBlocked& operator=(const WriteSignalsBlocked&) = delete;

 private:
  sigset_t signals_;
  sigset_t pendingBefore_;
  sigset_t maskBefore_;
};

// A descriptor that the program made non-blocking can be full for a while.
bool CanGoOnAfterError(int descriptor) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  pollfd waited = {descriptor, POLLOUT, 0};
  return poll(&waited, 1, kPollTimeoutMs) > 0;
}

}  // namespace

void OpenOutput() {
  const char* const pattern = std::getenv("HEAPSCOPE_OUTPUT");
  if (pattern == nullptr || pattern[0] == '\0') return TakeStandardError();
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
  if (IsOutput(g_output.descriptor)) close(g_output.descriptor);
  g_output.descriptor = -1;
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
