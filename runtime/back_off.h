// How a waiter passes the time between two readings of a busy word.
#pragma once

#include <cstdint>

#include "zelrt/runtime.h"

namespace zelrt {

class BackOff {
 public:
  // The readings before a waiter yields once; 0 yields every time. On one processor nobody can
  // change the word while the waiter runs, so there too it yields every time.
  explicit BackOff(uint32_t spinCount) : spinCount_(spinCount) {}

  // True when the step was a yield, after which an exchange is worth trying without a look.
  bool Step() {
    if (__ZelGetNProcs() != 1 && ++spins_ < spinCount_) return false;
    spins_ = 0;
    __ZelYield();
    return true;
  }

 private:
  const uint32_t spinCount_;
  uint32_t spins_ = 0;
};

}  // namespace zelrt
