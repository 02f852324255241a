// What the files of modules/ let tests see.
#pragma once

#include <cstdint>

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

}  // namespace zelrt
