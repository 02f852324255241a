// The hash table. Its records and its locks are described in hash_table.h.
//
// An operation descends to the leaf that serves its key, without locks, and works there. It exists
// in two forms, for tables with locks and without; the first asks for the thread's id once.

#include "containers/hash_table.h"

#include <algorithm>
#include <iterator>

#include "memory/internal.h"
#include "runtime/back_off.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

constexpr uint32_t kBits = 8;
constexpr uint32_t kBits512 = 9;
constexpr uint32_t kBits1024 = 10;

constexpr uint32_t kNotFound = 1;  // of the operations that acquire

// Readings of a sub-table that another thread is creating, before a yield.
constexpr uint32_t kCreationSpins = 500;

// How many buckets ahead of the one that is being moved an entry is brought near.
constexpr int32_t kMoveAhead = 8;

// Flags -------------------------------------------------------------------------------------------

bool IsLocking(const ZelHashTable* table) { return (table->flags & ZEL_HASH_FLAG_NO_LOCKING) == 0; }
bool HasKeyCallbacks(const ZelHashTable* table) {
  return (table->flags & ZEL_HASH_FLAG_KEY_CALLBACKS) != 0;
}
uint32_t CategoryOf(const ZelHashTable* table) {
  return table->flags >> kHashCategoryShift & kHashCategoryMask;
}
uint32_t AllocFlagsOf(const ZelHashTable* table) {
  return table->flags >> kHashAllocFlagsShift & kHashAllocFlagsMask;
}

uint32_t PackFlags(uint32_t callers, uint32_t category, uint32_t allocFlags) {
  constexpr uint32_t kOurs = kHashCategoryMask << kHashCategoryShift | kHashAllocFlagsMask
                                                                           << kHashAllocFlagsShift;
  return (callers & ~kOurs) | category << kHashCategoryShift | allocFlags << kHashAllocFlagsShift;
}

uint32_t InitialBits(uint32_t flags) {
  if ((flags & ZEL_HASH_FLAG_512_BUCKETS) != 0) return kBits512;
  if ((flags & ZEL_HASH_FLAG_1024_BUCKETS) != 0) return kBits1024;
  return kBits;
}

// Holds -------------------------------------------------------------------------------------------

// How an operation gets at a table. It also knows the owner value that the allocator is given.
struct UnderLocks {
  static constexpr bool kLocks = true;
  uint64_t self;
  uint64_t Owner() const { return self; }
};
struct WithoutLocks {
  static constexpr bool kLocks = false;
  static uint64_t Owner() { return CallingOwner(); }
};

// Calls the form of the operation that the table needs.
template <typename Operation, typename OwnerValue = uint64_t()>
inline auto WithAccess(const ZelHashTable* table, Operation operation,
                       OwnerValue ownerValue = CallingOwner) {
  return IsLocking(table) ? operation(UnderLocks{ownerValue()}) : operation(WithoutLocks());
}

template <typename Access>
class SharedHold {
 public:
  SharedHold(ZelSharedExclusiveLock* lock, Access access) : lock_(lock), access_(access) {
    if constexpr (Access::kLocks) AcquireSharedLock(lock_, access_.self);
  }
  ~SharedHold() {
    if constexpr (Access::kLocks) ReleaseSharedLock(lock_, access_.self);
  }
  SharedHold(const SharedHold&) = delete;
  SharedHold& operator=(const SharedHold&) = delete;

 private:
  ZelSharedExclusiveLock* const lock_;
  const Access access_;
};

template <typename Access>
class ExclusiveHold {
 public:
  ExclusiveHold(ZelSharedExclusiveLock* lock, Access access) : lock_(lock) {
    if constexpr (Access::kLocks) AcquireExclusiveLock(lock_, access.self);
  }
  // Takes the lock only if it can be had at once.
  ExclusiveHold(AtOnce, ZelSharedExclusiveLock* lock, Access access) : lock_(lock) {
    if constexpr (Access::kLocks) {
      if (!AcquireExclusiveLockAtOnce(lock, access.self)) lock_ = nullptr;
    }
  }
  ~ExclusiveHold() {
    if constexpr (Access::kLocks) {
      if (lock_ != nullptr) ReleaseExclusiveLock(lock_);
    }
  }
  ExclusiveHold(const ExclusiveHold&) = delete;
  ExclusiveHold& operator=(const ExclusiveHold&) = delete;

  bool IsHeld() const { return lock_ != nullptr; }

  // The lock is about to go with its record.
  void Forget() { lock_ = nullptr; }

 private:
  ZelSharedExclusiveLock* lock_;
};

// Hashing and searching ---------------------------------------------------------------------------

uint64_t HashOfLeaf(const ZelHashTable*, uint64_t key) { return key; }
uint64_t HashOfMiddle(const ZelHashTable* table, uint64_t key) { return key >> table->bucketBits; }
uint64_t HashOfTop(const ZelHashTable* table, uint64_t key) {
  return key >> (3 * table->bucketBits);
}
constexpr ZelHashFunction kDefaultHashFunctions[kMaxHashLevels] = {HashOfLeaf, HashOfMiddle,
                                                                   HashOfTop};

ZelHashBucket* BucketOfHash(const ZelHashTable* table, uint64_t hash) {
  return &table->buckets[hash & (static_cast<uint64_t>(table->bucketCount) - 1)];
}

ZelHashBucket* BucketOf(const ZelHashTable* table, uint64_t key) {
  return BucketOfHash(table, table->hashFunctions[table->level](table, key));
}

// The default is recognised: a comparison is cheaper than a call.
inline ZelHashBucket* LeafBucketOf(const ZelHashTable* leaf, uint64_t key) {
  const ZelHashFunction hash = leaf->hashFunctions[0];
  return BucketOfHash(leaf, hash == HashOfLeaf ? key : hash(leaf, key));
}

bool Matches(const ZelHashTable* leaf, uint64_t storedKey, uint64_t searchedKey) {
  if (HasKeyCallbacks(leaf)) return leaf->keyEquals(storedKey, searchedKey) != 0;
  return storedKey == searchedKey;
}

// An entry and what leads to it, the bucket or the entry before. At the end of a chain the entry is
// null.
struct Place {
  ZelHashEntry** link;
  ZelHashEntry* entry;
};

template <typename IsMatch>
inline Place Search(ZelHashBucket* bucket, IsMatch isMatch) {
  Place place = {&bucket->chain.entries, bucket->chain.entries};
  while (place.entry != nullptr && !isMatch(place.entry->key))
    place = {&place.entry->next, place.entry->next};
  return place;
}

[[gnu::noinline]] Place FindByCallback(const ZelHashTable* leaf, ZelHashBucket* bucket,
                                       uint64_t key) {
  return Search(bucket, [=](uint64_t stored) { return leaf->keyEquals(stored, key) != 0; });
}

inline Place FindEqual(ZelHashBucket* bucket, uint64_t key) {
  return Search(bucket, [=](uint64_t stored) { return stored == key; });
}

// Where the key's entry is; the end of the chain when there is none.
inline Place Find(const ZelHashTable* leaf, ZelHashBucket* bucket, uint64_t key) {
  if (HasKeyCallbacks(leaf)) [[unlikely]]
    return FindByCallback(leaf, bucket, key);
  return FindEqual(bucket, key);
}

// Asks for a lock's cache line as its writer will need it: not for a copy first, and then once
// more.
inline void PrefetchLock(const ZelSharedExclusiveLock* lock) {
  asm volatile("prefetchw %0" : : "m"(*lock));
}

// Asks for what a search needs while the bucket's lock is being taken, which is long enough. The
// first entry may vanish this moment: it is not touched.
template <typename Access>
inline void PrefetchSearch(const ZelHashBucket* bucket) {
  if constexpr (Access::kLocks) {
    PrefetchLock(&bucket->lock);
    __builtin_prefetch(LoadRelaxed(bucket->chain.entries));
  }
}

// Consistency -------------------------------------------------------------------------------------

bool ChainIsConsistent(const ZelHashTable* leaf, const ZelHashBucket* bucket) {
  for (const ZelHashEntry* entry = bucket->chain.entries; entry != nullptr; entry = entry->next) {
    if (LeafBucketOf(leaf, entry->key) != bucket) return false;
    for (const ZelHashEntry* later = entry->next; later != nullptr; later = later->next) {
      if (Matches(leaf, entry->key, later->key)) return false;
    }
  }
  return true;
}

// What can be said under the lock: removals that have yet to correct the count may be under way.
bool LeafIsConsistentLocked(const ZelHashTable* leaf, int32_t* entries) {
  *entries = 0;
  for (int32_t i = 0; i < leaf->bucketCount; ++i) {
    if (!ChainIsConsistent(leaf, &leaf->buckets[i])) return false;
    for (auto* entry = leaf->buckets[i].chain.entries; entry != nullptr; entry = entry->next)
      ++*entries;
  }
  return *entries <= leaf->count && leaf->bucketCount == 1 << leaf->bucketBits;
}

bool LeafIsConsistentLocked(const ZelHashTable* leaf) {
  int32_t entries;
  return LeafIsConsistentLocked(leaf, &entries);
}

// Making and growing ------------------------------------------------------------------------------

ZelHashBucket* MakeBuckets(const ZelHashTable* table, int32_t count) {
  const size_t size = static_cast<size_t>(count) * sizeof(ZelHashBucket);
  auto* const buckets = static_cast<ZelHashBucket*>(__ZelMalloc(CategoryOf(table), size, 0));
  const bool isLocking = IsLocking(table);
  for (int32_t i = 0; i < count; ++i) {
    if (isLocking) __ZelInitializeSharedExclusiveLock(&buckets[i].lock);
    buckets[i].chain = {nullptr};
  }
  return buckets;
}

ZelHashTable* MakeSubTable(const ZelHashTable* parent) {
  return __ZelCreateHashTable(parent->flags, parent->hashFunctions, parent->level,
                              parent->keyEquals, parent->keyRelease, CategoryOf(parent),
                              AllocFlagsOf(parent));
}

// Returns the sub-table of a bucket that had none, or an unfinished one, when it was looked at.
[[gnu::noinline]] ZelHashTable* ProvideSubTable(const ZelHashTable* parent, ZelHashTable*& place) {
  if (!IsLocking(parent)) return place = MakeSubTable(parent);
  if (AtomicCompareExchange(place, BeingCreated(), nullptr) == nullptr) {
    ZelHashTable* const made = MakeSubTable(parent);
    AtomicCompareExchange(place, made, BeingCreated());
    return made;
  }
  BackOff backOff(kCreationSpins);
  while (LoadAcquire(place) == BeingCreated()) backOff.Step();
  return LoadAcquire(place);
}

bool IsTable(const ZelHashTable* table) { return table != nullptr && table != BeingCreated(); }

// One step down. Who comes to a leaf waits first for its level, and then needs its lock, which may
// lie in another cache line.
inline ZelHashTable* StepDown(const ZelHashTable* table, ZelHashTable* below) {
  if (table->level == 1) PrefetchLock(&below->lock);
  return below;
}

// The leaf that serves the key; null when there is none yet.
inline ZelHashTable* FindLeaf(ZelHashTable* table, uint64_t key) {
  while (table->level > 0) {
    ZelHashTable* const below = LoadAcquire(BucketOf(table, key)->chain.table);
    if (!IsTable(below)) return nullptr;
    table = StepDown(table, below);
  }
  return table;
}

ZelHashTable* FindOrCreateLeaf(ZelHashTable* table, uint64_t key) {
  while (table->level > 0) {
    ZelHashTable*& place = BucketOf(table, key)->chain.table;
    ZelHashTable* below = LoadAcquire(place);
    if (!IsTable(below)) [[unlikely]]
      below = ProvideSubTable(table, place);
    table = StepDown(table, below);
  }
  return table;
}

void PushEntry(ZelHashBucket* bucket, ZelHashEntry* entry) {
  entry->next = bucket->chain.entries;
  StoreRelaxed(bucket->chain.entries, entry);
}

[[gnu::noinline]] void GrowLocked(ZelHashTable* leaf) {
  ZelHashBucket* const old = leaf->buckets;
  const int32_t oldCount = leaf->bucketCount;
  leaf->buckets = MakeBuckets(leaf, oldCount * 2);
  leaf->bucketCount = oldCount * 2;
  ++leaf->bucketBits;
  for (int32_t i = 0; i < oldCount; ++i) {
    __builtin_prefetch(old[std::min(i + kMoveAhead, oldCount - 1)].chain.entries);
    for (ZelHashEntry* entry = old[i].chain.entries; entry != nullptr;) {
      ZelHashEntry* const next = entry->next;
      PushEntry(LeafBucketOf(leaf, entry->key), entry);
      entry = next;
    }
  }
  __ZelFree(old);
  ZEL_ASSERT(LeafIsConsistentLocked(leaf));
}

template <typename Access>
void AddEntryLocked(ZelHashTable* leaf, ZelHashBucket* bucket, uint64_t key, void* data,
                    Access access) {
  auto* const entry = static_cast<ZelHashEntry*>(
      AllocateBlock(CategoryOf(leaf), sizeof(ZelHashEntry), AllocFlagsOf(leaf), access.Owner()));
  if constexpr (Access::kLocks) __ZelInitializeSharedExclusiveLock(&entry->lock);
  entry->key = key;
  entry->data = data;
  PushEntry(bucket, entry);
  StoreRelaxed(leaf->count, leaf->count + 1);
}

void ReleaseKey(const ZelHashTable* leaf, const ZelHashEntry* entry) {
  if (HasKeyCallbacks(leaf) && leaf->keyRelease != nullptr) leaf->keyRelease(entry->key);
}

// Operations on a leaf ----------------------------------------------------------------------------

// Hands the key's data item to `use` while nobody can remove it, and returns it; null when there is
// none.
template <typename Access, typename Use>
inline void* UseInLeaf(ZelHashTable* leaf, uint64_t key, Access access, Use use) {
  const SharedHold tableHold(&leaf->lock, access);
  if (leaf->count < 1) return nullptr;
  ZelHashBucket* const bucket = LeafBucketOf(leaf, key);
  PrefetchSearch<Access>(bucket);
  const SharedHold bucketHold(&bucket->lock, access);
  const ZelHashEntry* const entry = Find(leaf, bucket, key).entry;
  if (entry == nullptr) return nullptr;
  void* const data = entry->data;
  use(data);
  return data;
}

// Tells what is stored for a key that is there already; for that, the leaf's lock need not be held
// exclusively.
inline bool FindStored(ZelHashTable* leaf, uint64_t key, UnderLocks access, void** data) {
  const SharedHold tableHold(&leaf->lock, access);
  ZelHashBucket* const bucket = LeafBucketOf(leaf, key);
  PrefetchSearch<UnderLocks>(bucket);
  const ExclusiveHold bucketHold(&bucket->lock, access);
  const ZelHashEntry* const entry = Find(leaf, bucket, key).entry;
  if (entry == nullptr) return false;
  *data = entry->data;
  return true;
}

template <typename Access>
[[gnu::noinline]] void* InsertIntoLeaf(ZelHashTable* leaf, uint64_t key, void* data,
                                       Access access) {
  if constexpr (Access::kLocks) {
    void* stored;
    if (FindStored(leaf, key, access, &stored)) return stored;
    // Another thread may insert the key before the lock is had again: look once more.
  }
  const ExclusiveHold tableHold(&leaf->lock, access);
  ZelHashBucket* bucket = LeafBucketOf(leaf, key);
  const ZelHashEntry* const stored = Find(leaf, bucket, key).entry;
  if (stored != nullptr) return stored->data;
  if (leaf->count > leaf->bucketCount) [[unlikely]] {
    GrowLocked(leaf);
    bucket = LeafBucketOf(leaf, key);
  }
  AddEntryLocked(leaf, bucket, key, data, access);
  ZEL_ASSERT(ChainIsConsistent(leaf, bucket));
  return data;
}

template <typename Access>
[[gnu::noinline]] void* RemoveFromLeaf(ZelHashTable* leaf, uint64_t key, Access access) {
  void* data;
  {
    const SharedHold tableHold(&leaf->lock, access);
    ZelHashBucket* const bucket = LeafBucketOf(leaf, key);
    PrefetchSearch<Access>(bucket);
    const ExclusiveHold bucketHold(&bucket->lock, access);
    const auto [link, entry] = Find(leaf, bucket, key);
    if (entry == nullptr) return nullptr;
    data = entry->data;
    StoreRelaxed(*link, entry->next);
    ReleaseKey(leaf, entry);
    FreeBlock(entry, access.Owner());
    ZEL_ASSERT(ChainIsConsistent(leaf, bucket));
  }
  // The hold above does not allow to change the count, and cannot be turned into one that does.
  const ExclusiveHold tableHold(&leaf->lock, access);
  StoreRelaxed(leaf->count, leaf->count - 1);
  return data;
}

// Scans -------------------------------------------------------------------------------------------

// Returns the number of entries that were removed.
template <typename Access, typename IsToGo>
uint32_t ScanChainLocked(ZelHashTable* leaf, ZelHashBucket* bucket, Access access,
                         const IsToGo& isToGo) {
  uint32_t removed = 0;
  for (ZelHashEntry** link = &bucket->chain.entries; *link != nullptr;) {
    ZelHashEntry* const entry = *link;
    ExclusiveHold hold(AtOnce(), &entry->lock, access);
    if (!hold.IsHeld() || !isToGo(entry->data)) {
      link = &entry->next;
      continue;
    }
    ReleaseKey(leaf, entry);
    StoreRelaxed(*link, entry->next);
    StoreRelaxed(leaf->count, leaf->count - 1);
    hold.Forget();
    FreeBlock(entry, access.Owner());
    ++removed;
  }
  return removed;
}

template <typename Access, typename IsToGo>
uint32_t ScanLeaf(ZelHashTable* leaf, Access access, const IsToGo& isToGo, uint32_t* count) {
  *count += static_cast<uint32_t>(LoadRelaxed(leaf->count));
  if constexpr (Access::kLocks) {
    // The lock would let its holder in again, into the middle of a scan or of an insertion.
    if (IsExclusiveLockHeldBy(&leaf->lock, access.self)) return 0;
  }
  const ExclusiveHold hold(AtOnce(), &leaf->lock, access);
  if (!hold.IsHeld()) return 0;
  uint32_t removed = 0;
  for (int32_t i = 0; i < leaf->bucketCount; ++i)
    removed += ScanChainLocked(leaf, &leaf->buckets[i], access, isToGo);
  ZEL_ASSERT(LeafIsConsistentLocked(leaf));
  return removed;
}

template <typename Access, typename IsToGo>
uint32_t ScanLevel(ZelHashTable* table, Access access, const IsToGo& isToGo, uint32_t* count) {
  if (table->level == 0) return ScanLeaf(table, access, isToGo, count);
  uint32_t removed = 0;
  for (int32_t i = 0; i < table->bucketCount; ++i) {
    ZelHashTable* const below = LoadAcquire(table->buckets[i].chain.table);
    if (IsTable(below)) removed += ScanLevel(below, access, isToGo, count);
  }
  return removed;
}

// The frame of both scans: removes the entries for whose data items isToGo is true.
template <typename IsToGo>
uint32_t Scan(ZelHashTable* table, const IsToGo& isToGo, uint32_t* outCount) {
  uint32_t count = 0;
  const uint32_t removed =
      WithAccess(table, [&](auto access) { return ScanLevel(table, access, isToGo, &count); });
  *outCount = count;
  return removed;
}

// Whole tables ------------------------------------------------------------------------------------

// A leaf without locks and key callbacks. A lookup in one does nothing but what it must.
inline bool IsPlainLeaf(const ZelHashTable* table) {
  constexpr uint32_t kMask = ZEL_HASH_FLAG_NO_LOCKING | ZEL_HASH_FLAG_KEY_CALLBACKS;
  return table->level == 0 && (table->flags & kMask) == ZEL_HASH_FLAG_NO_LOCKING;
}

inline void* LookUpInPlainLeaf(const ZelHashTable* leaf, uint64_t key, uint64_t hash) {
  if (leaf->count < 1) return nullptr;
  const ZelHashEntry* const entry = FindEqual(BucketOfHash(leaf, hash), key).entry;
  return entry != nullptr ? entry->data : nullptr;
}

// Apart from the above, which has no call to save registers for.
[[gnu::noinline]] void* HashAndLookUpInPlainLeaf(const ZelHashTable* leaf, uint64_t key) {
  return LookUpInPlainLeaf(leaf, key, leaf->hashFunctions[0](leaf, key));
}

[[gnu::noinline]] void* LookUp(ZelHashTable* table, uint64_t key) {
  ZelHashTable* const leaf = FindLeaf(table, key);
  if (leaf == nullptr) return nullptr;
  return WithAccess(leaf, [&](auto access) { return UseInLeaf(leaf, key, access, [](void*) {}); });
}

// What ownerValue returns is what the locks know the thread by.
template <typename Acquire, typename OwnerValue>
inline uint32_t LookUpAndAcquire(ZelHashTable* table, uint64_t key, Acquire acquire, void** outData,
                                 OwnerValue ownerValue) {
  ZelHashTable* const leaf = FindLeaf(table, key);
  uint32_t status = kNotFound;
  const auto acquireInLeaf = [&](auto access) {
    return UseInLeaf(leaf, key, access, [&](void* data) { status = acquire(data); });
  };
  *outData = leaf != nullptr ? WithAccess(leaf, acquireInLeaf, ownerValue) : nullptr;
  return status;
}

void FreeEntries(const ZelHashTable* leaf, ZelHashEntry* first, ZelHashFreeData freeData,
                 uint64_t self) {
  for (ZelHashEntry* entry = first; entry != nullptr;) {
    ZelHashEntry* const next = entry->next;
    if (freeData != nullptr) freeData(entry->data);
    ReleaseKey(leaf, entry);
    FreeBlock(entry, self);
    entry = next;
  }
}

void DestroyTable(ZelHashTable* table, ZelHashFreeData freeData, uint64_t self) {
  for (int32_t i = 0; i < table->bucketCount; ++i) {
    const ZelHashBucket& bucket = table->buckets[i];
    if (table->level == 0) {
      FreeEntries(table, bucket.chain.entries, freeData, self);
    } else if (IsTable(bucket.chain.table)) {
      DestroyTable(bucket.chain.table, freeData, self);
    }
  }
  FreeBlock(table->buckets, self);
  FreeBlock(table, self);
}

bool IsFree(const ZelHashTable* table, const ZelSharedExclusiveLock& lock) {
  return !IsLocking(table) || (lock.state == kFree && lock.sharedCount == 0);
}

bool LeafIsConsistent(ZelHashTable* root, const ZelHashTable* leaf) {
  int32_t entries;
  if (!LeafIsConsistentLocked(leaf, &entries) || entries != leaf->count) return false;
  for (int32_t i = 0; i < leaf->bucketCount; ++i) {
    const ZelHashBucket& bucket = leaf->buckets[i];
    if (!IsFree(leaf, bucket.lock)) return false;
    for (const ZelHashEntry* entry = bucket.chain.entries; entry != nullptr; entry = entry->next) {
      if (!IsFree(leaf, entry->lock) || FindLeaf(root, entry->key) != leaf) return false;
    }
  }
  return true;
}

bool LevelIsConsistent(ZelHashTable* root, const ZelHashTable* table) {
  if (!IsFree(table, table->lock) || table->flags != root->flags) return false;
  if (table->level == 0) return LeafIsConsistent(root, table);
  if (table->bucketBits != InitialBits(table->flags)) return false;
  for (int32_t i = 0; i < table->bucketCount; ++i) {
    const ZelHashTable* const below = table->buckets[i].chain.table;
    if (below == nullptr) continue;
    if (!IsTable(below) || below->level != table->level - 1 || !LevelIsConsistent(root, below))
      return false;
  }
  return true;
}

}  // namespace

bool HashTableIsConsistent(ZelHashTable* table) { return LevelIsConsistent(table, table); }

}  // namespace zelrt

using namespace zelrt;

ZelHashTable* __ZelCreateHashTable(uint32_t flags, const ZelHashFunction* hashFunctions,
                                   int32_t levelCount, ZelHashKeyEquals keyEquals,
                                   ZelHashKeyRelease keyRelease, uint32_t memoryCategory,
                                   uint32_t allocFlags) {
  auto* const table =
      static_cast<ZelHashTable*>(__ZelMalloc(memoryCategory, sizeof(ZelHashTable), 0));
  table->keyEquals = keyEquals;
  table->keyRelease = keyRelease;
  table->flags = PackFlags(flags, memoryCategory, allocFlags);
  table->bucketBits = InitialBits(flags);
  table->bucketCount = 1 << table->bucketBits;
  std::copy(std::begin(kDefaultHashFunctions), std::end(kDefaultHashFunctions),
            table->hashFunctions);
  for (int32_t level = 0; hashFunctions != nullptr && level < levelCount; ++level) {
    if (hashFunctions[level] != nullptr) table->hashFunctions[level] = hashFunctions[level];
  }
  if (IsLocking(table)) __ZelInitializeSharedExclusiveLock(&table->lock);
  table->level = levelCount - 1;
  table->count = 0;
  table->buckets = MakeBuckets(table, table->bucketCount);
  return table;
}

void __ZelDestroyHashTable(ZelHashTable* table, ZelHashFreeData freeData) {
  if (table != nullptr) DestroyTable(table, freeData, CallingOwner());
}

void* __ZelLookupHashTable(ZelHashTable* table, uint64_t key) {
  if (!IsPlainLeaf(table)) return LookUp(table, key);
  if (table->hashFunctions[0] != HashOfLeaf) return HashAndLookUpInPlainLeaf(table, key);
  return LookUpInPlainLeaf(table, key, key);
}

void* __ZelInsertHashTableEntry(ZelHashTable* table, uint64_t key, void* data) {
  ZelHashTable* const leaf = FindOrCreateLeaf(table, key);
  return WithAccess(leaf, [&](auto access) { return InsertIntoLeaf(leaf, key, data, access); });
}

void* __ZelRemoveHashTableEntry(ZelHashTable* table, uint64_t key) {
  ZelHashTable* const leaf = FindLeaf(table, key);
  if (leaf == nullptr) return nullptr;
  return WithAccess(leaf, [&](auto access) { return RemoveFromLeaf(leaf, key, access); });
}

uint32_t __ZelLookupAndAcquireHashTableDataItem(ZelHashTable* table, uint64_t key,
                                                ZelHashAcquire acquire, void** outData) {
  return LookUpAndAcquire(table, key, acquire, outData, CallingOwner);
}

uint32_t __ZelLookupAndAcquireHashTableDataItemTid(ZelHashTable* table, uint64_t key,
                                                   ZelHashAcquireTid acquire, void** outData,
                                                   uint32_t tid) {
  const auto acquireWithTid = [=](void* data) { return acquire(data, tid); };
  return LookUpAndAcquire(table, key, acquireWithTid, outData, [=] { return OwnerOf(tid); });
}

uint32_t __ZelScanHashTable(ZelHashTable* table, ZelHashVisit visit, void* context,
                            uint32_t removeMatches, ZelHashRelease release, uint32_t* outCount) {
  const auto isToGo = [=](void* data) {
    if (visit(data, context) == 0 || removeMatches == 0) return false;
    return release == nullptr || release(data) != 0;
  };
  return Scan(table, isToGo, outCount);
}

uint32_t __ZelScanAndEmptyHashTable(ZelHashTable* table, ZelHashRelease visit, uint32_t* outCount) {
  return Scan(
      table, [=](void* data) { return visit == nullptr || visit(data) != 0; }, outCount);
}
