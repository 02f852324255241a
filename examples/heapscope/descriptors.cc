// Descriptors that are the collector's own in the program's process.

#include "examples/heapscope/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace heapscope {
namespace {

constexpr int kPreferredNumbers[] = {900, 200, STDERR_FILENO + 1};

int DuplicateAboveProgram(int descriptor) {
  int duplicate = -1;
  for (const int lowest : kPreferredNumbers) {
    duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest);
    if (duplicate >= 0) break;  // the others are above the limit, if not all
  }
  return duplicate;
}

}  // namespace

bool Identify(int descriptor, FileIdentity* file) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return false;
  *file = {status.st_dev, status.st_ino};
  return true;
}

int MoveOwnDescriptor(int descriptor) {
  const int moved = DuplicateAboveProgram(descriptor);
  close(descriptor);
  return moved;
}

bool OwnDescriptor::Duplicate(int descriptor) {
  number_ = DuplicateAboveProgram(descriptor);
  return number_ >= 0 && Identify(number_, &file_);
}

bool OwnDescriptor::IsIntact() const { return IsSameFile(number_); }

bool OwnDescriptor::IsSameFile(int descriptor) const {
  FileIdentity file;
  return descriptor >= 0 && Identify(descriptor, &file) && file == file_;
}

void OwnDescriptor::Close() {
  if (IsIntact()) close(number_);
  number_ = -1;
}

}  // namespace heapscope
