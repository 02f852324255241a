// The allocator between threads: churn with frees on other threads, races for first use.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "host/host.h"
#include "memory/internal.h"
#include "tests/support/fake_backing.h"
#include "tests/support/recorded_log.h"
#include "zelrt/memory.h"

namespace {

namespace backing = zeltest::backing;

constexpr int kThreads = 4;

template <typename Body>
void OnEachThread(Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

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
  OnEachThread([&](int thread) {
    std::mt19937 random(static_cast<unsigned>(thread));
    const auto below = [&random](uint32_t limit) {
      return static_cast<uint32_t>(random() % limit);
    };
    for (int round = 0; round < kRounds; ++round) {
      const uint32_t category = below(3);
      auto* const block = static_cast<unsigned char*>(
          __ZelMalloc(category, kSizes[random() % std::size(kSizes)], below(2)));
      std::memset(block, static_cast<int>(random() % 256), 8);
      release(mailbox[random() % mailbox.size()].exchange(block));
    }
  });
  for (auto& place : mailbox) release(place.exchange(nullptr));

  uint64_t bytes[3] = {};
  size_t pages = 0;
  for (uint32_t category = 0; category < 3; ++category) {
    for (uint32_t units = 1; units <= zelrt::kMaxUnits; ++units) {
      const zelrt::ZelSizeClassBucket* const bucket = zelrt::FindBucket(category, units);
      if (bucket == nullptr) continue;
      EXPECT_TRUE(zelrt::BucketIsConsistent(bucket));
      for (auto* page = bucket->pages; page != nullptr; page = page->next) {
        EXPECT_TRUE(zelrt::PageIsConsistent(page));
        EXPECT_EQ(page->capacity, page->freeCount);
        bytes[category] += zelrt::PageSize(page->sizeShift);
        ++pages;
      }
    }
  }
  EXPECT_EQ(1 + pages, backing::LiveBlocks()) << "besides the bucket table";
  EXPECT_EQ(bytes[0] + bytes[1] + bytes[2], __zelTotalMemoryAllocated);
  EXPECT_GE(__ZelGetPeakTotalMemoryAllocated(), __zelTotalMemoryAllocated);
  ZelMemoryCategoryInfo misc;
  ASSERT_EQ(1u, __ZelGetMemoryInfoByCategory(0, &misc));
  EXPECT_EQ(static_cast<int64_t>(bytes[0]), misc.allocated);
}

TEST(AllocatorThreadsTest, ConcurrentFirstUseSetsABucketUpOnce) {
  zelhost::Install();
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> ready = 0;
    const size_t before = backing::RequestCount();
    backing::Install();
    OnEachThread([&](int thread) {
      ++ready;
      while (ready < kThreads) {
      }
      void* const block = __ZelMalloc(static_cast<uint32_t>(thread % 2), 32'000, 0);
      static_cast<unsigned char*>(block)[0] = 1;
      __ZelFree(block);
    });
    EXPECT_GE(backing::RequestCount(), before + 3) << "a table and a page for each category";
    for (const uint32_t category : {0u, 1u}) {
      EXPECT_TRUE(zelrt::BucketIsConsistent(zelrt::FindBucket(category, 2001)));
    }
    __ZelDeinitializeSubAllocator();
  }
}

TEST(AllocatorThreadsTest, ConcurrentFirstCallsMakeOneRecord) {
  std::atomic<int> ready = 0;
  std::array<zelrt::ZelSystemAllocator*, kThreads> seen;
  OnEachThread([&](int thread) {
    ++ready;
    while (ready < kThreads) {
    }
    seen[static_cast<size_t>(thread)] = zelrt::SystemAllocator();
    __ZelFree(__ZelMalloc(0, 10, 0));
  });
  for (auto* const system : seen) EXPECT_EQ(seen[0], system);
}

// Both threads see the block in use before either has the lock.
TEST(AllocatorThreadsTest, FreeingTwiceAtOnceIsFoundUnderTheLock) {
  zelhost::Install();
  backing::Install();
  void* const kept = __ZelMalloc(0, 100, 0);
  auto* const page = reinterpret_cast<zelrt::ZelAllocatorPage*>(static_cast<uint64_t*>(kept)[-1]);
  constexpr int kRounds = 2'000;
  for (int round = 0; round < kRounds; ++round) {
    void* const block = __ZelMalloc(0, 100, 0);
    std::atomic<int> ready = 0;
    const auto release = [&] {
      ++ready;
      while (ready < 2) {
      }
      __ZelFree(block);
    };
    std::thread other(release);
    release();
    other.join();
    ASSERT_EQ(page->capacity - 1, page->freeCount);
  }
  EXPECT_TRUE(zelrt::PageIsConsistent(page));
  EXPECT_EQ(static_cast<size_t>(kRounds), zeltest::LoggedLines().size());
}

}  // namespace
