// What tests of the allocator's users ask of its pages.
#pragma once

#include "memory/internal.h"
#include "tests/support/fake_backing.h"

namespace zeltest {

inline uint32_t CategoryOfBlock(const void* smallBlock) {
  const uint64_t header = static_cast<const uint64_t*>(smallBlock)[-1];
  return reinterpret_cast<const zelrt::ZelAllocatorPage*>(header)->category;
}

// True when all that the fake backing pair has given out is the bucket table and empty pages, of
// which a bucket keeps one at the most.
inline bool NoBlockIsInUse() {
  size_t emptyPages = 0;
  for (uint32_t i = 0; i < zelrt::kMaxCategories * zelrt::kMaxUnits; ++i) {
    const auto* bucket = zelrt::FindBucket(i / zelrt::kMaxUnits, i % zelrt::kMaxUnits + 1);
    const auto* const page = bucket != nullptr ? bucket->pages : nullptr;
    if (page == nullptr) continue;
    if (page->next != nullptr || page->freeCount != page->capacity) return false;
    ++emptyPages;
  }
  return backing::LiveBlocks() == 1 + emptyPages;
}

}  // namespace zeltest
