// Lock files: one record lock on the whole file, one record of 8 bytes at its start.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "files/internal.h"
#include "zelrt/log.h"
#include "zelrt/processes.h"
#include "zelrt/runtime.h"

namespace {

constexpr size_t kRecordSize = 8;

// The host may have closed a standard descriptor and expect to get it.
int MoveAboveStandard(int descriptor) {
  if (!zelrt::IsStandardDescriptor(descriptor)) return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD, STDERR_FILENO + 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  return moved;
}

int ApplyLock(int descriptor, short type, int command) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_pid = __ZelGetPid();
  return fcntl(descriptor, command, &lock);
}

}  // namespace

int32_t __ZelCreateLockFile(const char* path, int truncate) {
  const int flags = O_RDWR | O_CREAT | O_SYNC | (truncate != 0 ? O_TRUNC : 0);
  const int descriptor = MoveAboveStandard(open(path, flags, 0777));
  if (descriptor < 0)
    __ZelLogFatalToolDefect("Could not open lock file %s (error %d)", path, errno);
  return descriptor;
}

int __ZelLockFile(int32_t descriptor) { return ApplyLock(descriptor, F_WRLCK, F_SETLKW); }
int __ZelUnlockFile(int32_t descriptor) { return ApplyLock(descriptor, F_UNLCK, F_SETLK); }

int __ZelReadLockFile(int32_t descriptor, void* buffer) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t got = read(descriptor, buffer, kRecordSize);
  if (got < 0) __ZelLogFatalToolDefect("failed to read from lock file");
  return static_cast<int>(got);
}

int __ZelWriteLockFile(int32_t descriptor, const void* buffer) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t written = write(descriptor, buffer, kRecordSize);
  if (written < 0) __ZelLogFatalToolDefect("failed to write to lock file");
  return static_cast<int>(written);
}

int __ZelCloseLockFile(int32_t descriptor) { return close(descriptor); }
