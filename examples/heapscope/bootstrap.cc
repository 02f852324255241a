// A small arena for allocations that come while the real functions are being looked up.
//
// Blocks are cut off its start and never come back. Each follows a word with its size.

#include <cerrno>

#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

constexpr size_t kArenaSize = 16 * 1024;

alignas(64) constinit unsigned char g_arena[kArenaSize] = {};
constinit std::atomic<size_t> g_used{0};

size_t RoundUp(size_t value, size_t alignment) {
  return (value + alignment - 1) & ~(alignment - 1);
}

size_t& SizeWordOf(const void* block) {
  return *(static_cast<size_t*>(const_cast<void*>(block)) - 1);
}

}  // namespace

void* ArenaAllocate(size_t alignment, size_t size) {
  alignment = std::max(alignment, alignof(max_align_t));
  const auto base = reinterpret_cast<uintptr_t>(g_arena);
  size_t used = g_used.load(std::memory_order_relaxed);
  size_t start;
  do {
    start = RoundUp(base + used + sizeof(size_t), alignment) - base;
    if (alignment > kArenaSize || start > kArenaSize || size > kArenaSize - start) {
      errno = ENOMEM;
      return nullptr;
    }
  } while (!g_used.compare_exchange_weak(used, start + size, std::memory_order_relaxed));
  void* const block = g_arena + start;
  SizeWordOf(block) = size;
  return block;
}

bool IsInArena(const void* block) {
  return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(g_arena) < kArenaSize;
}

size_t ArenaBlockSize(const void* block) { return SizeWordOf(block); }

}  // namespace heapscope
