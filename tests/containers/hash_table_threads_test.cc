// The hash table between threads: everything at once, races for a sub-table, scans of a busy table.

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <random>
#include <string>
#include <thread>

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
  EXPECT_FALSE(static_cast<Item*>(data)->hasLeft) << "removed under the feet of its user";
  ++static_cast<Item*>(data)->uses;
  return 1;
}
uint32_t IsUsed(void* data, void*) { return static_cast<Item*>(data)->uses > 0 ? 1 : 0; }

class HashTableThreadsTest : public testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
    zeltest::backing::Install();
    Create();
  }
  void TearDown() override {
    Destroy(nullptr);
    EXPECT_TRUE(zeltest::AllocatorIsEmpty());
  }

  void Create() { table_ = __ZelCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 1, 0); }
  void Destroy(ZelHashFreeData freeData) {
    __ZelDestroyHashTable(table_, freeData);
    table_ = nullptr;
  }

  ZelHashTable* table_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(Levels, HashTableThreadsTest, testing::Values(1, 2, 3));

TEST_P(HashTableThreadsTest, NothingIsLostOrUsedAfterItLeft) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::atomic<int> inserted = 0;
  g_left = 0;
  std::deque<Item> items[kThreads];
  zeltest::OnEachThread(kThreads, [&](int thread) {
    std::mt19937 random(seed + static_cast<unsigned>(thread));
    std::deque<Item>& mine = items[thread];
    for (int step = 0; step < 20'000; ++step) {
      const uint64_t key = random() % 3 << 24 | random() % 900;
      const uint32_t kind = random() % 16;
      void* data = nullptr;
      uint32_t count;
      if (kind == 0) {
        if ((data = __ZelRemoveHashTableEntry(table_, key)) != nullptr) Leave(data);
      } else if (kind < 4) {
        __ZelLookupAndAcquireHashTableDataItem(table_, key, Use, &data);
      } else if (kind == 4) {
        if (step % 16 == 0) __ZelScanHashTable(table_, IsUsed, nullptr, 1, LeaveByScan, &count);
        if (step % 512 == 8) __ZelScanAndEmptyHashTable(table_, LeaveByScan, &count);
      } else if (kind < 8) {
        __ZelLookupHashTable(table_, key);
      } else if (__ZelInsertHashTableEntry(table_, key, &mine.emplace_back()) == &mine.back()) {
        ++inserted;
      } else {
        mine.pop_back();
      }
    }
  });
  EXPECT_TRUE(zelrt::HashTableIsConsistent(table_));
  EXPECT_GT(g_left, 0);
  Destroy(Leave);
  EXPECT_EQ(inserted, g_left);
}

// All threads insert the same keys, in parts of the table that nobody has used.
TEST_P(HashTableThreadsTest, OneThreadMakesASubTableAndOneInsertsAKey) {
  constexpr uint64_t kKeys = 8;
  for (int round = 0; round < 100; ++round) {
    __zelNumberOfProcessors = 1 + static_cast<uint32_t>(round) % 2;
    int own[kThreads];
    void* stored[kThreads][kKeys];
    zeltest::OnEachThread(kThreads, [&](int thread) {
      for (uint64_t i = 0; i < kKeys; ++i)
        stored[thread][i] = __ZelInsertHashTableEntry(table_, i << 24 | i << 8, &own[thread]);
    });
    for (uint64_t i = 0; i < kKeys; ++i) {
      void* const found = __ZelLookupHashTable(table_, i << 24 | i << 8);
      for (const auto& ofThread : stored) EXPECT_EQ(found, ofThread[i]);
    }
    uint32_t count;
    EXPECT_EQ(kKeys, __ZelScanAndEmptyHashTable(table_, nullptr, &count));
    Destroy(nullptr);
    ASSERT_TRUE(zeltest::AllocatorIsEmpty());
    Create();
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
  int item;
  void* data;
  uint32_t count = 0;
  __ZelInsertHashTableEntry(table_, 5, &item);
  std::thread user([&] { __ZelLookupAndAcquireHashTableDataItem(table_, 5, Stay, &data); });
  while (g_stage != 1) std::this_thread::yield();
  EXPECT_EQ(0u, __ZelScanAndEmptyHashTable(table_, NeverCalled, &count));
  EXPECT_EQ(1u, count);
  g_stage = 2;
  user.join();
  EXPECT_EQ(1u, __ZelScanAndEmptyHashTable(table_, nullptr, &count));
}

}  // namespace
