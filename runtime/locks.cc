// The locks' waits and their exported calls. Invariants are stated in locks.h.

#include "runtime/locks.h"

#include "runtime/back_off.h"
#include "runtime/internal.h"
#include "zelrt/locks.h"

namespace zelrt {
namespace {

// Rounds of a try: attempts that neither yield nor wait. More than one makes no sense when the
// holder cannot run meanwhile.
template <typename TryExchange>
bool TryRounds(const uint32_t& state, uint32_t tries, TryExchange tryExchange) {
  if (tries == 0 || __ZelGetNProcs() == 1) return tryExchange();
  for (; tries > 0; --tries) {
    if (LoadRelaxed(state) == kFree && tryExchange()) return true;
  }
  return false;
}

bool TryToAcquireExclusiveLock(ZelSharedExclusiveLock* lock, uint32_t tries, uint64_t self) {
  if (ReenterExclusiveLock(lock, self)) return true;
  if (!TryRounds(lock->state, tries, [lock] { return TryExchangeExclusiveLock(lock); }))
    return false;
  RecordExclusiveOwner(lock, self);
  return true;
}

}  // namespace

bool TryToAcquireSpinLock(ZelSpinLock* lock, uint32_t tries, uint64_t self) {
  if (ReenterSpinLock(lock, self)) return true;
  if (!TryRounds(lock->state, tries, [lock] { return TryExchangeSpinLock(lock); })) return false;
  RecordSpinLockOwner(lock, self);
  return true;
}

void WaitForSpinLock(ZelSpinLock* lock, uint64_t self) {
  BackOff backOff(lock->spinCount);
  for (;;) {
    if (LoadRelaxed(lock->state) != kFree && !backOff.Step()) continue;
    if (TryExchangeSpinLock(lock)) return RecordSpinLockOwner(lock, self);
  }
}

void WaitForSharedLock(ZelSharedExclusiveLock* lock) {
  BackOff backOff(lock->spinCount);
  while (LoadRelaxed(lock->exclusiveWaiting) != 0) backOff.Step();
  AtomicExchangeAdd(lock->sharedCount, 1);
  WaitForSharedState(lock);
}

void WaitForSharedState(ZelSharedExclusiveLock* lock) {
  BackOff backOff(lock->spinCount);
  for (;;) {
    if (LoadRelaxed(lock->state) == kExclusive) {
      backOff.Step();
    } else if (AtomicCompareExchange(lock->state, kShared, kFree) != kExclusive) {
      return;
    }
  }
}

void WaitForExclusiveLock(ZelSharedExclusiveLock* lock, uint64_t self) {
  BackOff backOff(lock->spinCount);
  for (;;) {
    if (LoadRelaxed(lock->state) != kFree) {
      if (LoadRelaxed(lock->exclusiveWaiting) == 0) StoreRelaxed(lock->exclusiveWaiting, 1);
      if (!backOff.Step()) continue;
    }
    if (TryExchangeExclusiveLock(lock)) return RecordExclusiveOwner(lock, self);
  }
}

}  // namespace zelrt

using namespace zelrt;

void __ZelInitializeSpinLock(ZelSpinLock* lock) { __ZelInitializeSpinLockAndSpinCount(lock, 0); }

void __ZelInitializeSpinLockAndSpinCount(ZelSpinLock* lock, uint32_t spinCount) {
  *lock = {.owner = kNoOwner, .state = kFree, .recursionCount = 0, .spinCount = spinCount};
}

void __ZelAcquireSpinLockTid(ZelSpinLock* lock, uint32_t tid) {
  AcquireSpinLock(lock, OwnerOf(tid));
}
void __ZelAcquireSpinLock(ZelSpinLock* lock) { AcquireSpinLock(lock, CallingOwner()); }

uint32_t __ZelTryToAcquireSpinLockTid(ZelSpinLock* lock, uint32_t tries, uint32_t tid) {
  return TryToAcquireSpinLock(lock, tries, OwnerOf(tid)) ? 1 : 0;
}
uint32_t __ZelTryToAcquireSpinLock(ZelSpinLock* lock, uint32_t tries) {
  return TryToAcquireSpinLock(lock, tries, CallingOwner()) ? 1 : 0;
}

void __ZelReleaseSpinLock(ZelSpinLock* lock) { ReleaseSpinLock(lock); }

uint32_t __ZelIsSpinLockInAcquiredState(const ZelSpinLock* lock) {
  return LoadRelaxed(lock->state) == kHeld ? 1 : 0;
}
uint32_t __ZelIsSpinLockAcquiredByCallingThread(const ZelSpinLock* lock) {
  return IsSpinLockHeldBy(lock, CallingOwner()) ? 1 : 0;
}

void __ZelInitializeSharedExclusiveLock(ZelSharedExclusiveLock* lock) {
  __ZelInitializeSharedExclusiveLockAndSpinCount(lock, 0);
}

void __ZelInitializeSharedExclusiveLockAndSpinCount(ZelSharedExclusiveLock* lock,
                                                    uint32_t spinCount) {
  *lock = {.state = kFree,
           .sharedCount = 0,
           .exclusiveOwner = kNoOwner,
           .exclusiveWaiting = 0,
           .exclusiveRecursionCount = 0,
           .spinCount = spinCount};
}

void __ZelAcquireSharedLock(ZelSharedExclusiveLock* lock) {
  AcquireSharedLock(lock, CallingOwner());
}
void __ZelAcquireSharedLockTid(ZelSharedExclusiveLock* lock, uint32_t tid) {
  AcquireSharedLock(lock, OwnerOf(tid));
}

void __ZelReleaseSharedLock(ZelSharedExclusiveLock* lock) {
  ReleaseSharedLock(lock, CallingOwner());
}
void __ZelReleaseSharedLockTid(ZelSharedExclusiveLock* lock, uint32_t tid) {
  ReleaseSharedLock(lock, OwnerOf(tid));
}

void __ZelAcquireExclusiveLock(ZelSharedExclusiveLock* lock) {
  AcquireExclusiveLock(lock, CallingOwner());
}
void __ZelAcquireExclusiveLockTid(ZelSharedExclusiveLock* lock, uint32_t tid) {
  AcquireExclusiveLock(lock, OwnerOf(tid));
}

uint32_t __ZelTryToAcquireExclusiveLock(ZelSharedExclusiveLock* lock, uint32_t tries) {
  return TryToAcquireExclusiveLock(lock, tries, CallingOwner()) ? 1 : 0;
}

void __ZelReleaseExclusiveLock(ZelSharedExclusiveLock* lock) { ReleaseExclusiveLock(lock); }

uint32_t __ZelIsExclusiveLockAcquiredByCallingThread(const ZelSharedExclusiveLock* lock) {
  return IsExclusiveLockHeldBy(lock, CallingOwner()) ? 1 : 0;
}
