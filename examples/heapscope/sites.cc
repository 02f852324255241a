// The paths by which the program allocates.
//
// Two hash tables of the library lead to a site. One knows paths by their places, so that a module
// that is unloaded and loaded again elsewhere keeps its sites. The other knows where a hash of
// addresses led, as long as no module has gone. In front of it, each thread remembers where its
// latest calls led, and mostly does without the tables. Sites are never taken out.
//
// The sites stand in chunks, so that a live block can name its site by a small number. Site 0
// stands for all for which there was no memory, or no number left.

#include "examples/heapscope/sites.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "zelrt/hash_table.h"
#include "zelrt/memory.h"

namespace heapscope {
namespace {

constexpr uint32_t kChunkBits = 8;
constexpr uint32_t kSitesInChunk = 1u << kChunkBits;
constexpr uint32_t kMaxChunks = (1u << kSiteBits) / kSitesInChunk;

constinit Site g_firstChunk[kSitesInChunk] = {};
constinit std::atomic<Site*> g_chunks[kMaxChunks] = {{g_firstChunk}};
constinit std::atomic<uint32_t> g_sites{1};
constinit ZelHashTable* g_byAddresses = nullptr;
constinit ZelHashTable* g_byPlaces = nullptr;

// Of a thread: where hashes of addresses led, by their low bits.
constexpr uint32_t kRemembered = 256;
struct Memory {
  uint64_t hash;
  uint64_t site;
};
constinit thread_local Memory t_memory[kRemembered] = {};

constexpr uint64_t Mix(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15;
  hash = (hash ^ hash >> 32) * 0xD6E8FEB86659FD93;
  return hash ^ hash >> 29;
}

// Two paths with one hash would be one site: of 64 mixed bits, that is not to be expected.
uint64_t HashOf(const CallPath& path) {
  uint64_t hash = Mix(0x243F6A8885A308D3, ModuleEpoch());
  for (uint32_t i = 0; i < path.count; ++i) hash = Mix(hash, path.frames[i]);
  return hash;
}

uint64_t OwnHash(const ZelHashTable*, uint64_t hash) { return hash; }

// Keys of the table by places are addresses of paths.
const SitePath* PathOf(uint64_t key) { return reinterpret_cast<const SitePath*>(key); }
uint64_t KeyOf(const SitePath* path) { return reinterpret_cast<uint64_t>(path); }
uint64_t HashOfPath(const ZelHashTable*, uint64_t key) { return PathOf(key)->hash; }
uint32_t ArePathsEqual(uint64_t storedKey, uint64_t searchedKey) {
  const SitePath* const stored = PathOf(storedKey);
  const SitePath* const searched = PathOf(searchedKey);
  return stored->count == searched->count &&
                 std::equal(stored->Places(), stored->Places() + stored->count, searched->Places())
             ? 1
             : 0;
}

// The number of a site that is nobody else's; 0 when there is none to be had.
uint32_t NewSite() {
  if (IsMemoryShort()) return 0;
  const uint32_t index = g_sites.fetch_add(1, std::memory_order_relaxed);
  const uint32_t number = index >> kChunkBits;
  if (number >= kMaxChunks) {
    g_sites.fetch_sub(1, std::memory_order_relaxed);
    return 0;
  }
  if (g_chunks[number].load(std::memory_order_acquire) == nullptr) {
    // Two threads may come here for one chunk: one of them takes its own back.
    void* const memory =
        __ZelMalloc(CategoryOf(OwnMemory::kSites), sizeof(Site) * kSitesInChunk + alignof(Site), 0);
    const uintptr_t aligned =
        (reinterpret_cast<uintptr_t>(memory) + alignof(Site) - 1) & ~(alignof(Site) - 1);
    Site* expected = nullptr;
    auto* const chunk = new (reinterpret_cast<void*>(aligned)) Site[kSitesInChunk];
    if (!g_chunks[number].compare_exchange_strong(expected, chunk, std::memory_order_acq_rel))
      __ZelFree(memory);
  }
  return index;
}

// A path with room for the longest.
struct LongestPath {
  alignas(SitePath) unsigned char bytes[sizeof(SitePath) + kMaxDepth * sizeof(Place)];
  SitePath* Get() { return reinterpret_cast<SitePath*>(bytes); }
};

void FindPlaces(const CallPath& path, SitePath* result) {
  uint64_t hash = 0;
  for (uint32_t i = 0; i < path.count; ++i) {
    // A return address may be that of the next function: the call is in front of it.
    const Place place = PlaceOf(path.frames[i] - 1);
    result->Places()[i] = place;
    hash = Mix(hash, place.Bits());
  }
  result->count = path.count;
  result->hash = hash;
}

uint32_t AsNumber(const void* data) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(data));
}
void* AsData(uint32_t number) { return reinterpret_cast<void*>(uintptr_t{number}); }

uint32_t FindSiteByPlaces(const CallPath& path) {
  LongestPath searched;
  FindPlaces(path, searched.Get());
  const uint32_t found = AsNumber(__ZelLookupHashTable(g_byPlaces, KeyOf(searched.Get())));
  if (found != 0) return found;
  const uint32_t fresh = NewSite();
  if (fresh == 0) return 0;
  const size_t size = sizeof(SitePath) + path.count * sizeof(Place);
  void* const kept = __ZelMalloc(CategoryOf(OwnMemory::kSites), size, 0);
  auto* const stored = static_cast<SitePath*>(std::memcpy(kept, searched.bytes, size));
  SiteAt(fresh).SetPath(stored);
  // Another thread may be quicker. Then ours stays unused.
  return AsNumber(__ZelInsertHashTableEntry(g_byPlaces, KeyOf(stored), AsData(fresh)));
}

[[gnu::noinline]] uint32_t LookUpSite(uint64_t hash, const CallPath& path) {
  const MemoryPurpose purpose(OwnMemory::kSites);
  const uint32_t found = AsNumber(__ZelLookupHashTable(g_byAddresses, hash));
  if (found != 0) return found;
  const uint32_t site = FindSiteByPlaces(path);
  if (site != 0 && !IsMemoryShort()) __ZelInsertHashTableEntry(g_byAddresses, hash, AsData(site));
  return site;
}

}  // namespace

void SetUpSites() {
  const MemoryPurpose purpose(OwnMemory::kSites);
  const uint32_t category = CategoryOf(OwnMemory::kSites);
  const ZelHashFunction ownHash[] = {OwnHash};
  g_byAddresses = __ZelCreateHashTable(0, ownHash, 1, nullptr, nullptr, category, 0);
  const ZelHashFunction hashOfPath[] = {HashOfPath};
  g_byPlaces = __ZelCreateHashTable(ZEL_HASH_FLAG_KEY_CALLBACKS, hashOfPath, 1, ArePathsEqual,
                                    nullptr, category, 0);
}

Site& SiteAt(uint32_t number) {
  return g_chunks[number >> kChunkBits].load(std::memory_order_acquire)[number % kSitesInChunk];
}

uint32_t FindSite(const CallPath& path) {
  const uint64_t hash = HashOf(path);
  Memory& memory = t_memory[hash % kRemembered];
  if (memory.hash != hash || memory.site == 0) [[unlikely]] {
    const uint32_t site = LookUpSite(hash, path);
    if (site == 0) return 0;
    memory = {hash, site};
  }
  return static_cast<uint32_t>(memory.site);
}

void StartSitesAnew() {
  const uint32_t sites = NumberOfSites();
  for (uint32_t i = 0; i < sites; ++i) SiteAt(i).StartAnew();
}

uint32_t NumberOfSites() {
  const uint32_t sites =
      std::min(g_sites.load(std::memory_order_relaxed), kMaxChunks * kSitesInChunk);
  // A chunk that is still being made holds nothing yet.
  for (uint32_t number = 0; number << kChunkBits < sites; ++number) {
    if (g_chunks[number].load(std::memory_order_acquire) == nullptr) return number << kChunkBits;
  }
  return sites;
}

SiteFigures ReadSite(uint32_t index) { return SiteAt(index).Read(); }

SiteFigures Site::Read() const {
  SiteFigures figures = {};
  figures.path = path_.load(std::memory_order_acquire);
  figures.inherited = inherited_;
  figures.temporary = {temporaries_.load(std::memory_order_acquire),
                       temporaryBytes_.load(std::memory_order_acquire)};
  // Frees first, as each one's allocation was counted before it.
  figures.freed.blocks = frees_.load(std::memory_order_acquire);
  const uint64_t live = live_.Live();
  figures.allocated = {allocations_.load(std::memory_order_acquire),
                       allocatedBytes_.load(std::memory_order_acquire)};
  figures.freed.bytes = inherited_.bytes + figures.allocated.bytes - live;
  figures.peakBytes = live_.Peak();
  return figures;
}

void Site::StartAnew() {
  inherited_ = {inherited_.blocks + allocations_.load(std::memory_order_relaxed) -
                    frees_.load(std::memory_order_relaxed),
                live_.Live()};
  allocations_.store(0, std::memory_order_relaxed);
  allocatedBytes_.store(0, std::memory_order_relaxed);
  frees_.store(0, std::memory_order_relaxed);
  temporaries_.store(0, std::memory_order_relaxed);
  temporaryBytes_.store(0, std::memory_order_relaxed);
  live_.ForgetPeak();
}

}  // namespace heapscope
