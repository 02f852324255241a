// What is counted: the live blocks and, by function and size class, what was allocated and freed.
//
// Both are divided into stripes by the hash of the block's address. A stripe's counters are written
// under its lock alone, and read without. Only the levels, whose peaks have to be exact, are shared
// by all threads.
//
// Calls that have no block (failures, and null given to free) count in the stripe of address 0.
//
// While a process forks, the stripes are locked from before the fork to after it. The C library
// takes locks of its own meanwhile, and may have to wait for a thread that has one of those and
// waits here: an allocation of a lookup in the name service, say. So waiting threads lose patience,
// and their calls go unrecorded.

#include <ctime>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/live_blocks.h"
#include "examples/heapscope/threads.h"
#include "host/host.h"
#include "zelrt/locks.h"
#include "zelrt/runtime.h"

namespace heapscope {

const char* const kFunctionNames[kFunctions] = {
    "malloc",        "calloc",   "realloc", "reallocarray", "posix_memalign",
    "aligned_alloc", "memalign", "valloc",  "pvalloc",      "free"};

namespace {

constexpr uint32_t kStripeBits = LiveBlocks::kCallersHashBits;
constexpr uint32_t kStripes = 1u << kStripeBits;
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
};

struct Counters {
  Counter calls[kFunctions];
  Counter failures;
  Counter unknownFrees;
  Counter unseenFrees;
  Counter untracked;
  ClassCounters classes[kSizeClasses];
};

struct alignas(64) Stripe {
  ZelSpinLock lock;
  LiveBlocks blocks;
  Counters counters;
};

// Live bytes, and the most there have been.
class alignas(64) Level {
 public:
  void Raise(size_t bytes) {
    const uint64_t now = bytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    uint64_t peak = Peak();
    while (now > peak && !peak_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
  }
  void Lower(size_t bytes) { bytes_.fetch_sub(bytes, std::memory_order_relaxed); }
  void ForgetPeak() { peak_.store(bytes_.load(std::memory_order_relaxed)); }
  uint64_t Peak() const { return peak_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> bytes_{0};
  std::atomic<uint64_t> peak_{0};
};

constinit Stripe g_stripes[kStripes] = {};
constinit Level g_classLevels[kSizeClasses] = {};
constinit Level g_totalLevel = {};
constinit Amount g_inherited[kSizeClasses] = {};  // changes only where there is one thread
constinit Amount g_early = {};
constinit std::atomic<uint64_t> g_unrecorded{0};
constinit std::atomic<int64_t> g_stripesHeldSince{0};  // 0: not held for a fork

uint32_t Self() { return static_cast<uint32_t>(zelhost::NativeThreadId()); }

int64_t NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

bool ForkTakesTooLong() {
  const int64_t since = g_stripesHeldSince.load(std::memory_order_relaxed);
  return since != 0 && NowNs() - since > kForkPatienceNs;
}

Stripe& StripeOf(uint64_t hash) { return g_stripes[hash >> (64 - kStripeBits)]; }

// False when a fork keeps it for too long.
bool AcquireStripe(Stripe& stripe) {
  const uint32_t self = Self();
  while (__ZelTryToAcquireSpinLockTid(&stripe.lock, kTriesUntilYield, self) == 0) {
    if (ForkTakesTooLong()) return false;
    __ZelYield();
  }
  return true;
}

// Holds the stripe of one address, unless a fork keeps it for too long.
class StripeHold {
 public:
  explicit StripeHold(const void* block)
      : address_(reinterpret_cast<uintptr_t>(block)),
        hash_(HashAddress(address_)),
        stripe_(StripeOf(hash_)),
        isHeld_(AcquireStripe(stripe_)) {
    if (!isHeld_) [[unlikely]]
      g_unrecorded.fetch_add(1, std::memory_order_relaxed);
  }
  ~StripeHold() {
    if (isHeld_) __ZelReleaseSpinLock(&stripe_.lock);
  }
  StripeHold(const StripeHold&) = delete;
  StripeHold& operator=(const StripeHold&) = delete;

  bool IsHeld() const { return isHeld_; }
  uintptr_t Address() const { return address_; }
  Counters& Counts() const { return stripe_.counters; }

  LiveBlocks::Insertion Insert(size_t size, size_t* replacedSize) const {
    return stripe_.blocks.Insert(hash_, {address_, size}, replacedSize);
  }
  bool Remove(size_t* size) const { return stripe_.blocks.Remove(hash_, address_, size); }

 private:
  const uintptr_t address_;
  const uint64_t hash_;
  Stripe& stripe_;
  const bool isHeld_;
};

void CountCall(Counters& counters, Function function) {
  counters.calls[static_cast<size_t>(function)].Add(1);
}

void CountFreed(Counters& counters, size_t size) {
  CallingThread().CountFreed(size);
  const uint32_t sizeClass = SizeClassOf(size);
  counters.classes[sizeClass].frees.Add(1);
  counters.classes[sizeClass].freedBytes.Add(size);
  g_classLevels[sizeClass].Lower(size);
  g_totalLevel.Lower(size);
}

void CountAllocated(Counters& counters, size_t size) {
  CallingThread().CountAllocated(size);
  const uint32_t sizeClass = SizeClassOf(size);
  counters.classes[sizeClass].allocations.Add(1);
  counters.classes[sizeClass].allocatedBytes.Add(size);
  g_classLevels[sizeClass].Raise(size);
  g_totalLevel.Raise(size);
}

void Track(const StripeHold& hold, size_t size) {
  size_t replacedSize;
  switch (hold.Insert(size, &replacedSize)) {
    case LiveBlocks::Insertion::kReplaced:
      // Whatever freed the old block, it did not come by here.
      hold.Counts().unseenFrees.Add(1);
      LogProblem(Problem::kUnseenFree, hold.Address(), replacedSize);
      CountFreed(hold.Counts(), replacedSize);
      break;
    case LiveBlocks::Insertion::kNoMemory:
      hold.Counts().untracked.Add(1);
      LogProblem(Problem::kUntracked, hold.Address(), size);
      return;
    case LiveBlocks::Insertion::kAdded:
      break;
  }
  CountAllocated(hold.Counts(), size);
}

void Add(Amount& sum, Amount amount) {
  sum.blocks += amount.blocks;
  sum.bytes += amount.bytes;
}

}  // namespace

void RecordAllocation(Function function, const void* block, size_t size) {
  const StripeHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  Track(hold, size);
}

void RecordFailure(Function function, size_t size) {
  const StripeHold hold(nullptr);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  hold.Counts().failures.Add(1);
  LogFailure(function, size);
}

void RecordFree(const void* block) {
  const StripeHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), Function::kFree);
  if (block == nullptr) return;
  size_t size;
  if (hold.Remove(&size)) {
    CountFreed(hold.Counts(), size);
  } else {
    hold.Counts().unknownFrees.Add(1);
    LogProblem(Problem::kUnknownFree, hold.Address(), 0);
  }
}

TakenBlock TakeBlock(const void* block) {
  const StripeHold hold(block);
  TakenBlock taken = {false, 0};
  if (hold.IsHeld()) taken.isKnown = hold.Remove(&taken.size);
  return taken;
}

void PutBackBlock(Function function, const void* block, TakenBlock taken, size_t refusedSize) {
  const StripeHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  hold.Counts().failures.Add(1);
  LogFailure(function, refusedSize);
  size_t replacedSize;
  if (taken.isKnown && hold.Insert(taken.size, &replacedSize) == LiveBlocks::Insertion::kNoMemory) {
    // Its leaf was filled meanwhile and cannot be split.
    hold.Counts().untracked.Add(1);
    LogProblem(Problem::kUntracked, hold.Address(), taken.size);
    CountFreed(hold.Counts(), taken.size);
  }
}

void RecordReallocation(Function function, const void* old, TakenBlock taken, const void* block,
                        size_t size) {
  const StripeHold hold(block);
  if (!hold.IsHeld()) return;
  CountCall(hold.Counts(), function);
  if (taken.isKnown) {
    CountFreed(hold.Counts(), taken.size);
  } else {
    hold.Counts().unknownFrees.Add(1);
    LogProblem(Problem::kUnknownFree, reinterpret_cast<uintptr_t>(old), 0);
  }
  if (block != nullptr) Track(hold, size);
}

NoForkMeanwhile::NoForkMeanwhile() : isHeld_(AcquireStripe(StripeOf(HashAddress(0)))) {}
NoForkMeanwhile::~NoForkMeanwhile() {
  if (isHeld_) __ZelReleaseSpinLock(&StripeOf(HashAddress(0)).lock);
}

void HoldRecords() {
  const uint32_t self = Self();
  for (Stripe& stripe : g_stripes) __ZelAcquireSpinLockTid(&stripe.lock, self);
  g_stripesHeldSince.store(NowNs(), std::memory_order_relaxed);
}

void ReleaseRecords() {
  g_stripesHeldSince.store(0, std::memory_order_relaxed);
  for (Stripe& stripe : g_stripes) __ZelReleaseSpinLock(&stripe.lock);
}

void StartChildRecords() {
  Figures figures;
  ReadFigures(&figures);
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    g_inherited[i] = figures.classes[i].Live();
    g_classLevels[i].ForgetPeak();
  }
  g_totalLevel.ForgetPeak();
  g_unrecorded.store(0);
  StartChildThreads();
  for (Stripe& stripe : g_stripes) {
    Counters& counters = stripe.counters;
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
    }
  }
}

void ReadFigures(Figures* figures) {
  *figures = {};
  figures->unrecorded = g_unrecorded.load(std::memory_order_relaxed);
  for (const Stripe& stripe : g_stripes) {
    const Counters& counters = stripe.counters;
    for (size_t i = 0; i < kFunctions; ++i) figures->calls[i] += counters.calls[i].Get();
    figures->failures += counters.failures.Get();
    figures->unknownFrees += counters.unknownFrees.Get();
    figures->unseenFrees += counters.unseenFrees.Get();
    figures->untracked += counters.untracked.Get();
  }
  // Frees first: each one's allocation was counted before it.
  for (const Stripe& stripe : g_stripes) {
    for (uint32_t i = 0; i < kSizeClasses; ++i) {
      const ClassCounters& from = stripe.counters.classes[i];
      Add(figures->classes[i].freed, {from.frees.Get(), from.freedBytes.Get()});
    }
  }
  for (const Stripe& stripe : g_stripes) {
    for (uint32_t i = 0; i < kSizeClasses; ++i) {
      const ClassCounters& from = stripe.counters.classes[i];
      Add(figures->classes[i].allocated, {from.allocations.Get(), from.allocatedBytes.Get()});
    }
  }
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    ClassFigures& figuresOfClass = figures->classes[i];
    figuresOfClass.inherited = g_inherited[i];
    figuresOfClass.peakBytes = g_classLevels[i].Peak();
    Add(figures->total.inherited, figuresOfClass.inherited);
    Add(figures->total.allocated, figuresOfClass.allocated);
    Add(figures->total.freed, figuresOfClass.freed);
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
