// Keeping off the standard descriptors.

#include <iterator>

#include "files/internal.h"

namespace zelrt {

StandardDescriptorsTaken::StandardDescriptorsTaken(int descriptor) {
  // A duplicate takes the lowest free number, so the first one above 2 tells that all are taken.
  // Another thread may close what was taken, and would have this go on for ever.
  while (count_ < std::size(copies_)) {
    const int copy = dup(descriptor);
    if (copy < 0) return;
    if (!IsStandardDescriptor(copy)) {
      close(copy);
      areAll_ = true;
      return;
    }
    copies_[count_++] = copy;
  }
}

StandardDescriptorsTaken::~StandardDescriptorsTaken() {
  while (count_ > 0) close(copies_[--count_]);
}

}  // namespace zelrt
