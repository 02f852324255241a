// What sets and multisets have in common: lists of blocks, and the passes over them.
//
// Outside of the calls:
//   - blocks are in strictly ascending order of their indexes;
//   - no block is without elements;
//   - in a multiset, a presence bit is set exactly where the multiplicity is not 0;
//   - count is the number of presence bits, or kMaxSetCount when there are more.
//
// A pass that changes a list goes from link to link, a link being the pointer that leads to a
// block: the record's or the previous block's. Records that are passed for reading may be the one
// that is changed; what a pass writes lies behind what it has yet to read, or is read first.
//
// A block of a multiset is read as one of a set where the multiplicities do not matter: the records
// and blocks are declared to alias.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/internal.h"
#include "zelrt/memory.h"
#include "zelrt/sets.h"

namespace zelrt {

static_assert(offsetof(ZelSet, first) == 8 && sizeof(ZelSet) == 16);
static_assert(offsetof(ZelMultiSet, first) == 8 && sizeof(ZelMultiSet) == 16);
static_assert(offsetof(ZelSetChunk, next) == 0 && offsetof(ZelSetChunk, index) == 8 &&
              offsetof(ZelSetChunk, bits) == 12 && sizeof(ZelSetChunk) == 24);
static_assert(offsetof(ZelMultiSetChunk, next) == 0 && offsetof(ZelMultiSetChunk, index) == 8 &&
              offsetof(ZelMultiSetChunk, bits) == 12 && offsetof(ZelMultiSetChunk, counts) == 20 &&
              sizeof(ZelMultiSetChunk) == 280);

inline constexpr uint32_t kMaxSetCount = ZEL_MAX_SET_COUNT;
inline constexpr uint32_t kMaxMultiplicity = ~uint32_t{0};

inline constexpr uint32_t BlockIndex(uint32_t element) { return element >> 6; }
inline constexpr uint32_t PlaceInBlock(uint32_t element) { return element & 63; }
inline constexpr uint64_t BitOf(uint32_t element) { return uint64_t{1} << PlaceInBlock(element); }

// Contents of a block -----------------------------------------------------------------------------

// Both words as one, the first in the low half.
template <typename Block>
inline uint64_t BitsOf(const Block& block) {
  uint64_t bits;
  std::memcpy(&bits, block.bits, sizeof bits);
  return bits;
}
template <typename Block>
inline void SetBits(Block& block, uint64_t bits) {
  std::memcpy(block.bits, &bits, sizeof bits);
}

// Inline arithmetic, since the instruction is not on every x86-64 processor: it takes no longer
// than the load of the next block, which has to be waited for anyway.
inline uint32_t CountOnes(uint64_t bits) {
  bits -= bits >> 1 & 0x5555555555555555;
  bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
  bits = (bits + (bits >> 4)) & 0x0F0F0F0F0F0F0F0F;
  return static_cast<uint32_t>(bits * 0x0101010101010101 >> 56);
}

template <typename Visit>
inline void ForEachOne(uint64_t bits, Visit visit) {
  for (; bits != 0; bits &= bits - 1) visit(static_cast<uint32_t>(std::countr_zero(bits)));
}

inline uint32_t SaturatingAdd(uint32_t a, uint32_t b) {
  const uint32_t sum = a + b;
  return sum < a ? kMaxMultiplicity : sum;
}

inline void Clear(ZelSetChunk& block) { SetBits(block, 0); }
inline void Clear(ZelMultiSetChunk& block) {
  SetBits(block, 0);
  std::memset(block.counts, 0, sizeof block.counts);
}

inline void Assign(ZelSetChunk& to, const ZelSetChunk& from) { SetBits(to, BitsOf(from)); }
inline void Assign(ZelMultiSetChunk& to, const ZelMultiSetChunk& from) {
  SetBits(to, BitsOf(from));
  std::memcpy(to.counts, from.counts, sizeof to.counts);
}

inline void Unite(ZelSetChunk& to, const ZelSetChunk& from) {
  SetBits(to, BitsOf(to) | BitsOf(from));
}
inline void Unite(ZelMultiSetChunk& to, const ZelMultiSetChunk& from) {
  SetBits(to, BitsOf(to) | BitsOf(from));
  for (uint32_t i = 0; i < 64; ++i) to.counts[i] = SaturatingAdd(to.counts[i], from.counts[i]);
}
inline void Unite(ZelMultiSetChunk& to, const ZelSetChunk& from) {
  SetBits(to, BitsOf(to) | BitsOf(from));
  ForEachOne(BitsOf(from), [&](uint32_t i) { to.counts[i] = SaturatingAdd(to.counts[i], 1); });
}

inline void AssignCommon(ZelSetChunk& to, const ZelSetChunk& a, const ZelSetChunk& b) {
  SetBits(to, BitsOf(a) & BitsOf(b));
}
inline void AssignCommon(ZelMultiSetChunk& to, const ZelMultiSetChunk& a,
                         const ZelMultiSetChunk& b) {
  SetBits(to, BitsOf(a) & BitsOf(b));
  for (uint32_t i = 0; i < 64; ++i) to.counts[i] = std::min(a.counts[i], b.counts[i]);
}

inline void Subtract(ZelSetChunk& from, const ZelSetChunk& what) {
  SetBits(from, BitsOf(from) & ~BitsOf(what));
}
inline void Subtract(ZelMultiSetChunk& from, const ZelMultiSetChunk& what) {
  uint64_t bits = BitsOf(from);
  ForEachOne(bits & BitsOf(what), [&](uint32_t i) {
    from.counts[i] -= std::min(from.counts[i], what.counts[i]);
    if (from.counts[i] == 0) bits &= ~(uint64_t{1} << i);
  });
  SetBits(from, bits);
}

inline bool IsSame(const ZelSetChunk& a, const ZelSetChunk& b) { return BitsOf(a) == BitsOf(b); }
inline bool IsSame(const ZelMultiSetChunk& a, const ZelMultiSetChunk& b) {
  return std::memcmp(a.counts, b.counts, sizeof a.counts) == 0;
}

inline bool BitsAreConsistent(const ZelSetChunk&) { return true; }
inline bool BitsAreConsistent(const ZelMultiSetChunk& block) {
  uint64_t bits = 0;
  for (uint32_t i = 0; i < 64; ++i) bits |= uint64_t{block.counts[i] != 0} << i;
  return bits == BitsOf(block);
}

// Lists of blocks ---------------------------------------------------------------------------------

template <typename Block>
inline uint64_t CountElements(const Block* block) {
  uint64_t total = 0;
  for (; block != nullptr; block = block->next) total += CountOnes(BitsOf(*block));
  return total;
}

// Null when there is none of this index.
template <typename Block>
inline const Block* FindBlock(const Block* block, uint32_t index) {
  while (block != nullptr && block->index < index) block = block->next;
  return block != nullptr && block->index == index ? block : nullptr;
}

// The link to the block of this index or, if there is none, to where it belongs.
template <typename Block>
inline Block** FindLink(Block** link, uint32_t index) {
  while (*link != nullptr && (*link)->index < index) link = &(*link)->next;
  return link;
}

// A block without elements, which the caller has to give some. Null for lack of memory.
template <typename Block>
inline Block* InsertBlock(Block** link, uint32_t category, uint32_t index) {
  auto* const block = static_cast<Block*>(__ZelMalloc(category, sizeof(Block), 0));
  if (block == nullptr) return nullptr;
  block->next = *link;
  block->index = index;
  Clear(*block);
  *link = block;
  return block;
}

// For the next block of a result: the one that is there, or a new one at the end.
template <typename Block>
inline Block* ReuseOrAppend(Block** link, uint32_t category, uint32_t index) {
  if (*link == nullptr) return InsertBlock(link, category, index);
  (*link)->index = index;
  return *link;
}

template <typename Block>
inline void RemoveBlock(Block** link) {
  Block* const block = *link;
  *link = block->next;
  __ZelFree(block);
}

template <typename Block>
inline void RemoveAllFrom(Block** link) {
  while (*link != nullptr) RemoveBlock(link);
}

// Records -----------------------------------------------------------------------------------------

// The category stands in the same word and stays.
template <typename Record>
inline void StoreCount(Record& set, uint64_t elements) {
  set.count = static_cast<uint32_t>(std::min<uint64_t>(elements, kMaxSetCount)) & kMaxSetCount;
}

template <typename Record>
bool SetIsConsistent(const Record& set) {
  for (const auto* block = set.first; block != nullptr; block = block->next) {
    const bool isInOrder = block->next == nullptr || block->index < block->next->index;
    if (!isInOrder || BitsOf(*block) == 0 || !BitsAreConsistent(*block)) return false;
  }
  return set.count == std::min<uint64_t>(CountElements(set.first), kMaxSetCount);
}

template <typename Record>
inline void Empty(Record& set) {
  RemoveAllFrom(&set.first);
  set.count = 0;
}

template <typename Record>
inline void Copy(Record& to, const Record& from) {
  if (&to == &from) return;
  auto** link = &to.first;
  bool isWhole = true;
  for (const auto* block = from.first; block != nullptr && isWhole; block = block->next) {
    auto* const copy = ReuseOrAppend(link, to.memoryCategory, block->index);
    isWhole = copy != nullptr;
    if (!isWhole) break;
    Assign(*copy, *block);
    link = &copy->next;
  }
  RemoveAllFrom(link);
  StoreCount(to, isWhole ? from.count : CountElements(to.first));
  ZEL_ASSERT(SetIsConsistent(to));
}

template <typename Record>
inline void Move(Record& to, Record& from) {
  if (&to == &from) return;
  Empty(to);
  to.first = from.first;
  to.count = from.count;
  from.first = nullptr;
  from.count = 0;
  ZEL_ASSERT(SetIsConsistent(to));
}

template <typename Record>
inline bool AreEqual(const Record& a, const Record& b) {
  if (&a == &b) return true;
  if (a.count != b.count) return false;
  const auto* x = a.first;
  const auto* y = b.first;
  for (; x != nullptr && y != nullptr; x = x->next, y = y->next) {
    if (x->index != y->index || !IsSame(*x, *y)) return false;
  }
  return x == y;
}

// The block that has the element or can take it. Null when it cannot be added.
template <typename Record>
inline auto* BlockToAddTo(Record& set, uint32_t element) {
  const uint32_t index = BlockIndex(element);
  auto** const link = FindLink(&set.first, index);
  auto* const block = *link;
  const bool isThere = block != nullptr && block->index == index;
  if (set.count == kMaxSetCount && !(isThere && (BitsOf(*block) & BitOf(element)) != 0))
      [[unlikely]]
    return decltype(block){nullptr};
  return isThere ? block : InsertBlock(link, set.memoryCategory, index);
}

// Adds the presence bit, which is not set.
template <typename Record, typename Block>
inline void AddBit(Record& set, Block& block, uint32_t element) {
  SetBits(block, BitsOf(block) | BitOf(element));
  ++set.count;
}

// The link to the element's block. Null when the element is not there.
template <typename Record>
inline auto** LinkToElement(Record& set, uint32_t element) {
  auto** const link = FindLink(&set.first, BlockIndex(element));
  auto* const block = *link;
  const bool isThere = block != nullptr && block->index == BlockIndex(element) &&
                       (BitsOf(*block) & BitOf(element)) != 0;
  return isThere ? link : nullptr;
}

// Takes the presence bit, which is set, away from the link's block.
template <typename Record, typename Block>
inline void DeleteBit(Record& set, Block** link, uint32_t element) {
  const uint64_t rest = BitsOf(**link) & ~BitOf(element);
  SetBits(**link, rest);
  if (rest == 0) RemoveBlock(link);
  if (set.count < kMaxSetCount) [[likely]] {
    --set.count;
  } else {
    StoreCount(set, CountElements(set.first));  // there may have been more than the field tells
  }
}

// a becomes the union with b.
template <typename Record, typename Other>
inline void UniteSets(Record& a, const Other& b) {
  auto** link = &a.first;
  uint64_t elements = 0;
  for (const auto* from = b.first; from != nullptr; from = from->next) {
    auto* to = *link;
    for (; to != nullptr && to->index < from->index; to = *link) {
      elements += CountOnes(BitsOf(*to));
      link = &to->next;
    }
    if (to == nullptr || to->index != from->index)
      to = InsertBlock(link, a.memoryCategory, from->index);
    if (to == nullptr) continue;
    Unite(*to, *from);
    elements += CountOnes(BitsOf(*to));
    link = &to->next;
  }
  StoreCount(a, elements + CountElements(*link));
  ZEL_ASSERT(SetIsConsistent(a));
}

template <typename Record>
inline void IntersectSets(Record& result, const Record& a, const Record& b) {
  if (&a == &b) return Copy(result, a);
  auto** link = &result.first;
  uint64_t elements = 0;
  const auto* x = a.first;
  const auto* y = b.first;
  while (x != nullptr && y != nullptr) {
    const uint32_t xIndex = x->index;
    const uint32_t yIndex = y->index;
    if (xIndex == yIndex && (BitsOf(*x) & BitsOf(*y)) != 0) {
      // At most the block that is being read: where result is a or b, all have come from there.
      auto* const common = ReuseOrAppend(link, result.memoryCategory, xIndex);
      if (common != nullptr) {
        AssignCommon(*common, *x, *y);
        elements += CountOnes(BitsOf(*common));
        link = &common->next;
      }
    }
    if (xIndex <= yIndex) x = x->next;
    if (yIndex <= xIndex) y = y->next;
  }
  RemoveAllFrom(link);
  StoreCount(result, elements);
  ZEL_ASSERT(SetIsConsistent(result));
}

// a loses what is in b.
template <typename Record>
inline void SubtractSets(Record& a, const Record& b) {
  if (&a == &b) return Empty(a);
  auto** link = &a.first;
  uint64_t elements = 0;
  for (const auto* what = b.first; what != nullptr && *link != nullptr;) {
    auto* const block = *link;
    if (what->index < block->index) {
      what = what->next;
      continue;
    }
    if (what->index == block->index) {
      Subtract(*block, *what);
      what = what->next;
      if (BitsOf(*block) == 0) {
        RemoveBlock(link);
        continue;
      }
    }
    elements += CountOnes(BitsOf(*block));
    link = &block->next;
  }
  StoreCount(a, elements + CountElements(*link));
  ZEL_ASSERT(SetIsConsistent(a));
}

}  // namespace zelrt
