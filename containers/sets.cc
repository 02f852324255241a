// Sets, and what multisets share with them: all that looks at presence bits alone.

#include "containers/set_blocks.h"

namespace zelrt {
namespace {

bool AreDisjoint(const ZelSet& a, const ZelSet& b) {
  if (&a == &b) return false;
  const ZelSetChunk* x = a.first;
  const ZelSetChunk* y = b.first;
  while (x != nullptr && y != nullptr) {
    const uint32_t xIndex = x->index;
    const uint32_t yIndex = y->index;
    if (xIndex == yIndex && (BitsOf(*x) & BitsOf(*y)) != 0) return false;
    if (xIndex <= yIndex) x = x->next;
    if (yIndex <= xIndex) y = y->next;
  }
  return true;
}

bool IsSubset(const ZelSet& a, const ZelSet& b) {
  if (&a == &b) return true;
  const ZelSetChunk* y = b.first;
  for (const ZelSetChunk* x = a.first; x != nullptr; x = x->next) {
    y = FindBlock(y, x->index);
    if (y == nullptr || (BitsOf(*x) & ~BitsOf(*y)) != 0) return false;
  }
  return true;
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

void __ZelDestroySet(ZelSet* set) { Empty(*set); }
void __ZelEmptySet(ZelSet* set) { Empty(*set); }

void __ZelConstructSet(ZelSet* destination, const ZelSet* source) { Copy(*destination, *source); }
void __ZelConstructSetAndDestroy(ZelSet* destination, ZelSet* source) {
  Move(*destination, *source);
}

int __ZelAreSetsEqual(const ZelSet* a, const ZelSet* b) { return AreEqual(*a, *b) ? 1 : 0; }

int __ZelCompareSets(const ZelSet* a, const ZelSet* b) {
  const auto difference = static_cast<int>(a->count) - static_cast<int>(b->count);
  if (difference != 0) return difference;
  return AreEqual(*a, *b) ? 0 : 1;
}

int __ZelAreSetsDisjoint(const ZelSet* a, const ZelSet* b) { return AreDisjoint(*a, *b) ? 1 : 0; }
int __ZelIsASubsetOfSet(const ZelSet* a, const ZelSet* b) { return IsSubset(*a, *b) ? 1 : 0; }

uint32_t __ZelIsAnElementOfSet(const ZelSet* set, uint32_t element) {
  const ZelSetChunk* const block = FindBlock(set->first, BlockIndex(element));
  if (block == nullptr) return 0;
  return block->bits[PlaceInBlock(element) / 32] & uint32_t{1} << element % 32;
}

void __ZelAddAnElementToSet(ZelSet* set, uint32_t element) {
  ZelSetChunk* const block = BlockToAddTo(*set, element);
  if (block != nullptr && (BitsOf(*block) & BitOf(element)) == 0) AddBit(*set, *block, element);
  ZEL_ASSERT(SetIsConsistent(*set));
}

void __ZelDeleteAnElementFromSet(ZelSet* set, uint32_t element) {
  ZelSetChunk** const link = LinkToElement(*set, element);
  if (link != nullptr) DeleteBit(*set, link, element);
  ZEL_ASSERT(SetIsConsistent(*set));
}

void __ZelUnionSet(ZelSet* a, const ZelSet* b) {
  if (a != b) UniteSets(*a, *b);
}
void __ZelIntersectSet(ZelSet* result, const ZelSet* a, const ZelSet* b) {
  IntersectSets(*result, *a, *b);
}
void __ZelDifferenceSet(ZelSet* a, const ZelSet* b) { SubtractSets(*a, *b); }

void __ZelScanSet(const ZelSet* set, ZelSetVisitor visit, void* context) {
  for (const ZelSetChunk* block = set->first; block != nullptr; block = block->next) {
    ForEachOne(BitsOf(*block), [&](uint32_t place) { visit(block->index * 64 + place, context); });
  }
}

void __ZelPrintOutSet(const ZelSet*) {}

// The same entry. That g++ knows more of the one than of the other does not matter.
#pragma GCC diagnostic ignored "-Wmissing-attributes"
[[gnu::alias("__ZelPrintOutSet")]] void __ZelPrintOutMultiSet(const ZelMultiSet*);
