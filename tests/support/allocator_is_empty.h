#pragma once

#include "memory/internal.h"
#include "tests/support/fake_backing.h"

namespace zeltest {

// Whether the fake backing pair has nothing out but the bucket table, and pages without a block in
// use, which the allocator keeps.
inline bool AllocatorIsEmpty() {
  size_t keptPages = 0;
  for (uint32_t i = 0; i < zelrt::kMaxCategories * zelrt::kMaxUnits; ++i) {
    const auto* bucket = zelrt::FindBucket(i / zelrt::kMaxUnits, i % zelrt::kMaxUnits + 1);
    for (auto* page = bucket ? bucket->pages : nullptr; page != nullptr; page = page->next)
      keptPages += page->freeCount == page->capacity ? 1 : 0;
  }
  return backing::LiveBlocks() == 1 + keptPages;
}

}  // namespace zeltest
