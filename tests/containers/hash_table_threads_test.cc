// The hash table between threads: everything at once, races for a sub-table, scans of a busy table.

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "containers/hash_table.h"
#include "host/host.h"
#include "tests/support/allocator_is_empty.h"
#include "tests/support/threads.h"

namespace {

constexpr int kThreads = 4;

// A data item that knows whether it has left the table.
struct Item {
  std::atomic<bool> hasLeft = false;
  std::atomic<int> uses = 0;
};

std::atomic<int> g_left = 0;

void Leave(void* data) {
  EXPECT_FALSE(static_cast<Item*>(data)->hasLeft.exchange(true)) << "left twice";
  ++g_left;
}
uint32_t LeaveByScan(void* data) { return Leave(data), 1; }
uint32_t Use(void* data) {
  auto* const item = static_cast<Item*>(data);
  EXPECT_FALSE(item->hasLeft) << "removed under the feet of its user";
  return ++item->uses > 3 ? 1 : 0;  // worn out
}
uint32_t UseTid(void* data, uint32_t) { return Use(data); }
uint32_t IsWornOut(void* data, void*) { return static_cast<Item*>(data)->uses > 3 ? 1 : 0; }
uint32_t IsFresh(void* data) {
  if (static_cast<Item*>(data)->uses > 0) return 0;
  return LeaveByScan(data);
}

class HashTableThreadsTest : public testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
    zeltest::backing::Install();
  }
};
INSTANTIATE_TEST_SUITE_P(Levels, HashTableThreadsTest, testing::Values(1, 2, 3));

TEST_P(HashTableThreadsTest, NothingIsLostOrUsedAfterItLeft) {
  ZelHashTable* const table = __ZelCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 1, 0);
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::atomic<int> inserted = 0;
  std::deque<Item> items[kThreads];
  zeltest::OnEachThread(kThreads, [&](int thread) {
    std::mt19937 random(seed + static_cast<unsigned>(thread));
    for (int step = 0; step < 20'000; ++step) {
      const uint64_t key = random() % 3 << 24 | random() % 900;
      void* data;
      uint32_t count;
      switch (random() % 16) {
        case 0:
          if ((data = __ZelRemoveHashTableEntry(table, key)) != nullptr) Leave(data);
          break;
        case 1:
        case 2:
          __ZelLookupAndAcquireHashTableDataItem(table, key, Use, &data);
          break;
        case 3:
          __ZelLookupAndAcquireHashTableDataItemTid(
              table, key, UseTid, &data, static_cast<uint32_t>(zelhost::NativeThreadId()));
          break;
        case 4:
          if (step % 8 == 0) __ZelScanHashTable(table, IsWornOut, nullptr, 1, LeaveByScan, &count);
          if (step % 512 == 8) __ZelScanAndEmptyHashTable(table, IsFresh, &count);
          break;
        case 5:
        case 6:
          __ZelLookupHashTable(table, key);
          break;
        default:
          auto& mine = items[thread];
          if (__ZelInsertHashTableEntry(table, key, &mine.emplace_back()) == &mine.back()) {
            ++inserted;
          } else {
            mine.pop_back();
          }
      }
    }
  });
  EXPECT_TRUE(zelrt::HashTableIsConsistent(table));
  EXPECT_GT(g_left, 0);
  __ZelDestroyHashTable(table, Leave);
  EXPECT_EQ(inserted, g_left);
  EXPECT_TRUE(zeltest::AllocatorIsEmpty());
}

// All threads insert the same keys, in parts of the table that nobody has used.
TEST_P(HashTableThreadsTest, OneThreadMakesASubTableAndOneInsertsAKey) {
  constexpr uint64_t kKeys = 8;
  for (int round = 0; round < 100; ++round) {
    __zelNumberOfProcessors = 1 + static_cast<uint32_t>(round) % 2;
    ZelHashTable* const table =
        __ZelCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 1, 0);
    int own[kThreads];
    void* stored[kThreads][kKeys];
    zeltest::OnEachThread(kThreads, [&](int thread) {
      for (uint64_t i = 0; i < kKeys; ++i)
        stored[thread][i] = __ZelInsertHashTableEntry(table, i << 24 | i << 8, &own[thread]);
    });
    for (uint64_t i = 0; i < kKeys; ++i) {
      for (int thread = 0; thread < kThreads; ++thread)
        EXPECT_EQ(stored[0][i], stored[thread][i]) << "thread " << thread << ", key " << i;
      EXPECT_EQ(stored[0][i], __ZelLookupHashTable(table, i << 24 | i << 8));
    }
    uint32_t count;
    EXPECT_EQ(kKeys, __ZelScanAndEmptyHashTable(table, nullptr, &count));
    __ZelDestroyHashTable(table, nullptr);
    ASSERT_TRUE(zeltest::AllocatorIsEmpty());
  }
}

std::atomic<int> g_stage = 0;
uint32_t Stay(void*) {
  g_stage = 1;
  while (g_stage != 2) std::this_thread::yield();
  return 1;
}
uint32_t NeverCalled(void*) { return ADD_FAILURE(), 1; }

TEST_P(HashTableThreadsTest, AScanDoesNotWaitForALeafInUse) {
  ZelHashTable* const table = __ZelCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 1, 0);
  int item;
  __ZelInsertHashTableEntry(table, 5, &item);
  void* data;
  std::thread user([&] { __ZelLookupAndAcquireHashTableDataItem(table, 5, Stay, &data); });
  while (g_stage != 1) std::this_thread::yield();
  uint32_t count = 0;
  EXPECT_EQ(0u, __ZelScanAndEmptyHashTable(table, NeverCalled, &count));
  EXPECT_EQ(1u, count);
  g_stage = 2;
  user.join();
  EXPECT_EQ(1u, __ZelScanAndEmptyHashTable(table, nullptr, &count));
  __ZelDestroyHashTable(table, nullptr);
}

}  // namespace
