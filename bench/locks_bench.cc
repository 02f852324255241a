// Locks: the cost of a pair of acquire and release, free and with two threads at it.
//
// The floor of a free pair is its locked instructions, bare and inline, in the order in which they
// have to come. The floor of a contended one is the least that excludes: those instructions, and a
// yield whenever the lock is busy.

#include <pthread.h>
#include <sched.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "bench/absl_mutex.h"
#include "bench/floor.h"
#include "bench/suite.h"
#include "bench/two_threads.h"
#include "zelrt/locks.h"
#include "zelrt/runtime.h"

namespace bench {
namespace {

// Every lock gets the interface of std::mutex, and of std::shared_mutex where it can do that.

struct OurSpinLock {
  void lock() { __ZelAcquireSpinLock(&zel); }
  void unlock() { __ZelReleaseSpinLock(&zel); }
  ZelSpinLock zel = {};
};

struct OurSpinLockTid {
  void lock() { __ZelAcquireSpinLockTid(&zel, tid); }
  void unlock() { __ZelReleaseSpinLock(&zel); }
  ZelSpinLock zel = {};
  const uint32_t tid = static_cast<uint32_t>(__ZelGetNativeThreadId());
};

struct OurSharedLock {
  void lock() { __ZelAcquireExclusiveLock(&zel); }
  void unlock() { __ZelReleaseExclusiveLock(&zel); }
  void lock_shared() { __ZelAcquireSharedLock(&zel); }
  void unlock_shared() { __ZelReleaseSharedLock(&zel); }
  ZelSharedExclusiveLock zel = {};
};

struct OurSharedLockTid {
  void lock() { __ZelAcquireExclusiveLockTid(&zel, tid); }
  void unlock() { __ZelReleaseExclusiveLock(&zel); }
  void lock_shared() { __ZelAcquireSharedLockTid(&zel, tid); }
  void unlock_shared() { __ZelReleaseSharedLockTid(&zel, tid); }
  ZelSharedExclusiveLock zel = {};
  const uint32_t tid = static_cast<uint32_t>(__ZelGetNativeThreadId());
};

// The pair without a look at what the exchanges answer.
struct SpinFloor {
  void lock() { CompareExchange(&state, 0u, 1u); }
  void unlock() { CompareExchange(&state, 1u, 0u); }
  uint32_t state = 0;
};

struct ContendedSpinFloor {
  void lock() {
    while (CompareExchange(&state, 0u, 1u) != 0) sched_yield();
  }
  void unlock() { CompareExchange(&state, 1u, 0u); }
  uint32_t state = 0;
};

struct SharedFloor : SharedWords {
  void lock_shared() {
    __atomic_fetch_add(Readers(), 1, __ATOMIC_SEQ_CST);
    CompareExchange<uint32_t>(State(), kFree, kShared);
  }
  void unlock_shared() { LeaveShared(); }
};

struct PthreadSpin {
  PthreadSpin() { pthread_spin_init(&spin, PTHREAD_PROCESS_PRIVATE); }
  void lock() { pthread_spin_lock(&spin); }
  void unlock() { pthread_spin_unlock(&spin); }
  pthread_spinlock_t spin;
};

#ifdef ZELRT_BENCH_HAS_ABSL
Run IfThereIsAbsl(Run run) { return run; }
#else
using AbslMutex = std::shared_mutex;  // in place of it, so that the rest compiles; never run
Run IfThereIsAbsl(Run) { return nullptr; }
#endif

// Turns the shared side of a lock to the works that know one side only.
template <typename Lock>
struct SharedSide {
  void lock() { lockOfTwoSides.lock_shared(); }
  void unlock() { lockOfTwoSides.unlock_shared(); }
  Lock lockOfTwoSides;
};

constexpr size_t kCacheLine = 64;

// The works.

template <typename Lock>
void FreePair(benchmark::State& state) {
  alignas(kCacheLine) Lock lock;
  benchmark::DoNotOptimize(&lock);
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
}

template <typename Lock>
void RecursivePair(benchmark::State& state) {
  alignas(kCacheLine) Lock lock;
  benchmark::DoNotOptimize(&lock);
  for (auto _ : state) {
    lock.lock();
    lock.lock();
    lock.unlock();
    lock.unlock();
  }
}

constexpr uint32_t kSectionsPerRound = 100'000;

// The threads share out the sections of a round as they come to the lock: neither is ever left to
// finish alone, however unfair the lock.
template <typename Lock>
void ContendedPair(benchmark::State& state) {
  alignas(kCacheLine) Lock lock;
  alignas(kCacheLine) uint32_t left = 0;
  while (state.KeepRunningBatch(kSectionsPerRound)) {
    left = kSectionsPerRound;
    state.SetIterationTime(RunOnBothThreads([&](int) {
      for (bool goOn = true; goOn;) {
        lock.lock();
        goOn = left > 0;
        if (goOn) --left;
        lock.unlock();
      }
    }));
  }
}

using SharedData = std::array<uint64_t, 4>;

uint64_t Sum(const SharedData& data) {
  uint64_t sum = 0;
  for (const uint64_t& word : data) sum += __atomic_load_n(&word, __ATOMIC_RELAXED);
  return sum;
}

template <typename Lock>
void ContendedReaders(benchmark::State& state) {
  alignas(kCacheLine) Lock lock;
  alignas(kCacheLine) SharedData data = {1, 2, 3, 4};
  while (state.KeepRunningBatch(kSectionsPerRound)) {
    state.SetIterationTime(RunOnBothThreads([&](int) {
      for (uint32_t left = kSectionsPerRound / 2; left > 0; --left) {
        lock.lock_shared();
        benchmark::DoNotOptimize(Sum(data));
        lock.unlock_shared();
      }
    }));
  }
}

// Of twenty sections in a row one is exclusive; the threads share out these rows.
template <typename Lock>
void ContendedMix(benchmark::State& state) {
  constexpr uint32_t kRow = 20;
  alignas(kCacheLine) Lock lock;
  alignas(kCacheLine) SharedData data = {1, 2, 3, 4};
  alignas(kCacheLine) uint32_t rowsLeft = 0;
  while (state.KeepRunningBatch(kSectionsPerRound)) {
    rowsLeft = kSectionsPerRound / kRow;
    state.SetIterationTime(RunOnBothThreads([&](int) {
      for (bool goOn = true; goOn;) {
        lock.lock();
        goOn = rowsLeft > 0;
        if (goOn) --rowsLeft;
        for (uint64_t& word : data) ++word;
        benchmark::DoNotOptimize(data);
        lock.unlock();
        for (uint32_t i = 1; goOn && i < kRow; ++i) {
          lock.lock_shared();
          benchmark::DoNotOptimize(Sum(data));
          lock.unlock_shared();
        }
      }
    }));
  }
}

constexpr char kTid[] = "with tid";
constexpr char kPthreadSpin[] = "pthread_spin";
constexpr char kMutex[] = "std::mutex";
constexpr char kRecursiveMutex[] = "recursive_mutex";
constexpr char kSharedMutex[] = "shared_mutex";
constexpr char kAbslMutex[] = "absl::Mutex";

Work FreeSpinPair() {
  return {.name = "spin lock pair, free",
          .contenders = {{kOurs, Role::kOurs, FreePair<OurSpinLock>},
                         {kTid, Role::kVariant, FreePair<OurSpinLockTid>},
                         {kFloor, Role::kBound, FreePair<SpinFloor>},
                         {kPthreadSpin, Role::kPeer, FreePair<PthreadSpin>},
                         {kMutex, Role::kPeer, FreePair<std::mutex>},
                         {kAbslMutex, Role::kPeer, IfThereIsAbsl(FreePair<AbslMutex>)}},
          .goals = {AtMost(1.5, kFloor), AtMost(1.25, kMutex)}};
}

Work RecursiveSpinPair() {
  return {.name = "spin lock, a pair inside a pair",
          .contenders = {{kOurs, Role::kOurs, RecursivePair<OurSpinLock>},
                         {kTid, Role::kVariant, RecursivePair<OurSpinLockTid>},
                         {kFloor, Role::kBound, FreePair<SpinFloor>},
                         {kRecursiveMutex, Role::kPeer, RecursivePair<std::recursive_mutex>}},
          .goals = {AtMost(0.75, kRecursiveMutex)}};
}

Work FreeSharedPair() {
  return {.name = "shared pair, free",
          .contenders = {{kOurs, Role::kOurs, FreePair<SharedSide<OurSharedLock>>},
                         {kTid, Role::kVariant, FreePair<SharedSide<OurSharedLockTid>>},
                         {kFloor, Role::kBound, FreePair<SharedSide<SharedFloor>>},
                         {kSharedMutex, Role::kPeer, FreePair<SharedSide<std::shared_mutex>>},
                         {kAbslMutex, Role::kPeer, IfThereIsAbsl(FreePair<SharedSide<AbslMutex>>)}},
          .goals = {AtMost(1.3, kFloor)}};
}

Work FreeExclusivePair() {
  return {.name = "exclusive pair, free",
          .contenders = {{kOurs, Role::kOurs, FreePair<OurSharedLock>},
                         {kTid, Role::kVariant, FreePair<OurSharedLockTid>},
                         {kFloor, Role::kBound, FreePair<SpinFloor>},
                         {kSharedMutex, Role::kPeer, FreePair<std::shared_mutex>}},
          .goals = {AheadOf(kSharedMutex)}};
}

Work ContendedSpin() {
  return {
      .name = "spin lock, 2 threads",
      .measure = Measure::kManualTime,
      .contenders = {{kOurs, Role::kOurs, ContendedPair<OurSpinLock>},
                     {kFloor, Role::kBound, ContendedPair<ContendedSpinFloor>},
                     {kPthreadSpin, Role::kPeer, ContendedPair<PthreadSpin>},
                     {kMutex, Role::kPeer, ContendedPair<std::mutex>},
                     {kAbslMutex, Role::kPeer, IfThereIsAbsl(ContendedPair<AbslMutex>)}},
      .goals = {AtMost(1.3, kFloor), AheadOf(kPthreadSpin), AheadOf(kMutex), AheadOf(kAbslMutex)}};
}

Work ContendedShared() {
  return {.name = "shared, 2 threads",
          .measure = Measure::kManualTime,
          .contenders = {{kOurs, Role::kOurs, ContendedReaders<OurSharedLock>},
                         {kFloor, Role::kBound, ContendedReaders<ContendedSharedFloor>},
                         {kSharedMutex, Role::kPeer, ContendedReaders<std::shared_mutex>},
                         {kAbslMutex, Role::kPeer, IfThereIsAbsl(ContendedReaders<AbslMutex>)}},
          .goals = {AtMost(1.3, kFloor)}};
}

Work ContendedExclusive() {
  return {.name = "exclusive, 2 threads",
          .measure = Measure::kManualTime,
          .contenders = {{kOurs, Role::kOurs, ContendedPair<OurSharedLock>},
                         {kFloor, Role::kBound, ContendedPair<ContendedSharedFloor>},
                         {kSharedMutex, Role::kPeer, ContendedPair<std::shared_mutex>}},
          .goals = {AtMost(1.3, kFloor), AheadOf(kSharedMutex)}};
}

Work ContendedReadersAndWriters() {
  return {.name = "95 % shared, 2 threads",
          .measure = Measure::kManualTime,
          .contenders = {{kOurs, Role::kOurs, ContendedMix<OurSharedLock>},
                         {kFloor, Role::kBound, ContendedMix<ContendedSharedFloor>},
                         {kSharedMutex, Role::kPeer, ContendedMix<std::shared_mutex>},
                         {kAbslMutex, Role::kPeer, IfThereIsAbsl(ContendedMix<AbslMutex>)}},
          .goals = {AtMost(1.3, kFloor)}};
}

}  // namespace

Family Locks() {
  return {"locks",
          "ns",
          {FreeSpinPair(), RecursiveSpinPair(), FreeSharedPair(), FreeExclusivePair(),
           ContendedSpin(), ContendedShared(), ContendedExclusive(), ContendedReadersAndWriters()}};
}

}  // namespace bench
