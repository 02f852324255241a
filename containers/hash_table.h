// The records of a hash table; what it promises is in zelrt/hash_table.h.
//
// A leaf's buckets, their number and its count change only under its lock held exclusively. A chain
// of a leaf changes either under that, or under the lock held shared and the bucket's exclusively.
// All else of a table is fixed when it is made, but for the sub-tables of upper levels: each is
// published once, by a compare-exchange, and is there until the whole table is destroyed.
//
// Two readings are made without the lock, so these fields are written as atomics: a scan reports
// the count of a leaf that it may not be able to lock, and an operation looks at the head of a
// chain, without following it, before it has the bucket.
//
// Locks, outermost first: a leaf's, then a bucket's or an entry's. Upper levels use none. Entries
// are locked by scans alone, under the leaf's lock held exclusively. The allocator is called under
// any of them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/locks.h"
#include "zelrt/hash_table.h"

namespace zelrt {

inline constexpr int32_t kMaxHashLevels = 3;

struct ZelHashEntry {
  ZelHashEntry* next;
  uint64_t key;
  void* data;
  ZelSharedExclusiveLock lock;
};

struct ZelHashBucket {
  ZelSharedExclusiveLock lock;
  union {
    ZelHashEntry* entries;  // of a leaf
    ZelHashTable* table;    // of an upper level: null, BeingCreated(), or the sub-table
  } chain;
};

// Stands for a sub-table that a thread is about to publish.
inline ZelHashTable* BeingCreated() { return reinterpret_cast<ZelHashTable*>(uintptr_t{1}); }

}  // namespace zelrt

struct ZelHashTable {
  ZelSharedExclusiveLock lock;
  ZelHashFunction hashFunctions[zelrt::kMaxHashLevels];
  ZelHashKeyEquals keyEquals;
  ZelHashKeyRelease keyRelease;
  zelrt::ZelHashBucket* buckets;
  int32_t bucketCount;
  uint32_t bucketBits;  // bucketCount is 1 << bucketBits
  int32_t count;        // entries of a leaf; too high while removals are about to correct it
  int32_t level;        // levels below this one
  uint32_t flags;       // the caller's, and between them what follows
};

namespace zelrt {

static_assert(offsetof(ZelHashEntry, next) == 0 && offsetof(ZelHashEntry, key) == 8 &&
              offsetof(ZelHashEntry, data) == 16 && offsetof(ZelHashEntry, lock) == 24 &&
              sizeof(ZelHashEntry) == 56);
static_assert(offsetof(ZelHashBucket, lock) == 0 && offsetof(ZelHashBucket, chain) == 32 &&
              sizeof(ZelHashBucket) == 40);
static_assert(offsetof(ZelHashTable, lock) == 0 && offsetof(ZelHashTable, hashFunctions) == 32 &&
              offsetof(ZelHashTable, keyEquals) == 56 && offsetof(ZelHashTable, keyRelease) == 64 &&
              offsetof(ZelHashTable, buckets) == 72 && offsetof(ZelHashTable, bucketCount) == 80 &&
              offsetof(ZelHashTable, bucketBits) == 84 && offsetof(ZelHashTable, count) == 88 &&
              offsetof(ZelHashTable, level) == 92 && offsetof(ZelHashTable, flags) == 96);

// The library's share of a table's flags.
inline constexpr uint32_t kHashCategoryShift = 8;  // 8 bits: the memory category
inline constexpr uint32_t kHashCategoryMask = 0xFF;
inline constexpr uint32_t kHashAllocFlagsShift = 16;  // 4 bits: the size shift of entries
inline constexpr uint32_t kHashAllocFlagsMask = 0xF;

// True when each entry of the table and of those below is where it is looked for, no key is there
// twice, and the counts are right. While nobody uses the table.
bool HashTableIsConsistent(ZelHashTable* table);

}  // namespace zelrt
