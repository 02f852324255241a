// Opening off the standard descriptors.

#include <fcntl.h>

#include "files/internal.h"
#include "zelrt/command_handler.hpp"

namespace zelrt {

int safeOpen(const char* path, int flags, int mode) {
  const int first = open(path, flags, mode);
  if (!IsStandardDescriptor(first)) return first;
  int second = -1;
  {
    const StandardDescriptorsTaken taken(first);
    if (taken.AreAll()) second = open(path, flags, mode);
  }
  close(first);
  return second;
}

}  // namespace zelrt
