/* Spin locks and shared-exclusive locks.
 *
 * Busy-wait locks that the caller embeds where it likes; the library allocates nothing for them and
 * a lock needs no tear-down. All bytes zero is a free lock with spin count 0. A waiter yields, it
 * never sleeps in the kernel: under a real-time policy a waiter of higher priority can starve the
 * holder. Nothing here reports an error, calls back or allocates.
 *
 * Threads are told apart by a 32-bit id: the ...Tid calls are given it, the others take the low
 * half of __ZelGetNativeThreadId() (zelrt/runtime.h). Id 0, also that of a process without the
 * hook, stands for the calling thread whoever it is: exclusion and recursion hold there too. One
 * thread must use one id for the acquisitions and releases of a hold. After a fork, a lock that
 * another thread held is held for ever in the child.
 *
 * Which calls may overlap on one lock:
 *   initialise             nothing else
 *   acquire, try, release  everything but initialise
 *   queries                everything; the answer about the calling thread is exact, the answer
 *                          about others may be old when it arrives */
#ifndef ZELRT_LOCKS_H
#define ZELRT_LOCKS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A lock for one holder at a time, who may take it again. The fields are for debuggers. */
typedef struct ZelSpinLock {
  uint64_t owner;          /* id of the holder, 0 when free */
  uint32_t state;          /* 0 free, 1 held; changes only by compare-exchange */
  uint32_t recursionCount; /* acquisitions that the holder has not undone yet */
  uint32_t spinCount;      /* busy readings before a waiter yields once; 0 yields every time */
} ZelSpinLock;

ZEL_API void __ZelInitializeSpinLock(ZelSpinLock* lock); /* free, spin count 0 */
ZEL_API void __ZelInitializeSpinLockAndSpinCount(ZelSpinLock* lock, uint32_t spinCount);

/* Waits until the thread holds the lock. A thread that has it already gets it again at once. */
ZEL_API void __ZelAcquireSpinLockTid(ZelSpinLock* lock, uint32_t tid);
ZEL_API void __ZelAcquireSpinLock(ZelSpinLock* lock);

/* Makes up to `tries` attempts, at least one, and never yields; only one on a single processor.
 * Returns 1 when the thread now holds the lock (once more, if it did already), 0 when it gave up.
 */
ZEL_API uint32_t __ZelTryToAcquireSpinLockTid(ZelSpinLock* lock, uint32_t tries, uint32_t tid);
ZEL_API uint32_t __ZelTryToAcquireSpinLock(ZelSpinLock* lock, uint32_t tries);

/* Undoes one acquisition. A free lock is left alone. Only the holder may call this; it is not
 * checked. */
ZEL_API void __ZelReleaseSpinLock(ZelSpinLock* lock);

/* 1 when any thread holds the lock, else 0. */
ZEL_API uint32_t __ZelIsSpinLockInAcquiredState(const ZelSpinLock* lock);

/* 1 when the calling thread holds the lock, else 0. */
ZEL_API uint32_t __ZelIsSpinLockAcquiredByCallingThread(const ZelSpinLock* lock);

/* A lock for many readers or one writer. The writer may take it again, exclusive or shared. Once a
 * writer waits, new readers hold back; so a thread that holds the lock shared must not ask for it
 * again, neither shared (a waiting writer would stop it) nor exclusive (it would wait for itself).
 * The fields are for debuggers. */
typedef struct ZelSharedExclusiveLock {
  uint32_t state;                   /* 0 free, 1 held shared, 2 held exclusive */
  uint32_t sharedCount;             /* readers that hold the lock shared or wait to */
  uint64_t exclusiveOwner;          /* id of the writer that holds the lock, 0 when none does */
  uint32_t exclusiveWaiting;        /* 1 while a writer waits; new readers hold back */
  uint32_t exclusiveRecursionCount; /* exclusive acquisitions not undone yet */
  uint32_t spinCount;               /* as in ZelSpinLock */
} ZelSharedExclusiveLock;

ZEL_API void __ZelInitializeSharedExclusiveLock(ZelSharedExclusiveLock* lock);
ZEL_API void __ZelInitializeSharedExclusiveLockAndSpinCount(ZelSharedExclusiveLock* lock,
                                                            uint32_t spinCount);

/* Waits until the thread may read. For the writer itself this does nothing. */
ZEL_API void __ZelAcquireSharedLock(ZelSharedExclusiveLock* lock);
ZEL_API void __ZelAcquireSharedLockTid(ZelSharedExclusiveLock* lock, uint32_t tid);

/* Gives up a shared hold. For the writer itself, and on a lock not held shared, nothing happens. */
ZEL_API void __ZelReleaseSharedLock(ZelSharedExclusiveLock* lock);
ZEL_API void __ZelReleaseSharedLockTid(ZelSharedExclusiveLock* lock, uint32_t tid);

/* Waits until the thread may write. A thread that may already gets the lock again at once. */
ZEL_API void __ZelAcquireExclusiveLock(ZelSharedExclusiveLock* lock);
ZEL_API void __ZelAcquireExclusiveLockTid(ZelSharedExclusiveLock* lock, uint32_t tid);

/* As __ZelTryToAcquireSpinLock. A writer that only tries holds no reader back. */
ZEL_API uint32_t __ZelTryToAcquireExclusiveLock(ZelSharedExclusiveLock* lock, uint32_t tries);

/* Undoes one exclusive acquisition. A lock not held exclusive is left alone. Only the holder may
 * call this; it is not checked. */
ZEL_API void __ZelReleaseExclusiveLock(ZelSharedExclusiveLock* lock);

/* 1 when the calling thread holds the lock exclusive, else 0. */
ZEL_API uint32_t __ZelIsExclusiveLockAcquiredByCallingThread(const ZelSharedExclusiveLock* lock);

#ifdef __cplusplus
}
#endif

#endif
