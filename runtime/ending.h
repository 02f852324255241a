// Who ends the process.
#pragma once

#include <time.h>

#include <cstdint>

namespace zelrt {

enum class EndClaim {
  kFirst,  // the caller reports and ends the process
  kAgain,  // the caller is doing so already: this is a fault on the way
  kOther,  // another thread is, and has had half a minute to do it
};

// Asked where a fatal condition is met. At most one thread of a process gets kFirst.
EndClaim ClaimEndOfProcess(uint64_t self);

// Whether this thread got it.
bool IsEndingProcess(uint64_t self);

// How long the ending thread waits for what may never come free: the holder may be the thread
// itself, or one that a fork has left behind.
inline constexpr int64_t kEndingPatienceMs = 500;

class Deadline {
 public:
  explicit Deadline(int64_t milliseconds) : end_(NowMs() + milliseconds) {}
  bool HasPassed() const { return NowMs() >= end_; }

 private:
  static int64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
  }
  const int64_t end_;
};

}  // namespace zelrt
