/* Atomic operations and bit scans.
 *
 * Every atomic operation is a full barrier on a naturally aligned word. A compare-exchange takes
 * the new value before the value compared with, and returns what it found: it succeeded when the
 * result equals the comparand. The names that end in Internal are the same operations. */
#ifndef ZELRT_ATOMICS_H
#define ZELRT_ATOMICS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Stores exchange when *word equals comparand. Returns the value before, in either case. */
ZEL_API uint32_t __ZelInterlockedCompareExchange(volatile uint32_t* word, uint32_t exchange,
                                                 uint32_t comparand);
ZEL_API uint32_t __ZelInterlockedCompareExchangeInternal(volatile uint32_t* word, uint32_t exchange,
                                                         uint32_t comparand);
ZEL_API uint64_t __ZelInterlockedCompareExchange64(volatile uint64_t* word, uint64_t exchange,
                                                   uint64_t comparand);
ZEL_API uint64_t __ZelInterlockedCompareExchange64Internal(volatile uint64_t* word,
                                                           uint64_t exchange, uint64_t comparand);

/* Add or subtract 1, modulo 2^32. Return the new value. */
ZEL_API uint32_t __ZelInterlockedIncrement(volatile uint32_t* word);
ZEL_API uint32_t __ZelInterlockedIncrementInternal(volatile uint32_t* word);
ZEL_API uint32_t __ZelInterlockedDecrement(volatile uint32_t* word);
ZEL_API uint32_t __ZelInterlockedDecrementInternal(volatile uint32_t* word);

/* Adds addend, modulo 2^32. Returns the value before. */
ZEL_API uint32_t __ZelInterlockedExchangeAdd(volatile uint32_t* word, uint32_t addend);
ZEL_API uint32_t __ZelInterlockedExchangeAddInternal(volatile uint32_t* word, uint32_t addend);

/* Bit scans: the index of the lowest or highest bit that is set, counted from 0; 0 for 0. */
ZEL_API uint32_t __ZelGetLeastSignificantOneIndex(uint32_t value);
ZEL_API uint32_t __ZelGetLeastSignificantOneIndexInternal(uint32_t value);
ZEL_API uint32_t __ZelGetMostSignificantOneIndexInternal(uint32_t value);
ZEL_API uint32_t __ZelGetMostSignificantOneIndexLong(uint64_t value);

#ifdef __cplusplus
}
#endif

#endif
