// What the files of modules/ lend each other, and their tests.
#pragma once

#include <cstdint>

#include "zelrt/modules.h"

namespace zelrt {

// crc32.cc ---------------------------------------------------------------------------------------

// How a long block can be folded: not at all, 16 bytes at a time, or 32.
enum class Folding : uint32_t { kNone, kNarrow, kWide };

// What the processor has, by the answers of a cpuid, with __ZelCpuidEx's signature, and of XGETBV
// for XCR0. The latter is asked only where cpuid says that it may be.
using Cpuid = void (*)(unsigned leaf, unsigned subleaf, unsigned registers[4]);
Folding FoldingOf(Cpuid cpuid, uint64_t (*enabledState)());

Folding AvailableFolding();  // here

// __ZelCRC32 with what the processor is known to have.
uint32_t Crc32(const void* data, uint64_t length, Folding folding);

// module_map.cc -----------------------------------------------------------------------------------

inline constexpr int32_t kModuleLevels = 11;

// A skip list, ordered by start. On each level it is a ring through the head, whose other fields
// mean nothing.
struct ModuleMap {
  ZelModuleRecord* head;  // null before the first load; has kModuleLevels links
  int32_t level;          // the highest one in use
};
extern ModuleMap g_moduleMap;

// Whether each level is in ascending order and part of the one below it, and no level above the
// highest in use has a record.
bool ModuleMapIsConsistent();

}  // namespace zelrt
