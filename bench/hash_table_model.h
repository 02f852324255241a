// The algorithm of the library's hash table with nothing around it: no flags, no callbacks, no
// thread ids, and everything inline. What ours costs beyond this is ours to answer for.
//
// Records, steps and locks are the library's: buckets of 40 and entries of 56 bytes, 32 of which
// are a lock; leaves that double when they are to hold two keys more than they have buckets; upper
// levels of 256 sub-tables. Memory comes from the same allocator.
#pragma once

#include <cstdint>

#include "bench/floor.h"
#include "zelrt/memory.h"

namespace bench {

// Level l hashes a key by shifting it right by kShift + 8 l bits.
template <bool kLocks, int kLevels, int kShift>
class HashTableModel {
 public:
  HashTableModel() : top_(MakeTable()) {}
  ~HashTableModel() { Destroy(top_, kLevels - 1); }
  HashTableModel(const HashTableModel&) = delete;
  HashTableModel& operator=(const HashTableModel&) = delete;

  void* Find(uint64_t key) {
    Table* const leaf = Descend<false>(key);
    if (leaf == nullptr) return nullptr;
    const Shared tableHold(leaf->lock);
    if (leaf->count < 1) return nullptr;
    Bucket& bucket = BucketOf(leaf, key);
    const Shared bucketHold(bucket.lock);
    Entry* const entry = *Search(bucket, key);
    return entry != nullptr ? entry->data : nullptr;
  }

  void Insert(uint64_t key) {
    Table* const leaf = Descend<true>(key);
    if constexpr (kLocks) {
      const Shared tableHold(leaf->lock);
      Bucket& bucket = BucketOf(leaf, key);
      const Exclusive bucketHold(bucket.lock);
      if (*Search(bucket, key) != nullptr) return;
    }
    const Exclusive tableHold(leaf->lock);
    if (*Search(BucketOf(leaf, key), key) != nullptr) return;
    if (leaf->count > leaf->bucketCount) Grow(leaf);
    Push(BucketOf(leaf, key), New<Entry>({.key = key, .data = leaf}));
    ++leaf->count;
  }

  void Remove(uint64_t key) {
    Table* const leaf = Descend<false>(key);
    if (leaf == nullptr) return;
    {
      const Shared tableHold(leaf->lock);
      Bucket& bucket = BucketOf(leaf, key);
      const Exclusive bucketHold(bucket.lock);
      Entry** const link = Search(bucket, key);
      Entry* const entry = *link;
      if (entry == nullptr) return;
      *link = entry->next;
      __ZelFree(entry);
    }
    const Exclusive tableHold(leaf->lock);
    --leaf->count;
  }

 private:
  struct Lock : ContendedSharedFloor {
    uint64_t rest[2] = {};
  };
  static_assert(sizeof(Lock) == 32);

  struct Shared {
    explicit Shared(Lock& l) : lock(l) {
      if constexpr (kLocks) lock.lock_shared();
    }
    ~Shared() {
      if constexpr (kLocks) lock.unlock_shared();
    }
    Lock& lock;
  };
  struct Exclusive {
    explicit Exclusive(Lock& l) : lock(l) {
      if constexpr (kLocks) lock.lock();
    }
    ~Exclusive() {
      if constexpr (kLocks) lock.unlock();
    }
    Lock& lock;
  };

  struct Entry {
    Entry* next = nullptr;
    uint64_t key;
    void* data;
    Lock lock = {};
  };
  struct Table;
  struct Bucket {
    Lock lock = {};
    union {
      Entry* entries = nullptr;
      Table* table;
    };
  };
  struct Table {
    Lock lock = {};
    void* callbacks[5] = {};
    Bucket* buckets;
    int32_t bucketCount = 256;
    int32_t bucketBits = 8;
    int32_t count = 0;
    int32_t level = 0;
    uint32_t flags = 0;
  };
  static_assert(sizeof(Entry) == 56 && sizeof(Bucket) == 40 && sizeof(Table) == 104);

  template <typename Record>
  static Record* New(const Record& record) {
    return new (__ZelMalloc(0, sizeof(Record), 0)) Record(record);
  }
  static Bucket* MakeBuckets(int32_t count) {
    auto* const buckets =
        static_cast<Bucket*>(__ZelMalloc(0, static_cast<size_t>(count) * sizeof(Bucket), 0));
    for (int32_t i = 0; i < count; ++i) {
      if constexpr (kLocks) new (&buckets[i].lock) Lock;
      buckets[i].entries = nullptr;
    }
    return buckets;
  }
  static Table* MakeTable() { return New<Table>({.buckets = MakeBuckets(256)}); }

  static Bucket& BucketOf(Table* table, uint64_t key, int level = 0) {
    return table
        ->buckets[key >> (kShift + 8 * level) & (static_cast<uint64_t>(table->bucketCount) - 1)];
  }

  template <bool kCreate>
  Table* Descend(uint64_t key) {
    Table* table = top_;
    for (int level = kLevels - 1; level > 0; --level) {
      Table*& place = BucketOf(table, key, level).table;
      table = __atomic_load_n(&place, __ATOMIC_ACQUIRE);
      if (table != nullptr) continue;
      // Tables are filled by one thread: nobody else creates this one.
      if constexpr (!kCreate) return nullptr;
      table = MakeTable();
      __atomic_store_n(&place, table, __ATOMIC_RELEASE);
    }
    return table;
  }

  static Entry** Search(Bucket& bucket, uint64_t key) {
    Entry** link = &bucket.entries;
    while (*link != nullptr && (*link)->key != key) link = &(*link)->next;
    return link;
  }

  static void Push(Bucket& bucket, Entry* entry) {
    entry->next = bucket.entries;
    bucket.entries = entry;
  }

  [[gnu::noinline]] static void Grow(Table* leaf) {
    Bucket* const old = leaf->buckets;
    const int32_t oldCount = leaf->bucketCount;
    leaf->bucketCount *= 2;
    ++leaf->bucketBits;
    leaf->buckets = MakeBuckets(leaf->bucketCount);
    for (int32_t i = 0; i < oldCount; ++i) {
      for (Entry* entry = old[i].entries; entry != nullptr;) {
        Entry* const next = entry->next;
        Push(BucketOf(leaf, entry->key), entry);
        entry = next;
      }
    }
    __ZelFree(old);
  }

  static void Destroy(Table* table, int level) {
    for (int32_t i = 0; i < table->bucketCount; ++i) {
      Bucket& bucket = table->buckets[i];
      if (level > 0) {
        if (bucket.table != nullptr) Destroy(bucket.table, level - 1);
        continue;
      }
      for (Entry* entry = bucket.entries; entry != nullptr;) {
        Entry* const next = entry->next;
        __ZelFree(entry);
        entry = next;
      }
    }
    __ZelFree(table->buckets);
    __ZelFree(table);
  }

  Table* const top_;
};

}  // namespace bench
