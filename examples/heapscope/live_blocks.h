// The live blocks of the program: by address, their size and the site that they come from.
//
// Range tables of the library, one for each shard. A block stands in its table by its start alone:
// ranges of one table must not overlap, and a block whose free nobody saw may lie anywhere under a
// new one.
//
// Not synchronised: the caller holds the lock of the shard.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelrt/range_table.h"
#include "zelrt/red_black_tree.h"

namespace heapscope {

struct LiveBlock {
  uint32_t site;
  size_t size;
};

class LiveBlocks {
 public:
  static constexpr uintptr_t kGranule = 8;  // no allocator aligns to less
  static constexpr size_t kLarge = 64 * 1024;
  static constexpr uint32_t kMaxBlocks = 200'000;  // what the reserve can double: own_memory.cc

  // For a block that is not there. False when memory is short, or the table full.
  bool Insert(uintptr_t address, LiveBlock block);

  // False when there is no such block.
  bool Remove(uintptr_t address, LiveBlock* block);

  bool Find(uintptr_t address, LiveBlock* block) const;

  // The last block of at least kLarge bytes that starts at or before the address, which becomes its
  // start.
  bool FindLargeBefore(uintptr_t* address, LiveBlock* block) const;

 private:
  ZelRangeTable* table_ = nullptr;    // made for the first block
  ZelRedBlackTree* large_ = nullptr;  // starts of the large blocks, to find one from within
  uint32_t count_ = 0;
};

}  // namespace heapscope
