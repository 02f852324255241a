// What tests of the allocator's users ask of its pages.
#pragma once

#include "memory/internal.h"
#include "tests/support/fake_backing.h"

namespace zeltest {

// The category that a small block was allocated under.
inline uint32_t CategoryOfBlock(const void* block) {
  const uint64_t header = static_cast<const uint64_t*>(block)[-1];
  return reinterpret_cast<const zelrt::ZelAllocatorPage*>(header)->category;
}

// True when all that the fake backing pair has given out is the bucket table and empty pages.
inline bool NoBlockIsInUse() {
  size_t pages = 0;
  for (uint32_t category = 0; category < zelrt::kMaxCategories; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const zelrt::ZelSizeClassBucket* const bucket = zelrt::FindBucket(category, units);
      const auto* page = bucket != nullptr ? bucket->pages : nullptr;
      for (; page != nullptr; page = page->next, ++pages) {
        if (page->freeCount != page->capacity) return false;
      }
    }
  }
  return backing::LiveBlocks() == 1 + pages;
}

}  // namespace zeltest
