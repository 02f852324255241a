#include "containers/hash_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/host.h"
#include "tests/support/allocator_is_empty.h"
#include "tests/support/fake_backing.h"

namespace {

using zelrt::HashTableIsConsistent;

constexpr uint32_t kNoLocking = ZEL_HASH_FLAG_NO_LOCKING;

void* Data(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t Number(const void* data) { return reinterpret_cast<uintptr_t>(data); }

// What the callbacks below, plain functions, have seen and are to do.
struct Calls {
  std::string log;
  std::function<uint32_t(void*)> action;
};
Calls g_calls;

void ReleaseKey(uint64_t key) { g_calls.log += "key " + std::to_string(key) + "; "; }
void FreeData(void* data) { g_calls.log += "data " + std::to_string(Number(data)) + "; "; }
uint32_t KeysEqual(uint64_t a, uint64_t b) { return a % 1000 == b % 1000 ? 4 : 0; }
uint64_t HashOfKey(const ZelHashTable*, uint64_t key) { return key % 1000; }
uint32_t Act(void* data) { return g_calls.action(data); }
uint32_t ActTid(void* data, uint32_t tid) { return g_calls.action(data) + tid; }
void ActOnKey(uint64_t key) { g_calls.action(Data(key)); }
uint32_t Visit(void* data, void* action) {
  return (*static_cast<std::function<uint32_t(void*)>*>(action))(data);
}

uint32_t Scan(ZelHashTable* table, std::function<uint32_t(void*)> visit, uint32_t removeMatches,
              ZelHashRelease release, uint32_t* count) {
  return __ZelScanHashTable(table, Visit, &visit, removeMatches, release, count);
}

class HashTableTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    zeltest::backing::Install();
    g_calls = {};
  }
  void TearDown() override {
    __ZelDestroyHashTable(table_, nullptr);
    EXPECT_TRUE(zeltest::AllocatorIsEmpty());
  }

  void Create(uint32_t flags, int32_t levels, ZelHashKeyEquals equals = nullptr,
              ZelHashKeyRelease release = nullptr) {
    const ZelHashFunction hashes[] = {equals != nullptr ? HashOfKey : nullptr, nullptr, nullptr};
    table_ = __ZelCreateHashTable(flags, hashes, levels, equals, release, 5, 3);
  }
  void* Insert(uint64_t key) { return __ZelInsertHashTableEntry(table_, key, Data(key)); }
  void* Remove(uint64_t key) { return __ZelRemoveHashTableEntry(table_, key); }
  std::string DestroyAndTell() {
    __ZelDestroyHashTable(table_, FreeData);
    table_ = nullptr;
    return g_calls.log;
  }

  ZelHashTable* table_ = nullptr;
};

struct Kind {
  uint32_t flags;
  int32_t levels;
};
class HashTableModelTest : public HashTableTest, public testing::WithParamInterface<Kind> {};
INSTANTIATE_TEST_SUITE_P(Kinds, HashTableModelTest,
                         testing::Values(Kind{0, 1}, Kind{0, 2}, Kind{0, 3}, Kind{kNoLocking, 1},
                                         Kind{kNoLocking, 3},
                                         Kind{ZEL_HASH_FLAG_KEY_CALLBACKS, 1}));

TEST_P(HashTableModelTest, RandomOperationsAnswerAsAMapWould) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const bool hasCallbacks = (GetParam().flags & ZEL_HASH_FLAG_KEY_CALLBACKS) != 0;
  Create(GetParam().flags, GetParam().levels, hasCallbacks ? KeysEqual : nullptr);
  std::unordered_map<uint64_t, void*> model;
  for (uint64_t step = 1; step <= 6'000; ++step) {
    // Few keys, in two parts of each level, more to a bucket than there are buckets between.
    const uint64_t key = below(2) << 24 | below(3) << 16 | below(2) << 8 | below(60);
    const uint64_t modelKey = hasCallbacks ? key % 1000 : key;
    const auto found = model.find(modelKey);
    void* const stored = found != model.end() ? found->second : nullptr;
    const auto isOdd = [](void* data) -> uint32_t { return Number(data) % 2; };
    const auto isModelOdd = [](const auto& pair) { return Number(pair.second) % 2 != 0; };
    void* acquired = Data(1);
    uint32_t count = 0;
    g_calls.action = isOdd;
    switch (below(12)) {
      case 0:
        ASSERT_EQ(stored, __ZelLookupHashTable(table_, key));
        break;
      case 1:
        ASSERT_EQ(stored != nullptr ? isOdd(stored) : 1u,
                  __ZelLookupAndAcquireHashTableDataItem(table_, key, Act, &acquired));
        ASSERT_EQ(stored, acquired);
        break;
      case 2:
        ASSERT_EQ(stored != nullptr ? isOdd(stored) + 7 : 1u,
                  __ZelLookupAndAcquireHashTableDataItemTid(table_, key, ActTid, &acquired, 7));
        ASSERT_EQ(stored, acquired);
        break;
      case 3:
      case 4:
        ASSERT_EQ(stored, Remove(key));
        model.erase(modelKey);
        break;
      case 5:
        if (below(200) != 0) break;
        ASSERT_EQ(std::erase_if(model, isModelOdd),
                  below(2) == 0 ? __ZelScanAndEmptyHashTable(table_, Act, &count)
                                : Scan(table_, isOdd, 1, nullptr, &count));
        ASSERT_GE(count, model.size());
        break;
      default:
        ASSERT_EQ(stored != nullptr ? stored : Data(step),
                  __ZelInsertHashTableEntry(table_, key, Data(step)));
        model.emplace(modelKey, Data(step));
    }
    ASSERT_TRUE(HashTableIsConsistent(table_)) << "step " << step;
  }
  uint32_t count;
  EXPECT_EQ(0u, Scan(
                    table_, [](void*) { return 0u; }, 1, nullptr, &count));
  EXPECT_EQ(model.size(), count);
  EXPECT_EQ(count, __ZelScanAndEmptyHashTable(table_, nullptr, &count));
  EXPECT_EQ(Data(1), Insert(1));
}

TEST_F(HashTableTest, ALeafDoublesForTheSecondKeyBeyondItsBuckets) {
  const struct {
    uint32_t flags;
    int32_t buckets;
  } rows[] = {{0, 256}, {kNoLocking | 0x04, 256}, {0x08, 512}, {0x10, 1024}, {0x18, 512}};
  for (const auto& row : rows) {
    Create(row.flags, 1);
    for (int32_t key = 0; key <= row.buckets; ++key) Insert(static_cast<uint64_t>(key));
    EXPECT_EQ(row.buckets, table_->bucketCount);
    Insert(0);  // is there
    EXPECT_EQ(row.buckets, table_->bucketCount);
    Insert(5000);
    EXPECT_EQ(row.buckets * 2, table_->bucketCount);
    EXPECT_EQ(row.buckets + 2, table_->count);
    EXPECT_TRUE(HashTableIsConsistent(table_));
    __ZelDestroyHashTable(table_, nullptr);
  }
  table_ = nullptr;
}

TEST_F(HashTableTest, NewEntriesComeFirstAndGrowthTurnsAChainAround) {
  Create(0, 1);
  std::vector<uint64_t> visited;
  const auto visit = [&](void* data) {
    if (Number(data) % 512 == 1) visited.push_back(Number(data));
    return 0u;
  };
  uint32_t count;
  for (uint64_t key : {1, 513, 1025}) Insert(key);
  Scan(table_, visit, 0, nullptr, &count);
  for (uint64_t key = 2; key < 257; ++key) Insert(key);
  Scan(table_, visit, 0, nullptr, &count);
  EXPECT_EQ(512, table_->bucketCount);
  EXPECT_EQ((std::vector<uint64_t>{1025, 513, 1, 1, 513, 1025}), visited);
}

TEST_F(HashTableTest, UpperLevelsTakeTheirBitsAndAreMadeByInsertionOnly) {
  for (const uint32_t flags : {0u, 0x08u, 0x10u, 0x20000002u}) {
    Create(flags, 3);
    constexpr uint64_t kKey = 0xFEDC'BA98'7654'3210;
    void* data = Data(1);
    EXPECT_EQ(nullptr, __ZelLookupHashTable(table_, kKey));
    EXPECT_EQ(nullptr, Remove(kKey));
    EXPECT_EQ(1u, __ZelLookupAndAcquireHashTableDataItem(table_, kKey, nullptr, &data));
    EXPECT_EQ(nullptr, data);
    const uint32_t bits = table_->bucketBits;
    const uint64_t mask = (1u << bits) - 1;
    const ZelHashTable* const& middle = table_->buckets[kKey >> (3 * bits) & mask].chain.table;
    EXPECT_EQ(nullptr, middle);
    Insert(kKey);
    ASSERT_NE(nullptr, middle);
    const ZelHashTable* const leaf = middle->buckets[kKey >> bits & mask].chain.table;
    ASSERT_NE(nullptr, leaf);
    EXPECT_EQ(1, leaf->count);
    EXPECT_TRUE(HashTableIsConsistent(table_));

    const zelrt::ZelHashEntry* const entry = leaf->buckets[kKey & mask].chain.entries;
    const auto expectShift = [](const void* block, uint32_t shift) {
      const uint64_t page = static_cast<const uint64_t*>(block)[-1];
      if (page % 2 != 0) return;  // too large for a page
      EXPECT_EQ(5, reinterpret_cast<zelrt::ZelAllocatorPage*>(page)->category);
      EXPECT_EQ(shift, reinterpret_cast<zelrt::ZelAllocatorPage*>(page)->sizeShift);
    };
    for (const ZelHashTable* table : {static_cast<const ZelHashTable*>(table_), middle, leaf}) {
      expectShift(table, 0);
      expectShift(table->buckets, 0);
      EXPECT_EQ(flags | 0x30500, table->flags);
    }
    expectShift(entry, 3);
    EXPECT_EQ("data " + std::to_string(kKey) + "; ", DestroyAndTell());
    g_calls.log.clear();
  }
}

TEST_F(HashTableTest, StoredKeysAreReleasedOnceWhereTheyLeave) {
  Create(ZEL_HASH_FLAG_KEY_CALLBACKS, 1, KeysEqual, ReleaseKey);
  for (uint64_t key = 1; key <= 4; ++key) Insert(key);
  EXPECT_EQ(Data(1), Insert(1001)) << "equal to the stored key";
  EXPECT_EQ(Data(1), Remove(2001));
  EXPECT_EQ(nullptr, Remove(1));
  uint32_t count;
  EXPECT_EQ(1u, Scan(
                    table_, [](void* d) { return Number(d) == 2 ? 5u : 0u; }, 1, nullptr, &count));
  g_calls.action = [](void* data) { return Number(data) == 3 ? 1u : 0u; };
  EXPECT_EQ(1u, __ZelScanAndEmptyHashTable(table_, Act, &count));
  EXPECT_EQ(2u, count);
  EXPECT_EQ("key 1; key 2; key 3; data 4; key 4; ", DestroyAndTell());

  g_calls.log.clear();
  Create(0, 1, KeysEqual, ReleaseKey);
  Insert(1);
  EXPECT_EQ(Data(1001), Insert(1001)) << "compared as integers without the flag";
  Remove(1);
  EXPECT_EQ("data 1001; ", DestroyAndTell());
}

TEST_F(HashTableTest, AScanKeepsWhatItIsNotAllowedToRemove) {
  Create(0, 2);
  for (uint64_t key = 0; key < 6; ++key) Insert(key << 4 | 1);
  uint32_t released = 0;
  g_calls.action = [&](void* data) { return ++released, Number(data) == 1 ? 0u : 1u; };
  const auto isSmall = [](void* data) -> uint32_t { return Number(data) < 0x30; };
  uint32_t count = 0;
  EXPECT_EQ(0u, Scan(table_, isSmall, 0, Act, &count));
  EXPECT_EQ(0u, released);
  EXPECT_EQ(6u, count);
  EXPECT_EQ(2u, Scan(table_, isSmall, 1, Act, &count));
  EXPECT_EQ(3u, released);
  EXPECT_EQ(6u, count);
  EXPECT_EQ(Data(1), __ZelLookupHashTable(table_, 1));

  // Another thread has the lock of an entry.
  ZelHashTable* const leaf = table_->buckets[0].chain.table;
  zelrt::ZelHashEntry* const entry = leaf->buckets[0x31].chain.entries;
  __ZelAcquireExclusiveLockTid(&entry->lock, 1);
  EXPECT_EQ(0u, Scan(
                    table_, [&](void* d) { return d == entry->data ? 1u : 0u; }, 1, Act, &count));
  EXPECT_EQ(3u, __ZelScanAndEmptyHashTable(table_, nullptr, &count));
  EXPECT_EQ(4u, count);
  EXPECT_EQ(entry->data, __ZelLookupHashTable(table_, 0x31));
  __ZelReleaseExclusiveLock(&entry->lock);
  EXPECT_TRUE(HashTableIsConsistent(table_));
}

TEST_F(HashTableTest, CallbacksRunUnderTheirLocksAndScansGiveUp) {
  Create(ZEL_HASH_FLAG_KEY_CALLBACKS, 1, KeysEqual, ActOnKey);
  zelrt::ZelHashBucket* const bucket = &table_->buckets[7];
  std::string states;  // of leaf, bucket and entry, then the count
  g_calls.action = [&](void*) -> uint32_t {
    states += std::to_string(table_->lock.state) + std::to_string(bucket->lock.state) +
              (bucket->chain.entries ? std::to_string(bucket->chain.entries->lock.state) : "-") +
              std::to_string(table_->count) + " ";
    uint32_t count = 0;
    const auto neverCalled = [](void*) -> uint32_t { return ADD_FAILURE(), 1; };
    EXPECT_EQ(0u, Scan(table_, neverCalled, 1, nullptr, &count));
    EXPECT_EQ(0u, __ZelScanAndEmptyHashTable(table_, nullptr, &count));
    EXPECT_EQ(1u, count);
    return 1;
  };
  uint32_t count;
  void* data;
  Insert(7);
  __ZelLookupAndAcquireHashTableDataItem(table_, 7, Act, &data);
  Remove(7);
  Insert(7);
  Scan(table_, g_calls.action, 1, Act, &count);
  Insert(7);
  __ZelScanAndEmptyHashTable(table_, Act, &count);
  Insert(7);
  DestroyAndTell();
  EXPECT_EQ("1101 12-1 2021 2021 2021 2021 2021 0001 ", states);
}

uint32_t g_hookCalls = 0;
uint64_t CountingHook() { return ++g_hookCalls, 42; }

TEST_F(HashTableTest, AnOperationAsksForTheThreadOnce) {
  __ZelSetGetNativeThreadIdProc(CountingHook);
  g_calls.action = [](void*) { return 1u; };
  for (const uint32_t flags : {0u, kNoLocking}) {
    Create(flags, 1);
    Insert(2);
    void* data;
    uint32_t count;
    const auto cost = [](auto operation) {
      g_hookCalls = 0;
      operation();
      return g_hookCalls;
    };
    const uint32_t locks = flags == 0 ? 1 : 0;
    EXPECT_EQ(locks, cost([&] { __ZelLookupHashTable(table_, 2); }));
    EXPECT_EQ(locks, cost([&] {
                Scan(
                    table_, [](void*) { return 0u; }, 1, nullptr, &count);
              }));
    EXPECT_EQ(1u, cost([&] { Insert(1); }));
    EXPECT_EQ(1u, cost([&] { Remove(1); }));
    if (flags == 0) {
      Insert(1);
      // The writer of the leaf and the bucket is let in as the thread that it says it is.
      __ZelAcquireExclusiveLockTid(&table_->lock, 77);
      __ZelAcquireExclusiveLockTid(&table_->buckets[1].lock, 77);
      EXPECT_EQ(0u, cost([&] {
                  __ZelLookupAndAcquireHashTableDataItemTid(table_, 1, ActTid, &data, 77);
                }));
      EXPECT_EQ(Data(1), data);
      __ZelReleaseExclusiveLock(&table_->buckets[1].lock);
      __ZelReleaseExclusiveLock(&table_->lock);
    }
    __ZelDestroyHashTable(table_, nullptr);
  }
  table_ = nullptr;
}

}  // namespace
