// What the files of memory/ lend each other.
//
// Locks: see runtime/lock_order.h. Logging happens under no lock but the system allocation lock,
// which is recursive, and the pre-allocation check lock: a message may need memory. It follows that
// the log must not ask for memory while it holds a lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/lock_order.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace zelrt {

inline constexpr uint32_t kMaxCategories = 64;

// Reports wrong use of this interface; the text is a format without conversions.
inline void LogInternalError(const char* text) {
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0, reinterpret_cast<uint64_t>(text));
}

// categories.cc
// ------------------------------------------------------------------------------------

bool StatisticsAreOn();

// Count a page that was obtained for, or given back by, a category. The first may log; the second
// may be called under a bucket's lock.
void CountPageObtained(uint32_t category, uint64_t bytes, uint64_t self);
void CountPageReturned(uint32_t category, uint64_t bytes, uint64_t self);

void CountMemoryCollection(uint64_t self);
void ResetStatistics(uint64_t self);

// Dumps: a line for each category, under a heading where there is one.
void LogExhaustionDump(uint64_t self);
void LogCollectionDump(const char* startOrStop, uint64_t self);

// allocator.cc
// -------------------------------------------------------------------------------------

// __ZelMalloc, and __ZelFree of a block that is not null, for a caller that has its owner value
// already.
void* AllocateBlock(uint32_t category, size_t size, uint32_t sizeShift, uint64_t self);
void FreeBlock(void* block, uint64_t self);

inline constexpr uint32_t kUnit = 16;        // granule of every size
inline constexpr uint32_t kMaxUnits = 2046;  // of a small block, header included
inline constexpr uint32_t kPageHeaderUnits = 3;
inline constexpr uint32_t kMinPageShift = 16;  // a page is 64 KiB, shifted by up to ...
inline constexpr uint32_t kMaxSizeShift = 15;
inline constexpr uint32_t kPageSlack = 16;  // left to the backing allocator's own header
inline constexpr uint16_t kPageMagic = 0xBEEF;

// A run of equal slots, for one category. The header is followed by the slots.
struct ZelAllocatorPage {
  ZelAllocatorPage* next;
  ZelAllocatorPage* previous;
  uint64_t* freeList;  // headers of free slots, each leading to the next
  uint32_t freeCount;
  uint32_t units;     // of a slot
  uint32_t capacity;  // slots
  uint16_t magic;
  uint8_t category;
  uint8_t sizeShift;
  uint32_t usedSlots;  // the first ones; those behind have never been given out
};
static_assert(sizeof(ZelAllocatorPage) <= kPageHeaderUnits * kUnit);

// The pages of one category and one slot size that have a slot to give.
struct ZelSizeClassBucket {
  ZelSpinLock lock;
  ZelAllocatorPage* pages;
  uint32_t units;
};

inline constexpr uint64_t PageSize(uint32_t sizeShift) {
  return uint64_t{1} << (kMinPageShift + sizeShift);
}
inline constexpr uint32_t SlotsPerPage(uint64_t pageSize, uint32_t units) {
  return static_cast<uint32_t>(((pageSize - kPageSlack) / kUnit - kPageHeaderUnits) / units);
}
static_assert(SlotsPerPage(PageSize(0), 1) == 4092 && SlotsPerPage(PageSize(0), kMaxUnits) == 2);

// Both hold whenever no thread has the bucket's lock. The page is walked slot by slot.
bool PageIsConsistent(const ZelAllocatorPage* page);
bool BucketIsConsistent(const ZelSizeClassBucket* bucket);

// backing.cc
// ---------------------------------------------------------------------------------------

// What the allocator works on. There is one, made at first use.
struct ZelSystemAllocator {
  ZelBackingAllocate allocate;
  ZelBackingFree release;
  ZelSizeClassBucket* buckets;  // kMaxCategories x kMaxUnits, category-major
};

// Serialises all requests for backing memory. Recursive, so that a memory collector may allocate.
extern ZelSpinLock g_systemAllocationLock;
using SystemAllocationGuard = SpinGuard<LockRank::kSystemAllocation>;

// A category's buckets are set up in runs, when one of a run is first used. The entry of a run that
// has been set up is the category's first bucket, else null; whoever finds one has a
// ZelSystemAllocator behind it.
inline constexpr uint32_t kRunBits = 6;
inline constexpr uint32_t kRunsPerCategory = ((kMaxUnits - 1) >> kRunBits) + 1;
extern ZelSizeClassBucket* g_bucketRuns[kMaxCategories][kRunsPerCategory];

// Null when the bucket is not set up.
inline ZelSizeClassBucket* FindBucket(uint32_t category, uint32_t units) {
  const uint32_t index = units - 1;
  ZelSizeClassBucket* const first = LoadAcquire(g_bucketRuns[category][index >> kRunBits]);
  return first != nullptr ? first + index : nullptr;
}

// The one system allocator, made if there is none. Null only in a process that is ending for want
// of memory.
ZelSystemAllocator* SystemAllocator();

// Sets up the bucket's run, if nobody has yet. Null when there is no system allocator.
ZelSizeClassBucket* PrepareBucket(uint32_t category, uint32_t units);

// A size too large for 64 bits. Nobody is asked for it: it counts as refused.
inline constexpr uint64_t kUnrepresentable = ~uint64_t{0};
inline constexpr uint64_t SaturatingSum(uint64_t a, uint64_t b) {
  return a > kUnrepresentable - b ? kUnrepresentable : a + b;
}

// pressure.cc
// --------------------------------------------------------------------------------------

// Obtains backing memory for the allocator: watches free swap space, falls back on the reserve, and
// ends the process when that is used up. Null only while the process is ending.
void* RequestBackingMemory(uint64_t bytes, uint64_t self);

// For a thread that ends the process, and will not return to the frames that hold these: exit
// handlers, and threads that they wait for, may need them.
void AbandonMemoryLocks(uint64_t self);

// Drops the reserve without giving it back, and switches the machinery off.
void ForgetPressure();

// Free swap space as it was seen since it last rose or a collection was asked for.
class SwapWatch {
 public:
  // True when free space has fallen by more than a sixteenth of the total: time to collect.
  bool HasFallen(uint64_t freeSwap, uint64_t totalSwap);

 private:
  uint64_t high_ = 0;
  uint64_t low_ = ~uint64_t{0};
};

}  // namespace zelrt
