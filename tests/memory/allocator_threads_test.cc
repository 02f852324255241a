// The allocator between threads: churn with frees on other threads, races for first use.

#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <atomic>
#include <cstring>
#include <random>

#include "host/host.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/recorded_log.h"
#include "tests/support/threads.h"
#include "zelrt/memory.h"

namespace {

namespace backing = zeltest::backing;

constexpr int kThreads = 4;

// Every thread puts blocks where any thread may take and free them. At the end nothing but retained
// pages is left, and the statistics say the same as the backing pair.
TEST(AllocatorThreadsTest, TotalsAreExactAfterChurnAcrossThreads) {
  zelhost::Install();
  backing::Install();
  __ZelEnableMemoryStatisticsCollection();
  constexpr int kRounds = 30'000;
  static constexpr size_t kSizes[] = {8, 100, 9'000, 16'000, 32'000, 40'000};
  std::array<std::atomic<unsigned char*>, 64> mailbox = {};
  const auto release = [](unsigned char* block) {
    if (block == nullptr) return;
    EXPECT_EQ(block[0], block[7]);
    __ZelFree(block);
  };
  zeltest::OnEachThread(kThreads, [&](int thread) {
    std::mt19937 random(static_cast<unsigned>(thread));
    const auto below = [&random](uint32_t limit) {
      return static_cast<uint32_t>(random() % limit);
    };
    for (int round = 0; round < kRounds; ++round) {
      auto* const block = static_cast<unsigned char*>(
          __ZelMalloc(below(3), kSizes[below(std::size(kSizes))], below(2)));
      std::memset(block, static_cast<int>(below(256)), 8);
      release(mailbox[below(mailbox.size())].exchange(block));
    }
  });
  for (auto& place : mailbox) release(place.exchange(nullptr));

  EXPECT_TRUE(zeltest::NoBlockIsInUse());
  uint64_t bytes[3] = {};
  for (uint32_t category = 0; category < 3; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const auto* const bucket = zelrt::FindBucket(category, units);
      const auto* const page = bucket != nullptr ? bucket->pages : nullptr;
      if (page != nullptr) bytes[category] += zelrt::PageSize(page->sizeShift);
    }
  }
  EXPECT_EQ(bytes[0] + bytes[1] + bytes[2], __zelTotalMemoryAllocated);
  EXPECT_GE(__ZelGetPeakTotalMemoryAllocated(), __zelTotalMemoryAllocated);
  ZelMemoryCategoryInfo misc;
  ASSERT_EQ(1u, __ZelGetMemoryInfoByCategory(0, &misc));
  EXPECT_EQ(static_cast<int64_t>(bytes[0]), misc.allocated);
}

TEST(AllocatorThreadsTest, ConcurrentFirstUseSetsABucketUpOnce) {
  zelhost::Install();
  for (int round = 0; round < 100; ++round) {
    backing::Install();
    zeltest::OnEachThread(kThreads, [&](int thread) {
      void* const block = __ZelMalloc(static_cast<uint32_t>(thread % 2), 32'000, 0);
      static_cast<unsigned char*>(block)[0] = 1;
      __ZelFree(block);
    });
    for (const uint32_t category : {0u, 1u}) {
      const auto* const bucket = zelrt::FindBucket(category, 2001);
      EXPECT_TRUE(bucket->pages != nullptr && zelrt::BucketIsConsistent(bucket));
    }
    __ZelDeinitializeSubAllocator();
  }
}

TEST(AllocatorThreadsTest, ConcurrentFirstCallsMakeOneRecord) {
  mallopt(M_MMAP_THRESHOLD, 1'000'000);  // so that malloc's mappings are our bucket tables
  for (int round = 0; round < 50; ++round) {
    const size_t before = mallinfo2().hblks;
    zeltest::OnEachThread(kThreads, [](int) { __ZelFree(__ZelMalloc(0, 100'000, 0)); });
    EXPECT_GE(before + 1, mallinfo2().hblks);
    __ZelDeinitializeSubAllocator();
  }
}

// At times both threads see the block in use before either has the lock.
TEST(AllocatorThreadsTest, FreeingTwiceIsNotedAndChangesNothing) {
  zelhost::Install();
  backing::Install();
  void* const kept = __ZelMalloc(0, 100, 0);
  auto* const page = reinterpret_cast<zelrt::ZelAllocatorPage*>(static_cast<uint64_t*>(kept)[-1]);
  constexpr size_t kRounds = 2'000;
  for (size_t round = 0; round < kRounds; ++round) {
    void* const block = __ZelMalloc(0, 100, 0);
    zeltest::OnEachThread(2, [block](int) { __ZelFree(block); });
    ASSERT_EQ(page->capacity - 1, page->freeCount);
  }
  EXPECT_TRUE(zelrt::PageIsConsistent(page));
  const std::string note = "Tried to free a memory chunk that has already been freed";
  EXPECT_EQ(std::vector<std::string>(kRounds, note), zeltest::LoggedLines());
}

}  // namespace
