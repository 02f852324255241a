/* Range tables: which range of addresses, if any, contains an address.
 *
 *   ZelRangeTable* table = __ZelCreateRangeTable(1 << 20, category, 0, 0, free);
 *   __ZelInsertRangeTableEntry(table, 0x1010, 0x1074, block);
 *   Block* found = __ZelLookupRangeTable(table, 0x1073, NULL, NULL);
 *   __ZelScanAndEmptyRangeTable(table);
 *   __ZelDestroyRangeTable(table);
 *
 * A range is a half-open interval [start, end) with a data item, a pointer that the table never
 * follows. It is cut into naturally aligned blocks of a power of two bytes, 32 at least, which lie
 * in one hash table for each size; what is left at both ends shares its block of 32 bytes with its
 * neighbours. A lookup probes each size in use once, at most 23, however many ranges there are.
 * A range takes one allocation, one for each block, and one for each of its blocks of 32 bytes; it
 * has at most two whole blocks of each size, but as many of the largest as it is long.
 *
 * The caller sees to it that ranges of a table do not overlap, that none is empty, and that a range
 * is destroyed or removed with the bounds with which it was inserted; none of it is checked. The
 * last byte of the address space cannot be part of a range, for no end lies behind it.
 *
 * No locks: a table is used by one thread at a time. releaseData runs on that thread, in the middle
 * of the operation, and must not use the same table. Nothing is logged. */
#ifndef ZELRT_RANGE_TABLE_H
#define ZELRT_RANGE_TABLE_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelRangeTable ZelRangeTable;

/* Declares that no two ranges touch the same aligned block of 32 bytes. It saves an allocation for
 * each such block; a lookup in the part of such a block that its range does not cover then finds
 * the range all the same. */
#define ZEL_RANGE_FLAG_UNSHARED_BLOCKS 0x01u

/* Given a range's data item, for destroying but not for removing it. */
typedef void (*ZelRangeReleaseData)(void* data);

/* Returns an empty table. maxRangeSize, in bytes, bounds the size of blocks: it is the largest
 * power of two that is not above maxRangeSize, but at least 32 and at most 2^27 bytes. Longer
 * ranges are allowed, and cost a block for each such size. 0 counts as 1.
 *
 * All memory is of memoryCategory; allocFlags, 0 to 15, is the size shift of what is allocated for
 * ranges (zelrt/memory.h). flags is 0 or the flag above; other bits have no effect. releaseData may
 * be null. */
ZEL_API ZelRangeTable* __ZelCreateRangeTable(uint64_t maxRangeSize, uint32_t memoryCategory,
                                             uint32_t allocFlags, uint32_t flags,
                                             ZelRangeReleaseData releaseData);

/* Adds a range. A null table is ignored. */
ZEL_API void __ZelInsertRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end,
                                        void* data);

/* Returns the data item of the range that contains the address, or null. The range's bounds are
 * stored through the out-parameters that are not null; 0 and 0 when there is no range. */
ZEL_API void* __ZelLookupRangeTable(const ZelRangeTable* table, uint64_t address, uint64_t* start,
                                    uint64_t* end);

/* Removes the range, if it is there; `destroy` hands its data item to releaseData. */
ZEL_API void __ZelDestroyRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end);
ZEL_API void __ZelRemoveRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end);

/* Removes one range in [start, end), and returns its data item, which is not released; null when
 * there is none. Called until it returns null, it goes through the ranges that lie in there, by
 * ascending blocks; of ranges that touch the same block of 32 bytes the order is not defined. A
 * range that reaches over one of the bounds may be taken for one within when it has a block, larger
 * than 32 bytes or unshared, that does. */
ZEL_API void* __ZelRemoveFirstRangeTableEntry(ZelRangeTable* table, uint64_t start, uint64_t end);

/* Destroys each range that overlaps [start, start + length), as a whole, and stores the extent of
 * all this: the span itself, widened by what reached over its ends. A range around `start` goes
 * also when the length is 0. A span that goes past the end of the address space ends there, at 2^64
 * - 1. A range that starts at address 0 is only found if it has a block in the span, and, where
 * blocks are shared, lies in the span if that is one of 32 bytes. Neither out-parameter may be
 * null.
 *
 * The walk over the span takes steps of 32 bytes where there is no range; where that would take
 * longer than to look through the whole table, it does the latter. */
ZEL_API void __ZelDestroyRangeTableSpan(ZelRangeTable* table, uint64_t start, uint64_t length,
                                        uint64_t* extentStart, uint64_t* extentEnd);

/* Destroys all ranges. The hash tables stay, empty. */
ZEL_API void __ZelScanAndEmptyRangeTable(ZelRangeTable* table);

/* Frees the table, which has been emptied: ranges that are still in it are neither released nor
 * freed. Null is ignored. */
ZEL_API void __ZelDestroyRangeTable(ZelRangeTable* table);

#ifdef __cplusplus
}
#endif

#endif
