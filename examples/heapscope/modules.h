// The executable and the libraries that frames lie in.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heapscope {

// A place in the program's code: the number of its module, and the address in the module's file. A
// module 0 is none; the offset is an address in the process then.
class Place {
 public:
  constexpr Place(uint32_t module, uint64_t offset)
      : bits_(uint64_t{module} << kOffsetBits | (offset & kOffsetMask)) {}
  uint32_t Module() const { return static_cast<uint32_t>(bits_ >> kOffsetBits); }
  uint64_t Offset() const { return bits_ & kOffsetMask; }
  uint64_t Bits() const { return bits_; }
  bool operator==(const Place&) const = default;

 private:
  static constexpr uint32_t kOffsetBits = 48;
  static constexpr uint64_t kOffsetMask = (uint64_t{1} << kOffsetBits) - 1;
  uint64_t bits_;
};

inline constexpr size_t kMaxBuildIdSize = 20;

// Two that were loaded from one file, one after the other, are the same module.
struct Module {
  const char* path;
  uint32_t buildIdSize;
  uint8_t buildId[kMaxBuildIdSize];
};

// For code that is on the calling thread's stack, and a thread that holds a shard's lock.
Place PlaceOf(uintptr_t address);

uint32_t NumberOfModules();  // the first has number 1
const Module& GetModule(uint32_t number);

// Changes when modules have gone: until then an address leads to the same place.
uint32_t ModuleEpoch();
void StartNewModuleEpoch();

}  // namespace heapscope
