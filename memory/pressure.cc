// Memory pressure: the reserve, the watch on free swap space, memory collectors, and what the
// client calls around the framework's own memory requests.
//
// Under the system allocation lock: the reserve, the swap watch, the state of a collection.
// Collectors run under it. Under the pre-allocation check lock: g_failuresInARow.

#include <sys/sysinfo.h>

#include <climits>

#include "memory/internal.h"
#include "runtime/ending.h"
#include "runtime/slot_table.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr uint64_t kReserveBlockSize = 33'554'416;  // 32 MiB less the backing allocator's header
constexpr uint32_t kMaxCollectors = 16;
constexpr int32_t kFailuresUntilSkipped = 10;
constexpr uint64_t kProbeGranule = 65'536;

struct ReserveBlock {
  ReserveBlock* next;
};

constinit uint32_t g_collectorInitialized = 0;
constinit ReserveBlock* g_reserve = nullptr;
constinit uint32_t g_freeingReserves = 0;
constinit uint32_t g_collectionLogged = 0;  // since the last backing request
constinit bool g_isCollecting = false;
constinit SwapWatch g_swapWatch;
constinit SlotTable<ZelMemoryCollector, kMaxCollectors> g_collectors;

constinit ZelSpinLock g_preAllocationCheckLock = {};
constinit int32_t g_failuresInARow = 0;
constinit uint32_t g_checkIsPausing = 0;

constinit uint32_t g_tightnessUnreported = 1;

using PreAllocationCheckGuard = SpinGuard<LockRank::kPreAllocationCheck>;

bool CollectorIsInitialized() { return LoadAcquire(g_collectorInitialized) != 0; }

// Collection
// ---------------------------------------------------------------------------------------

// Returns the bytes of pages that the collectors freed, as far as statistics tell.
uint64_t CollectMemoryLocked(uint64_t self) {
  // What a collector or the log asks for meanwhile may be short again. To collect once more for
  // that would never end.
  if (g_isCollecting) return 0;
  g_isCollecting = true;
  if (g_collectionLogged == 0) {
    if (__ZelIsLoggerInitialized() != 0)
      __ZelLogInternal(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_COLLECT_MEMORY, 0, 0);
    g_collectionLogged = 1;
  }
  const uint64_t before = LoadRelaxed(__zelTotalMemoryAllocated);
  const bool logDumps = StatisticsAreOn() && __ZelIsLoggerInitialized() != 0;
  if (StatisticsAreOn()) CountMemoryCollection(self);
  if (logDumps) LogCollectionDump("Start", self);
  // A collector may register another one.
  for (uint32_t i = 0; i < g_collectors.Count(); ++i) {
    const ZelMemoryCollector* const collector = g_collectors.Find(i);
    if (collector != nullptr) (*collector)();
  }
  const uint64_t freed = before - LoadRelaxed(__zelTotalMemoryAllocated);
  if (logDumps) LogCollectionDump("Stop", self);
  g_isCollecting = false;
  return freed;
}

void CheckSwapPressureLocked(uint64_t self) {
  if (!CollectorIsInitialized()) return;
  struct sysinfo info;
  if (sysinfo(&info) != 0) return;
  if (g_swapWatch.HasFallen(info.freeswap, info.totalswap)) CollectMemoryLocked(self);
}

// Exhaustion
// ---------------------------------------------------------------------------------------

// Ends the process, once. Returns for allocations of the report itself, which must do without.
void ReportOutOfMemory(uint64_t self) {
  if (ClaimEndOfProcess(self) != EndClaim::kFirst) return;
  AbandonMemoryLocks(self);
  if (StatisticsAreOn()) LogExhaustionDump(self);
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_OUT_OF_MEMORY, 0, 0);
  __ZelFatalExit(-1);
}

void ReportMemoryIsTight(uint64_t self) {
  if (LoadRelaxed(g_tightnessUnreported) == 0) return;
  if (StatisticsAreOn()) LogExhaustionDump(self);
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_MEMORY_IS_TIGHT, 0, 0);
  StoreRelaxed(g_tightnessUnreported, 0);
}

// Requests
// -----------------------------------------------------------------------------------------

void* AskBacking(const ZelSystemAllocator* system, uint64_t bytes) {
  return bytes != kUnrepresentable ? system->allocate(bytes) : nullptr;
}

// Gives reserve blocks back until the request can be served; null when none is left.
void* ServeFromReserveLocked(const ZelSystemAllocator* system, uint64_t bytes) {
  // Logging may need memory and come here again: the inner call leaves the flag as it found it.
  const uint32_t wasFreeing = LoadRelaxed(g_freeingReserves);
  StoreRelaxed(g_freeingReserves, 1);
  void* block = nullptr;
  while (block == nullptr && g_reserve != nullptr) {
    ReserveBlock* const reserve = g_reserve;
    g_reserve = reserve->next;
    system->release(reserve);
    __ZelLogInternal(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_FREEING_RESERVES, 0, ZELLOG_ARG_INT,
                     static_cast<int32_t>(kReserveBlockSize));
    block = AskBacking(system, bytes);
  }
  StoreRelaxed(g_freeingReserves, wasFreeing);
  return block;
}

}  // namespace

bool SwapWatch::HasFallen(uint64_t freeSwap, uint64_t totalSwap) {
  if (freeSwap > high_) {
    high_ = freeSwap;
    low_ = freeSwap;
  } else if (freeSwap < low_) {
    low_ = freeSwap;
  }
  if (low_ + totalSwap / 16 >= high_) return false;
  *this = SwapWatch();
  return true;
}

void AbandonMemoryLocks(uint64_t self) {
  AbandonSpinLock(&g_systemAllocationLock, self);
  if (!IsSpinLockHeldBy(&g_preAllocationCheckLock, self)) return;
  StoreRelaxed(g_checkIsPausing, 0);
  AbandonSpinLock(&g_preAllocationCheckLock, self);
}

void* RequestBackingMemory(uint64_t bytes, uint64_t self) {
  const ZelSystemAllocator* const system = SystemAllocator();
  if (system == nullptr) return nullptr;
  SystemAllocationGuard guard(&g_systemAllocationLock, self);
  g_collectionLogged = 0;
  CheckSwapPressureLocked(self);
  void* block = AskBacking(system, bytes);
  if (block == nullptr) block = ServeFromReserveLocked(system, bytes);
  g_collectionLogged = 0;
  guard.Release();
  if (block == nullptr) ReportOutOfMemory(self);
  return block;
}

void ForgetPressure() {
  g_reserve = nullptr;
  StoreRelease(g_collectorInitialized, 0);
}

namespace {

// The pre-allocation check
// ---------------------------------------------------------------------------

// What is asked for to see whether `size` bytes can be had: whole granules, less the slack that the
// allocator leaves too.
uint64_t ProbeSize(uint64_t size) {
  const uint64_t padded = SaturatingSum(size, kPageSlack - 1 + kProbeGranule);
  if (padded == kUnrepresentable) return kUnrepresentable;
  return (padded & ~(kProbeGranule - 1)) - kPageSlack;
}

bool FreeProbe(const ZelSystemAllocator* system, void* probe) {
  if (probe != nullptr) system->release(probe);
  return probe != nullptr;
}

enum class Attempt { kFirst, kSecond };

bool ProbeSucceeds(const ZelSystemAllocator* system, uint64_t probeSize, Attempt attempt,
                   uint64_t self) {
  SystemAllocationGuard guard(&g_systemAllocationLock, self);
  if (attempt == Attempt::kFirst) g_collectionLogged = 0;
  void* const probe = AskBacking(system, probeSize);
  guard.Release();
  return FreeProbe(system, probe);
}

void CheckPreAllocation(const ZelSystemAllocator* system, uint64_t probeSize, uint64_t self) {
  if (ProbeSucceeds(system, probeSize, Attempt::kFirst, self)) return;
  __ZelLogCommentInternal("Memory collection %i failed.  Retrying after a few seconds...", 1);
  StoreRelaxed(g_checkIsPausing, 1);
  __ZelSleep(1);
  if (ProbeSucceeds(system, probeSize, Attempt::kSecond, self)) return;

  SystemAllocationGuard guard(&g_systemAllocationLock, self);
  void* const probe = ServeFromReserveLocked(system, probeSize);
  guard.Release();
  if (!FreeProbe(system, probe)) ReportMemoryIsTight(self);
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

void __ZelInitializeMemoryCollectorAndReserveMemory(int reserveBlocks) {
  const ZelSystemAllocator* const system = SystemAllocator();
  if (system == nullptr) return;
  const uint64_t self = CallingOwner();
  const SystemAllocationGuard guard(&g_systemAllocationLock, self);
  if (CollectorIsInitialized()) return;
  ResetStatistics(self);
  for (int i = 0; i < reserveBlocks; ++i) {
    auto* const block = static_cast<ReserveBlock*>(system->allocate(kReserveBlockSize));
    if (block == nullptr) break;
    block->next = g_reserve;
    g_reserve = block;
  }
  StoreRelease(g_collectorInitialized, 1);
}

void __ZelInitializeMemoryCollector() { __ZelInitializeMemoryCollectorAndReserveMemory(0); }

int32_t __ZelRegisterMemoryCollector(ZelMemoryCollector collector) {
  if (collector == nullptr) {
    LogInternalError("A valid memory collector hook must be specified to register it with ZELRT");
    return -1;
  }
  const uint32_t slot = g_collectors.Claim();
  if (slot == kNoSlot) return -1;
  g_collectors[slot] = collector;
  g_collectors.Publish(slot);
  return 0;
}

void __ZelPreVirtualAllocCheck(size_t size) {
  const ZelSystemAllocator* const system = SystemAllocator();
  if (system == nullptr) return;
  const uint64_t self = CallingOwner();
  const PreAllocationCheckGuard guard(&g_preAllocationCheckLock, self);
  if (g_failuresInARow > kFailuresUntilSkipped) return;
  CheckPreAllocation(system, ProbeSize(size), self);
  StoreRelaxed(g_checkIsPausing, 0);
}

void __ZelPostVirtualAllocCheck(int succeeded) {
  const PreAllocationCheckGuard guard(&g_preAllocationCheckLock, CallingOwner());
  if (succeeded != 0) {
    g_failuresInARow = 0;
  } else if (g_failuresInARow < INT_MAX) {
    ++g_failuresInARow;
  }
}

void __ZelWaitForPreVirtualAllocThread() {
  while (LoadRelaxed(g_checkIsPausing) == 1) __ZelYield();
}

void __ZelAsynchronousCollectMemory(size_t size) {
  if (!CollectorIsInitialized() || LoadRelaxed(g_freeingReserves) != 0) return;
  const uint64_t self = CallingOwner();
  if (!IsSpinLockHeldBy(&g_systemAllocationLock, self)) {
    __ZelPreVirtualAllocCheck(size);
    return;
  }
  const bool log = StatisticsAreOn() && __ZelIsLoggerInitialized() != 0;
  if (log) __ZelLogCommentInternal("Tav requested at least %llu bytes", 0ULL + size);
  const uint64_t freed = CollectMemoryLocked(self);
  if (log) __ZelLogCommentInternal("We freed %llu bytes", 0ULL + freed);
}
