// The live blocks of the program.

#include "examples/heapscope/live_blocks.h"

#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

// What the range table keeps for a block: a pointer's worth of bits, never 0.
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

// A granule of the program's addresses is a block of 4 KiB in the table: it is stored in one piece,
// and hashes better than small ones do.
constexpr uint32_t kTableBits = 12;

struct Range {
  explicit Range(uintptr_t address)
      : start(address / LiveBlocks::kGranule << kTableBits),
        end(start + (uint64_t{1} << kTableBits)) {}
  const uint64_t start;
  const uint64_t end;
};
bool IsGranule(uintptr_t address) { return address % LiveBlocks::kGranule == 0; }

}  // namespace

bool LiveBlocks::Insert(uintptr_t address, LiveBlock block) {
  if (IsMemoryShort() || count_ == kMaxBlocks || !IsGranule(address)) return false;
  const Range range(address);
  const MemoryPurpose purpose(OwnMemory::kLiveBlocks);
  if (table_ == nullptr) {
    table_ = __ZelCreateRangeTable(range.end - range.start, CategoryOf(OwnMemory::kLiveBlocks), 0,
                                   0, nullptr);
  }
  __ZelInsertRangeTableEntry(table_, range.start, range.end, Pack(block));
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
  if (!Find(address, block)) return false;
  const Range range(address);
  __ZelRemoveRangeTableEntry(table_, range.start, range.end);
  if (block->size >= kLarge) [[unlikely]]
    __ZelRemoveRedBlackEntry(__ZelGetRedBlackRangeEnd(large_, address));
  --count_;
  return true;
}

bool LiveBlocks::Find(uintptr_t address, LiveBlock* block) const {
  return table_ != nullptr && IsGranule(address) &&
         Unpack(__ZelLookupRangeTable(table_, Range(address).start, nullptr, nullptr), block);
}

bool LiveBlocks::FindLargeBefore(uintptr_t* address, LiveBlock* block) const {
  return __ZelGetRedBlackKey(__ZelGetRedBlackRangeEnd(large_, *address), address) != 0 &&
         Find(*address, block);
}

}  // namespace heapscope
