// The locks' fast paths, for use inside the library. What they promise is in zelrt/locks.h.
//
// Spin lock: state is 1 from a successful exchange until the releasing one. owner, recursionCount
// are written by the holder alone, while state is 1. Any thread compares owner with its own id:
// only the thread itself ever stores that id, so the answer is right without the lock.
//
// Shared-exclusive lock: a reader registers in sharedCount, then makes sure that state is 1. state
// leaves 1 only together with a sharedCount of 0, both as one 64-bit exchange, so a registered
// reader that has seen state 1 holds the lock until it unregisters. exclusiveWaiting is a hint from
// waiting writers; one that is lost for a moment is set again at the next busy reading.
//
// The waits are in locks.cc. They finish the acquisition, so that the fast paths end in a jump to
// them and save no registers: what is restored after a locked instruction waits for it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/atomics.h"
#include "runtime/internal.h"
#include "zelrt/locks.h"

namespace zelrt {

static_assert(offsetof(ZelSpinLock, owner) == 0 && offsetof(ZelSpinLock, state) == 8 &&
              offsetof(ZelSpinLock, recursionCount) == 12 &&
              offsetof(ZelSpinLock, spinCount) == 16 && sizeof(ZelSpinLock) == 24);
static_assert(offsetof(ZelSharedExclusiveLock, state) == 0 &&
              offsetof(ZelSharedExclusiveLock, sharedCount) == 4 &&
              offsetof(ZelSharedExclusiveLock, exclusiveOwner) == 8 &&
              offsetof(ZelSharedExclusiveLock, exclusiveWaiting) == 16 &&
              offsetof(ZelSharedExclusiveLock, exclusiveRecursionCount) == 20 &&
              offsetof(ZelSharedExclusiveLock, spinCount) == 24 &&
              sizeof(ZelSharedExclusiveLock) == 32 && alignof(ZelSharedExclusiveLock) == 8);

inline constexpr uint32_t kFree = 0;
inline constexpr uint32_t kHeld = 1;       // a spin lock
inline constexpr uint32_t kShared = 1;     // a shared-exclusive lock
inline constexpr uint32_t kExclusive = 2;  // a shared-exclusive lock

inline constexpr uint64_t kNoOwner = 0;

// Set in an owner that is a thread pointer; no 32-bit id has it.
inline constexpr uint64_t kThreadPointerMark = uint64_t{1} << 63;

// What a thread leaves in the owner fields: its id, or, for id 0, which would read as "no owner",
// the address of its control block. That differs between live threads just as well.
inline uint64_t OwnerOf(uint32_t tid) {
  if (tid != 0) [[likely]]
    return tid;
  return reinterpret_cast<uintptr_t>(__builtin_thread_pointer()) | kThreadPointerMark;
}

inline uint64_t CallingOwner() { return OwnerOf(static_cast<uint32_t>(NativeThreadId())); }

// locks.cc: what is left of an acquisition that cannot be had at once.
void WaitForSpinLock(ZelSpinLock* lock, uint64_t self);
void WaitForSharedLock(ZelSharedExclusiveLock* lock);
void WaitForSharedState(ZelSharedExclusiveLock* lock);
void WaitForExclusiveLock(ZelSharedExclusiveLock* lock, uint64_t self);

// locks.cc: the try of zelrt/locks.h.
bool TryToAcquireSpinLock(ZelSpinLock* lock, uint32_t tries, uint64_t self);

// Spin lock
// -----------------------------------------------------------------------------------------

inline bool TryExchangeSpinLock(ZelSpinLock* lock) {
  return AtomicCompareExchange(lock->state, kHeld, kFree) == kFree;
}

inline bool ReenterSpinLock(ZelSpinLock* lock, uint64_t self) {
  if (LoadRelaxed(lock->owner) != self) return false;
  ++lock->recursionCount;
  return true;
}

inline void RecordSpinLockOwner(ZelSpinLock* lock, uint64_t self) {
  StoreRelaxed(lock->owner, self);
  lock->recursionCount = 1;
}

// One attempt, and none if the lock is seen to be busy.
inline bool AcquireSpinLockAtOnce(ZelSpinLock* lock, uint64_t self) {
  if (ReenterSpinLock(lock, self)) [[unlikely]]
    return true;
  if (LoadRelaxed(lock->state) != kFree || !TryExchangeSpinLock(lock)) [[unlikely]]
    return false;
  RecordSpinLockOwner(lock, self);
  return true;
}

inline void AcquireSpinLock(ZelSpinLock* lock, uint64_t self) {
  if (AcquireSpinLockAtOnce(lock, self)) [[likely]]
    return;
  WaitForSpinLock(lock, self);
}

// For a thread that knows it holds the lock.
inline void ReleaseHeldSpinLock(ZelSpinLock* lock) {
  if (lock->recursionCount >= 2) {
    --lock->recursionCount;
    return;
  }
  // Owner first: once state reads 0 another thread may take the lock and store its id, and a late
  // store from here would wipe that out.
  lock->recursionCount = 0;
  StoreRelaxed(lock->owner, kNoOwner);
  AtomicCompareExchange(lock->state, kFree, kHeld);
}

inline void ReleaseSpinLock(ZelSpinLock* lock) {
  if (LoadRelaxed(lock->state) == kHeld) ReleaseHeldSpinLock(lock);
}

inline bool IsSpinLockHeldBy(const ZelSpinLock* lock, uint64_t self) {
  return LoadRelaxed(lock->state) == kHeld && LoadRelaxed(lock->owner) == self;
}

// Shared-exclusive lock
// -----------------------------------------------------------------------------

inline void AcquireSharedLock(ZelSharedExclusiveLock* lock, uint64_t self) {
  if (LoadRelaxed(lock->exclusiveOwner) == self) return;
  if (LoadRelaxed(lock->exclusiveWaiting) != 0) [[unlikely]]
    return WaitForSharedLock(lock);
  AtomicExchangeAdd(lock->sharedCount, 1);
  if (LoadRelaxed(lock->state) == kExclusive ||
      AtomicCompareExchange(lock->state, kShared, kFree) == kExclusive) [[unlikely]]
    WaitForSharedState(lock);
}

inline void ReleaseSharedLock(ZelSharedExclusiveLock* lock, uint64_t self) {
  if (LoadRelaxed(lock->exclusiveOwner) == self) return;
  // A stray release must not take away the registration of a reader that still waits.
  if (LoadRelaxed(lock->state) != kShared) [[unlikely]]
    return;
  AtomicExchangeAdd(lock->sharedCount, ~uint32_t{0});
  // State and count as one word, state in the low half: the lock is free only if nobody registered
  // since. Whoever did sees state 1 and holds the lock.
  AtomicCompareExchangePair(&lock->state, kFree, kShared);
}

inline bool ReenterExclusiveLock(ZelSharedExclusiveLock* lock, uint64_t self) {
  if (LoadRelaxed(lock->exclusiveOwner) != self) return false;
  ++lock->exclusiveRecursionCount;
  return true;
}

inline bool TryExchangeExclusiveLock(ZelSharedExclusiveLock* lock) {
  return AtomicCompareExchange(lock->state, kExclusive, kFree) == kFree;
}

inline void RecordExclusiveOwner(ZelSharedExclusiveLock* lock, uint64_t self) {
  // Readers that have left published what they did by their decrement of sharedCount. The exchange
  // that freed the lock covered that word, but as part of a wider one; this makes it official.
  static_cast<void>(LoadAcquire(lock->sharedCount));
  StoreRelaxed(lock->exclusiveWaiting, 0);
  StoreRelaxed(lock->exclusiveOwner, self);
  lock->exclusiveRecursionCount = 1;
}

// One attempt, and none if the lock is seen to be busy.
inline bool AcquireExclusiveLockAtOnce(ZelSharedExclusiveLock* lock, uint64_t self) {
  if (ReenterExclusiveLock(lock, self)) return true;
  if (LoadRelaxed(lock->state) != kFree || !TryExchangeExclusiveLock(lock)) [[unlikely]]
    return false;
  RecordExclusiveOwner(lock, self);
  return true;
}

inline void AcquireExclusiveLock(ZelSharedExclusiveLock* lock, uint64_t self) {
  if (AcquireExclusiveLockAtOnce(lock, self)) [[likely]]
    return;
  WaitForExclusiveLock(lock, self);
}

inline void ReleaseExclusiveLock(ZelSharedExclusiveLock* lock) {
  if (LoadRelaxed(lock->state) != kExclusive) return;
  if (lock->exclusiveRecursionCount >= 2) {
    --lock->exclusiveRecursionCount;
    return;
  }
  lock->exclusiveRecursionCount = 0;
  StoreRelaxed(lock->exclusiveOwner, kNoOwner);  // before the exchange, as in ReleaseSpinLock
  AtomicCompareExchange(lock->state, kFree, kExclusive);
}

inline bool IsExclusiveLockHeldBy(const ZelSharedExclusiveLock* lock, uint64_t self) {
  return LoadRelaxed(lock->state) == kExclusive && LoadRelaxed(lock->exclusiveOwner) == self;
}

}  // namespace zelrt
