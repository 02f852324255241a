// The collector's own memory: the library's backing pair, over mmap.
//
// Pieces are cut off the front of a spare mapping. The library ends the process when it is refused
// memory, but the program has a right to carry on when memory is short. So there is a reserve,
// mapped at the start and never touched before it is needed. From the moment on in which the system
// refuses a mapping, memory is short: nothing is asked for any more but by calls that are under
// way, and by what has to be written at the end, and for those the reserve is large enough.
//
// The library's own statistics stay off: they would come with entries in a log that the program
// knows nothing of. The pieces are counted here, by what they are for.
//
// The library calls the pair's allocate function one call at a time, and the variables change
// there.

#include <sys/mman.h>

#include <cerrno>

#include "examples/heapscope/internal.h"
#include "zelrt/memory.h"
#include "zelrt/platform.h"

namespace heapscope {

constinit thread_local OwnMemory MemoryPurpose::t_purpose = OwnMemory::kAllocator;

namespace {

// In front of each piece. Its size keeps blocks aligned to 16 bytes, and completes the library's
// pages to powers of two.
struct PieceHeader {
  size_t length;
  OwnMemory purpose;
};
static_assert(sizeof(PieceHeader) == 16);

constexpr size_t kSpareSize = 1 << 20;
constexpr size_t kFirstTableSize = 6 << 20;  // what the library takes at once, rounded up
// One call takes up to five pages of 64 KiB, or twice what a shard's table of live blocks has: 40
// bytes for each bucket.
constexpr size_t kReserveSize = 16 << 20;
constexpr size_t kMemoryForFiles = 512 * 1024;  // two blocks of 64 KiB, and a page for a name

struct Mapping {
  char* start;
  size_t length;
};
constinit Mapping g_spare = {nullptr, 0};
constinit Mapping g_reserve = {nullptr, 0};
constinit std::atomic<size_t> g_reserveLeft{0};
constinit std::atomic<bool> g_isShort{false};
constinit std::atomic<uint64_t> g_mappedBytes{0};

constexpr const char* kPurposeNames[kOwnMemoryPurposes] = {"allocator's tables", "files",
                                                           "live blocks", "sites"};
constinit uint32_t g_categories[kOwnMemoryPurposes] = {};  // 0, the library's own, but for two
constinit std::atomic<uint64_t> g_bytesOf[kOwnMemoryPurposes] = {};

std::atomic<uint64_t>& BytesOf(OwnMemory purpose) {
  return g_bytesOf[static_cast<size_t>(purpose)];
}

size_t WholePages(size_t size) {
  const size_t page = __ZelGetNativePageSize();
  return (size + page - 1) / page * page;
}

void Unmap(void* start, size_t length) {
  if (length == 0) return;
  munmap(start, length);
  g_mappedBytes.fetch_sub(length, std::memory_order_relaxed);
}

bool Map(size_t length, Mapping* mapping) {
  void* const start =
      mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED) return false;
  g_mappedBytes.fetch_add(length, std::memory_order_relaxed);
  *mapping = {static_cast<char*>(start), length};
  return true;
}

bool Refill(size_t length) {
  const Mapping rest = g_spare;
  if (!Map(std::max(length, kSpareSize), &g_spare) && !Map(length, &g_spare)) return false;
  Unmap(rest.start, rest.length);
  return true;
}

// Null when the mapping is too short.
char* Cut(Mapping* mapping, size_t length) {
  if (mapping->length < length) return nullptr;
  char* const start = mapping->start;
  mapping->start += length;
  mapping->length -= length;
  return start;
}

void* BackingAllocate(size_t size) {
  const int keptErrno = errno;
  const size_t length = WholePages(size + sizeof(PieceHeader));
  if (length < size) return nullptr;
  char* start = Cut(&g_spare, length);
  if (start == nullptr && Refill(length)) start = Cut(&g_spare, length);
  if (start == nullptr) {
    g_isShort.store(true, std::memory_order_relaxed);
    start = Cut(&g_reserve, length);
    g_reserveLeft.store(g_reserve.length, std::memory_order_relaxed);
  }
  errno = keptErrno;
  if (start == nullptr) return nullptr;
  auto* const header = reinterpret_cast<PieceHeader*>(start);
  *header = {length, MemoryPurpose::OfThread()};
  BytesOf(header->purpose).fetch_add(length, std::memory_order_relaxed);
  return header + 1;
}

void BackingFree(void* block) {
  const int keptErrno = errno;
  PieceHeader* const header = static_cast<PieceHeader*>(block) - 1;
  BytesOf(header->purpose).fetch_sub(header->length, std::memory_order_relaxed);
  Unmap(header, header->length);
  errno = keptErrno;
}

}  // namespace

bool SetUpOwnMemory() {
  if (!Map(kReserveSize, &g_reserve) || !Map(kFirstTableSize, &g_spare)) return false;
  g_reserveLeft.store(kReserveSize, std::memory_order_relaxed);
  __ZelInitializeSubAllocator(BackingAllocate, BackingFree);
  return true;
}

bool IsMemoryShort() { return g_isShort.load(std::memory_order_relaxed); }

bool HasMemoryForFiles() {
  return g_reserveLeft.load(std::memory_order_relaxed) >= kMemoryForFiles;
}

void RegisterOwnMemoryCategories() {
  for (const OwnMemory purpose : {OwnMemory::kLiveBlocks, OwnMemory::kSites})
    g_categories[static_cast<size_t>(purpose)] = __ZelRegisterMemoryCategory(NameOf(purpose));
}
uint32_t CategoryOf(OwnMemory purpose) { return g_categories[static_cast<size_t>(purpose)]; }

const char* NameOf(OwnMemory purpose) { return kPurposeNames[static_cast<size_t>(purpose)]; }
uint64_t OwnBytes(OwnMemory purpose) { return BytesOf(purpose).load(std::memory_order_relaxed); }
uint64_t OwnMappedBytes() { return g_mappedBytes.load(std::memory_order_relaxed); }

}  // namespace heapscope
