/* Vectors: sparse arrays of 131,072 unsigned 64-bit counters or values.
 *
 *   ZelVector* const hits = __ZelCreateVector(category);
 *   __ZelIncrementVectorElement(hits, line);
 *   __ZelMaxVector(peaks, hits);
 *   uint64_t const count = __ZelGetVectorElement(hits, line);
 *   __ZelDestroyVector(hits);
 *
 * Elements that were never written read as 0. The first 256 are part of the record; the others come
 * in pages of 256, allocated when one of a page is first written. Pages stay until the vector is
 * destroyed, and count under the vector's memory category (zelrt/memory.h), a number below 64.
 *
 * An index above 131,071 is no error: what it asks for is 0, and nothing changes. No vector may be
 * null. Where even the allocator has no memory, which it admits only in a process that it is
 * ending, a new vector is null, and what needed a page is left undone with 0 as the result.
 *
 * Nothing here takes a lock of the vector's, calls back or logs. Which calls may overlap on one
 * vector:
 *   get, and being a source      one another
 *   everything else              nothing; the caller brings the lock */
#ifndef ZELRT_VECTOR_H
#define ZELRT_VECTOR_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_VECTOR_PAGES 512u
#define ZEL_VECTOR_PAGE_ELEMENTS 256u
#define ZEL_VECTOR_ELEMENTS (ZEL_VECTOR_PAGES * ZEL_VECTOR_PAGE_ELEMENTS)

/* Complete so that it can be embedded. It must not be copied as a record: it points into itself.
 * The fields are for debuggers. */
typedef struct ZelVector {
  uint64_t* pages[ZEL_VECTOR_PAGES]; /* the first is firstPage; null where nothing was written */
  uint64_t firstPage[ZEL_VECTOR_PAGE_ELEMENTS];
  uint32_t sizeAndCategory; /* bits 0-23: highest index written + 1; 24-31: memory category */
} ZelVector;

/* Makes an empty vector of the caller's storage and returns it. Of the category the low 8 bits
 * count. Such a vector is not destroyed: it is for storage that lives as long as the process, since
 * nothing gives its pages back. */
ZEL_API ZelVector* __ZelInitializeVector(ZelVector* vector, uint32_t memoryCategory);

/* Returns a new, empty vector, to be destroyed. Its record of 6 KB counts under the category too.
 */
ZEL_API ZelVector* __ZelCreateVector(uint32_t memoryCategory);

/* Frees a vector that was created or duplicated, and its pages. */
ZEL_API void __ZelDestroyVector(ZelVector* vector);

/* The element; 0 when it was never written. Constant time, as the two below. */
ZEL_API uint64_t __ZelGetVectorElement(const ZelVector* vector, uint32_t index);

/* Stores the value and returns the element's previous one. */
ZEL_API uint64_t __ZelSetVectorElement(ZelVector* vector, uint32_t index, uint64_t value);

/* Adds 1, modulo 2^64, and returns the element's previous value. Not atomic. */
ZEL_API uint64_t __ZelIncrementVectorElement(ZelVector* vector, uint32_t index);

/* Sets each element of the destination to the larger of its own and the source's. */
ZEL_API void __ZelMaxVector(ZelVector* destination, const ZelVector* source);

/* Returns a new vector with the source's elements, to be destroyed. Its record, and the pages that
 * it allocates later, count under the category; the pages copied here count under the source's. */
ZEL_API ZelVector* __ZelDuplicateVector(const ZelVector* source, uint32_t memoryCategory);

/* Gives the destination the source's elements; what the source never wrote is 0 afterwards. The
 * destination keeps its category and all its pages. */
ZEL_API void __ZelCopyVector(ZelVector* destination, const ZelVector* source);

#ifdef __cplusplus
}
#endif

#endif
