// Range tables.
//
// A range is cut into blocks: the first and the last 32 bytes that it covers in part, and in
// between, at each address, the largest block that is aligned there, does not go past the end, and
// is not above the table's maximum. Every block leads to the range's entry, which counts them.
//
// Between operations, as long as the caller lets no ranges overlap:
//   - a block is in the hash table of its level exactly when a range has it;
//   - at level 0 it leads to a list with a node for each range that has it; elsewhere, and where
//     blocks are unshared, to the one range's entry;
//   - an entry's `references` is the number of blocks and nodes that lead to it.
// Since misuse goes unnoticed by design, no build asserts this.
//
// The hash tables have one level, no locks, no key callbacks and a hash function that is known
// here. Probing them is most of what happens, so their chains are followed here, and calls are left
// for what is rare. In a table of some size a chain is a series of cache misses; those of different
// blocks can be waited for together.

#include "containers/range_table.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

#include "containers/hash_table.h"
#include "memory/internal.h"
#include "runtime/locks.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

using Table = ZelRangeTable;
using Entry = ZelRangeEntry;
using Node = ZelRangeBlockNode;

// Bit 0x04 means nothing to a hash table.
constexpr uint32_t kLevelTableFlags = ZEL_HASH_FLAG_NO_LOCKING | 0x04;

// Level tables with no more buckets than this are likely to be in the processor's cache.
constexpr int32_t kNearBuckets = 4096;

// Blocks whose chains are looked for together.
constexpr uint32_t kBatch = 16;

uint32_t CategoryOf(const Table* table) {
  return table->flags >> kRangeCategoryShift & kRangeCategoryMask;
}
uint32_t AllocFlagsOf(const Table* table) {
  return table->flags >> kRangeAllocFlagsShift & kRangeAllocFlagsMask;
}
bool HasLists(const Table* table, uint32_t level) {
  return level == 0 && (table->flags & ZEL_RANGE_FLAG_UNSHARED_BLOCKS) == 0;
}
uint32_t TopLevel(const Table* table) { return LevelCount(table) - 1; }

template <typename Record>
Record* AllocateFor(const Table* table, uint64_t self) {
  return static_cast<Record*>(
      AllocateBlock(CategoryOf(table), sizeof(Record), AllocFlagsOf(table), self));
}

bool IsEntry(const void* item) { return *static_cast<const uint64_t*>(item) == kEntryMarker; }
Entry* AsEntry(void* item) { return static_cast<Entry*>(item); }
Node* AsNode(void* item) { return static_cast<Node*>(item); }

// Level tables ------------------------------------------------------------------------------------

// Member `shift` of the family of hash functions; that of a level is level + 1. So blocks of the
// lowest levels, whose low bits are 0, use every 8th, 4th and 2nd bucket only.
uint64_t RangeHash(uint64_t block, uint32_t shift) {
  const auto v = static_cast<uint64_t>(static_cast<int64_t>(block) >> shift);
  return v ^ v >> shift;
}

template <size_t... kIndices>
constexpr auto MakeHashFunctions(std::index_sequence<kIndices...>) {
  return std::array<ZelHashFunction, sizeof...(kIndices)>{[](const ZelHashTable*, uint64_t key) {
    return RangeHash(key, static_cast<uint32_t>(kIndices) + 1);
  }...};
}
constexpr auto kHashFunctions = MakeHashFunctions(std::make_index_sequence<kMaxBlockBits>());

ZelHashTable* MakeLevelTable(const Table* table, uint32_t level) {
  return __ZelCreateHashTable(kLevelTableFlags, &kHashFunctions[level], 1, nullptr, nullptr,
                              CategoryOf(table), AllocFlagsOf(table));
}

bool IsInUse(const ZelHashTable* levelTable) {
  return levelTable != nullptr && levelTable->count > 0;
}

bool IsFar(const ZelHashTable* levelTable) {
  return levelTable != nullptr && levelTable->bucketCount > kNearBuckets;
}

ZelHashBucket* BucketOf(const ZelHashTable* levelTable, uint32_t level, uint64_t block) {
  const auto mask = static_cast<uint64_t>(levelTable->bucketCount) - 1;
  return &levelTable->buckets[RangeHash(block, level + 1) & mask];
}

// What leads to the block's hash entry, or to the end of the chain.
ZelHashEntry** FindLink(ZelHashBucket* bucket, uint64_t block) {
  ZelHashEntry** link = &bucket->chain.entries;
  while (*link != nullptr && (*link)->key != block) link = &(*link)->next;
  return link;
}

// Stores the item and returns it, or returns what the block leads to already.
void* InsertBlock(const Table* table, uint32_t level, uint64_t block, void* item, uint64_t self) {
  ZelHashTable* const levelTable = table->levels[level];
  ZelHashBucket* const bucket = BucketOf(levelTable, level, block);
  const ZelHashEntry* const stored = *FindLink(bucket, block);
  if (stored != nullptr) return stored->data;
  if (levelTable->count > levelTable->bucketCount) [[unlikely]]
    return __ZelInsertHashTableEntry(levelTable, block, item);  // which makes it grow
  auto* const entry = AllocateFor<ZelHashEntry>(table, self);
  entry->next = bucket->chain.entries;
  entry->key = block;
  entry->data = item;
  bucket->chain.entries = entry;
  ++levelTable->count;
  return item;
}

void UnlinkBlock(ZelHashTable* levelTable, ZelHashEntry** link, uint64_t self) {
  ZelHashEntry* const entry = *link;
  *link = entry->next;
  --levelTable->count;
  FreeBlock(entry, self);
}

// Probes ------------------------------------------------------------------------------------------

// A block that is going to be looked for, and how far along its chain memory has been asked for.
struct Probe {
  const ZelHashEntry* entry;  // not null
  uint64_t block;
};

// Follows the chains in turns, an entry each, so that all wait for memory together, as far as they
// are going to be searched.
void BringNear(Probe* probes, uint32_t count) {
  while (count > 0) {
    uint32_t left = 0;
    for (uint32_t i = 0; i < count; ++i) {
      const Probe probe = probes[i];
      if (probe.entry->key == probe.block) {
        __builtin_prefetch(probe.entry->data);
        continue;
      }
      const ZelHashEntry* const next = probe.entry->next;
      if (next == nullptr) continue;
      __builtin_prefetch(next);
      probes[left++] = {next, probe.block};
    }
    count = left;
  }
}

// What the block leads to that contains the address and is of `level` or below; null when there is
// none. Ranges do not overlap, so there is one at most.
//
// Level 0 has by far the longest chains. Its search begins first, and makes a step each time that
// another level has been looked at: their cache misses pass while its own are waited for.
[[gnu::always_inline]] inline void* FindBlock(const Table* table, uint64_t address,
                                              uint32_t level) {
  const ZelHashTable* const lowest = table->levels[0];
  const uint64_t lowestBlock = BlockAt(0, address);
  const ZelHashEntry* entry =
      IsInUse(lowest) ? BucketOf(lowest, 0, lowestBlock)->chain.entries : nullptr;
  for (uint32_t upper = level; upper > 0; --upper) {
    const ZelHashTable* const levelTable = table->levels[upper];
    if (!IsInUse(levelTable)) continue;
    const uint64_t block = BlockAt(upper, address);
    const ZelHashEntry* const found = *FindLink(BucketOf(levelTable, upper, block), block);
    if (found != nullptr) return found->data;
    if (entry != nullptr) {
      if (entry->key == lowestBlock) return entry->data;
      entry = entry->next;
    }
  }
  while (entry != nullptr && entry->key != lowestBlock) entry = entry->next;
  return entry != nullptr ? entry->data : nullptr;
}

const Entry* EntryInList(const Node* node, uint64_t address) {
  for (; node != nullptr; node = node->next) {
    if (node->entry->start <= address && address < node->entry->end) return node->entry;
  }
  return nullptr;
}

[[gnu::always_inline]] inline const Entry* Lookup(const Table* table, uint64_t address) {
  void* const item = FindBlock(table, address, TopLevel(table));
  if (item == nullptr) return nullptr;
  // A block that leads to an entry lies inside that range, or is taken to.
  return IsEntry(item) ? AsEntry(item) : EntryInList(AsNode(item), address);
}

// Decomposition -----------------------------------------------------------------------------------

// The largest size of blocks that is not above `length`, within the table's bounds.
uint32_t LevelForLength(const Table* table, uint64_t length) {
  return std::min(std::max(HighestOne(length), kMinBlockBits) - kMinBlockBits, TopLevel(table));
}

// Calls visit(level, block) for the blocks of [start, end), ascending. Addresses are compared by
// their distance from `end`, so that nothing wraps at the top of the address space. Nothing empty
// has a block, not even the one that it lies in.
template <typename Visit>
inline void ForEachBlock(const Table* table, uint64_t start, uint64_t end, Visit visit) {
  if (start >= end) return;
  uint64_t at = BlockAt(0, start);
  if (at != start) {
    visit(0, at);
    if (end - at <= BlockSize(0)) return;
    at += BlockSize(0);
  }
  const uint32_t top = TopLevel(table);
  if (top >= kMaxLevels) __builtin_unreachable();  // no table is made with more
  while (at < end) {
    const uint64_t length = end - at;
    if (length < BlockSize(0)) return visit(0, at);
    const auto alignment = static_cast<uint32_t>(std::countr_zero(at));  // 64 for address 0
    const uint32_t level = std::min(std::min(alignment, HighestOne(length)) - kMinBlockBits, top);
    visit(level, at);
    at += BlockSize(level);
  }
}

// The same for a visit that is going to search the blocks' chains. In a table of some size they are
// brought near first, those of several blocks at a time.
template <typename Visit>
void ForEachChain(const Table* table, uint64_t start, uint64_t end, Visit visit) {
  if (!IsFar(table->levels[0]) && !IsFar(table->levels[LevelForLength(table, end - start)]))
    return ForEachBlock(table, start, end, visit);

  struct {
    uint32_t level;
    uint64_t block;
  } blocks[kBatch];
  uint32_t count = 0;
  const auto visitBatch = [&] {
    Probe probes[kBatch];
    uint32_t probeCount = 0;
    for (uint32_t i = 0; i < count; ++i) {
      const auto [level, block] = blocks[i];
      if (!IsInUse(table->levels[level])) continue;
      const ZelHashEntry* const first = BucketOf(table->levels[level], level, block)->chain.entries;
      if (first == nullptr) continue;
      __builtin_prefetch(first);
      probes[probeCount++] = {first, block};
    }
    BringNear(probes, probeCount);
    for (uint32_t i = 0; i < count; ++i) visit(blocks[i].level, blocks[i].block);
    count = 0;
  };
  ForEachBlock(table, start, end, [&](uint32_t level, uint64_t block) {
    const ZelHashTable* const levelTable = table->levels[level];
    if (IsInUse(levelTable)) __builtin_prefetch(&BucketOf(levelTable, level, block)->chain);
    blocks[count++] = {level, block};
    if (count == kBatch) visitBatch();
  });
  visitBatch();
}

// Inserting ---------------------------------------------------------------------------------------

// The node goes second in a list that is there, so that the hash entry need not change.
void AddToList(const Table* table, uint64_t block, Entry* entry, uint64_t self) {
  auto* const node = AllocateFor<Node>(table, self);
  *node = {.next = nullptr, .entry = entry};
  Node* const first = AsNode(InsertBlock(table, 0, block, node, self));
  if (first == node) return;
  node->next = first->next;
  first->next = node;
}

void Insert(Table* table, uint64_t start, uint64_t end, void* data, uint64_t self) {
  auto* const entry = AllocateFor<Entry>(table, self);
  *entry = {.marker = kEntryMarker,
            .start = start,
            .end = end,
            .table = table,
            .data = data,
            .references = 0};
  ForEachChain(table, start, end, [=](uint32_t level, uint64_t block) {
    ++entry->references;
    if (table->levels[level] == nullptr) [[unlikely]]
      table->levels[level] = MakeLevelTable(table, level);
    if (HasLists(table, level)) {
      AddToList(table, block, entry, self);
    } else {
      InsertBlock(table, level, block, entry, self);
    }
  });
}

// Removing ----------------------------------------------------------------------------------------

// Takes one block from the entry. With the last one goes the entry, its data item to `release`.
void DropReference(Entry* entry, ZelRangeReleaseData release, uint64_t self) {
  ZEL_ASSERT(entry->references > 0);
  if (--entry->references > 0) return;
  if (release != nullptr) release(entry->data);
  FreeBlock(entry, self);
}

// Takes the range that starts at `start` from the block's list. The hash entry is there as long as
// the list has a node.
void RemoveFromList(ZelHashTable* levelTable, ZelHashEntry** link, uint64_t start,
                    ZelRangeReleaseData release, uint64_t self) {
  Node* const first = AsNode((*link)->data);
  Node* before = nullptr;
  Node* node = first;
  while (node != nullptr && node->entry->start != start) {
    before = node;
    node = node->next;
  }
  if (node == nullptr) return;
  DropReference(node->entry, release, self);
  if (before != nullptr) {
    before->next = node->next;
  } else if (node->next != nullptr) {
    (*link)->data = node->next;
  } else {
    UnlinkBlock(levelTable, link, self);
  }
  FreeBlock(node, self);
}

void Remove(const Table* table, uint64_t start, uint64_t end, ZelRangeReleaseData release,
            uint64_t self) {
  ForEachChain(table, start, end, [=](uint32_t level, uint64_t block) {
    ZelHashTable* const levelTable = table->levels[level];
    if (!IsInUse(levelTable)) return;
    ZelHashEntry** const link = FindLink(BucketOf(levelTable, level, block), block);
    if (*link == nullptr) return;
    if (HasLists(table, level)) {
      RemoveFromList(levelTable, link, start, release, self);
    } else {
      DropReference(AsEntry((*link)->data), release, self);
      UnlinkBlock(levelTable, link, self);
    }
  });
}

void Remove(const Table* table, const Entry* entry, ZelRangeReleaseData release, uint64_t self) {
  Remove(table, entry->start, entry->end, release, self);
}

// Walking -----------------------------------------------------------------------------------------

// The next block of 32 bytes, or `end`.
uint64_t StepFrom(uint64_t at, uint64_t end) {
  return end - at <= BlockSize(0) ? end : at + BlockSize(0);
}

uint64_t BucketsInUse(const Table* table) {
  uint64_t buckets = 0;
  for (uint32_t level = 0; level <= TopLevel(table); ++level) {
    if (IsInUse(table->levels[level]))
      buckets += static_cast<uint64_t>(table->levels[level]->bucketCount);
  }
  return buckets;
}

template <typename Visit>
void ForEachStoredBlock(const Table* table, Visit visit) {
  for (uint32_t level = 0; level <= TopLevel(table); ++level) {
    const ZelHashTable* const levelTable = table->levels[level];
    if (!IsInUse(levelTable)) continue;
    for (int32_t i = 0; i < levelTable->bucketCount; ++i) {
      const ZelHashEntry* entry = levelTable->buckets[i].chain.entries;
      for (; entry != nullptr; entry = entry->next) visit(level, entry->key, entry->data);
    }
  }
}

// Where a walk that goes on from `at`, step by step, is going to find a block; `end` if nowhere.
uint64_t NextOccupied(const Table* table, uint64_t at, uint64_t end) {
  uint64_t nearest = end;
  ForEachStoredBlock(table, [&](uint32_t level, uint64_t block, const void*) {
    const uint64_t first = std::max(block, at);
    if (first < nearest && first - block < BlockSize(level) &&
        level <= LevelForLength(table, end - first))
      nearest = first;
  });
  return nearest;
}

// Looks for blocks in [start, end), by addresses, each time among the levels that fit what is left.
// visit(item, at) is told what a block leads to, and returns where to go on.
template <typename Visit>
void Walk(const Table* table, uint64_t start, uint64_t end, Visit visit) {
  // Steps to take where there is nothing, before it pays to look through the table.
  const uint64_t patience = BucketsInUse(table);
  uint64_t steps = 0;
  for (uint64_t at = BlockAt(0, start); at < end;) {
    void* const item = FindBlock(table, at, LevelForLength(table, end - at));
    if (item != nullptr) {
      steps = 0;
      at = visit(item, at);
    } else if (++steps <= patience) {
      at = StepFrom(at, end);
    } else {
      steps = 0;
      at = NextOccupied(table, at, end);
    }
  }
}

bool LiesIn(const Entry* entry, uint64_t start, uint64_t end) {
  return entry->start >= start && entry->end <= end;
}

Entry* FirstInList(const Node* node, uint64_t start, uint64_t end) {
  while (node != nullptr && !LiesIn(node->entry, start, end)) node = node->next;
  return node != nullptr ? node->entry : nullptr;
}

void* RemoveFirst(const Table* table, uint64_t start, uint64_t end, uint64_t self) {
  void* data = nullptr;
  Walk(table, start, end, [&](void* item, uint64_t at) {
    const Entry* const entry =
        IsEntry(item) ? AsEntry(item) : FirstInList(AsNode(item), start, end);
    if (entry == nullptr) return StepFrom(at, end);
    data = entry->data;
    Remove(table, entry, nullptr, self);
    return end;
  });
  return data;
}

struct Extent {
  uint64_t start;
  uint64_t end;
};

// Destroys the ranges of a span at whose ends no range reaches over.
void DestroyWithin(const Table* table, Extent span, uint64_t self) {
  const uint64_t low = span.start, high = span.end;
  const ZelRangeReleaseData release = table->releaseData;
  Walk(table, low, high, [=](void* item, uint64_t at) {
    if (IsEntry(item)) {
      const Entry* const entry = AsEntry(item);
      // Down to a whole block: another range may begin in the one where this ends.
      const uint64_t next = BlockAt(0, entry->end);
      Remove(table, entry, release, self);
      return next;
    }
    for (const Node* node = AsNode(item); node != nullptr;) {
      const Node* const next = node->next;
      if (LiesIn(node->entry, low, high)) Remove(table, node->entry, release, self);
      node = next;
    }
    return StepFrom(at, high);
  });
}

Extent DestroySpan(const Table* table, uint64_t start, uint64_t length, uint64_t self) {
  const ZelRangeReleaseData release = table->releaseData;
  Extent span = {start, SaturatingSum(start, length)};
  Extent extent = span;

  // Address 0 is no start that counts as found.
  const auto found = [](const Entry* entry) { return entry != nullptr && entry->start != 0; };

  const Entry* entry = Lookup(table, span.start);
  if (found(entry)) {
    const auto [first, last] = Extent{entry->start, entry->end};
    Remove(table, entry, release, self);
    extent = {std::min(extent.start, first), std::max(extent.end, last)};
    if (last >= span.end) return extent;
    span.start = last;
  }
  if (span.start >= span.end) return extent;

  entry = Lookup(table, span.end - 1);
  if (found(entry)) {
    const auto [first, last] = Extent{entry->start, entry->end};
    Remove(table, entry, release, self);
    extent.end = std::max(extent.end, last);
    if (span.start >= first) return extent;
    span.end = first;
  }
  DestroyWithin(table, span, self);
  return extent;
}

// Takes leave of an item whose block is going.
uint32_t ReleaseItem(void* item) {
  const uint64_t self = CallingOwner();
  if (IsEntry(item)) {
    DropReference(AsEntry(item), AsEntry(item)->table->releaseData, self);
    return 1;
  }
  for (Node* node = AsNode(item); node != nullptr;) {
    Node* const next = node->next;
    DropReference(node->entry, node->entry->table->releaseData, self);
    FreeBlock(node, self);
    node = next;
  }
  return 1;
}

// Checks ------------------------------------------------------------------------------------------

const ZelHashEntry* Find(const Table* table, uint32_t level, uint64_t block) {
  const ZelHashTable* const levelTable = table->levels[level];
  return IsInUse(levelTable) ? *FindLink(BucketOf(levelTable, level, block), block) : nullptr;
}

// How often the block leads to the range.
uint32_t CountIn(const Table* table, uint32_t level, uint64_t block, const Entry* entry) {
  const ZelHashEntry* const stored = Find(table, level, block);
  if (stored == nullptr) return 0;
  if (!HasLists(table, level)) return stored->data == entry;
  uint32_t count = 0;
  for (const Node* node = AsNode(stored->data); node != nullptr; node = node->next)
    count += node->entry == entry;
  return count;
}

// Whether each of its blocks leads to the entry once, and nothing else is counted.
bool EntryIsConsistent(const Table* table, const Entry* entry) {
  bool isConsistent =
      entry->marker == kEntryMarker && entry->table == table && entry->start < entry->end;
  uint32_t blocks = 0;
  ForEachBlock(table, entry->start, entry->end, [&](uint32_t level, uint64_t block) {
    ++blocks;
    isConsistent = isConsistent && CountIn(table, level, block, entry) == 1;
  });
  return isConsistent && blocks == entry->references;
}

bool HasBlock(const Table* table, const Entry* entry, uint32_t level, uint64_t block) {
  bool hasBlock = false;
  ForEachBlock(table, entry->start, entry->end, [&](uint32_t itsLevel, uint64_t itsBlock) {
    hasBlock = hasBlock || (itsLevel == level && itsBlock == block);
  });
  return hasBlock;
}

}  // namespace

bool RangeTableIsConsistent(const ZelRangeTable* table) {
  for (uint32_t level = 0; level <= TopLevel(table); ++level) {
    ZelHashTable* const levelTable = table->levels[level];
    if (levelTable != nullptr && !HashTableIsConsistent(levelTable)) return false;
  }
  bool isConsistent = true;
  const auto check = [&](uint32_t level, uint64_t block, const Entry* entry) {
    isConsistent =
        isConsistent && EntryIsConsistent(table, entry) && HasBlock(table, entry, level, block);
  };
  ForEachStoredBlock(table, [&](uint32_t level, uint64_t block, void* item) {
    if (IsEntry(item) == HasLists(table, level)) {
      isConsistent = false;
    } else if (IsEntry(item)) {
      check(level, block, AsEntry(item));
    } else {
      for (const Node* node = AsNode(item); node != nullptr; node = node->next)
        check(level, block, node->entry);
    }
  });
  return isConsistent;
}

}  // namespace zelrt

using namespace zelrt;

ZelRangeTable* __ZelCreateRangeTable(uint64_t maxRangeSize, uint32_t memoryCategory,
                                     uint32_t allocFlags, uint32_t flags,
                                     ZelRangeReleaseData releaseData) {
  const uint32_t bits = std::clamp(HighestOne(maxRangeSize), kMinBlockBits, kMaxBlockBits);
  auto* const table = static_cast<Table*>(__ZelMalloc(memoryCategory, sizeof(Table), 0));
  table->flags = (flags & kRangeCallerFlags) | memoryCategory << kRangeCategoryShift |
                 allocFlags << kRangeAllocFlagsShift;
  table->minLevelIndex = kMinLevelIndex;
  table->maxLevelIndex = static_cast<int32_t>(bits) - 1;
  table->releaseData = releaseData;
  const uint32_t levels = LevelCount(table);
  table->levels =
      static_cast<ZelHashTable**>(__ZelMalloc(memoryCategory, levels * sizeof(ZelHashTable*), 0));
  std::fill_n(table->levels, levels, nullptr);
  return table;
}

void __ZelInsertRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end, void* data) {
  if (table != nullptr) Insert(table, start, end, data, CallingOwner());
}

void* __ZelLookupRangeTable(const ZelRangeTable* table, uint64_t address, uint64_t* start,
                            uint64_t* end) {
  const Entry* const entry = Lookup(table, address);
  if (start != nullptr) *start = entry != nullptr ? entry->start : 0;
  if (end != nullptr) *end = entry != nullptr ? entry->end : 0;
  return entry != nullptr ? entry->data : nullptr;
}

void __ZelDestroyRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end) {
  Remove(table, start, end, table->releaseData, CallingOwner());
}
void __ZelRemoveRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end) {
  Remove(table, start, end, nullptr, CallingOwner());
}

void* __ZelRemoveFirstRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end) {
  return RemoveFirst(table, start, end, CallingOwner());
}

void __ZelDestroyRangeTableSpan(ZelRangeTable* table, uint64_t start, uint64_t length,
                                uint64_t* extentStart, uint64_t* extentEnd) {
  const Extent extent = DestroySpan(table, start, length, CallingOwner());
  *extentStart = extent.start;
  *extentEnd = extent.end;
}

void __ZelScanAndEmptyRangeTable(ZelRangeTable* table) {
  for (uint32_t level = 0; level < LevelCount(table); ++level) {
    uint32_t count;
    if (table->levels[level] != nullptr)
      __ZelScanAndEmptyHashTable(table->levels[level], ReleaseItem, &count);
  }
}

void __ZelDestroyRangeTable(ZelRangeTable* table) {
  if (table == nullptr) return;
  for (uint32_t level = 0; level < LevelCount(table); ++level)
    __ZelDestroyHashTable(table->levels[level], nullptr);
  __ZelFree(table->levels);
  __ZelFree(table);
}
