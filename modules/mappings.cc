// Lookups in the kernel's table of the process's mappings.
//
//	55e7c8a00000-55e7c8a21000 rw-p 00000000 00:00 0                          [heap]
//	7ffd1c2c6000-7ffd1c2e7000 rw-p 00000000 00:00 0                          [stack]
//
// Nothing of ours is allocated, and nothing of ours that a host might hold is asked for: streams
// come from the C library directly.

#include <cstdio>

#include "modules/internal.h"
#include "runtime/ending.h"
#include "runtime/locks.h"
#include "runtime/spin_flag.h"

namespace zelrt {
namespace {

constexpr const char* kMapsPath = "/proc/self/maps";
constexpr size_t kLineSize = 4176;  // the longest path, and what stands in front of it

// Lets one thread at a time read the file.
constinit SpinFlag g_mapsFlag;

// A thread that ends the process may be in the middle of a lookup itself, or have lost by a fork
// the thread that was.
bool TakeMapsFlag() {
  if (!IsEndingProcess(CallingOwner())) [[likely]] {
    g_mapsFlag.Take();
    return true;
  }
  const Deadline deadline(kEndingPatienceMs);
  while (!g_mapsFlag.TryTake()) {
    if (deadline.HasPassed()) return false;
    __ZelYield();
  }
  return true;
}

// Stores the bounds of the first mapping with start <= address <= end; nothing if there is none. A
// line that cannot be read as a mapping counts as the one before.
void FindInMaps(FILE* maps, uint64_t address, uint64_t* start, uint64_t* end) {
  char line[kLineSize];
  void* lineStart = nullptr;
  void* lineEnd = nullptr;
  while (std::fgets(line, sizeof line, maps) != nullptr) {
    static_cast<void>(std::sscanf(line, "%p-%p", &lineStart, &lineEnd));
    if (reinterpret_cast<uintptr_t>(lineStart) > address ||
        reinterpret_cast<uintptr_t>(lineEnd) < address)
      continue;
    *start = reinterpret_cast<uintptr_t>(lineStart);
    *end = reinterpret_cast<uintptr_t>(lineEnd);
    return;
  }
}

void FindMapping(uint64_t address, uint64_t* start, uint64_t* end) {
  if (!TakeMapsFlag()) return;
  FILE* const maps = std::fopen(kMapsPath, "r");
  if (maps != nullptr) {
    FindInMaps(maps, address, start, end);
    std::fclose(maps);
  }
  g_mapsFlag.GiveBack();
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

uint64_t __ZelGetModuleAddressRange(const void* address, uint64_t* end) {
  uint64_t start = 0;
  if (end != nullptr) FindMapping(reinterpret_cast<uintptr_t>(address), &start, end);
  return start;
}

void __ZelGetZELRTAddressRange(uint64_t* start, uint64_t* end) {
  if (start == nullptr || end == nullptr) return;
  // Not the map's first byte: were it the first of its mapping too, the mapping below would answer.
  *start = __ZelGetModuleAddressRange(&g_moduleMap.level, end);
}

uint64_t __ZelGetThreadStackBaseAndSize(uint64_t address, uint64_t* base) {
  if (base == nullptr) return 0;
  *base = 0;
  uint64_t start = 0;
  FindMapping(address, &start, base);
  return *base - start;
}
