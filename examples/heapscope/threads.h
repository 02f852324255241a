// What each thread allocated and freed.
#pragma once

#include "examples/heapscope/internal.h"

namespace heapscope {

// The counters of a thread, or those that the threads share for which there was no place.
class ThreadCounters {
 public:
  void TakeFor(uint32_t thread) { thread_.store(thread, std::memory_order_relaxed); }

  void CountAllocated(size_t bytes) {
    Add(allocations_, 1);
    Add(allocatedBytes_, bytes);
  }
  void CountFreed(size_t bytes) {
    Add(frees_, 1);
    Add(freedBytes_, bytes);
  }

  void Reset() {
    for (auto* const counter : {&allocations_, &allocatedBytes_, &frees_, &freedBytes_})
      counter->store(0, std::memory_order_relaxed);
  }

  ThreadFigures Read() const {
    return {thread_.load(std::memory_order_relaxed),
            {allocations_.load(std::memory_order_relaxed),
             allocatedBytes_.load(std::memory_order_relaxed)},
            {frees_.load(std::memory_order_relaxed), freedBytes_.load(std::memory_order_relaxed)}};
  }

 private:
  using Counter = std::atomic<uint64_t>;

  // A locked instruction only where another thread may count at the same time.
  void Add(Counter& counter, uint64_t amount) {
    if (thread_.load(std::memory_order_relaxed) == 0) [[unlikely]] {
      counter.fetch_add(amount, std::memory_order_relaxed);
    } else {
      counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
    }
  }

  alignas(64) std::atomic<uint32_t> thread_{0};  // the kernel's id; 0: shared
  Counter allocations_{0};
  Counter allocatedBytes_{0};
  Counter frees_{0};
  Counter freedBytes_{0};
};

ThreadCounters& CallingThread();

}  // namespace heapscope
