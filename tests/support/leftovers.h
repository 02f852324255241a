// What is left in the allocator, for tests that run on the fake backing.
#pragma once

#include <cstddef>

#include "memory/internal.h"
#include "tests/support/fake_backing.h"

namespace zeltest {

// True when every block of every category has been freed. What the backing has handed out is then
// the allocator's table and the one page that each size class in use keeps, with all slots free.
inline bool AllBlocksAreFree() {
  size_t expected = 1;
  for (uint32_t category = 0; category < zelrt::kMaxCategories; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const zelrt::ZelSizeClassBucket* const bucket = zelrt::FindBucket(category, units);
      if (bucket == nullptr) continue;
      for (const auto* page = bucket->pages; page != nullptr; page = page->next, ++expected) {
        if (page->freeCount != page->capacity) return false;
      }
    }
  }
  return backing::LiveBlocks() == expected;
}

}  // namespace zeltest
