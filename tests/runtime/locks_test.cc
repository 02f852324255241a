// The locks' rules, told with explicit ids from a single thread. Waiting is in
// locks_threads_test.cc.

#include "zelrt/locks.h"

#include <gtest/gtest.h>

#include <thread>

#include "zelrt/runtime.h"

namespace {

constexpr uint32_t kMe = 7, kOther = 8;

bool IsFree(const ZelSpinLock& lock) {
  return lock.owner == 0 && lock.state == 0 && lock.recursionCount == 0;
}
bool IsFree(const ZelSharedExclusiveLock& lock) {
  return lock.state == 0 && lock.sharedCount == 0 && lock.exclusiveOwner == 0 &&
         lock.exclusiveWaiting == 0 && lock.exclusiveRecursionCount == 0;
}

// With one processor a try makes one attempt, with several it makes rounds: both, for each test.
class LocksTest : public testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    __zelNumberOfProcessors = GetParam();
    __ZelInitializeSpinLock(&spin_);
    __ZelInitializeSharedExclusiveLock(&shared_);
  }
  void TearDown() override { EXPECT_TRUE(IsFree(spin_) && IsFree(shared_)); }

  ZelSpinLock spin_ = {1, 1, 1, 1};
  ZelSharedExclusiveLock shared_ = {1, 1, 1, 1, 1, 1};
};
INSTANTIATE_TEST_SUITE_P(Processors, LocksTest, testing::Values(0, 1, 2));

TEST_P(LocksTest, InitialisationSetsTheSpinCount) {
  EXPECT_EQ(0u, spin_.spinCount + shared_.spinCount);
  __ZelInitializeSpinLockAndSpinCount(&spin_, 500);
  __ZelInitializeSharedExclusiveLockAndSpinCount(&shared_, 500);
  EXPECT_TRUE(spin_.spinCount == 500 && shared_.spinCount == 500);
}

TEST_P(LocksTest, SpinLockIsFreeAfterAsManyReleasesAsAcquisitions) {
  __ZelAcquireSpinLockTid(&spin_, kMe);
  __ZelAcquireSpinLockTid(&spin_, kMe);
  EXPECT_EQ(1u, __ZelTryToAcquireSpinLockTid(&spin_, 3, kMe));
  for (int held = 3; held > 0; --held) {
    EXPECT_EQ(kMe, spin_.owner);
    EXPECT_EQ(1u, __ZelIsSpinLockInAcquiredState(&spin_));
    for (const uint32_t tries : {0, 100})
      EXPECT_EQ(0u, __ZelTryToAcquireSpinLockTid(&spin_, tries, kOther));
    __ZelReleaseSpinLock(&spin_);
  }
  EXPECT_TRUE(IsFree(spin_));
  EXPECT_EQ(1u, __ZelTryToAcquireSpinLockTid(&spin_, 0, kOther));
  __ZelReleaseSpinLock(&spin_);
}

TEST_P(LocksTest, ReleasingWhatIsNotHeldChangesNothing) {
  __ZelReleaseSpinLock(&spin_);
  __ZelReleaseExclusiveLock(&shared_);
  __ZelReleaseSharedLockTid(&shared_, kMe);
  EXPECT_TRUE(IsFree(spin_) && IsFree(shared_));

  __ZelAcquireExclusiveLockTid(&shared_, kMe);
  __ZelReleaseSharedLockTid(&shared_, kOther);
  EXPECT_EQ(0u, shared_.sharedCount) << "a stray shared release under a writer";
  __ZelReleaseExclusiveLock(&shared_);
  __ZelAcquireSharedLockTid(&shared_, kMe);
  __ZelReleaseExclusiveLock(&shared_);
  EXPECT_EQ(1u, shared_.state);
  __ZelReleaseSharedLockTid(&shared_, kMe);
}

TEST_P(LocksTest, ReadersShareAndTheLastOneFrees) {
  for (const uint32_t reader : {kMe, kOther}) __ZelAcquireSharedLockTid(&shared_, reader);
  for (uint32_t readers = 2; readers > 0; --readers) {
    EXPECT_EQ(1u, shared_.state);
    EXPECT_EQ(readers, shared_.sharedCount);
    EXPECT_EQ(0u, __ZelTryToAcquireExclusiveLock(&shared_, 5));
    EXPECT_EQ(0u, shared_.exclusiveWaiting) << "who only tries holds nobody back";
    __ZelReleaseSharedLockTid(&shared_, kMe);
  }
}

TEST_P(LocksTest, TheWriterMayReadAndWriteAgain) {
  __ZelAcquireExclusiveLockTid(&shared_, kMe);
  for (int i = 0; i < 3; ++i) __ZelAcquireSharedLockTid(&shared_, kMe);
  EXPECT_EQ(0u, shared_.sharedCount);
  for (int i = 0; i < 5; ++i) __ZelReleaseSharedLockTid(&shared_, kMe);
  __ZelAcquireExclusiveLockTid(&shared_, kMe);
  __ZelReleaseExclusiveLock(&shared_);
  EXPECT_EQ(2u, shared_.state);
  EXPECT_EQ(kMe, shared_.exclusiveOwner);
  __ZelReleaseExclusiveLock(&shared_);
}

TEST_P(LocksTest, ATryThatSucceedsClearsTheWaitingFlag) {
  shared_.exclusiveWaiting = 1;
  for (uint32_t times = 1; times <= 2; ++times) {
    EXPECT_EQ(1u, __ZelTryToAcquireExclusiveLock(&shared_, 2 - times));
    EXPECT_EQ(0u, shared_.exclusiveWaiting);
    EXPECT_EQ(times, shared_.exclusiveRecursionCount);
  }
  for (int i = 0; i < 2; ++i) __ZelReleaseExclusiveLock(&shared_);
}

// The two ways in which a caller has no id, none given and no hook to ask; and half of a long one.
TEST_P(LocksTest, OwnersAreLowHalvesOfIdsOrTheCallingThread) {
  for (const ZelThreadIdProc hook :
       {ZelThreadIdProc{nullptr}, ZelThreadIdProc{[]() -> uint64_t { return 0x5'0000'0000; }},
        ZelThreadIdProc{[]() -> uint64_t { return 0x5'0000'0007; }}}) {
    __ZelSetGetNativeThreadIdProc(hook);
    const uint32_t tid = static_cast<uint32_t>(__ZelGetNativeThreadId());
    __ZelAcquireSpinLock(&spin_);
    __ZelAcquireSpinLockTid(&spin_, tid);
    EXPECT_EQ(2u, spin_.recursionCount);
    __ZelAcquireExclusiveLock(&shared_);
    __ZelAcquireExclusiveLockTid(&shared_, tid);
    __ZelAcquireSharedLock(&shared_);
    EXPECT_EQ(2u, shared_.exclusiveRecursionCount);
    EXPECT_EQ(spin_.owner, shared_.exclusiveOwner);
    EXPECT_TRUE(tid != 0 ? spin_.owner == tid : spin_.owner > 0xFFFFFFFF) << "could be an id";
    EXPECT_EQ(1u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
    EXPECT_EQ(1u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
    std::thread([this, tid] {
      if (tid != 0) __ZelSetGetNativeThreadIdProc([]() -> uint64_t { return kOther; });
      EXPECT_EQ(0u, __ZelTryToAcquireSpinLock(&spin_, 10));
      EXPECT_EQ(0u, __ZelTryToAcquireSpinLockTid(&spin_, 10, 0));
      EXPECT_EQ(0u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
      EXPECT_EQ(0u, __ZelTryToAcquireExclusiveLock(&shared_, 10));
      EXPECT_EQ(0u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
    }).join();
    for (int i = 0; i < 2; ++i) {
      __ZelReleaseSpinLock(&spin_);
      __ZelReleaseExclusiveLock(&shared_);
    }
    EXPECT_TRUE(IsFree(spin_) && IsFree(shared_));
  }
}

}  // namespace
