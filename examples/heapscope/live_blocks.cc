// The live blocks of the program.

#include "examples/heapscope/live_blocks.h"

#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

// What the table keeps for a block: a pointer's worth of bits, never 0.
//	site << 44 | size
constexpr uint32_t kSizeBits = 44;
constexpr size_t kLargestSize = (size_t{1} << kSizeBits) - 1;

void* Pack(LiveBlock block) {
  return reinterpret_cast<void*>(uintptr_t{block.site} << kSizeBits |
                                 std::min(block.size, kLargestSize));
}

bool Unpack(const void* packed, LiveBlock* block) {
  const auto bits = reinterpret_cast<uintptr_t>(packed);
  *block = {static_cast<uint32_t>(bits >> kSizeBits), bits & kLargestSize};
  return packed != nullptr;
}

bool IsGranule(uintptr_t address) { return address % LiveBlocks::kGranule == 0; }

// Blocks that lie together are used together: they should share cache lines of the buckets. So the
// order of the addresses is kept in the small, while whatever size all blocks have, some bits that
// differ come to the low ones, which select the bucket.
uint64_t HashOfAddress(const ZelHashTable*, uint64_t address) {
  constexpr uint32_t kUsualAlignment = 16;
  const uint64_t number = address / kUsualAlignment;
  return number ^ number >> 6 ^ number >> 12;
}
constexpr ZelHashFunction kHashOfAddress[] = {HashOfAddress};

}  // namespace

bool LiveBlocks::Insert(uintptr_t address, LiveBlock block) {
  if (IsMemoryShort() || count_ == kMaxBlocks || !IsGranule(address)) return false;
  const MemoryPurpose purpose(OwnMemory::kLiveBlocks);
  if (table_ == nullptr) {
    table_ = __ZelCreateHashTable(ZEL_HASH_FLAG_NO_LOCKING, kHashOfAddress, 1, nullptr, nullptr,
                                  CategoryOf(OwnMemory::kLiveBlocks), 0);
  }
  __ZelInsertHashTableEntry(table_, address, Pack(block));
  if (block.size >= kLarge) [[unlikely]] {
    if (large_ == nullptr) {
      large_ =
          __ZelCreateRedBlackTree(CategoryOf(OwnMemory::kLiveBlocks), nullptr, nullptr, nullptr);
    }
    __ZelInsertRedBlackEntry(large_, address, nullptr);
  }
  ++count_;
  return true;
}

bool LiveBlocks::Remove(uintptr_t address, LiveBlock* block) {
  if (table_ == nullptr || !Unpack(__ZelRemoveHashTableEntry(table_, address), block)) return false;
  if (block->size >= kLarge) [[unlikely]]
    __ZelRemoveRedBlackEntry(__ZelGetRedBlackRangeEnd(large_, address));
  --count_;
  return true;
}

bool LiveBlocks::Find(uintptr_t address, LiveBlock* block) const {
  return table_ != nullptr && Unpack(__ZelLookupHashTable(table_, address), block);
}

bool LiveBlocks::FindLargeBefore(uintptr_t* address, LiveBlock* block) const {
  return __ZelGetRedBlackKey(__ZelGetRedBlackRangeEnd(large_, *address), address) != 0 &&
         Find(*address, block);
}

}  // namespace heapscope
