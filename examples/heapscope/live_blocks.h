// The table of live blocks: address to size.
//
// An extendible hash table. The first bits of an address's hash select an entry of the directory,
// and that leads to a leaf, an open-addressing table of fixed size; a leaf that fills up is split
// in two by one more bit, doubling the directory when its bits do not suffice. So the table grows
// by one small step at a time, and all of its blocks but a huge directory appear in the library's
// statistics. It never shrinks.
//
// Not synchronised: the caller holds the lock of the stripe that the table belongs to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heapscope {

// Spreads addresses, whose low bits and high bits vary little, over all 64 bits.
inline constexpr uint64_t HashAddress(uintptr_t address) {
  constexpr uint64_t kOddConstant = 0x9E3779B97F4A7C15;
  const uint64_t product = address * kOddConstant;
  return (product ^ product >> 32) * kOddConstant;
}

struct LiveBlock {
  uintptr_t address;  // never 0
  size_t size;
};

class LiveBlocks {
 public:
  // The first bits of the hash belong to the caller: they are the same for all blocks of one table.
  static constexpr uint32_t kCallersHashBits = 6;

  enum class Insertion { kAdded, kReplaced, kNoMemory };

  // hash is HashAddress(block.address), here and below. A block with the same address is replaced
  // and its size stored in *replacedSize. Without memory the table stays as it was.
  Insertion Insert(uint64_t hash, LiveBlock block, size_t* replacedSize);

  // False when the block is not there.
  bool Remove(uint64_t hash, uintptr_t address, size_t* size);

  // Every block is found where its hash leads to, and every leaf where its depth says. Looks at
  // all blocks.
  bool IsConsistent() const;

 private:
  struct Leaf;

  size_t DirectoryIndex(uint64_t hash) const {
    return hash << kCallersHashBits >> 1 >> (63 - depth_);
  }
  static Leaf** MakeDirectory(uint32_t depth);
  Leaf* LeafWithRoom(uint64_t hash);
  bool Split(uint64_t hash);
  bool DoubleDirectory();

  Leaf** directory_ = nullptr;  // 2^depth_ entries; null until the first insertion
  uint32_t depth_ = 0;
};

// Registers the memory categories of the tables, which must come before the first insertion.
void RegisterLiveBlockCategories();

}  // namespace heapscope
