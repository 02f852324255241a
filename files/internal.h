// What the files of files/ lend each other.
#pragma once

#include <unistd.h>

#include <cstddef>

namespace zelrt {

// standard_descriptors.cc -------------------------------------------------------------------------

// Occupies those of the descriptors 0, 1 and 2 that are free, until destroyed, so that an open in
// between gets a higher one.
class StandardDescriptorsTaken {
 public:
  // Duplicates `descriptor`, one of the three.
  explicit StandardDescriptorsTaken(int descriptor);
  ~StandardDescriptorsTaken();
  StandardDescriptorsTaken(const StandardDescriptorsTaken&) = delete;
  StandardDescriptorsTaken& operator=(const StandardDescriptorsTaken&) = delete;

  bool AreAll() const { return areAll_; }  // false when a duplication failed

 private:
  int copies_[3];  // in the order of their making; two, unless another thread interferes
  size_t count_ = 0;
  bool areAll_ = false;
};

inline bool IsStandardDescriptor(int descriptor) {
  return descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO;
}

}  // namespace zelrt
