// The smallest lock: one word, no owner, not recursive. Serialises what happens once or seldom.
#pragma once

#include "runtime/atomics.h"
#include "zelrt/runtime.h"

namespace zelrt {

class SpinFlag {
 public:
  void Take() {
    while (!TryTake()) __ZelYield();
  }
  bool TryTake() { return AtomicCompareExchange(taken_, 1, 0) == 0; }
  void GiveBack() { StoreRelease(taken_, 0); }

 private:
  uint32_t taken_ = 0;
};

class SpinFlagGuard {
 public:
  explicit SpinFlagGuard(SpinFlag& flag) : flag_(flag) { flag_.Take(); }
  ~SpinFlagGuard() { flag_.GiveBack(); }
  SpinFlagGuard(const SpinFlagGuard&) = delete;
  SpinFlagGuard& operator=(const SpinFlagGuard&) = delete;

 private:
  SpinFlag& flag_;
};

}  // namespace zelrt
