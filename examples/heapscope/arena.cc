// A small heap for allocations that must not go to the real functions: those that come while these
// are being looked up, and those of what the collector itself calls when it writes.
//
// Chunks are powers of two, cut off the front of the arena and kept in a list for each size when
// they come back. The lists have a lock that nobody waits for: whoever finds it held, by a thread
// that it interrupts perhaps, or one that a fork has left behind, cuts a fresh chunk, or forgets
// the one it has.

#include <bit>
#include <cerrno>
#include <cstring>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/try_flag.h"

namespace heapscope {
namespace {

constexpr size_t kArenaSize = 1 << 20;  // pages that are never used cost nothing
constexpr uint32_t kSmallestChunkBits = 5;
constexpr uint32_t kChunkSizes = 21 - kSmallestChunkBits;
static_assert(size_t{1} << (kSmallestChunkBits + kChunkSizes - 1) == kArenaSize);

// In front of each block.
struct Header {
  size_t size;
  uint32_t chunkSize;  // as an index
  uint32_t offset;     // of the block in its chunk
};
static_assert(sizeof(Header) == alignof(max_align_t));

struct FreeChunk {
  FreeChunk* next;
};

alignas(64) constinit unsigned char g_arena[kArenaSize] = {};
constinit std::atomic<size_t> g_used{0};
constinit FreeChunk* g_freeChunks[kChunkSizes] = {};
constinit std::atomic<bool> g_listsAreTaken{false};

unsigned char* RecycleChunk(uint32_t chunkSize) {
  const TryFlag lists(g_listsAreTaken);
  if (!lists.IsOurs()) return nullptr;
  FreeChunk* const chunk = g_freeChunks[chunkSize];
  if (chunk != nullptr) g_freeChunks[chunkSize] = chunk->next;
  return reinterpret_cast<unsigned char*>(chunk);
}

unsigned char* CutChunk(uint32_t chunkSize) {
  const size_t bytes = size_t{1} << (kSmallestChunkBits + chunkSize);
  size_t used = g_used.load(std::memory_order_relaxed);
  do {
    if (bytes > kArenaSize - used) return nullptr;
  } while (!g_used.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
  return g_arena + used;
}

Header* HeaderOf(const void* block) { return static_cast<Header*>(const_cast<void*>(block)) - 1; }

}  // namespace

void* ArenaAllocate(size_t alignment, size_t size) {
  alignment = std::max(alignment, alignof(max_align_t));
  if (alignment > kArenaSize || size > kArenaSize) return nullptr;
  const size_t needed = sizeof(Header) + (alignment - alignof(max_align_t)) + size;
  const auto bits = static_cast<uint32_t>(std::bit_width(needed - 1));
  const uint32_t chunkSize = std::max(bits, kSmallestChunkBits) - kSmallestChunkBits;
  if (chunkSize >= kChunkSizes) return nullptr;
  unsigned char* chunk = RecycleChunk(chunkSize);
  if (chunk == nullptr) chunk = CutChunk(chunkSize);
  if (chunk == nullptr) return nullptr;

  const auto start = reinterpret_cast<uintptr_t>(chunk);
  const uintptr_t block = (start + sizeof(Header) + alignment - 1) & ~(alignment - 1);
  void* const result = std::memset(reinterpret_cast<void*>(block), 0, size);
  *HeaderOf(result) = {size, chunkSize, static_cast<uint32_t>(block - start)};
  return result;
}

void ArenaFree(void* block) {
  const Header header = *HeaderOf(block);
  auto* const chunk =
      reinterpret_cast<FreeChunk*>(static_cast<unsigned char*>(block) - header.offset);
  const TryFlag lists(g_listsAreTaken);
  if (!lists.IsOurs()) return;
  chunk->next = g_freeChunks[header.chunkSize];
  g_freeChunks[header.chunkSize] = chunk;
}

bool IsInArena(const void* block) {
  return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(g_arena) < kArenaSize;
}

size_t ArenaBlockSize(const void* block) { return HeaderOf(block)->size; }

}  // namespace heapscope
