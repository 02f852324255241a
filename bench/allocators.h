// The contenders of the allocator. An object serves one thread; blocks may be freed through another
// thread's object. Calls leave this program as a client's do: to a shared library.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>

#include "bench/allocator_model.h"
#include "bench/peer_libraries.h"
#include "zelrt/memory.h"

namespace bench {

inline constexpr uint32_t kCategories = AllocatorModel::kCategories;

struct OurAllocator {
  void* Allocate(uint32_t category, size_t size) { return __ZelMalloc(category, size, 0); }
  void Free(void* block) { __ZelFree(block); }
};

struct Glibc {
  void* Allocate(uint32_t, size_t size) { return std::malloc(size); }
  void Free(void* block) { std::free(block); }
};

template <const PeerLibrary& kLibrary>
struct LoadedAllocator {
  static bool IsThere() { return allocate != nullptr && release != nullptr; }

  void* Allocate(uint32_t, size_t size) { return allocate(size); }
  void Free(void* block) { release(block); }

  static inline void* const library = LoadPeer(kLibrary);
  static inline auto* const allocate = FindFunction<void*(size_t)>(library, kLibrary.allocate);
  static inline auto* const release = FindFunction<void(void*)>(library, kLibrary.release);
};

using Jemalloc = LoadedAllocator<kJemalloc>;
using Mimalloc = LoadedAllocator<kMimalloc>;
using Tcmalloc = LoadedAllocator<kTcmalloc>;

// A heap for each category, as far as this peer can do what ours does. A heap belongs to the thread
// that made it.
class MimallocHeaps {
 public:
  static bool IsThere() { return Mimalloc::IsThere() && makeHeap != nullptr; }

  MimallocHeaps() {
    for (void*& heap : heaps_) heap = makeHeap();
  }
  ~MimallocHeaps() {
    for (void* heap : heaps_) deleteHeap(heap);
  }
  MimallocHeaps(const MimallocHeaps&) = delete;
  MimallocHeaps& operator=(const MimallocHeaps&) = delete;

  void* Allocate(uint32_t category, size_t size) { return allocate(heaps_[category], size); }
  void Free(void* block) { Mimalloc::release(block); }

 private:
  static inline auto* const makeHeap = FindFunction<void*()>(Mimalloc::library, "mi_heap_new");
  static inline auto* const deleteHeap =
      FindFunction<void(void*)>(Mimalloc::library, "mi_heap_delete");
  static inline auto* const allocate =
      FindFunction<void*(void*, size_t)>(Mimalloc::library, "mi_heap_malloc");

  std::array<void*, kCategories> heaps_;
};

}  // namespace bench
