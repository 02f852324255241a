// The size-class allocator.
//
// Small blocks are slots of a page that serves one category and one slot size; large blocks come
// straight from the backing allocator. The word below a block, its header, tells them apart:
//   kLargeBlock (odd)    the backing allocation begins at this word
//   even                 the slot is in use; the word is the address of its page
//   odd otherwise        the slot is free; without bit 0 it is the address of the next free slot of
//                        the page, 0 at the end
//
// While no thread holds the bucket's lock:
//   - a page is in its bucket's list exactly when it has a slot to give;
//   - of a page's first usedSlots slots, each is either in use or on the free list; those behind
//   are
//     free too, follow the list in ascending order, and are not written before they are given out,
//     so that a page takes up real memory as it fills;
//   - freeCount counts both kinds of free slots.
// A page that falls empty stays listed when it is its bucket's only one. Two empty pages can be
// listed for a moment, when a full page is relisted in front of the retained one.
//
// A new page is asked for with no bucket's lock held: under the system allocation lock memory
// collectors run, and they free into buckets.
//
// Headers are read before the bucket's lock is taken, by whoever frees a block that may be free
// already, so they are read and written as atomics.

#include <cstdlib>

#include "memory/internal.h"

namespace zelrt {
namespace {

constexpr uint64_t kLargeBlock = 0xBEEF;
constexpr uint64_t kFreeMark = 1;
constexpr uint64_t kHeaderSize = sizeof(uint64_t);
constexpr uint64_t kMaxSmallSize = uint64_t{kMaxUnits} * kUnit - kHeaderSize;
constexpr uint32_t kCategoryBits = 6;
constexpr uint32_t kSizeShiftBits = 4;
static_assert(1u << kCategoryBits == kMaxCategories && 1u << kSizeShiftBits == kMaxSizeShift + 1);

using BucketGuard = SpinGuard<LockRank::kSizeClassBucket>;

// For sizes up to kMaxSmallSize.
constexpr uint32_t UnitsFor(size_t size) {
  return static_cast<uint32_t>((size + kHeaderSize + kUnit - 1) / kUnit);
}
static_assert(UnitsFor(0) == 1 && UnitsFor(8) == 1 && UnitsFor(9) == 2);
static_assert(UnitsFor(kMaxSmallSize) == kMaxUnits && UnitsFor(kMaxSmallSize + 1) > kMaxUnits);

uint64_t* HeaderOf(void* block) { return static_cast<uint64_t*>(block) - 1; }
void* BlockOf(uint64_t* header) { return header + 1; }

uint64_t FreeHeader(const uint64_t* next) { return reinterpret_cast<uint64_t>(next) | kFreeMark; }
uint64_t* NextFree(uint64_t header) { return reinterpret_cast<uint64_t*>(header & ~kFreeMark); }

// Null only when there is no system allocator any more and none can be made.
ZelSizeClassBucket* BucketFor(uint32_t category, uint32_t units) {
  ZelSizeClassBucket* const bucket = FindBucket(category, units);
  if (bucket == nullptr) [[unlikely]]
    return PrepareBucket(category, units);
  return bucket;
}

void LinkPageLocked(ZelSizeClassBucket* bucket, ZelAllocatorPage* page) {
  page->previous = nullptr;
  page->next = bucket->pages;
  if (page->next != nullptr) page->next->previous = page;
  bucket->pages = page;
}

void UnlinkPageLocked(ZelSizeClassBucket* bucket, ZelAllocatorPage* page) {
  (page->previous != nullptr ? page->previous->next : bucket->pages) = page->next;
  if (page->next != nullptr) page->next->previous = page->previous;
}

uint64_t* FirstSlot(const ZelAllocatorPage* page) {
  return reinterpret_cast<uint64_t*>(reinterpret_cast<uintptr_t>(page) + kPageHeaderUnits * kUnit);
}
size_t WordsPerSlot(const ZelAllocatorPage* page) {
  return size_t{page->units} * (kUnit / sizeof(uint64_t));
}

[[gnu::always_inline]] inline void* TakeSlotLocked(ZelSizeClassBucket* bucket,
                                                   ZelAllocatorPage* page) {
  uint64_t* slot = page->freeList;
  if (slot != nullptr) {
    page->freeList = NextFree(LoadRelaxed(*slot));
  } else {
    slot = FirstSlot(page) + page->usedSlots++ * WordsPerSlot(page);
  }
  StoreRelaxed(*slot, reinterpret_cast<uint64_t>(page));
  if (--page->freeCount == 0) [[unlikely]]
    UnlinkPageLocked(bucket, page);
  return BlockOf(slot);
}

// Makes a page of the memory, of which only the header is written.
ZelAllocatorPage* FormatPage(void* memory, uint32_t category, uint32_t units, uint32_t sizeShift) {
  auto* const page = static_cast<ZelAllocatorPage*>(memory);
  const uint32_t capacity = SlotsPerPage(PageSize(sizeShift), units);
  *page = {.next = nullptr,
           .previous = nullptr,
           .freeList = nullptr,
           .freeCount = capacity,
           .units = units,
           .capacity = capacity,
           .magic = kPageMagic,
           .category = static_cast<uint8_t>(category),
           .sizeShift = static_cast<uint8_t>(sizeShift),
           .usedSlots = 0};
  return page;
}

[[gnu::noinline]] void* AllocateFromNewPage(ZelSizeClassBucket* bucket, uint32_t category,
                                            uint32_t sizeShift, uint64_t self) {
  const uint64_t pageSize = PageSize(sizeShift);
  void* const memory = RequestBackingMemory(pageSize - kPageSlack, self);
  if (memory == nullptr) return nullptr;
  if (StatisticsAreOn()) CountPageObtained(category, pageSize, self);
  ZelAllocatorPage* const page = FormatPage(memory, category, bucket->units, sizeShift);

  const BucketGuard guard(&bucket->lock, self);
  ZEL_ASSERT(PageIsConsistent(page) && BucketIsConsistent(bucket));
  // Another thread may have added a page meanwhile; both stay listed.
  LinkPageLocked(bucket, page);
  void* const block = TakeSlotLocked(bucket, page);
  ZEL_ASSERT(PageIsConsistent(page) && BucketIsConsistent(bucket));
  return block;
}

void* AllocateLarge(size_t size, uint64_t self) {
  void* const memory = RequestBackingMemory(SaturatingSum(size, kHeaderSize), self);
  if (memory == nullptr) return nullptr;
  auto* const header = static_cast<uint64_t*>(memory);
  *header = kLargeBlock;
  return BlockOf(header);
}

bool IsSmallRequest(uint32_t category, size_t size, uint32_t sizeShift) {
  const bool badNumbers = (category >> kCategoryBits | sizeShift >> kSizeShiftBits) != 0;
  return !badNumbers && size <= kMaxSmallSize;
}

// Takes a slot with the bucket's lock held, and gives the lock back.
[[gnu::always_inline]] inline void* TakeSlot(BucketGuard& guard, ZelSizeClassBucket* bucket,
                                             uint32_t category, uint32_t sizeShift, uint64_t self) {
  ZelAllocatorPage* const page = bucket->pages;
  if (page == nullptr) [[unlikely]] {
    guard.Release();
    return AllocateFromNewPage(bucket, category, sizeShift, self);
  }
  return TakeSlotLocked(bucket, page);
}

// What AllocateBlock leaves: everything but a small request whose bucket is there and free.
[[gnu::noinline]] void* AllocateSlowly(uint32_t category, size_t size, uint32_t sizeShift,
                                       uint64_t self) {
  if (category >= kMaxCategories)
    __ZelLogFatalToolDefect("Invalid memory category %u in an allocation of %zu bytes", category,
                            size);
  if (size > kMaxSmallSize) return AllocateLarge(size, self);
  if (sizeShift > kMaxSizeShift)
    __ZelLogFatalToolDefect("Invalid size shift %u in an allocation of %zu bytes", sizeShift, size);
  ZelSizeClassBucket* const bucket = BucketFor(category, UnitsFor(size));
  if (bucket == nullptr) return nullptr;
  BucketGuard guard(&bucket->lock, self);
  return TakeSlot(guard, bucket, category, sizeShift, self);
}

void LogDoubleFree() {
  __ZelLogCommentInternal("Tried to free a memory chunk that has already been freed");
}

[[gnu::noinline]] void FreeLargeOrRefuse(uint64_t* header, uint64_t word) {
  if (word != kLargeBlock) {
    LogDoubleFree();
    return;
  }
  const ZelSystemAllocator* const system = SystemAllocator();
  if (system != nullptr) system->release(header);
}

// The page has gone from full to one free slot, or has fallen empty. Gives the lock back.
[[gnu::noinline]] void RelistOrReleasePage(ZelSizeClassBucket* bucket, ZelAllocatorPage* page,
                                           uint64_t self) {
  const BucketGuard guard(Adopt(), &bucket->lock);
  ZEL_ASSERT(PageIsConsistent(page) && BucketIsConsistent(bucket));
  if (page->freeCount < page->capacity) {
    LinkPageLocked(bucket, page);
    ZEL_ASSERT(BucketIsConsistent(bucket));
    return;
  }
  UnlinkPageLocked(bucket, page);
  ZEL_ASSERT(BucketIsConsistent(bucket));
  if (StatisticsAreOn()) CountPageReturned(page->category, PageSize(page->sizeShift), self);
  SystemAllocator()->release(page);
}

// Frees a slot with the bucket's lock held, and gives the lock back.
[[gnu::always_inline]] inline void FreeSlot(BucketGuard& guard, ZelSizeClassBucket* bucket,
                                            ZelAllocatorPage* page, uint64_t* header,
                                            uint64_t self) {
  if (LoadRelaxed(*header) != reinterpret_cast<uint64_t>(page)) [[unlikely]] {
    // Another thread has freed the block since it was looked at.
    guard.Release();
    return LogDoubleFree();
  }
  StoreRelaxed(*header, FreeHeader(page->freeList));
  page->freeList = header;
  const uint32_t freeCount = ++page->freeCount;
  bool listChanges = freeCount == 1;
  if (freeCount == page->capacity) {
    // A bucket keeps its last page: a class that swings between no block and one asks for none.
    listChanges = bucket->pages != page || page->next != nullptr;
  }
  if (listChanges) [[unlikely]] {
    guard.Leave();
    RelistOrReleasePage(bucket, page, self);
  }
}

// What FreeBlock leaves: a block in use whose bucket is busy, or gone with an earlier allocator.
[[gnu::noinline]] void FreeSlowly(ZelAllocatorPage* page, uint64_t* header, uint64_t self) {
  ZelSizeClassBucket* const bucket = BucketFor(page->category, page->units);
  if (bucket == nullptr) return;
  BucketGuard guard(&bucket->lock, self);
  FreeSlot(guard, bucket, page, header, self);
}

}  // namespace

// Out of line and without a call that returns here, so that no register is saved: to restore one
// would wait for the lock's last instruction, and the caller for it.
[[gnu::noinline]] void* AllocateBlock(uint32_t category, size_t size, uint32_t sizeShift,
                                      uint64_t self) {
  if (!IsSmallRequest(category, size, sizeShift)) [[unlikely]]
    return AllocateSlowly(category, size, sizeShift, self);
  ZelSizeClassBucket* const bucket = FindBucket(category, UnitsFor(size));
  if (bucket == nullptr) [[unlikely]]
    return AllocateSlowly(category, size, sizeShift, self);
  BucketGuard guard(AtOnce(), &bucket->lock, self);
  if (!guard.IsHeld()) [[unlikely]]
    return AllocateSlowly(category, size, sizeShift, self);
  return TakeSlot(guard, bucket, category, sizeShift, self);
}

// Out of line for the same reason as AllocateBlock.
[[gnu::noinline]] void FreeBlock(void* block, uint64_t self) {
  uint64_t* const header = HeaderOf(block);
  const uint64_t word = LoadRelaxed(*header);
  if ((word & kFreeMark) != 0) [[unlikely]]
    return FreeLargeOrRefuse(header, word);
  auto* const page = reinterpret_cast<ZelAllocatorPage*>(word);
  ZelSizeClassBucket* const bucket = FindBucket(page->category, page->units);
  if (bucket == nullptr) [[unlikely]]
    return FreeSlowly(page, header, self);
  BucketGuard guard(AtOnce(), &bucket->lock, self);
  if (!guard.IsHeld()) [[unlikely]]
    return FreeSlowly(page, header, self);
  FreeSlot(guard, bucket, page, header, self);
}

bool PageIsConsistent(const ZelAllocatorPage* page) {
  if (page->magic != kPageMagic || page->category >= kMaxCategories ||
      page->sizeShift > kMaxSizeShift || page->units == 0 || page->units > kMaxUnits ||
      page->capacity != SlotsPerPage(PageSize(page->sizeShift), page->units) ||
      page->freeCount > page->capacity || page->usedSlots > page->capacity)
    return false;
  const size_t wordsPerSlot = WordsPerSlot(page);
  const uint64_t* const first = FirstSlot(page);
  uint32_t listed = 0;
  for (const uint64_t* slot = page->freeList; slot != nullptr;
       slot = NextFree(LoadRelaxed(*slot))) {
    const auto offset = static_cast<size_t>(slot - first);
    const bool isSlot =
        slot >= first && offset % wordsPerSlot == 0 && offset / wordsPerSlot < page->usedSlots;
    if (!isSlot || ++listed > page->usedSlots || (LoadRelaxed(*slot) & kFreeMark) == 0)
      return false;
  }
  uint32_t inUse = 0;
  for (uint32_t i = 0; i < page->usedSlots; ++i) {
    if (LoadRelaxed(first[i * wordsPerSlot]) == reinterpret_cast<uint64_t>(page)) ++inUse;
  }
  return inUse + listed == page->usedSlots && inUse + page->freeCount == page->capacity;
}

bool BucketIsConsistent(const ZelSizeClassBucket* bucket) {
  const ZelAllocatorPage* previous = nullptr;
  for (const ZelAllocatorPage* page = bucket->pages; page != nullptr; page = page->next) {
    if (page->previous != previous || page->magic != kPageMagic || page->units != bucket->units ||
        page->freeCount == 0)
      return false;
    previous = page;
  }
  return true;
}

}  // namespace zelrt

using namespace zelrt;

void* __ZelMalloc(unsigned int category, size_t size, unsigned int sizeShift) {
  return AllocateBlock(category, size, sizeShift, CallingOwner());
}
void __ZelFree(void* block) {
  if (block != nullptr) FreeBlock(block, CallingOwner());
}

void* __ZelMallocInternal(size_t size) { return std::malloc(size); }
void __ZelFreeInternal(void* block) { std::free(block); }
