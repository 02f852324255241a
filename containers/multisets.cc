// Multisets.

#include "containers/set_blocks.h"

using namespace zelrt;

void __ZelDestroyMultiSet(ZelMultiSet* multiset) { Empty(*multiset); }
void __ZelEmptyMultiSet(ZelMultiSet* multiset) { Empty(*multiset); }

int __ZelIsMultiSetEmpty(const ZelMultiSet* multiset) { return multiset->count == 0 ? 1 : 0; }

void __ZelConstructMultiSet(ZelMultiSet* destination, const ZelMultiSet* source) {
  Copy(*destination, *source);
}
void __ZelConstructMultiSetAndDestroy(ZelMultiSet* destination, ZelMultiSet* source) {
  Move(*destination, *source);
}

int __ZelAreMultiSetsEqual(const ZelMultiSet* a, const ZelMultiSet* b) {
  return AreEqual(*a, *b) ? 1 : 0;
}

uint32_t __ZelGetElementMultiplicity(const ZelMultiSet* multiset, uint32_t element) {
  const ZelMultiSetChunk* const block = FindBlock(multiset->first, BlockIndex(element));
  return block != nullptr ? block->counts[PlaceInBlock(element)] : 0;
}

void __ZelAddAnElementToMultiSet(ZelMultiSet* multiset, uint32_t element) {
  ZelMultiSetChunk* const block = BlockToAddTo(*multiset, element);
  if (block == nullptr) return;
  uint32_t& multiplicity = block->counts[PlaceInBlock(element)];
  if (multiplicity == 0) AddBit(*multiset, *block, element);
  multiplicity = SaturatingAdd(multiplicity, 1);
  ZEL_ASSERT(SetIsConsistent(*multiset));
}

void __ZelDeleteAnElementFromMultiSet(ZelMultiSet* multiset, uint32_t element) {
  ZelMultiSetChunk** const link = LinkToElement(*multiset, element);
  if (link == nullptr) return;
  uint32_t& multiplicity = (*link)->counts[PlaceInBlock(element)];
  if (--multiplicity == 0) DeleteBit(*multiset, link, element);
  ZEL_ASSERT(SetIsConsistent(*multiset));
}

void __ZelDeleteAllInstancesOfAnElementFromMultiSet(ZelMultiSet* multiset, uint32_t element) {
  ZelMultiSetChunk** const link = LinkToElement(*multiset, element);
  if (link == nullptr) return;
  (*link)->counts[PlaceInBlock(element)] = 0;
  DeleteBit(*multiset, link, element);
  ZEL_ASSERT(SetIsConsistent(*multiset));
}

void __ZelUnionMultiSet(ZelMultiSet* a, const ZelMultiSet* b) { UniteSets(*a, *b); }
void __ZelUnionMultiSetSet(ZelMultiSet* multiset, const ZelSet* set) { UniteSets(*multiset, *set); }

void __ZelIntersectMultiSet(ZelMultiSet* result, const ZelMultiSet* a, const ZelMultiSet* b) {
  IntersectSets(*result, *a, *b);
}
void __ZelDifferenceMultiSet(ZelMultiSet* a, const ZelMultiSet* b) { SubtractSets(*a, *b); }
