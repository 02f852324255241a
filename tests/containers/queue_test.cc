#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

#include "containers/internal.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

// 1 for values with this remainder; never 1 without a modulus.
uint32_t HasRemainder(uint32_t modulus, uintptr_t remainder, uintptr_t value) {
  if (modulus == 0) return 2;
  return value % modulus == remainder ? 1 : static_cast<uint32_t>(value) * 2;
}

// The queue is mostly short, so that its ends meet all the time.
TEST(QueueTest, RandomOperationsAgreeWithAModel) {
  zeltest::Random random;
  zeltest::backing::Install();
  for (const uint32_t flags : {0u, 0x02u, ~0x02u, ~0u}) {
    ZelQueue* const queue = __ZelCreateQueue(flags, 9);
    EXPECT_EQ(9u, zeltest::CategoryOfBlock(queue));
    std::deque<uintptr_t> model;
    for (int step = 0; step < 20'000; ++step) {
      const uint32_t kind = random.Below(10);
      const bool remove = kind < 9;
      const uint32_t modulus = random.Below(4);
      const uintptr_t remainder = random.Below(2);
      const ZelQueueMatch match = kind < 7 ? nullptr : HasRemainder;
      const auto found = std::find_if(model.begin(), model.end(), [&](uintptr_t value) {
        return match == nullptr || match(modulus, remainder, value) == 1;
      });
      if (kind < 4) {
        model.push_back(random.Below(8));
        __ZelEnqueue(queue, model.back());
      } else {
        ASSERT_EQ(found != model.end() ? *found : 0,
                  kind < 6 ? __ZelDequeue(queue)
                           : __ZelPeekQueue(queue, match, modulus, remainder, remove * kind));
        if (remove && found != model.end()) model.erase(found);
      }
      __ZelSetQueueFlag(queue, ~0u);
      ASSERT_TRUE(zelrt::QueueIsConsistent(queue));
      ASSERT_EQ(model.empty(), __ZelIsQueueEmpty(queue));
    }
    for (int i = 0; i < 10; ++i) __ZelEnqueue(queue, 1);
    __ZelDestroyQueue(queue);
    __ZelFree(queue);
    EXPECT_TRUE(zeltest::NoBlockIsInUse());
  }
}

}  // namespace
