/* Sets and multisets of 32-bit numbers.
 *
 *   ZelSet seen = {0, category, NULL};  // no elements, a memory category, no block
 *   __ZelAddAnElementToSet(&seen, threadId);
 *   if (__ZelIsAnElementOfSet(&seen, threadId)) ...
 *   __ZelDestroySet(&seen);
 *
 * A set is a list of blocks in ascending order, each with the bits of 64 numbers in a row; there is
 * no block without elements. A block takes 24 bytes, one of a multiset 280. To find, add or delete
 * an element is one walk of the list up to its block; all that combines sets is one walk of both.
 *
 * The caller owns the record, and makes it by filling it in as above. The library owns the blocks:
 * they come from __ZelMalloc in the record's category and may move on to a record of another one.
 * No call changes a record's category. The blocks may be read, not changed. No pointer may be null.
 *
 * A set has at most ZEL_MAX_SET_COUNT elements: one more cannot be added. A union can exceed that;
 * then `count` stays at this maximum, is exact again when enough has been deleted, and nothing can
 * be added until then. A multiplicity that would exceed 0xFFFFFFFF stays there.
 *
 * An element or a block for which there is no memory (__ZelMalloc says when that is) is left out.
 * Nothing here locks, logs or reports an error. One thread at a time may use a record; different
 * records are independent. */
#ifndef ZELRT_SETS_H
#define ZELRT_SETS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_MAX_SET_COUNT 0xFFFFFFu

/* A multiset may be passed as a set, (const ZelSet*)&multiset, to the calls that say so. This lets
 * the compiler know. */
#define ZEL_SET_ALIAS __attribute__((may_alias))

typedef struct ZEL_SET_ALIAS ZelSetChunk {
  struct ZelSetChunk* next; /* null at the end */
  uint32_t index;           /* of the block: it holds index * 64 to index * 64 + 63 */
  uint32_t bits[2];         /* element e is there when bit e % 32 of word e / 32 % 2 is set */
} ZelSetChunk;

typedef struct ZEL_SET_ALIAS ZelMultiSetChunk {
  struct ZelMultiSetChunk* next;
  uint32_t index;
  uint32_t bits[2];    /* set exactly where the multiplicity is not 0 */
  uint32_t counts[64]; /* multiplicity of element e at e % 64 */
} ZelMultiSetChunk;

typedef struct ZEL_SET_ALIAS ZelSet {
  uint32_t count : 24;         /* distinct elements */
  uint32_t memoryCategory : 8; /* of blocks to come */
  ZelSetChunk* first;          /* null when there are no elements */
} ZelSet;

typedef struct ZEL_SET_ALIAS ZelMultiSet {
  uint32_t count : 24;
  uint32_t memoryCategory : 8;
  ZelMultiSetChunk* first;
} ZelMultiSet;

/* Whole sets. */

/* Free all blocks. The record is empty afterwards and can be used on; to destroy is to empty. */
ZEL_API void __ZelDestroySet(ZelSet* set);
ZEL_API void __ZelEmptySet(ZelSet* set);
ZEL_API void __ZelDestroyMultiSet(ZelMultiSet* multiset);
ZEL_API void __ZelEmptyMultiSet(ZelMultiSet* multiset);

ZEL_API int __ZelIsMultiSetEmpty(const ZelMultiSet* multiset); /* 1 or 0 */

/* Make the destination, a record in use, a copy of the source. Its blocks are used again. */
ZEL_API void __ZelConstructSet(ZelSet* destination, const ZelSet* source);
ZEL_API void __ZelConstructMultiSet(ZelMultiSet* destination, const ZelMultiSet* source);

/* Free the destination's blocks, give it the source's, and leave the source empty. Nothing happens
 * when both are the same record. */
ZEL_API void __ZelConstructSetAndDestroy(ZelSet* destination, ZelSet* source);
ZEL_API void __ZelConstructMultiSetAndDestroy(ZelMultiSet* destination, ZelMultiSet* source);

/* 1 when both have the same elements, equally often, else 0. */
ZEL_API int __ZelAreSetsEqual(const ZelSet* a, const ZelSet* b);
ZEL_API int __ZelAreMultiSetsEqual(const ZelMultiSet* a, const ZelMultiSet* b);

/* 0 when both have the same elements; the count of a less that of b when these differ; else 1. It
 * is no order. */
ZEL_API int __ZelCompareSets(const ZelSet* a, const ZelSet* b);

/* 1 when no element is in both, else 0; always 0 when a and b are the same record. Multisets may be
 * passed. */
ZEL_API int __ZelAreSetsDisjoint(const ZelSet* a, const ZelSet* b);

/* 1 when every element of a is in b, else 0. Multisets may be passed. */
ZEL_API int __ZelIsASubsetOfSet(const ZelSet* a, const ZelSet* b);

/* Single elements. */

/* Not 0 when the element is there: its bit in its word of the block, so 0x80000000 for 63. A
 * multiset may be passed. */
ZEL_API uint32_t __ZelIsAnElementOfSet(const ZelSet* set, uint32_t element);

ZEL_API uint32_t __ZelGetElementMultiplicity(const ZelMultiSet* multiset, uint32_t element);

/* An element that is in the set already is not added, one that is not there is not deleted. */
ZEL_API void __ZelAddAnElementToSet(ZelSet* set, uint32_t element);
ZEL_API void __ZelDeleteAnElementFromSet(ZelSet* set, uint32_t element);

/* Once more, once less (down to 0), not at all. */
ZEL_API void __ZelAddAnElementToMultiSet(ZelMultiSet* multiset, uint32_t element);
ZEL_API void __ZelDeleteAnElementFromMultiSet(ZelMultiSet* multiset, uint32_t element);
ZEL_API void __ZelDeleteAllInstancesOfAnElementFromMultiSet(ZelMultiSet* multiset,
                                                            uint32_t element);

/* Algebra. Any two of the records may be the same one. */

/* Add to a what is in b; with multisets, as often as it is there. The last adds each element of the
 * set once. */
ZEL_API void __ZelUnionSet(ZelSet* a, const ZelSet* b);
ZEL_API void __ZelUnionMultiSet(ZelMultiSet* a, const ZelMultiSet* b);
ZEL_API void __ZelUnionMultiSetSet(ZelMultiSet* multiset, const ZelSet* set);

/* Make the result, a record in use, what is in both; with multisets, as often as in the one that
 * has it less often. The result's blocks are used again. */
ZEL_API void __ZelIntersectSet(ZelSet* result, const ZelSet* a, const ZelSet* b);
ZEL_API void __ZelIntersectMultiSet(ZelMultiSet* result, const ZelMultiSet* a,
                                    const ZelMultiSet* b);

/* Take out of a what is in b; with multisets, as often as it is there. */
ZEL_API void __ZelDifferenceSet(ZelSet* a, const ZelSet* b);
ZEL_API void __ZelDifferenceMultiSet(ZelMultiSet* a, const ZelMultiSet* b);

/* Calls visit for every element, in ascending order, on the calling thread. Its result is ignored.
 * It may do anything but change the set. A multiset may be passed: each element is visited once. */
typedef int (*ZelSetVisitor)(uint32_t element, void* context);
ZEL_API void __ZelScanSet(const ZelSet* set, ZelSetVisitor visit, void* context);

/* Do nothing. */
ZEL_API void __ZelPrintOutSet(const ZelSet* set);
ZEL_API void __ZelPrintOutMultiSet(const ZelMultiSet* multiset);

#ifdef __cplusplus
}
#endif

#endif
