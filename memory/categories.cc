// Memory categories: their registry, the statistics of pages, and the dumps of those.
//
// Counters change under the statistics lock, the innermost of all. Single counters are read without
// it. A dump copies its figures under the lock and logs them after: a message may need a page.

#include <cstring>

#include "memory/internal.h"
#include "runtime/slot_table.h"
#include "zelrt/log.h"

constinit uint64_t __zelTotalMemoryAllocated = 0;

namespace zelrt {
namespace {

constexpr uint64_t kPagesPerPeriodicDump = 100;

struct ZelMemoryCategory {
  char name[sizeof ZelMemoryCategoryInfo::name];
  int64_t allocated;
  int64_t allocatedAtPeak;
};

constinit SlotTable<ZelMemoryCategory, kMaxCategories> g_categories(ZelMemoryCategory{"ZEL_MISC", 0,
                                                                                      0});

constinit ZelSpinLock g_statisticsLock = {};
constinit uint32_t g_statisticsOn = 0;
constinit uint64_t g_peakTotal = 0;
constinit uint64_t g_timesCollected = 0;
constinit uint64_t g_pagesObtained = 0;

using StatisticsGuard = SpinGuard<LockRank::kStatistics>;

// Relaxed, because the counters are read without the lock.
template <typename Counter>
void Add(Counter& counter, int64_t amount) {
  StoreRelaxed(counter, counter + static_cast<Counter>(amount));
}

void RaisePeakLocked() {
  // Signed: pages from before the statistics take the total below 0 when they are given back.
  if (static_cast<int64_t>(__zelTotalMemoryAllocated) <= static_cast<int64_t>(g_peakTotal)) return;
  for (uint32_t id = 0; id < kMaxCategories; ++id) {
    StoreRelaxed(g_categories[id].allocatedAtPeak, g_categories[id].allocated);
  }
  StoreRelaxed(g_peakTotal, __zelTotalMemoryAllocated);
}

// The figures of a dump, as of one moment.
class Figures {
 public:
  void CopyLocked() {
    total_ = __zelTotalMemoryAllocated;
    for (uint32_t id = 0; id < kMaxCategories; ++id) allocated_[id] = g_categories[id].allocated;
  }
  void Copy(uint64_t self) {
    const StatisticsGuard guard(&g_statisticsLock, self);
    CopyLocked();
  }

  uint64_t Total() const { return total_; }

  void LogAllocationStatus() const {
    LogCategories([](const char* name, long bytes) {
      __ZelLogCommentInternal("Allocation status for %-25s:%15ld", name, bytes);
    });
  }
  void LogMemoryAllocated() const {
    LogCategories([](const char* name, long bytes) {
      __ZelLogCommentInternal("MemoryAllocated by %-25s:%15ld", name, bytes);
    });
  }

 private:
  template <typename LogLine>
  void LogCategories(LogLine logLine) const {
    for (uint32_t id = 0; id < g_categories.Count(); ++id) {
      const ZelMemoryCategory* category = g_categories.Find(id);
      if (category != nullptr) logLine(category->name, allocated_[id]);
    }
  }

  uint64_t total_;
  int64_t allocated_[kMaxCategories];
};

}  // namespace

bool StatisticsAreOn() { return LoadRelaxed(g_statisticsOn) != 0; }

void CountPageObtained(uint32_t category, uint64_t bytes, uint64_t self) {
  bool dumpIsDue;
  Figures figures;
  {
    const StatisticsGuard guard(&g_statisticsLock, self);
    Add(g_categories[category].allocated, static_cast<int64_t>(bytes));
    Add(__zelTotalMemoryAllocated, static_cast<int64_t>(bytes));
    RaisePeakLocked();
    Add(g_pagesObtained, 1);
    dumpIsDue = g_pagesObtained % kPagesPerPeriodicDump == 0;
    if (dumpIsDue) figures.CopyLocked();
  }
  if (!dumpIsDue) return;
  __ZelLogCommentInternal("Periodic allocation status dump");
  figures.LogAllocationStatus();
}

void CountPageReturned(uint32_t category, uint64_t bytes, uint64_t self) {
  const StatisticsGuard guard(&g_statisticsLock, self);
  Add(__zelTotalMemoryAllocated, -static_cast<int64_t>(bytes));
  Add(g_categories[category].allocated, -static_cast<int64_t>(bytes));
}

void CountMemoryCollection(uint64_t self) {
  const StatisticsGuard guard(&g_statisticsLock, self);
  Add(g_timesCollected, 1);
}

void ResetStatistics(uint64_t self) {
  const StatisticsGuard guard(&g_statisticsLock, self);
  StoreRelaxed(__zelTotalMemoryAllocated, 0);
  StoreRelaxed(g_peakTotal, 0);
  StoreRelaxed(g_timesCollected, 0);
  for (uint32_t id = 0; id < kMaxCategories; ++id) {
    StoreRelaxed(g_categories[id].allocated, 0);
    StoreRelaxed(g_categories[id].allocatedAtPeak, 0);
  }
}

void LogExhaustionDump(uint64_t self) {
  Figures figures;
  figures.Copy(self);
  figures.LogAllocationStatus();
}

void LogCollectionDump(const char* startOrStop, uint64_t self) {
  Figures figures;
  figures.Copy(self);
  __ZelLogCommentInternal("%s collecting memory: __zelTotalMemoryAllocated=%llu", startOrStop,
                          static_cast<unsigned long long>(figures.Total()));
  figures.LogMemoryAllocated();
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelRegisterMemoryCategory(const char* name) {
  if (name == nullptr) {
    LogInternalError("A name must be specified when registering memory categories");
    return ZEL_INVALID_MEMORY_CATEGORY;
  }
  const uint32_t id = g_categories.Claim();
  if (id == kNoSlot) return ZEL_INVALID_MEMORY_CATEGORY;
  char* const field = g_categories[id].name;
  std::strncpy(field, name, sizeof g_categories[id].name - 1);  // the field's last byte stays NUL
  g_categories.Publish(id);
  return id;
}

uint32_t __ZelGetNumMemoryCategories() { return g_categories.Count(); }

void __ZelEnableMemoryStatisticsCollection() {
  // The statistics lock is born initialised; a second call must not initialise one that is held.
  StoreRelaxed(g_statisticsOn, 1);
}

uint32_t __ZelGetMemoryInfoByCategory(unsigned int category, ZelMemoryCategoryInfo* info) {
  const ZelMemoryCategory* found = g_categories.Find(category);
  if (info == nullptr || found == nullptr) return 0;
  std::memcpy(info->name, found->name, sizeof info->name);
  info->allocated = LoadRelaxed(found->allocated);
  info->allocatedAtPeak = LoadRelaxed(found->allocatedAtPeak);
  return 1;
}

uint64_t __ZelGetPeakTotalMemoryAllocated() {
  const uint64_t peak = LoadRelaxed(g_peakTotal);
  return peak != 0 ? peak : LoadRelaxed(__zelTotalMemoryAllocated);
}

uint64_t __ZelGetTotalTimesMemoryCollected() { return LoadRelaxed(g_timesCollected); }
