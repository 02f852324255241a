// The table of live blocks.
//
// A leaf of depth d holds the blocks whose hashes agree in the first d bits, and fills the
// 2^(depth_ - d) consecutive directory entries that begin with those bits.
//
// In a leaf, a block stands in the first slot that was free from its home slot on, cyclically.
// There are always free slots, so every search ends; removal closes the gap it makes.

#include "examples/heapscope/live_blocks.h"

#include <cstring>

#include "examples/heapscope/internal.h"
#include "zelrt/memory.h"

namespace heapscope {
namespace {

constexpr uint32_t kSlots = 256;
constexpr uint32_t kSlotMask = kSlots - 1;
constexpr uint32_t kMaxCount = kSlots / 8 * 7;
constexpr uint32_t kMaxDepth = 40;
constexpr uint32_t kLeafSizeShift = 0;  // 15 leaves to a page of the allocator
// Smaller directories are given the size of this depth: every size takes pages of its own.
constexpr uint32_t kSmallestDirectoryDepth = 4;

constinit uint32_t g_leafCategory = 0;
constinit uint32_t g_directoryCategory = 0;

uint32_t HomeSlot(uint64_t hash) { return static_cast<uint32_t>(hash) & kSlotMask; }
uint32_t HomeSlot(const LiveBlock& block) { return HomeSlot(HashAddress(block.address)); }

uint32_t NextSlot(uint32_t slot) { return (slot + 1) & kSlotMask; }
uint32_t SlotsFromTo(uint32_t from, uint32_t to) { return (to - from) & kSlotMask; }

}  // namespace

struct LiveBlocks::Leaf {
  uint32_t depth;
  uint32_t count;
  LiveBlock slots[kSlots];  // address 0: free

  static Leaf* Make(uint32_t depth) {
    auto* const leaf =
        static_cast<Leaf*>(AllocateOwn(g_leafCategory, sizeof(Leaf), kLeafSizeShift));
    if (leaf == nullptr) return nullptr;
    std::memset(leaf, 0, sizeof *leaf);
    leaf->depth = depth;
    return leaf;
  }

  // The slot of the block, or the free one where it would have to stand.
  uint32_t Find(uint64_t hash, uintptr_t address) const {
    uint32_t slot = HomeSlot(hash);
    while (slots[slot].address != address && slots[slot].address != 0) slot = NextSlot(slot);
    return slot;
  }

  void Add(uint64_t hash, const LiveBlock& block) {
    slots[Find(hash, block.address)] = block;
    ++count;
  }

  void Erase(uint32_t hole) {
    --count;
    for (uint32_t slot = NextSlot(hole); slots[slot].address != 0; slot = NextSlot(slot)) {
      // A block may move back as far as its home slot.
      if (SlotsFromTo(HomeSlot(slots[slot]), slot) < SlotsFromTo(hole, slot)) continue;
      slots[hole] = slots[slot];
      hole = slot;
    }
    slots[hole].address = 0;
  }
};

LiveBlocks::Leaf** LiveBlocks::MakeDirectory(uint32_t depth) {
  const size_t size = sizeof(Leaf*) << std::max(depth, kSmallestDirectoryDepth);
  return static_cast<Leaf**>(AllocateOwn(g_directoryCategory, size, 0));
}

LiveBlocks::Insertion LiveBlocks::Insert(uint64_t hash, LiveBlock block, size_t* replacedSize) {
  Leaf* leaf = directory_ != nullptr ? directory_[DirectoryIndex(hash)] : nullptr;
  if (leaf != nullptr) [[likely]] {
    LiveBlock& slot = leaf->slots[leaf->Find(hash, block.address)];
    if (slot.address != 0) {
      *replacedSize = slot.size;
      slot = block;
      return Insertion::kReplaced;
    }
    if (leaf->count < kMaxCount) [[likely]] {
      slot = block;
      ++leaf->count;
      return Insertion::kAdded;
    }
  }
  leaf = LeafWithRoom(hash);
  if (leaf == nullptr) return Insertion::kNoMemory;
  leaf->Add(hash, block);
  return Insertion::kAdded;
}

bool LiveBlocks::Remove(uint64_t hash, uintptr_t address, size_t* size) {
  if (directory_ == nullptr) return false;
  Leaf* const leaf = directory_[DirectoryIndex(hash)];
  const uint32_t slot = leaf->Find(hash, address);
  if (leaf->slots[slot].address == 0) return false;
  *size = leaf->slots[slot].size;
  leaf->Erase(slot);
  return true;
}

LiveBlocks::Leaf* LiveBlocks::LeafWithRoom(uint64_t hash) {
  if (directory_ == nullptr) {
    Leaf** const directory = MakeDirectory(0);
    if (directory == nullptr) return nullptr;
    directory[0] = Leaf::Make(0);
    if (directory[0] == nullptr) {
      FreeOwn(directory);
      return nullptr;
    }
    directory_ = directory;
  }
  for (;;) {
    Leaf* const leaf = directory_[DirectoryIndex(hash)];
    if (leaf->count < kMaxCount) return leaf;
    if (!Split(hash)) return nullptr;  // all blocks can go to the same half, hence the loop
  }
}

// Replaces the leaf that the hash leads to by two.
bool LiveBlocks::Split(uint64_t hash) {
  Leaf* const old = directory_[DirectoryIndex(hash)];
  if (old->depth == depth_ && !DoubleDirectory()) return false;
  Leaf* const halves[2] = {Leaf::Make(old->depth + 1), Leaf::Make(old->depth + 1)};
  if (halves[0] == nullptr || halves[1] == nullptr) {
    for (Leaf* const half : halves) FreeOwn(half);
    return false;
  }
  for (const LiveBlock& block : old->slots) {
    if (block.address == 0) continue;
    const uint64_t blockHash = HashAddress(block.address);
    halves[blockHash << (kCallersHashBits + old->depth) >> 63]->Add(blockHash, block);
  }
  const size_t entriesEach = size_t{1} << (depth_ - old->depth - 1);
  const size_t first = DirectoryIndex(hash) & ~(2 * entriesEach - 1);
  for (size_t i = 0; i < 2 * entriesEach; ++i) directory_[first + i] = halves[i / entriesEach];
  FreeOwn(old);
  return true;
}

bool LiveBlocks::DoubleDirectory() {
  if (depth_ == kMaxDepth) return false;
  Leaf** const fresh = MakeDirectory(depth_ + 1);
  if (fresh == nullptr) return false;
  for (size_t i = 0; i < size_t{2} << depth_; ++i) fresh[i] = directory_[i / 2];
  FreeOwn(directory_);
  directory_ = fresh;
  ++depth_;
  return true;
}

bool LiveBlocks::IsConsistent() const {
  if (directory_ == nullptr) return depth_ == 0;
  for (size_t i = 0; i < size_t{1} << depth_;) {
    const Leaf* const leaf = directory_[i];
    if (leaf->depth > depth_ || leaf->count > kMaxCount) return false;
    const size_t entries = size_t{1} << (depth_ - leaf->depth);
    if (i % entries != 0) return false;
    for (size_t j = 0; j < entries; ++j) {
      if (directory_[i + j] != leaf) return false;
    }
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
      const uintptr_t address = leaf->slots[slot].address;
      if (address == 0) continue;
      ++count;
      const uint64_t hash = HashAddress(address);
      if (directory_[DirectoryIndex(hash)] != leaf || leaf->Find(hash, address) != slot)
        return false;
    }
    if (count != leaf->count) return false;
    i += entries;
  }
  return true;
}

void RegisterLiveBlockCategories() {
  g_leafCategory = __ZelRegisterMemoryCategory("live blocks");
  g_directoryCategory = __ZelRegisterMemoryCategory("live-block directories");
}

}  // namespace heapscope
