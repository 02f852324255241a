#include "containers/hash_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

#include "host/host.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

using zelrt::HashTableIsConsistent;

void* Data(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t Number(const void* data) { return reinterpret_cast<uintptr_t>(data); }

// Callbacks. What they do beyond their answer is up to the test.
std::function<uint32_t(void*)> g_action;
uint32_t Act(void* data) { return g_action(data); }
uint32_t ActTid(void* data, uint32_t tid) { return g_action(data) + tid; }
void ActOnKey(uint64_t key) { g_action(Data(key)); }
uint32_t NeverCalled(void*) { return ADD_FAILURE(), 1; }
uint32_t IsOdd(void* data, void*) { return Number(data) % 2 != 0 ? 1 : 0; }
uint32_t CountVisit(void*, void* visits) { return ++*static_cast<uint32_t*>(visits); }
uint32_t IsEqual(void* data, void* other) { return data == other ? 5 : 0; }

uint32_t KeysEqual(uint64_t a, uint64_t b) { return a % 1000 == b % 1000 ? 4 : 0; }
uint64_t HashOfKey(const ZelHashTable*, uint64_t key) { return key % 1000; }

std::string g_left;  // what was given back, in order
void NoteKey(uint64_t key) { g_left += "key " + std::to_string(key) + "; "; }
void NoteData(void* data) { g_left += "data " + std::to_string(Number(data)) + "; "; }

class HashTableTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    zeltest::backing::Install();
  }
  void TearDown() override {
    DestroyAndTell();
    EXPECT_TRUE(zeltest::NoBlockIsInUse());
  }

  void Create(uint32_t flags, int32_t levels, ZelHashKeyRelease release = nullptr) {
    const bool hasCallbacks = (flags & ZEL_HASH_FLAG_KEY_CALLBACKS) != 0;
    const ZelHashFunction hashes[] = {hasCallbacks ? HashOfKey : nullptr, nullptr, nullptr};
    table_ = __ZelCreateHashTable(flags, hashes, levels, KeysEqual, release, 5, 3);
  }
  void* Insert(uint64_t key) { return __ZelInsertHashTableEntry(table_, key, Data(key)); }
  std::string DestroyAndTell() {
    __ZelDestroyHashTable(table_, NoteData);
    table_ = nullptr;
    return std::exchange(g_left, "");
  }

  ZelHashTable* table_ = nullptr;
  void* data_ = nullptr;
  uint32_t count_ = 0;
};

// The flags and the number of levels.
class HashTableModelTest : public HashTableTest,
                           public testing::WithParamInterface<std::pair<uint32_t, int32_t>> {};
INSTANTIATE_TEST_SUITE_P(Kinds, HashTableModelTest,
                         testing::Values(std::pair(0, 1), std::pair(0, 2), std::pair(0, 3),
                                         std::pair(ZEL_HASH_FLAG_NO_LOCKING, 1),
                                         std::pair(ZEL_HASH_FLAG_NO_LOCKING, 3),
                                         std::pair(ZEL_HASH_FLAG_KEY_CALLBACKS, 1)));

TEST_P(HashTableModelTest, RandomOperationsAnswerAsAMapWould) {
  zeltest::Random random;
  const auto [flags, levels] = GetParam();
  Create(flags, levels);
  g_action = [](void* data) { return static_cast<uint32_t>(Number(data) % 3); };
  const auto isToGo = [](const auto& pair) { return Act(pair.second) != 0; };
  std::unordered_map<uint64_t, void*> model;
  for (uint64_t step = 1; step <= 6'000; ++step) {
    // In two parts of each level; several to a bucket of a leaf.
    const uint64_t key =
        random.Below(2) << 24 | random.Below(3) << 16 | random.Below(2) << 8 | random.Below(80);
    const uint64_t modelKey = flags == ZEL_HASH_FLAG_KEY_CALLBACKS ? key % 1000 : key;
    const auto found = model.find(modelKey);
    void* const stored = found != model.end() ? found->second : nullptr;
    ASSERT_EQ(stored, __ZelLookupHashTable(table_, key));
    ASSERT_EQ(stored != nullptr ? Act(stored) : 1,
              __ZelLookupAndAcquireHashTableDataItem(table_, key, Act, &data_));
    ASSERT_EQ(stored, data_);
    if (step % 1'500 == 0) {
      const auto isOddToo = [&](const auto& p) { return IsOdd(p.second, nullptr) && isToGo(p); };
      ASSERT_EQ(std::erase_if(model, isOddToo),
                __ZelScanHashTable(table_, IsOdd, nullptr, 2, Act, &count_));
      ASSERT_EQ(std::erase_if(model, isToGo), __ZelScanAndEmptyHashTable(table_, Act, &count_));
    } else if (random.OneIn(4)) {
      ASSERT_EQ(stored, __ZelRemoveHashTableEntry(table_, key));
      model.erase(modelKey);
    } else {
      ASSERT_EQ(stored != nullptr ? stored : Data(step),
                __ZelInsertHashTableEntry(table_, key, Data(step)));
      model.emplace(modelKey, Data(step));
    }
    ASSERT_TRUE(HashTableIsConsistent(table_)) << "step " << step;
  }
  uint32_t visits = 0;
  EXPECT_EQ(0u, __ZelScanHashTable(table_, CountVisit, &visits, 0, NeverCalled, &count_));
  EXPECT_EQ(model.size(), visits);
  EXPECT_EQ(model.size(), count_);
  EXPECT_EQ(count_, __ZelScanAndEmptyHashTable(table_, nullptr, &count_));
  EXPECT_EQ(Data(1), Insert(1));
}

TEST_F(HashTableTest, ALeafDoublesForTheSecondKeyBeyondItsBuckets) {
  const struct {
    uint32_t flags;
    uint32_t buckets;
  } rows[] = {{0, 256}, {0x06, 256}, {0x08, 512}, {0x10, 1024}, {0x18, 512}};
  for (const auto& row : rows) {
    Create(row.flags, 1);
    for (const uint64_t key : {1, 4097, 8193}) Insert(key);
    EXPECT_EQ(8193u, table_->buckets[1].chain.entries->key);
    for (uint64_t key = 2; key < row.buckets; ++key) Insert(key);
    Insert(1);  // is there
    EXPECT_EQ(row.buckets, static_cast<uint32_t>(table_->bucketCount));
    Insert(0);
    EXPECT_EQ(row.buckets * 2, static_cast<uint32_t>(table_->bucketCount));
    EXPECT_EQ(row.buckets + 2, static_cast<uint32_t>(table_->count));
    EXPECT_EQ(1u, table_->buckets[1].chain.entries->key) << "chains are turned around";
    EXPECT_TRUE(HashTableIsConsistent(table_));
    DestroyAndTell();
  }
}

TEST_F(HashTableTest, UpperLevelsTakeTheirBitsAndAreMadeByInsertionOnly) {
  constexpr uint64_t kKey = 0xFEDC'BA98'7654'3210;
  for (const uint32_t flags : {0u, 0x08u, 0x10u, 0x20000002u}) {
    Create(flags, 3);
    const uint32_t bits = table_->bucketBits;
    const uint64_t mask = (1u << bits) - 1;
    ZelHashTable* const& middle = table_->buckets[kKey >> (3 * bits) & mask].chain.table;
    EXPECT_EQ(nullptr, __ZelLookupHashTable(table_, kKey));
    EXPECT_EQ(nullptr, __ZelRemoveHashTableEntry(table_, kKey));
    EXPECT_EQ(1u, __ZelLookupAndAcquireHashTableDataItem(table_, kKey, NeverCalled, &data_));
    EXPECT_EQ(nullptr, middle);
    Insert(kKey);
    ZelHashTable* const leaf = middle->buckets[kKey >> bits & mask].chain.table;
    for (const ZelHashTable* table : {table_, middle, leaf})
      EXPECT_EQ(flags | 0x30500, table->flags);
    EXPECT_EQ(1, leaf->count);
    EXPECT_EQ("data " + std::to_string(kKey) + "; ", DestroyAndTell());
  }
  // Nothing is of category 0, and entries alone are on pages of another size.
  for (uint32_t i = 1; i <= zelrt::kMaxUnits; ++i) EXPECT_EQ(nullptr, zelrt::FindBucket(0, i));
  EXPECT_EQ(1, std::ranges::count(zeltest::backing::Requests(), (65'536u << 3) - 16));
}

TEST_F(HashTableTest, StoredKeysAreReleasedOnceWhereTheyLeave) {
  g_action = [](void* data) { return Number(data) == 3 ? 1u : 0u; };
  for (const uint32_t flags : {ZEL_HASH_FLAG_KEY_CALLBACKS, 0u}) {
    Create(flags, 1, NoteKey);
    for (uint64_t key = 1; key <= 4; ++key) Insert(key);
    EXPECT_EQ(Data(flags != 0 ? 1 : 1001), Insert(1001)) << "equal to the first by the callback";
    EXPECT_EQ(Data(flags != 0 ? 1 : 1001), __ZelRemoveHashTableEntry(table_, 1001));
    EXPECT_EQ(1u, __ZelScanHashTable(table_, IsEqual, Data(2), 1, nullptr, &count_));
    EXPECT_EQ(1u, __ZelScanAndEmptyHashTable(table_, Act, &count_));
    EXPECT_EQ(flags != 0 ? "key 1; key 2; key 3; data 4; key 4; " : "data 1; data 4; ",
              DestroyAndTell());
  }
}

TEST_F(HashTableTest, LocksHeldByOtherThreadsCount) {
  Create(0, 1);
  for (const uint64_t key : {1, 257, 513}) Insert(key);
  zelrt::ZelHashEntry* const entry = table_->buckets[1].chain.entries->next;
  __ZelAcquireExclusiveLockTid(&entry->lock, 77);
  EXPECT_EQ(0u, __ZelScanHashTable(table_, IsEqual, entry->data, 1, NeverCalled, &count_));
  EXPECT_EQ(2u, __ZelScanAndEmptyHashTable(table_, nullptr, &count_));
  EXPECT_EQ(3u, count_);
  __ZelReleaseExclusiveLock(&entry->lock);

  // The writer is let in as the thread that it says it is.
  g_action = [](void*) { return 5u; };
  ZelSharedExclusiveLock* const locks[] = {&table_->lock, &table_->buckets[1].lock};
  for (auto* lock : locks) __ZelAcquireExclusiveLockTid(lock, 77);
  EXPECT_EQ(82u, __ZelLookupAndAcquireHashTableDataItemTid(table_, 257, ActTid, &data_, 77));
  EXPECT_EQ(entry->data, data_);
  for (auto* lock : locks) __ZelReleaseExclusiveLock(lock);
  EXPECT_TRUE(HashTableIsConsistent(table_));
}

TEST_F(HashTableTest, CallbacksRunUnderTheirLocksAndScansInThemGiveUp) {
  Create(ZEL_HASH_FLAG_KEY_CALLBACKS, 1, ActOnKey);
  zelrt::ZelHashBucket* const bucket = &table_->buckets[7];
  std::string states;  // of leaf, bucket and entry, then the count
  g_action = [&](void*) -> uint32_t {
    const zelrt::ZelHashEntry* const entry = bucket->chain.entries;
    states += std::to_string(table_->lock.state) + std::to_string(bucket->lock.state) +
              (entry != nullptr ? std::to_string(entry->lock.state) : "-") +
              std::to_string(table_->count) + " ";
    EXPECT_EQ(0u, __ZelScanHashTable(table_, IsEqual, nullptr, 1, NeverCalled, &count_));
    EXPECT_EQ(0u, __ZelScanAndEmptyHashTable(table_, NeverCalled, &count_));
    EXPECT_EQ(1u, count_);
    return 1;
  };
  uint32_t count;
  Insert(7);
  __ZelLookupAndAcquireHashTableDataItem(table_, 7, Act, &data_);
  __ZelRemoveHashTableEntry(table_, 7);
  Insert(7);
  __ZelScanHashTable(table_, IsEqual, Data(7), 1, Act, &count);
  Insert(7);
  __ZelScanAndEmptyHashTable(table_, Act, &count);
  EXPECT_EQ("1101 12-1 2021 2021 2021 2021 ", states);
}

}  // namespace
