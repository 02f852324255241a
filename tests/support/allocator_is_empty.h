// Whether everything that came from the allocator has been given back.
#pragma once

#include "memory/internal.h"
#include "tests/support/fake_backing.h"

namespace zeltest {

// For tests that installed the fake backing pair: true when that has nothing out but the bucket
// table, and empty pages that the allocator keeps.
inline bool AllocatorIsEmpty() {
  size_t keptPages = 0;
  for (uint32_t category = 0; category < zelrt::kMaxCategories; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const zelrt::ZelSizeClassBucket* const bucket = zelrt::FindBucket(category, units);
      const zelrt::ZelAllocatorPage* page = bucket != nullptr ? bucket->pages : nullptr;
      for (; page != nullptr; page = page->next) {
        if (page->freeCount != page->capacity) return false;
        ++keptPages;
      }
    }
  }
  return backing::LiveBlocks() == 1 + keptPages;
}

}  // namespace zeltest
