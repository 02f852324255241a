// The places in the program that allocate, and what came of it.
#pragma once

#include "examples/heapscope/call_path.h"
#include "examples/heapscope/internal.h"
#include "examples/heapscope/level.h"

namespace heapscope {

// Threads count at the same time. live = inherited + allocated - freed.
class alignas(64) Site {
 public:
  void CountAllocated(size_t size) {
    allocations_.fetch_add(1, std::memory_order_relaxed);
    allocatedBytes_.fetch_add(size, std::memory_order_relaxed);
    live_.Raise(size);
  }
  void CountFreed(size_t size) {
    frees_.fetch_add(1, std::memory_order_relaxed);
    live_.Lower(size);
  }
  // Freed by the thread that had allocated it, and nothing else since.
  void CountTemporary(size_t size) {
    temporaries_.fetch_add(1, std::memory_order_relaxed);
    temporaryBytes_.fetch_add(size, std::memory_order_relaxed);
  }
  void StartAnew();  // with what is live as inherited; no other thread may count
  SiteFigures Read() const;

  // Null for all that found no site of their own.
  void SetPath(const SitePath* path) { path_.store(path, std::memory_order_release); }

 private:
  std::atomic<const SitePath*> path_{nullptr};
  std::atomic<uint64_t> allocations_{0};
  std::atomic<uint64_t> allocatedBytes_{0};
  std::atomic<uint64_t> frees_{0};
  Level live_;
  Amount inherited_ = {0, 0};
  // On a line of their own: few calls come here.
  std::atomic<uint64_t> temporaries_{0};
  std::atomic<uint64_t> temporaryBytes_{0};
};
static_assert(sizeof(Site) == 128);

inline constexpr uint32_t kSiteBits = 20;

// The number of the site that a path leads to; made if need be, 0 if it cannot. For a thread that
// holds a shard's lock.
uint32_t FindSite(const CallPath& path);

Site& SiteAt(uint32_t number);

}  // namespace heapscope
