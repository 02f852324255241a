// The hash table between threads: everything at once, and races for a sub-table.

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <random>
#include <string>

#include "containers/hash_table.h"
#include "host/host.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/threads.h"

namespace {

constexpr int kThreads = 4;

struct Item {
  std::atomic<bool> hasLeft = false;
  std::atomic<bool> isUsed = false;
};
std::atomic<int> g_left;

void Leave(void* data) {
  EXPECT_FALSE(static_cast<Item*>(data)->hasLeft.exchange(true)) << "left twice";
  ++g_left;
}
uint32_t LeaveByScan(void* data) { return Leave(data), 1; }
uint32_t Use(void* data) {
  EXPECT_FALSE(static_cast<Item*>(data)->hasLeft) << "removed under the feet of its user";
  return static_cast<Item*>(data)->isUsed = true, 1;
}
uint32_t IsUsed(void* data, void*) { return static_cast<Item*>(data)->isUsed ? 1 : 0; }

class HashTableThreadsTest : public testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
    zeltest::backing::Install();
  }
  void TearDown() override { EXPECT_TRUE(zeltest::NoBlockIsInUse()); }

  static ZelHashTable* Create() {
    return __ZelCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 1, 0);
  }
};
INSTANTIATE_TEST_SUITE_P(Levels, HashTableThreadsTest, testing::Values(1, 2, 3));

TEST_P(HashTableThreadsTest, NothingIsLostOrUsedAfterItLeft) {
  ZelHashTable* const table = Create();
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::atomic<int> inserted = g_left = 0;
  std::deque<Item> items[kThreads];
  zeltest::OnEachThread(kThreads, [&](int thread) {
    std::mt19937 random(seed + static_cast<unsigned>(thread));
    std::deque<Item>& mine = items[thread];
    for (int step = 0; step < 20'000; ++step) {
      const uint64_t key = random() % 3 << 24 | random() % 900;
      const uint32_t kind = random() % 16;
      void* data = nullptr;
      uint32_t count;
      if (step % 256 == 1) {
        __ZelScanHashTable(table, IsUsed, nullptr, 1, LeaveByScan, &count);
      } else if (step % 4096 == 2) {
        __ZelScanAndEmptyHashTable(table, LeaveByScan, &count);
      } else if (kind == 0) {
        if ((data = __ZelRemoveHashTableEntry(table, key)) != nullptr) Leave(data);
      } else if (kind < 8) {
        __ZelLookupAndAcquireHashTableDataItem(table, key, Use, &data);
        __ZelLookupHashTable(table, key);
      } else if (__ZelInsertHashTableEntry(table, key, &mine.emplace_back()) == &mine.back()) {
        ++inserted;
      }
    }
  });
  EXPECT_TRUE(zelrt::HashTableIsConsistent(table));
  EXPECT_GT(g_left, 0);
  __ZelDestroyHashTable(table, Leave);
  EXPECT_EQ(inserted, g_left);
}

// All threads insert the same keys, in parts of the table that nobody has used.
TEST_P(HashTableThreadsTest, OneThreadMakesASubTableAndOneInsertsAKey) {
  constexpr uint64_t kKeys = 8;
  for (uint32_t round = 0; round < 100; ++round) {
    __zelNumberOfProcessors = 1 + round % 2;
    ZelHashTable* const table = Create();
    int own[kThreads];
    void* stored[kThreads][kKeys];
    zeltest::OnEachThread(kThreads, [&](int thread) {
      for (uint64_t i = 0; i < kKeys; ++i)
        stored[thread][i] = __ZelInsertHashTableEntry(table, i << 24 | i << 8, &own[thread]);
    });
    for (uint64_t i = 0; i < kKeys; ++i) {
      void* const found = __ZelLookupHashTable(table, i << 24 | i << 8);
      for (const auto& ofThread : stored) EXPECT_EQ(found, ofThread[i]);
    }
    EXPECT_TRUE(zelrt::HashTableIsConsistent(table));
    __ZelDestroyHashTable(table, nullptr);
  }
}

}  // namespace
