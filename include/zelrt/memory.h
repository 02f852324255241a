/* Memory: categories and their statistics, the allocator, memory pressure, the backing pair.
 *
 * Each block belongs to a category, a small number that names the component that owns it. Small
 * blocks (up to 32,728 bytes) are slots of pages that serve one category and one size; larger ones
 * come singly from the backing allocator. Any thread may make any call, and may free what another
 * allocated, unless a call says otherwise.
 *
 * Locks, outermost first: pre-allocation check, system allocation, then one size class of one
 * category, then statistics. Memory collectors run under the second; nothing of the client's runs
 * under the others but the backing pair, which must not call this allocator. */
#ifndef ZELRT_MEMORY_H
#define ZELRT_MEMORY_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Categories. At most 64; id 0, "ZEL_MISC", is there from the start. Ids are never taken back. */

#define ZEL_INVALID_MEMORY_CATEGORY 0xFFFFFFFFu

/* What is known of one category. Bytes are those of whole pages of 65,536 << sizeShift bytes;
 * blocks above 32,728 bytes are not counted. */
typedef struct ZelMemoryCategoryInfo {
  char name[32]; /* always ends in NUL: a longer name is cut to 31 characters */
  int64_t allocated;
  int64_t allocatedAtPeak; /* `allocated` when the total of all categories last reached a peak */
} ZelMemoryCategoryInfo;

/* Returns the new category's id. ZEL_INVALID_MEMORY_CATEGORY when there are 64 already, or, with an
 * error in the log, when the name is null. The name is copied; it need not be unique. */
ZEL_API uint32_t __ZelRegisterMemoryCategory(const char* name);

ZEL_API uint32_t __ZelGetNumMemoryCategories(void); /* "ZEL_MISC" included */

/* Starts counting, for ever. Pages that are held already are not counted, but would be subtracted
 * when they are given back: call it before the first allocation. */
ZEL_API void __ZelEnableMemoryStatisticsCollection(void);

/* Fills *info and returns 1, or touches nothing and returns 0 when info is null or the category
 * does not exist. The figures of a busy category may stem from two moments. */
ZEL_API uint32_t __ZelGetMemoryInfoByCategory(unsigned int category, ZelMemoryCategoryInfo* info);

ZEL_API extern uint64_t __zelTotalMemoryAllocated;       /* bytes of pages in all categories */
ZEL_API uint64_t __ZelGetPeakTotalMemoryAllocated(void); /* the largest that total has been */
ZEL_API uint64_t __ZelGetTotalTimesMemoryCollected(void);

/* Allocation. */

/* Returns a block of at least `size` bytes (size 0 included), to be given to __ZelFree. Small
 * blocks are aligned to 8 bytes, not to 16; large ones as the backing allocator aligns, plus 8.
 * The contents are indeterminate.
 *
 * sizeShift, 0 to 15, selects the size of the page that a small block is cut from, 65,536 <<
 * sizeShift bytes; it has no bearing on large blocks. A category above 63, or a shift above 15
 * where it counts, ends the process as a tool defect.
 *
 * A category that is not registered is served and counted in the total, but no query shows it.
 *
 * Does not return null for lack of memory: reserves are given back, and when none is left the
 * process ends with "OUT_OF_MEMORY" and status 255. On the thread that is ending it, an allocation
 * that fails once more returns null; on others it does so only when the end has taken half a
 * minute. */
ZEL_API void* __ZelMalloc(unsigned int category, size_t size, unsigned int sizeShift);

/* Null is ignored. A small block that is free already is left alone, with a note in the log. */
ZEL_API void __ZelFree(void* block);

/* The process's own malloc and free: no category, no statistics, null for lack of memory. A block
 * from here is given back here. */
ZEL_API void* __ZelMallocInternal(size_t size);
ZEL_API void __ZelFreeInternal(void* block);

/* Memory pressure. */

typedef void (*ZelMemoryCollector)(void);

/* Switches the watch on free swap space on, resets the statistics, and takes up to reserveBlocks
 * blocks of 33,554,416 bytes as a reserve (fewer when there are no more; a negative count is 0).
 * Only the first call of the two does anything. Call it before the first allocation: pages that are
 * held already would be subtracted from statistics that do not count them. */
ZEL_API void __ZelInitializeMemoryCollectorAndReserveMemory(int reserveBlocks);
ZEL_API void __ZelInitializeMemoryCollector(void); /* no reserve */

/* Has `collector` called when memory runs short, after those registered before it. It runs on the
 * thread that asked for memory or was told that there is none, under the system allocation lock:
 * it may allocate, free and log, and must not wait for another thread nor call the checks below.
 * No collector is called again for what is asked for meanwhile.
 * Returns 0, or -1 when there are 16 already or, with an error in the log, for null. */
ZEL_API int32_t __ZelRegisterMemoryCollector(ZelMemoryCollector collector);

/* For a client that reserves virtual memory itself. Before: tries whether `size` bytes can be had;
 * if not, pauses (__ZelSleep(1)), tries again, and gives reserves back. It never ends the process:
 * "MEMORY_IS_TIGHT" goes into the log, once. After more than ten failures in a row it does nothing
 * until one succeeds. After: whether the reservation succeeded. */
ZEL_API void __ZelPreVirtualAllocCheck(size_t size);
ZEL_API void __ZelPostVirtualAllocCheck(int succeeded);

/* Yields as long as a pre-allocation check is pausing. */
ZEL_API void __ZelWaitForPreVirtualAllocThread(void);

/* To be called when the framework is out of memory, `size` being what it asked for. A thread that
 * is inside a request to the backing allocator collects at once; any other makes the check above.
 * Does nothing before the initialisation, or while reserves are being given back. */
ZEL_API void __ZelAsynchronousCollectMemory(size_t size);

/* The backing pair: where pages, large blocks, reserves and the library's tables come from; the
 * process's malloc and free unless installed otherwise. */

/* Called by one thread at a time. Null for lack of memory; blocks are aligned to 16 bytes. It may
 * tell of a shortage (__ZelAsynchronousCollectMemory), and is then called again, on the same
 * thread, by memory collectors that allocate. */
typedef void* (*ZelBackingAllocate)(size_t size);

/* Called by several threads at once, also while another allocates, and under inner locks, so that
 * it must not tell of a shortage. The block is never null. */
typedef void (*ZelBackingFree)(void* block);

/* Installs a pair. It must come before the first use of the allocator: afterwards the pair is
 * remembered but not used. If either function is null the pair is the process's malloc and free.
 * The process ends with status 255 when the pair cannot give 5.2 MB for the allocator's table. */
ZEL_API void __ZelInitializeSubAllocator(ZelBackingAllocate allocate, ZelBackingFree release);

/* The end of the allocator: gives its table back and goes back to malloc and free. Blocks from
 * before may be neither used nor freed, and what they occupy, the reserve included, is neither
 * given back nor taken out of the statistics. Allocating anew is possible, and the memory collector
 * can be initialised anew. No other thread may be inside this family. */
ZEL_API void __ZelDeinitializeSubAllocator(void);

#ifdef __cplusplus
}
#endif

#endif
