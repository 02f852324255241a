// Descriptors that are the collector's own in the program's process.
//
// They are far above those that the program gets, and closed on exec. Before one is used, it is
// compared with what it was: the program may have closed it and got its number for another file.
#pragma once

#include <sys/stat.h>

namespace heapscope {

struct FileIdentity {
  dev_t device;
  ino_t inode;
  bool operator==(const FileIdentity&) const = default;
};

// False for a descriptor that is not open.
bool Identify(int descriptor, FileIdentity* file);

// Puts a duplicate in place of a descriptor that was just opened. -1 when there is none to be had.
int MoveOwnDescriptor(int descriptor);

class OwnDescriptor {
 public:
  // Takes a duplicate. False, and no descriptor, when there is none to be had.
  bool Duplicate(int descriptor);

  int Number() const { return number_; }  // -1: none
  bool IsIntact() const;
  bool IsSameFile(int descriptor) const;  // as the duplicate was of

  void Close();
  void Forget() { number_ = -1; }

 private:
  int number_ = -1;
  FileIdentity file_ = {};
};

}  // namespace heapscope
