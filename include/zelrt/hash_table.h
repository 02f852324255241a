/* The hash table: 64-bit keys to data items, which are pointers that the table never follows.
 *
 *   ZelHashTable* blocks = __ZelCreateHashTable(0, NULL, 3, NULL, NULL, category, 0);
 *   Block* stored = __ZelInsertHashTableEntry(blocks, address, block);
 *   if (stored != block) DropTheOther(block);            // the key was there: nothing has changed
 *   Block* found = __ZelLookupHashTable(blocks, address);
 *   __ZelDestroyHashTable(blocks, FreeBlock);
 *
 * Chained buckets; one allocation for each key. A table of one level is a leaf: it doubles when it
 * is to hold two keys more than it has buckets, never shrinks, and takes 2^30 keys. Above it there
 * may be one or two levels that spread the keys over leaves, each with a lock and a growth of its
 * own, so that busy regions do not hold each other up. These levels never grow; a part of them
 * comes into being when a key is first inserted there, and stays. An empty table of three levels
 * with 256 buckets a level takes 10 KB, each region that is in use 10 KB more.
 *
 * Lookups cost a hash, a bucket and a chain of about one entry a level, and no allocation. In a
 * locking table they add two shared locks, the leaf's and the bucket's, and one call of the
 * native-thread-id hook. Inserting a new key takes the leaf's lock exclusively, and moves all of
 * the leaf's entries when it grows. Memory is asked for while that lock is held: memory collectors
 * may run there (zelrt/memory.h). From one, only a scan of a table is safe: it never waits.
 *
 * Which calls may overlap on a table that locks (without locks, calls of one table never overlap):
 *   create, destroy                   nothing else
 *   lookup, insert, remove, acquire   everything but destroy
 *   scans                             everything but destroy; a leaf that is in use is passed over
 *
 * Callbacks must not throw. What runs under which lock, and may call what of the same table:
 *   hash functions     none, or the leaf's                           nothing
 *   keyEquals          the leaf's and the bucket's, or the leaf's    nothing
 *                      alone, exclusively
 *   keyRelease         the leaf's exclusively, or the leaf's shared  nothing
 *                      and the bucket's exclusively; none in destroy
 *   acquire            the leaf's and the bucket's, shared           a scan, which returns 0 for
 *                                                                    that leaf
 *   visit and release  the leaf's and the entry's, exclusively       a scan, which returns 0 for
 *                                                                    that leaf; in a table of one
 *                                                                    level, a lookup or acquire
 *   freeData           none                                          nothing
 * Under a lock, do not wait for a thread that uses the table. The table logs nothing. What a call
 * below demands is not checked. */
#ifndef ZELRT_HASH_TABLE_H
#define ZELRT_HASH_TABLE_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelHashTable ZelHashTable;

/* Flags, in bits 0 to 7 and 20 to 31; bits without a name are kept and have no effect. */
#define ZEL_HASH_FLAG_NO_LOCKING 0x02u    /* no locks: the caller serialises all use */
#define ZEL_HASH_FLAG_512_BUCKETS 0x08u   /* to begin with, at each level; goes before the next */
#define ZEL_HASH_FLAG_1024_BUCKETS 0x10u  /* likewise; without either there are 256 */
#define ZEL_HASH_FLAG_KEY_CALLBACKS 0x80u /* keyEquals, not ==, compares; keyRelease gets keys */

/* A key's hash at one level of the table; as many low bits as the table's buckets need select the
 * bucket. `table` is the one that is indexed, a part of the caller's: only to tell tables apart.
 * One key has one hash, and keys that are equal by keyEquals have the same.
 *
 * Without functions of the caller's, where each level has 2^b buckets to begin with: level 0, the
 * leaves, takes the key; level 1, the key >> b; level 2, the key >> 3b. Keys that are multiples of
 * a power of two leave buckets of a leaf unused: give it a function that shifts those bits out. */
typedef uint64_t (*ZelHashFunction)(const ZelHashTable* table, uint64_t key);

typedef uint32_t (*ZelHashKeyEquals)(uint64_t storedKey,
                                     uint64_t searchedKey); /* not 0: the same */
typedef void (*ZelHashKeyRelease)(uint64_t key);
typedef void (*ZelHashFreeData)(void* data);
typedef uint32_t (*ZelHashAcquire)(void* data);
typedef uint32_t (*ZelHashAcquireTid)(void* data, uint32_t tid);
typedef uint32_t (*ZelHashVisit)(void* data, void* context);
typedef uint32_t (*ZelHashRelease)(void* data);

/* Returns a new, empty table of levelCount levels, 1 to 3. The first levelCount elements of
 * hashFunctions, from the leaves' on, replace the default functions; a null element, or a null
 * array, keeps defaults. keyEquals must be, and keyRelease may be, other than null with
 * ZEL_HASH_FLAG_KEY_CALLBACKS; without it both are ignored. All memory is of memoryCategory;
 * allocFlags, 0 to 15, is the size shift of entries (zelrt/memory.h). */
ZEL_API ZelHashTable* __ZelCreateHashTable(uint32_t flags, const ZelHashFunction* hashFunctions,
                                           int32_t levelCount, ZelHashKeyEquals keyEquals,
                                           ZelHashKeyRelease keyRelease, uint32_t memoryCategory,
                                           uint32_t allocFlags);

/* Frees the table, after handing each data item to freeData, unless that is null, and its key to
 * keyRelease. Null is ignored. No other thread may be using the table. */
ZEL_API void __ZelDestroyHashTable(ZelHashTable* table, ZelHashFreeData freeData);

/* The key's data item, null when there is none. In a locking table another thread may remove it
 * before the caller looks at it; see the calls that acquire. */
ZEL_API void* __ZelLookupHashTable(ZelHashTable* table, uint64_t key);

/* Stores the data item under a key that is new, and returns it. A key that is there keeps its data
 * item, and that is returned; the key that was passed remains the caller's. */
ZEL_API void* __ZelInsertHashTableEntry(ZelHashTable* table, uint64_t key, void* data);

/* Takes the key out of the table, and returns its data item; null when there is none. The stored
 * key goes to keyRelease. */
ZEL_API void* __ZelRemoveHashTableEntry(ZelHashTable* table, uint64_t key);

/* Looks the key up, and has `acquire` make the caller's hold on the data item (count a reference,
 * take a lock) before anybody can remove it. Stores the data item in *outData, which must not be
 * null, and returns what acquire did. For an absent key: stores null, returns 1, calls nothing. */
ZEL_API uint32_t __ZelLookupAndAcquireHashTableDataItem(ZelHashTable* table, uint64_t key,
                                                        ZelHashAcquire acquire, void** outData);

/* The same for a thread that is known to the locks by tid (zelrt/locks.h); the hook is not asked,
 * and acquire gets the id. */
ZEL_API uint32_t __ZelLookupAndAcquireHashTableDataItemTid(ZelHashTable* table, uint64_t key,
                                                           ZelHashAcquireTid acquire,
                                                           void** outData, uint32_t tid);

/* Calls visit, with `context`, for each entry, leaf by leaf. Where it returns other than 0 and
 * removeMatches is not 0, the entry is removed, unless release is not null and returns 0 for it.
 * Returns the number removed, and stores in *outCount, which must not be null, the number of
 * entries that there were.
 *
 * In a locking table a leaf that any thread is using, the caller too, is counted and passed over,
 * and so is an entry whose lock cannot be had at once. */
ZEL_API uint32_t __ZelScanHashTable(ZelHashTable* table, ZelHashVisit visit, void* context,
                                    uint32_t removeMatches, ZelHashRelease release,
                                    uint32_t* outCount);

/* A scan that removes each entry, except those for which visit, unless it is null, returns 0. */
ZEL_API uint32_t __ZelScanAndEmptyHashTable(ZelHashTable* table, ZelHashRelease visit,
                                            uint32_t* outCount);

#ifdef __cplusplus
}
#endif

#endif
