// The algorithm of the library's allocator with nothing around it: no checks, no hooks, no
// pressure, no way out, and everything inline. What ours costs beyond this is ours to answer for.
//
// Layout and order of steps are the library's: buckets of one category and one slot size, a
// recursive spin lock each; pages of 64 KiB with a header of 48 bytes; slots of whole 16-byte units
// with a header of 8 bytes, which holds the page of a slot in use and, of a free one, the next with
// bit 0 set. A full page leaves its bucket's list, an empty one is given back unless it is the only
// one.
#pragma once

#include <sched.h>

#include <cstdint>
#include <cstdlib>

#include "bench/floor.h"

namespace bench {

class AllocatorModel {
 public:
  static constexpr uint32_t kCategories = 8;

  void* Allocate(uint32_t category, size_t size) {
    Bucket& bucket = BucketOf(category, static_cast<uint32_t>((size + 23) / 16));
    Lock(bucket);
    if (bucket.pages == nullptr) [[unlikely]]
      AddPage(bucket, category);
    Page* const page = bucket.pages;
    uint64_t* const slot = page->freeList;
    page->freeList = reinterpret_cast<uint64_t*>(*slot & ~kFreeMark);
    *slot = reinterpret_cast<uint64_t>(page);
    if (--page->freeCount == 0) [[unlikely]]
      Unlink(bucket, page);
    Unlock(bucket);
    return slot + 1;
  }

  void Free(void* block) {
    uint64_t* const slot = static_cast<uint64_t*>(block) - 1;
    Page* const page = reinterpret_cast<Page*>(*slot);
    Bucket& bucket = BucketOf(page->category, page->units);
    Lock(bucket);
    *slot = reinterpret_cast<uint64_t>(page->freeList) | kFreeMark;
    page->freeList = slot;
    const uint32_t freeCount = ++page->freeCount;
    if (freeCount == 1) [[unlikely]] {
      Link(bucket, page);
    } else if (freeCount == page->capacity && !(bucket.pages == page && page->next == nullptr)) {
      Unlink(bucket, page);
      std::free(page);
    }
    Unlock(bucket);
  }

 private:
  static constexpr uint64_t kFreeMark = 1;
  static constexpr uint32_t kMaxUnits = 2046;
  static constexpr uint32_t kPageBytes = 65'536 - 16;
  static constexpr uint32_t kPageHeaderBytes = 48;
  static constexpr uint64_t kThreadId = 4711;

  struct alignas(16) Page {
    Page* next;
    Page* previous;
    uint64_t* freeList;
    uint32_t freeCount;
    uint32_t units;
    uint32_t capacity;
    uint16_t magic;
    uint8_t category;
    uint8_t sizeShift;
  };

  struct Bucket {
    uint64_t owner;
    uint32_t state;
    uint32_t recursionCount;
    uint32_t spinCount;
    Page* pages;
    uint32_t units;
  };

  // Shared by all objects, as the library's are.
  static inline Bucket buckets_[kCategories][kMaxUnits];

  static Bucket& BucketOf(uint32_t category, uint32_t units) {
    return buckets_[category][units - 1];
  }

  static void Lock(Bucket& bucket) {
    while (CompareExchange(&bucket.state, 0u, 1u) != 0) [[unlikely]] sched_yield();
    __atomic_store_n(&bucket.owner, kThreadId, __ATOMIC_RELAXED);
    bucket.recursionCount = 1;
  }

  static void Unlock(Bucket& bucket) {
    bucket.recursionCount = 0;
    __atomic_store_n(&bucket.owner, 0, __ATOMIC_RELAXED);
    CompareExchange(&bucket.state, 1u, 0u);
  }

  static void Link(Bucket& bucket, Page* page) {
    page->previous = nullptr;
    page->next = bucket.pages;
    if (page->next != nullptr) page->next->previous = page;
    bucket.pages = page;
  }

  static void Unlink(Bucket& bucket, Page* page) {
    (page->previous != nullptr ? page->previous->next : bucket.pages) = page->next;
    if (page->next != nullptr) page->next->previous = page->previous;
  }

  [[gnu::noinline]] static void AddPage(Bucket& bucket, uint32_t category) {
    bucket.units = static_cast<uint32_t>(&bucket - buckets_[category]) + 1;
    const uint32_t capacity = (kPageBytes - kPageHeaderBytes) / 16 / bucket.units;
    auto* const page = static_cast<Page*>(std::malloc(kPageBytes));
    auto* const first = reinterpret_cast<uint64_t*>(page + 1);
    *page = {nullptr,
             nullptr,
             first,
             capacity,
             bucket.units,
             capacity,
             0xBEEF,
             static_cast<uint8_t>(category),
             0};
    for (uint32_t i = 0; i + 1 < capacity; ++i)
      first[i * 2 * bucket.units] =
          reinterpret_cast<uint64_t>(first + (i + 1) * 2 * bucket.units) | kFreeMark;
    first[(capacity - 1) * 2 * bucket.units] = kFreeMark;
    Link(bucket, page);
  }

  static_assert(sizeof(Page) == kPageHeaderBytes);
};

}  // namespace bench
