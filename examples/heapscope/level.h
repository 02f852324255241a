// Live bytes, and the most there have been.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace heapscope {

class Level {
 public:
  void Raise(size_t bytes) {
    const uint64_t now = bytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    uint64_t peak = Peak();
    while (now > peak && !peak_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
  }
  void Lower(size_t bytes) { bytes_.fetch_sub(bytes, std::memory_order_relaxed); }
  void ForgetPeak() { peak_.store(bytes_.load(std::memory_order_relaxed)); }
  uint64_t Live() const { return bytes_.load(std::memory_order_relaxed); }
  uint64_t Peak() const { return peak_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> bytes_{0};
  std::atomic<uint64_t> peak_{0};
};

}  // namespace heapscope
