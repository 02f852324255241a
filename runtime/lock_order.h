// The order in which the library's own locks nest, and guards that keep to it.
//
// A thread may take a lock when every lock it holds stands before it in LockRank, or when it holds
// that very lock already. Builds that check themselves end the process at the first acquisition out
// of order, also when nobody would have waited for it; other builds carry nothing of this.
//
// Locks that clients embed have no rank: their order is their owners' business.
#pragma once

#include <cstdint>

#include "runtime/internal.h"
#include "runtime/locks.h"

namespace zelrt {

// Outermost first. The names below, in the same order, are for reports.
enum class LockRank : uint32_t {
  kPreAllocationCheck,
  kSystemAllocation,
  kLogFile,
  kSizeClassBucket,
  kStatistics,
};

inline constexpr const char* kLockNames[] = {
    "pre-allocation check", "system allocation", "log file", "size-class bucket", "statistics",
};

// lock_order.cc: notes the calling thread's holds; only called where kDebugChecks is true.
void NoteLockWanted(const void* lock, LockRank rank);
void NoteLockReleased(const void* lock);

// Says that a guard takes over a hold that its thread already has.
struct Adopt {};
// Says that a guard must not wait.
struct AtOnce {};

// Holds one of the library's spin locks. The caller asks for its owner value once per operation and
// passes it to each guard.
template <LockRank kRank>
class SpinGuard {
 public:
  SpinGuard(ZelSpinLock* lock, uint64_t self) : lock_(lock) {
    if constexpr (kDebugChecks) NoteLockWanted(lock, kRank);
    AcquireSpinLock(lock, self);
  }
  SpinGuard(AtOnce, ZelSpinLock* lock, uint64_t self)
      : lock_(AcquireSpinLockAtOnce(lock, self) ? lock : nullptr) {
    if constexpr (kDebugChecks) {
      if (IsHeld()) NoteLockWanted(lock, kRank);
    }
  }
  SpinGuard(Adopt, ZelSpinLock* lock) : lock_(lock) {}
  ~SpinGuard() { Release(); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;

  bool IsHeld() const { return lock_ != nullptr; }

  // Ends the hold before the scope does.
  void Release() {
    if (lock_ == nullptr) return;
    if constexpr (kDebugChecks) NoteLockReleased(lock_);
    ReleaseHeldSpinLock(lock_);
    lock_ = nullptr;
  }

  // Leaves the hold to a guard that adopts it.
  void Leave() { lock_ = nullptr; }

 private:
  ZelSpinLock* lock_;
};

// Gives up all holds of the calling thread on the lock, for a thread that will not return to the
// guards that made them.
void AbandonSpinLock(ZelSpinLock* lock, uint64_t self);

}  // namespace zelrt
