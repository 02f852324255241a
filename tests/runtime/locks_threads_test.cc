// The locks between threads: exclusion, waiting, preference of writers.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>

#include "host/host.h"
#include "tests/support/threads.h"
#include "zelrt/locks.h"
#include "zelrt/runtime.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 50'000;

// Whether there is a hook to ask for a thread's id, and the spin count.
class LocksThreadsTest : public testing::TestWithParam<std::tuple<bool, uint32_t>> {
 protected:
  void SetUp() override {
    const auto [hasHook, spinCount] = GetParam();
    if (hasHook) zelhost::Install();
    __ZelRtStartup();
    __ZelInitializeSpinLockAndSpinCount(&spin_, spinCount);
    __ZelInitializeSharedExclusiveLockAndSpinCount(&shared_, spinCount);
  }

  ZelSpinLock spin_;
  ZelSharedExclusiveLock shared_;
};

INSTANTIATE_TEST_SUITE_P(HooksAndSpinCounts, LocksThreadsTest,
                         testing::Combine(testing::Bool(), testing::Values(0u, 500u)));

TEST_P(LocksThreadsTest, SpinLockExcludes) {
  int counter = 0;  // plain: the lock is all that protects it
  std::atomic<int> done = 0;
  zeltest::OnEachThread(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      const bool tries = round % 4 == 0;
      if (!tries) {
        __ZelAcquireSpinLock(&spin_);
      } else if (__ZelTryToAcquireSpinLock(&spin_, 10) == 0) {
        continue;
      }
      const int depth = round % 3;
      for (int i = 0; i < depth; ++i) __ZelAcquireSpinLock(&spin_);
      ++counter;
      EXPECT_EQ(1u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
      for (int i = 0; i < depth; ++i) __ZelReleaseSpinLock(&spin_);
      __ZelReleaseSpinLock(&spin_);
      EXPECT_EQ(0u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
      ++done;
    }
  });
  EXPECT_EQ(done, counter);
  EXPECT_EQ(0u, __ZelIsSpinLockInAcquiredState(&spin_));
}

TEST_P(LocksThreadsTest, ReadersSeeWhatWritersLeave) {
  int first = 0;
  int second = 0;  // always equal to first while no writer is at work
  std::atomic<int> writes = 0;
  zeltest::OnEachThread(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const int kind = (round + thread) % 8;
      if (kind == 0) {
        __ZelAcquireExclusiveLock(&shared_);
      } else if (kind != 1 || __ZelTryToAcquireExclusiveLock(&shared_, 10) == 0) {
        __ZelAcquireSharedLock(&shared_);
        EXPECT_EQ(first, second);
        __ZelReleaseSharedLock(&shared_);
        continue;
      }
      ++first;
      __ZelAcquireExclusiveLock(&shared_);
      __ZelAcquireSharedLock(&shared_);
      ++second;
      __ZelReleaseSharedLock(&shared_);
      __ZelReleaseExclusiveLock(&shared_);
      EXPECT_EQ(first, second);
      __ZelReleaseExclusiveLock(&shared_);
      ++writes;
    }
  });
  EXPECT_EQ(writes, first);
  EXPECT_EQ(0u, shared_.state + shared_.sharedCount + shared_.exclusiveOwner);
}

template <typename T>
T Read(const T& field) {
  return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}
template <typename T>
void WaitUntilEqual(const T& field, T value) {
  while (Read(field) != value) std::this_thread::yield();
}
void GiveTime() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

TEST_P(LocksThreadsTest, AWaitingWriterHoldsNewReadersBack) {
  std::string order;  // written under the lock
  __ZelAcquireSharedLock(&shared_);
  std::thread writer([&] {
    __ZelAcquireExclusiveLock(&shared_);
    order += 'w';
    __ZelReleaseExclusiveLock(&shared_);
  });
  WaitUntilEqual(shared_.exclusiveWaiting, 1u);
  std::thread reader([&] {
    __ZelAcquireSharedLock(&shared_);
    order += 'r';  // the writer is through by then
    __ZelReleaseSharedLock(&shared_);
  });
  GiveTime();
  EXPECT_EQ(1u, Read(shared_.sharedCount));
  __ZelReleaseSharedLock(&shared_);
  writer.join();
  reader.join();
  EXPECT_EQ("wr", order);
  EXPECT_EQ(0u, shared_.exclusiveWaiting);
}

TEST_P(LocksThreadsTest, AReaderThatRegistersUnderAWriterGetsTheLockNext) {
  __ZelAcquireExclusiveLock(&shared_);
  std::atomic<bool> readerIsIn = false, readerMayGo = false;
  std::thread reader([&] {
    __ZelAcquireSharedLock(&shared_);
    readerIsIn = true;
    while (!readerMayGo) std::this_thread::yield();
    __ZelReleaseSharedLock(&shared_);
  });
  WaitUntilEqual(shared_.sharedCount, 1u);
  GiveTime();
  EXPECT_FALSE(readerIsIn);
  // A release that nobody is entitled to must not unregister the waiting reader.
  std::thread([&] { __ZelReleaseSharedLock(&shared_); }).join();
  EXPECT_EQ(1u, Read(shared_.sharedCount));
  __ZelReleaseExclusiveLock(&shared_);
  while (!readerIsIn) std::this_thread::yield();
  EXPECT_EQ(1u, Read(shared_.state));
  readerMayGo = true;
  reader.join();
  EXPECT_EQ(0u, shared_.state);
}

}  // namespace
