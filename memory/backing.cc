// The backing pair and the system allocator record that is made of it.
//
// One spin flag serialises the making of the record and the setting up of buckets. Readers do not
// take it: they see the record, and a bucket, once it is complete.

#include <algorithm>
#include <cstdlib>

#include "memory/internal.h"
#include "runtime/ending.h"
#include "runtime/spin_flag.h"
#include "zelrt/log.h"

namespace zelrt {

constinit ZelSpinLock g_systemAllocationLock = {};
constinit ZelSizeClassBucket* g_bucketRuns[kMaxCategories][kRunsPerCategory] = {};

namespace {

struct BackingPair {
  ZelBackingAllocate allocate;
  ZelBackingFree release;
};

constinit BackingPair g_pair = {std::malloc, std::free};
constinit SpinFlag g_makingFlag;
constinit ZelSystemAllocator g_record = {};
constinit ZelSystemAllocator* g_systemAllocator = nullptr;  // &g_record, once that is complete

// The system allocation and pre-allocation check locks need no setting up: they are born free.
bool MakeSystemAllocator() {
  constexpr size_t kTableSize = sizeof(ZelSizeClassBucket) * kMaxCategories * kMaxUnits;
  auto* const buckets = static_cast<ZelSizeClassBucket*>(g_pair.allocate(kTableSize));
  if (buckets == nullptr) return false;
  g_record = {.allocate = g_pair.allocate, .release = g_pair.release, .buckets = buckets};
  StoreRelease(g_systemAllocator, &g_record);
  return true;
}

}  // namespace

ZelSystemAllocator* SystemAllocator() {
  ZelSystemAllocator* system = LoadAcquire(g_systemAllocator);
  if (system != nullptr) [[likely]]
    return system;
  bool made = true;
  {
    const SpinFlagGuard guard(g_makingFlag);
    if (g_systemAllocator == nullptr) made = MakeSystemAllocator();
  }
  // Without the flag, since the exit hook may allocate.
  if (!made && ClaimEndOfProcess(CallingOwner()) == EndClaim::kFirst) __ZelExitHandler(-1);
  return LoadAcquire(g_systemAllocator);
}

ZelSizeClassBucket* PrepareBucket(uint32_t category, uint32_t units) {
  const ZelSystemAllocator* const system = SystemAllocator();
  if (system == nullptr) return nullptr;
  ZelSizeClassBucket* const buckets = system->buckets + size_t{category} * kMaxUnits;
  const uint32_t run = (units - 1) >> kRunBits;
  const SpinFlagGuard guard(g_makingFlag);
  if (g_bucketRuns[category][run] == nullptr) {
    // A run at a time, since to write the whole table costs more than most processes ever use of
    // it.
    const uint32_t end = std::min((run + 1) << kRunBits, kMaxUnits);
    for (uint32_t i = run << kRunBits; i < end; ++i) {
      buckets[i] = {.lock = {}, .pages = nullptr, .units = i + 1};
    }
    StoreRelease(g_bucketRuns[category][run], buckets);
  }
  return buckets + (units - 1);
}

}  // namespace zelrt

using namespace zelrt;

void __ZelInitializeSubAllocator(ZelBackingAllocate allocate, ZelBackingFree release) {
  const bool isPair = allocate != nullptr && release != nullptr;
  g_pair = isPair ? BackingPair{allocate, release} : BackingPair{std::malloc, std::free};
  SystemAllocator();
}

void __ZelDeinitializeSubAllocator() {
  g_pair = {std::malloc, std::free};
  ZelSystemAllocator* const system = LoadAcquire(g_systemAllocator);
  if (system == nullptr) return;
  // The reserve came from the pair that goes now; a later one must not be asked to free it.
  ForgetPressure();
  StoreRelease(g_systemAllocator, nullptr);
  for (auto& runs : g_bucketRuns) {
    for (ZelSizeClassBucket*& run : runs) StoreRelease(run, nullptr);
  }
  system->release(system->buckets);
}
