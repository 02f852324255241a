// The records of a range table, as the table and its tests know them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelrt/hash_table.h"
#include "zelrt/range_table.h"

namespace zelrt {

// What stands for a range in each of its blocks.
struct ZelRangeEntry {
  uint64_t marker;  // kEntryMarker
  uint64_t start;
  uint64_t end;
  ZelRangeTable* table;
  void* data;
  uint32_t references;  // blocks that lead here
};

// One of the ranges that touch a block of 32 bytes.
struct ZelRangeBlockNode {
  ZelRangeBlockNode* next;
  ZelRangeEntry* entry;
};

// Tells an entry from a node, whose first word is an address or null.
inline constexpr uint64_t kEntryMarker = ~uint64_t{0};

}  // namespace zelrt

struct ZelRangeTable {
  uint32_t flags;  // the caller's, and above them what is below
  int32_t minLevelIndex;
  int32_t maxLevelIndex;
  ZelRangeReleaseData releaseData;
  ZelHashTable** levels;  // one for each size of blocks; null until the first block of that size
};

namespace zelrt {

static_assert(offsetof(ZelRangeEntry, start) == 8 && offsetof(ZelRangeEntry, end) == 16 &&
              offsetof(ZelRangeEntry, table) == 24 && offsetof(ZelRangeEntry, data) == 32 &&
              offsetof(ZelRangeEntry, references) == 40 && sizeof(ZelRangeEntry) == 48);
static_assert(offsetof(ZelRangeBlockNode, entry) == 8 && sizeof(ZelRangeBlockNode) == 16);
static_assert(offsetof(ZelRangeTable, minLevelIndex) == 4 &&
              offsetof(ZelRangeTable, maxLevelIndex) == 8 &&
              offsetof(ZelRangeTable, releaseData) == 16 && offsetof(ZelRangeTable, levels) == 24 &&
              sizeof(ZelRangeTable) == 32);

inline constexpr uint32_t kRangeCallerFlags = 0xFF;
inline constexpr uint32_t kRangeCategoryShift = 8;  // 8 bits: the memory category
inline constexpr uint32_t kRangeCategoryMask = 0xFF;
inline constexpr uint32_t kRangeAllocFlagsShift = 16;  // 4 bits: the size shift of ranges
inline constexpr uint32_t kRangeAllocFlagsMask = 0xF;

// Blocks. A level, counted from 0, stands for blocks of 32 << level bytes. The record counts it
// from kMinLevelIndex, where index i stands for 2 << i bytes.
inline constexpr int32_t kMinLevelIndex = 4;
inline constexpr uint32_t kMinBlockBits = 5;
inline constexpr uint32_t kMaxBlockBits = 27;
inline constexpr uint32_t kMaxLevels = kMaxBlockBits - kMinBlockBits + 1;

constexpr uint64_t BlockSize(uint32_t level) { return uint64_t{1} << (level + kMinBlockBits); }
constexpr uint64_t BlockAt(uint32_t level, uint64_t address) {
  return address & ~(BlockSize(level) - 1);
}
inline uint32_t LevelCount(const ZelRangeTable* table) {
  return static_cast<uint32_t>(table->maxLevelIndex - table->minLevelIndex) + 1;
}

// Whether the level tables hold the blocks of the ranges that they lead to, all of them and no
// others, and references are as many. Not true of a table whose caller let ranges overlap.
bool RangeTableIsConsistent(const ZelRangeTable* table);

}  // namespace zelrt
