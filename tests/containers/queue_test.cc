#include "zelrt/queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <thread>

#include "containers/internal.h"
#include "tests/support/blocks_in_use.h"

namespace {

// 1 for values with this remainder; never 1 without a modulus.
uint32_t HasRemainder(uint32_t modulus, uintptr_t remainder, uintptr_t value) {
  if (modulus == 0) return 2;
  return value % modulus == remainder ? 1 : static_cast<uint32_t>(value) * 2;
}

// The queue is mostly about as long as it takes for both ends to meet.
TEST(QueueTest, RandomOperationsAgreeWithAModel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  zeltest::backing::Install();
  for (const uint32_t flags : {0u, 0x02u, ~0x02u, ~0u}) {
    ZelQueue* const queue = __ZelCreateQueue(flags, 9);
    EXPECT_EQ(9u, zeltest::CategoryOfBlock(queue));
    std::deque<uintptr_t> model;
    for (int step = 0; step < 20'000; ++step) {
      const uint32_t kind = below(100);
      if (kind < 50) {
        model.push_back(below(8));
        __ZelEnqueue(queue, model.back());
      } else if (kind < 70) {
        const uintptr_t expected = model.empty() ? 0 : model.front();
        if (!model.empty()) model.pop_front();
        ASSERT_EQ(expected, __ZelDequeue(queue));
      } else {
        const uint32_t modulus = below(4);
        const uintptr_t remainder = below(2);
        const ZelQueueMatch match = below(4) == 0 ? nullptr : HasRemainder;
        const uint32_t remove = below(3);
        const auto found = std::find_if(model.begin(), model.end(), [&](uintptr_t value) {
          return match == nullptr || (modulus != 0 && value % modulus == remainder);
        });
        ASSERT_EQ(found != model.end() ? *found : 0,
                  __ZelPeekQueue(queue, match, modulus, remainder, remove));
        if (remove != 0 && found != model.end()) model.erase(found);
      }
      __ZelSetQueueFlag(queue, ~0u);
      ASSERT_TRUE(zelrt::QueueIsConsistent(queue));
      ASSERT_EQ(model.empty() ? 1u : 0u, __ZelIsQueueEmpty(queue));
    }
    for (int i = 0; i < 10; ++i) __ZelEnqueue(queue, 1);
    __ZelDestroyQueue(queue);
    __ZelFree(queue);
    EXPECT_TRUE(zeltest::NoBlockIsInUse());
  }
}

// The last value gets a successor between the look at it and its removal.
TEST(QueueTest, OthersEnqueueWhileAMatchRuns) {
  static ZelQueue* const queue = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, 0);
  for (const uintptr_t value : {1, 2}) __ZelEnqueue(queue, value);
  const auto selectLast = [](uint32_t, uintptr_t, uintptr_t value) -> uint32_t {
    if (value == 2) std::thread([] { __ZelEnqueue(queue, 3); }).join();
    return value == 2;
  };
  EXPECT_EQ(2u, __ZelPeekQueue(queue, selectLast, 0, 0, 1));
  __ZelEnqueue(queue, 4);
  for (const uintptr_t value : {1, 3, 4, 0}) EXPECT_EQ(value, __ZelDequeue(queue));
  __ZelFree(queue);
}

}  // namespace
