// The collector's own memory: a backing pair over mmap, and allocations that may fail.
//
// Pieces are cut off the front of a spare mapping. Before the library's allocator is called, the
// spare is made large enough for whatever that call can ask for: the library would end the process
// if it were refused, and the program has a right to carry on when memory is short.
//
// The growth lock is held around each call of the library that may allocate, and guards the spare.
//
// A second mapping is kept for the day when there is no memory left: whoever looks for the reason
// wants the result file above all.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "examples/heapscope/internal.h"
#include "host/host.h"
#include "zelrt/locks.h"
#include "zelrt/memory.h"
#include "zelrt/platform.h"

namespace heapscope {
namespace {

// In front of each piece. Its size keeps blocks aligned to 16 bytes, and completes the library's
// pages to powers of two.
struct PieceHeader {
  size_t length;
  size_t unused;
};
static_assert(sizeof(PieceHeader) == 16);

constexpr size_t kSpareSize = 1 << 20;
constexpr size_t kMemoryForFiles = 512 * 1024;  // two blocks of 64 KiB, and a page for a name
constexpr size_t kFirstTableSize = 6 << 20;     // what the library takes at once, rounded up
constexpr size_t kSmallestPage = 65536;
constexpr size_t kLargestSmallBlock = 32728;
constexpr size_t kBlockHeader = 8;

constinit ZelSpinLock g_growthLock = {};
constinit char* g_spare = nullptr;
constinit size_t g_spareLength = 0;
constinit char* g_reserve = nullptr;  // of kMemoryForFiles bytes
constinit std::atomic<uint64_t> g_mappedBytes{0};

size_t WholePages(size_t size) {
  const size_t page = __ZelGetNativePageSize();
  return (size + page - 1) / page * page;
}

void Unmap(void* start, size_t length) {
  if (length == 0) return;
  munmap(start, length);
  g_mappedBytes.fetch_sub(length, std::memory_order_relaxed);
}

char* Map(size_t length) {
  void* const start =
      mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED) return nullptr;
  g_mappedBytes.fetch_add(length, std::memory_order_relaxed);
  return static_cast<char*>(start);
}

bool EnsureSpareLocked(size_t length) {
  if (g_spareLength >= length) return true;
  size_t freshLength = std::max(length, kSpareSize);
  char* fresh = Map(freshLength);
  if (fresh == nullptr && length < freshLength) {
    freshLength = length;
    fresh = Map(freshLength);
  }
  if (fresh == nullptr) return false;
  Unmap(g_spare, g_spareLength);
  g_spare = fresh;
  g_spareLength = freshLength;
  return true;
}

// The pair. Both run inside calls of the library that are made under the growth lock.
void* BackingAllocate(size_t size) {
  const size_t length = WholePages(size + sizeof(PieceHeader));
  if (length < size || !EnsureSpareLocked(length)) return nullptr;
  auto* const header = reinterpret_cast<PieceHeader*>(g_spare);
  g_spare += length;
  g_spareLength -= length;
  header->length = length;
  return header + 1;
}

void BackingFree(void* block) {
  PieceHeader* const header = static_cast<PieceHeader*>(block) - 1;
  Unmap(header, header->length);
}

// The most that one allocation takes from the pair, in whole OS pages.
size_t BackingLength(size_t size, uint32_t sizeShift) {
  if (size <= kLargestSmallBlock) return kSmallestPage << sizeShift;
  return WholePages(size + kBlockHeader + sizeof(PieceHeader));
}

}  // namespace

LibraryHold::LibraryHold() {
  __ZelAcquireSpinLockTid(&g_growthLock, static_cast<uint32_t>(zelhost::NativeThreadId()));
}
LibraryHold::~LibraryHold() {
  __ZelReleaseSpinLock(&g_growthLock);
  errno = keptErrno_;
}
bool LibraryHold::HasMemoryForFiles() {
  if (EnsureSpareLocked(kMemoryForFiles)) return true;
  if (g_reserve == nullptr) return false;
  Unmap(g_spare, g_spareLength);
  g_spare = g_reserve;
  g_spareLength = kMemoryForFiles;
  g_reserve = nullptr;
  return true;
}

bool SetUpOwnMemory() {
  const LibraryHold hold;
  if (!EnsureSpareLocked(kFirstTableSize)) return false;
  __ZelInitializeSubAllocator(BackingAllocate, BackingFree);
  __ZelEnableMemoryStatisticsCollection();
  g_reserve = Map(kMemoryForFiles);
  return true;
}

void* AllocateOwn(uint32_t category, size_t size, uint32_t sizeShift) {
  const LibraryHold hold;
  if (!EnsureSpareLocked(BackingLength(size, sizeShift))) return nullptr;
  return __ZelMalloc(category, size, sizeShift);
}

void FreeOwn(void* block) {
  const LibraryHold hold;
  __ZelFree(block);
}

uint64_t OwnMappedBytes() { return g_mappedBytes.load(std::memory_order_relaxed); }

}  // namespace heapscope
