// What is counted: the live blocks and, by function, size class, thread and site, what was
// allocated and freed.
//
// Blocks, functions and size classes are divided into shards by address: neighbours, which mostly
// come from one thread, share one. A shard's counters are written under its lock alone, and read
// without. The levels, whose peaks have to be exact, and the sites are shared by all threads.
//
// Calls that have no block (failures, and null given to free) count in the shard of address 0.
//
// While counting is paused, what is allocated goes by; what is freed counts if it had been counted.
// So from the first pause on a free of an unknown block is nothing to wonder at.
//
// While a process forks, the shards are locked from before the fork to after it. The C library
// takes locks of its own meanwhile, and may have to wait for a thread that has one of those and
// waits here: an allocation of a lookup in the name service, say. So waiting threads lose patience,
// and their calls go unrecorded.

#include <ctime>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/level.h"
#include "examples/heapscope/live_blocks.h"
#include "examples/heapscope/sites.h"
#include "examples/heapscope/threads.h"
#include "examples/heapscope/timeline.h"
#include "host/host.h"
#include "zelrt/locks.h"
#include "zelrt/runtime.h"

namespace heapscope {

const char* const kFunctionNames[kFunctions] = {
    "malloc",        "calloc",   "realloc", "reallocarray", "posix_memalign",
    "aligned_alloc", "memalign", "valloc",  "pvalloc",      "free"};

namespace {

constexpr uint32_t kShardBits = 6;
constexpr uint32_t kShards = 1u << kShardBits;
constexpr uint32_t kNeighbourhoodBits = 16;
constexpr uint32_t kTriesUntilYield = 100;
constexpr int64_t kForkPatienceNs = 2'000'000'000;

// Written by one thread at a time, read by any.
class Counter {
 public:
  void Add(uint64_t amount) { value_.store(Get() + amount, std::memory_order_release); }
  void Reset() { value_.store(0, std::memory_order_relaxed); }
  uint64_t Get() const { return value_.load(std::memory_order_acquire); }

 private:
  std::atomic<uint64_t> value_{0};
};

struct ClassCounters {
  Counter allocations;
  Counter allocatedBytes;
  Counter frees;
  Counter freedBytes;
  Counter temporaries;
  Counter temporaryBytes;
};

struct Counters {
  Counter calls[kFunctions];
  Counter failures;
  Counter unknownFrees;
  Counter unseenFrees;
  Counter untracked;
  ClassCounters classes[kSizeClasses];
};

struct alignas(64) Shard {
  ZelSpinLock lock;
  LiveBlocks blocks;
  Counters counters;
};

struct alignas(64) LoneLevel : Level {};

constinit Shard g_shards[kShards] = {};
constinit LoneLevel g_classLevels[kSizeClasses] = {};
constinit LoneLevel g_totalLevel = {};
constinit ZelSpinLock g_forkGate = {};
constinit std::atomic<uint32_t> g_loaderUses{0};  // grows under the gate
constinit Amount g_inherited[kSizeClasses] = {};  // changes under all shards' locks
constinit Amount g_early = {};
constinit std::atomic<uint64_t> g_unrecorded{0};
constinit std::atomic<bool> g_isPaused{false};
constinit std::atomic<bool> g_wasPaused{false};
constinit std::atomic<uint64_t> g_leftOut{0};
constinit std::atomic<int64_t> g_shardsHeldSince{0};  // 0: not held for a fork

uint32_t Self() { return static_cast<uint32_t>(zelhost::NativeThreadId()); }

int64_t NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

bool ForkTakesTooLong() {
  const int64_t since = g_shardsHeldSince.load(std::memory_order_relaxed);
  return since != 0 && NowNs() - since > kForkPatienceNs;
}

Shard& ShardOf(uintptr_t address) {
  constexpr uint64_t kOddConstant = 0x9E3779B97F4A7C15;
  return g_shards[(address >> kNeighbourhoodBits) * kOddConstant >> (64 - kShardBits)];
}

// False when a fork keeps it for too long.
bool AcquireUnlessForking(ZelSpinLock& lock) {
  const uint32_t self = Self();
  while (__ZelTryToAcquireSpinLockTid(&lock, kTriesUntilYield, self) == 0) {
    if (ForkTakesTooLong()) return false;
    __ZelYield();
  }
  return true;
}

// Not for ever: whoever uses the loader may wait for a lock of it that the calling thread holds.
void WaitForLoaderUses() {
  const int64_t start = NowNs();
  while (g_loaderUses.load() != 0 && NowNs() - start < kForkPatienceNs) __ZelYield();
}

// Holds the shard of one address, unless a fork keeps it for too long.
class ShardHold {
 public:
  explicit ShardHold(const void* block)
      : address_(reinterpret_cast<uintptr_t>(block)),
        shard_(ShardOf(address_)),
        isHeld_(AcquireUnlessForking(shard_.lock)) {
    if (!isHeld_) [[unlikely]]
      g_unrecorded.fetch_add(1, std::memory_order_relaxed);
  }
  ~ShardHold() {
    if (isHeld_) __ZelReleaseSpinLock(&shard_.lock);
  }
  ShardHold(const ShardHold&) = delete;
  ShardHold& operator=(const ShardHold&) = delete;

  bool IsHeld() const { return isHeld_; }
  uintptr_t Address() const { return address_; }
  Counters& Counts() const { return shard_.counters; }

  LiveBlocks& Blocks() const { return shard_.blocks; }

 private:
  const uintptr_t address_;
  Shard& shard_;
  const bool isHeld_;
};

void CountCall(Counters& counters, Function function) {
  counters.calls[static_cast<size_t>(function)].Add(1);
}

void CountFreed(Counters& counters, LiveBlock block) {
  CallingThread().CountFreed(block.size);
  SiteAt(block.site).CountFreed(block.size);
  const uint32_t sizeClass = SizeClassOf(block.size);
  counters.classes[sizeClass].frees.Add(1);
  counters.classes[sizeClass].freedBytes.Add(block.size);
  g_classLevels[sizeClass].Lower(block.size);
  g_totalLevel.Lower(block.size);
}

void CountAllocated(Counters& counters, LiveBlock block) {
  CallingThread().CountAllocated(block.size);
  SiteAt(block.site).CountAllocated(block.size);
  const uint32_t sizeClass = SizeClassOf(block.size);
  counters.classes[sizeClass].allocations.Add(1);
  counters.classes[sizeClass].allocatedBytes.Add(block.size);
  g_classLevels[sizeClass].Raise(block.size);
  g_totalLevel.Raise(block.size);
}

// The block that the thread allocated last, until it frees one.
constinit thread_local const void* t_latest = nullptr;

void CountTemporary(Counters& counters, LiveBlock block) {
  SiteAt(block.site).CountTemporary(block.size);
  ClassCounters& sizeClass = counters.classes[SizeClassOf(block.size)];
  sizeClass.temporaries.Add(1);
  sizeClass.temporaryBytes.Add(block.size);
}

// Counts a call that a pause is the reason to leave out, if it is.
bool IsLeftOutBecause(const std::atomic<bool>& reason) {
  if (!reason.load(std::memory_order_relaxed)) [[likely]]
    return false;
  g_leftOut.fetch_add(1, std::memory_order_relaxed);
  return true;
}

bool IsLeftOut() { return IsLeftOutBecause(g_isPaused); }

// Whether a free of a block that is not in the table is to be expected.
bool MayBeLeftOut() { return IsLeftOutBecause(g_wasPaused); }

void NoteUnknownFree(const ShardHold& hold, uintptr_t address) {
  if (MayBeLeftOut()) return;
  hold.Counts().unknownFrees.Add(1);
  LogProblem(Problem::kUnknownFree, address, 0);
}

void Track(const ShardHold& hold, const CallPath& path, size_t size) {
  if (LiveBlock old; hold.Blocks().Remove(hold.Address(), &old)) [[unlikely]] {
    // Whatever freed the old block, it did not come by here.
    hold.Counts().unseenFrees.Add(1);
    CountFreed(hold.Counts(), old);
    LogProblem(Problem::kUnseenFree, hold.Address(), old.size);
  }
  const LiveBlock block = {FindSite(path), size};
  if (!hold.Blocks().Insert(hold.Address(), block)) [[unlikely]] {
    hold.Counts().untracked.Add(1);
    LogProblem(Problem::kUntracked, hold.Address(), size);
    return;
  }
  CountAllocated(hold.Counts(), block);
}

void Add(Amount& sum, Amount amount) {
  sum.blocks += amount.blocks;
  sum.bytes += amount.bytes;
}

}  // namespace

void RecordAllocation(Function function, const Caller& caller, const void* block, size_t size) {
  if (IsLeftOut()) return;
  CallPath path;
  CaptureCallPath(caller, &path);
  {
    const ShardHold hold(block);
    if (!hold.IsHeld()) return;
    CountCall(hold.Counts(), function);
    Track(hold, path, size);
  }
  t_latest = block;
  NoteTimeNowAndThen();
}

void RecordFailure(Function function, size_t size) {
  if (IsLeftOut()) return;
  const ShardHold hold(nullptr);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  hold.Counts().failures.Add(1);
  LogFailure(function, size);
}

void RecordFree(const void* block) {
  const ShardHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), Function::kFree);
  if (block == nullptr) return;
  if (LiveBlock freed; hold.Blocks().Remove(hold.Address(), &freed)) [[likely]] {
    CountFreed(hold.Counts(), freed);
    if (block == t_latest) CountTemporary(hold.Counts(), freed);
  } else {
    NoteUnknownFree(hold, hold.Address());
  }
  t_latest = nullptr;
}

TakenBlock TakeBlock(const void* block) {
  const ShardHold hold(block);
  LiveBlock taken;
  if (!hold.IsHeld() || !hold.Blocks().Remove(hold.Address(), &taken)) return {};
  return {true, taken.site, taken.size};
}

void PutBackBlock(Function function, const void* block, TakenBlock taken, size_t refusedSize) {
  const ShardHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  hold.Counts().failures.Add(1);
  LogFailure(function, refusedSize);
  if (!taken.isKnown) return;
  const LiveBlock old = {taken.site, taken.size};
  if (!hold.Blocks().Insert(hold.Address(), old)) {
    hold.Counts().untracked.Add(1);
    LogProblem(Problem::kUntracked, hold.Address(), taken.size);
    CountFreed(hold.Counts(), old);
  }
}

void RecordReallocation(Function function, const Caller& caller, const void* old, TakenBlock taken,
                        const void* block, size_t size) {
  CallPath path;
  CaptureCallPath(caller, &path);
  const ShardHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  if (taken.isKnown) {
    CountFreed(hold.Counts(), {taken.site, taken.size});
  } else {
    NoteUnknownFree(hold, reinterpret_cast<uintptr_t>(old));
  }
  t_latest = block;
  if (block != nullptr && !IsLeftOut()) Track(hold, path, size);
}

void PauseRecords() {
  g_wasPaused.store(true);
  g_isPaused.store(true);
}
void ResumeRecords() { g_isPaused.store(false); }
bool AreRecordsPaused() { return g_isPaused.load(); }

bool FindBlockAround(uintptr_t address, BlockAround* found) {
  // Small blocks begin shortly before, large ones are in a list of each shard.
  const auto holds = [&](uintptr_t start, LiveBlock block) {
    if (address - start >= std::max<size_t>(block.size, 1)) return false;
    *found = {start, block.size, block.site};
    return true;
  };
  LiveBlock block;
  const uintptr_t last = address & ~(LiveBlocks::kGranule - 1);
  for (uintptr_t back = 0; back < LiveBlocks::kLarge && back <= last;
       back += LiveBlocks::kGranule) {
    const ShardHold hold(reinterpret_cast<void*>(last - back));
    if (!hold.IsHeld()) return false;
    if (hold.Blocks().Find(hold.Address(), &block) && holds(hold.Address(), block)) return true;
  }
  for (Shard& shard : g_shards) {
    if (!AcquireUnlessForking(shard.lock)) return false;
    uintptr_t start = address;
    const bool isThere = shard.blocks.FindLargeBefore(&start, &block) && holds(start, block);
    __ZelReleaseSpinLock(&shard.lock);
    if (isThere) return true;
  }
  return false;
}

NoForkMeanwhile::NoForkMeanwhile() : isHeld_(AcquireUnlessForking(g_forkGate)) {}
NoForkMeanwhile::~NoForkMeanwhile() {
  if (isHeld_) __ZelReleaseSpinLock(&g_forkGate);
}

LoaderUse::LoaderUse() {
  const NoForkMeanwhile noFork;
  isBegun_ = noFork.IsHeld();
  if (isBegun_) g_loaderUses.fetch_add(1);
}
LoaderUse::~LoaderUse() {
  if (isBegun_) g_loaderUses.fetch_sub(1);
}
void ForgetLoaderUsesInChild() { g_loaderUses.store(0); }

void HoldRecords() {
  const uint32_t self = Self();
  __ZelAcquireSpinLockTid(&g_forkGate, self);
  WaitForLoaderUses();
  for (Shard& shard : g_shards) __ZelAcquireSpinLockTid(&shard.lock, self);
  g_shardsHeldSince.store(NowNs(), std::memory_order_relaxed);
}

void ReleaseRecords() {
  g_shardsHeldSince.store(0, std::memory_order_relaxed);
  for (Shard& shard : g_shards) __ZelReleaseSpinLock(&shard.lock);
  __ZelReleaseSpinLock(&g_forkGate);
}

void StartRecordsAnew() {
  Figures figures;
  ReadFigures(&figures);
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    g_inherited[i] = figures.classes[i].Live();
    g_classLevels[i].ForgetPeak();
  }
  g_totalLevel.ForgetPeak();
  g_unrecorded.store(0);
  g_leftOut.store(0);
  t_latest = nullptr;  // was allocated before; in a child, the forking thread is all there is
  ResetThreads();
  StartSitesAnew();
  for (Shard& shard : g_shards) {
    Counters& counters = shard.counters;
    for (Counter& calls : counters.calls) calls.Reset();
    counters.failures.Reset();
    counters.unknownFrees.Reset();
    counters.unseenFrees.Reset();
    counters.untracked.Reset();
    for (ClassCounters& sizeClass : counters.classes) {
      sizeClass.allocations.Reset();
      sizeClass.allocatedBytes.Reset();
      sizeClass.frees.Reset();
      sizeClass.freedBytes.Reset();
      sizeClass.temporaries.Reset();
      sizeClass.temporaryBytes.Reset();
    }
  }
  // Last: a thread that holds no shard may have added a point in the middle of it.
  ForgetTimeline();
}

void ReadFigures(Figures* figures) {
  *figures = {};
  figures->unrecorded = g_unrecorded.load(std::memory_order_relaxed);
  figures->leftOut = g_leftOut.load(std::memory_order_relaxed);
  for (const Shard& shard : g_shards) {
    const Counters& counters = shard.counters;
    for (size_t i = 0; i < kFunctions; ++i) figures->calls[i] += counters.calls[i].Get();
    figures->failures += counters.failures.Get();
    figures->unknownFrees += counters.unknownFrees.Get();
    figures->unseenFrees += counters.unseenFrees.Get();
    figures->untracked += counters.untracked.Get();
  }
  // Frees first: each one's allocation was counted before it.
  for (const Shard& shard : g_shards) {
    for (uint32_t i = 0; i < kSizeClasses; ++i) {
      const ClassCounters& from = shard.counters.classes[i];
      Add(figures->classes[i].temporary, {from.temporaries.Get(), from.temporaryBytes.Get()});
      Add(figures->classes[i].freed, {from.frees.Get(), from.freedBytes.Get()});
    }
  }
  for (const Shard& shard : g_shards) {
    for (uint32_t i = 0; i < kSizeClasses; ++i) {
      const ClassCounters& from = shard.counters.classes[i];
      Add(figures->classes[i].allocated, {from.allocations.Get(), from.allocatedBytes.Get()});
    }
  }
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    Flow& figuresOfClass = figures->classes[i];
    figuresOfClass.inherited = g_inherited[i];
    figuresOfClass.peakBytes = g_classLevels[i].Peak();
    Add(figures->total.inherited, figuresOfClass.inherited);
    Add(figures->total.allocated, figuresOfClass.allocated);
    Add(figures->total.freed, figuresOfClass.freed);
    Add(figures->total.temporary, figuresOfClass.temporary);
  }
  figures->total.peakBytes = g_totalLevel.Peak();
}

void NoteEndOfEarlyAllocations() {
  Figures figures;
  ReadFigures(&figures);
  g_early = figures.total.allocated;
}

Amount EarlyAllocations() { return g_early; }

}  // namespace heapscope
