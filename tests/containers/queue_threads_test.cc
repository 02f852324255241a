#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "containers/internal.h"
#include "host/host.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/threads.h"

namespace {

class QueueThreadsTest : public testing::Test {
 protected:
  QueueThreadsTest() {
    zelhost::Install();
    zeltest::backing::Install();
    queue_ = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, 1);
  }
  ~QueueThreadsTest() override {
    EXPECT_TRUE(zelrt::QueueIsConsistent(queue_));
    EXPECT_EQ(1u, __ZelIsQueueEmpty(queue_));
    __ZelDestroyQueue(queue_);
    __ZelFree(queue_);
    EXPECT_TRUE(zeltest::NoBlockIsInUse());
  }
  ZelQueue* queue_;
};

uint32_t IsOdd(uint32_t, uintptr_t, uintptr_t value) { return value % 2; }

// Takers outrun producers, so that the queue keeps falling empty. The last one is a peeker.
TEST_F(QueueThreadsTest, EachValueComesOnceAndInOrder) {
  constexpr uint32_t kProducers = 4, kTakers = 5, kEach = 20'000;
  std::vector<uintptr_t> taken[kTakers];
  std::atomic<uint32_t> left = kProducers * kEach;
  std::atomic<bool> hasPeeked = false;  // until then the others leave it the queue
  zeltest::OnEachThread(kProducers + kTakers, [&](int thread) {
    const auto producer = static_cast<uintptr_t>(thread) - kTakers;
    for (uint32_t number = 1; thread >= static_cast<int>(kTakers) && number <= kEach; ++number) {
      __ZelEnqueue(queue_, producer << 32 | number);
      if (number % 16 == 0) std::this_thread::yield();
    }
    while (thread < 4 && !hasPeeked) std::this_thread::yield();
    while (thread < static_cast<int>(kTakers) && left > 0) {
      const uintptr_t value =
          thread != 4 ? __ZelDequeue(queue_) : __ZelPeekQueue(queue_, IsOdd, 0, 0, 1);
      if (value != 0) taken[thread].push_back(value);
      if (thread == 4 && value != 0) hasPeeked = true;
      const bool pause = value != 0 ? --left % 16 == 0 : __ZelIsQueueEmpty(queue_) != 0;
      if (pause) std::this_thread::yield();
    }
  });
  std::map<uintptr_t, int> times;
  for (const std::vector<uintptr_t>& values : taken) {
    std::map<uintptr_t, uintptr_t> last;
    for (const uintptr_t value : values) {
      ASSERT_LT(std::exchange(last[value >> 32], value), value);
      ASSERT_EQ(1, ++times[value]);
    }
  }
  EXPECT_FALSE(taken[4].empty());
}

std::atomic<uintptr_t> g_called, g_enqueued;

void WaitFor(const std::atomic<uintptr_t>& word, uintptr_t value) {
  for (int reading = 1; word < value; ++reading)
    if (reading % 1'000 == 0) std::this_thread::yield();  // most waits are shorter than that
}

// Lets another thread enqueue: half the times before the value is selected, else while it goes.
uint32_t CallForTheNext(uint32_t, uintptr_t wanted, uintptr_t value) {
  if (value != wanted) return 0;
  g_called = value;
  if (value % 2 == 0) WaitFor(g_enqueued, value);
  for (uintptr_t delay = value % 256; delay > 0; --delay) static_cast<void>(g_called.load());
  return 1;
}

TEST_F(QueueThreadsTest, TheLastValueGetsASuccessorWhileItIsRemoved) {
  constexpr uintptr_t kLast = 10'000, kStays = kLast + 1;
  for (const uintptr_t value : {kStays, uintptr_t{1}}) __ZelEnqueue(queue_, value);
  zeltest::OnEachThread(2, [this](int thread) {
    for (uintptr_t value = 1; value < kLast && !HasFailure(); ++value) {
      if (thread == 0) {
        EXPECT_EQ(value, __ZelPeekQueue(queue_, CallForTheNext, 0, value, 1));
        if (HasFailure()) g_called = kLast;
      } else {
        WaitFor(g_called, value);
        __ZelEnqueue(queue_, value + 1);
        g_enqueued = value;
      }
      WaitFor(g_enqueued, value);
    }
  });
  for (const uintptr_t value : {kStays, kLast}) EXPECT_EQ(value, __ZelDequeue(queue_));
}

}  // namespace
