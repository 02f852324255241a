#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "containers/internal.h"
#include "host/host.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/threads.h"

namespace {

constexpr int kProducers = 4;
constexpr int kConsumers = 4;
constexpr uint32_t kEach = 20'000;

uintptr_t ValueOf(int producer, uint32_t number) {
  return static_cast<uintptr_t>(producer) << 32 | number;
}
uint32_t IsOdd(uint32_t, uintptr_t, uintptr_t value) { return value % 2; }

// Takers outrun producers, so that the queue keeps falling empty; one of them takes values out of
// the middle and from the end.
TEST(QueueThreadsTest, EachValueComesOnceAndInOrder) {
  zelhost::Install();
  zeltest::backing::Install();
  ZelQueue* const queue = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, 1);
  std::atomic<uint32_t> left = kProducers * kEach;
  std::array<std::vector<uintptr_t>, kConsumers + 1> taken;
  zeltest::OnEachThread(kProducers + kConsumers + 1, [&](int thread) {
    if (thread < kProducers) {
      for (uint32_t number = 1; number <= kEach; ++number) {
        __ZelEnqueue(queue, ValueOf(thread, number));
        if (number % 16 == 0) std::this_thread::yield();
      }
      return;
    }
    const int taker = thread - kProducers;
    while (left > 0) {
      const uintptr_t value =
          taker < kConsumers ? __ZelDequeue(queue) : __ZelPeekQueue(queue, IsOdd, 0, 0, 1);
      if (value != 0) {
        taken[static_cast<size_t>(taker)].push_back(value);
        if (left-- % 16 == 0) std::this_thread::yield();
      } else if (__ZelIsQueueEmpty(queue) == 1) {
        std::this_thread::yield();
      }
    }
  });
  EXPECT_TRUE(zelrt::QueueIsConsistent(queue));
  EXPECT_EQ(1u, __ZelIsQueueEmpty(queue));

  std::array<std::vector<bool>, kProducers> seen;
  seen.fill(std::vector<bool>(kEach + 1));
  for (const std::vector<uintptr_t>& values : taken) {
    std::array<uint32_t, kProducers> last = {};
    for (const uintptr_t value : values) {
      const size_t producer = value >> 32;
      const auto number = static_cast<uint32_t>(value);
      ASSERT_LT(producer, seen.size());
      ASSERT_LT(last[producer], number);
      ASSERT_FALSE(seen[producer].at(number));
      seen[producer][number] = true;
      last[producer] = number;
    }
  }
  EXPECT_FALSE(taken.back().empty()) << "the peeker's";
  __ZelDestroyQueue(queue);
  __ZelFree(queue);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

}  // namespace
