// A lock that nobody has to wait for: whoever finds it taken does without.
#pragma once

#include <atomic>

namespace heapscope {

class TryFlag {
 public:
  // Tries to take the flag, and gives it back if that worked.
  explicit TryFlag(std::atomic<bool>& flag)
      : flag_(flag), isOurs_(!flag.exchange(true, std::memory_order_acquire)) {}
  ~TryFlag() {
    if (isOurs_) flag_.store(false, std::memory_order_release);
  }
  TryFlag(const TryFlag&) = delete;
  TryFlag& operator=(const TryFlag&) = delete;

  bool IsOurs() const { return isOurs_; }

 private:
  std::atomic<bool>& flag_;
  const bool isOurs_;
};

}  // namespace heapscope
