// Who holds what, for builds that check the order of locks.

#include "runtime/lock_order.h"

#include <iterator>

namespace zelrt {

#ifdef ZELRT_DEBUG_CHECKS

namespace {

static_assert(std::size(kLockNames) == static_cast<uint32_t>(LockRank::kStatistics) + 1);

struct HeldLock {
  const void* lock;
  LockRank rank;
};

// The calling thread's holds, oldest first; a lock held twice is in it twice. Initial-exec storage:
// the lazy kind may allocate from the host's heap at a thread's first access.
constexpr uint32_t kMaxHeldLocks = 32;
constinit thread_local HeldLock t_heldLocks[kMaxHeldLocks] = {};
constinit thread_local uint32_t t_heldCount = 0;

}  // namespace

void NoteLockWanted(const void* lock, LockRank rank) {
  const HeldLock* outOfOrder = nullptr;
  for (uint32_t i = 0; i < t_heldCount; ++i) {
    if (t_heldLocks[i].lock == lock) {
      outOfOrder = nullptr;
      break;
    }
    if (t_heldLocks[i].rank >= rank) outOfOrder = &t_heldLocks[i];
  }
  if (outOfOrder != nullptr) {
    const auto held = static_cast<uint32_t>(outOfOrder->rank);
    t_heldCount = 0;  // the report takes locks of its own
    __ZelLogFatalToolDefect("Lock order: the %s lock was asked for while the %s lock is held",
                            kLockNames[static_cast<uint32_t>(rank)], kLockNames[held]);
  }
  if (t_heldCount == kMaxHeldLocks) __ZelLogFatalToolDefect("Lock order: too many locks held");
  t_heldLocks[t_heldCount++] = {lock, rank};
}

void NoteLockReleased(const void* lock) {
  for (uint32_t i = t_heldCount; i > 0; --i) {
    if (t_heldLocks[i - 1].lock != lock) continue;
    for (--t_heldCount; i <= t_heldCount; ++i) t_heldLocks[i - 1] = t_heldLocks[i];
    return;
  }
}

#endif

void AbandonSpinLock(ZelSpinLock* lock, uint64_t self) {
  while (IsSpinLockHeldBy(lock, self)) {
    if constexpr (kDebugChecks) NoteLockReleased(lock);
    ReleaseSpinLock(lock);
  }
}

}  // namespace zelrt
