// The locks' rules, told with explicit ids from a single thread. Waiting is in
// locks_threads_test.cc.

#include "zelrt/locks.h"

#include <gtest/gtest.h>

#include <thread>

#include "host/host.h"
#include "zelrt/runtime.h"

namespace {

constexpr uint32_t kMe = 7;
constexpr uint32_t kOther = 8;

bool IsFree(const ZelSpinLock& lock) {
  return lock.owner == 0 && lock.state == 0 && lock.recursionCount == 0;
}
bool IsFree(const ZelSharedExclusiveLock& lock) {
  return lock.state == 0 && lock.sharedCount == 0 && lock.exclusiveOwner == 0 &&
         lock.exclusiveWaiting == 0 && lock.exclusiveRecursionCount == 0;
}

template <typename Body>
void OnAnotherThread(Body body) {
  std::thread(body).join();
}

// With one processor a try makes one attempt, with several it makes rounds: both, for each test.
class LocksTest : public testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    __zelNumberOfProcessors = GetParam();
    __ZelInitializeSpinLockAndSpinCount(&spin_, 500);
    __ZelInitializeSharedExclusiveLockAndSpinCount(&shared_, 500);
  }

  ZelSpinLock spin_;
  ZelSharedExclusiveLock shared_;
};
INSTANTIATE_TEST_SUITE_P(Processors, LocksTest, testing::Values(0, 1, 2));

TEST_P(LocksTest, InitialisationSetsEveryField) {
  EXPECT_TRUE(IsFree(spin_));
  EXPECT_TRUE(IsFree(shared_));
  EXPECT_EQ(500u, spin_.spinCount);
  EXPECT_EQ(500u, shared_.spinCount);
  spin_ = {1, 1, 1, 1};
  shared_ = {1, 1, 1, 1, 1, 1};
  __ZelInitializeSpinLock(&spin_);
  __ZelInitializeSharedExclusiveLock(&shared_);
  EXPECT_TRUE(IsFree(spin_) && spin_.spinCount == 0);
  EXPECT_TRUE(IsFree(shared_) && shared_.spinCount == 0);
}

TEST_P(LocksTest, SpinLockIsFreeAfterAsManyReleasesAsAcquisitions) {
  __ZelAcquireSpinLockTid(&spin_, kMe);
  __ZelAcquireSpinLockTid(&spin_, kMe);
  EXPECT_EQ(1u, __ZelTryToAcquireSpinLockTid(&spin_, 3, kMe));
  EXPECT_EQ(kMe, spin_.owner);
  for (int held = 3; held > 0; --held) {
    EXPECT_EQ(1u, __ZelIsSpinLockInAcquiredState(&spin_));
    EXPECT_EQ(0u, __ZelTryToAcquireSpinLockTid(&spin_, 0, kOther));
    EXPECT_EQ(0u, __ZelTryToAcquireSpinLockTid(&spin_, 100, kOther));
    __ZelReleaseSpinLock(&spin_);
  }
  EXPECT_TRUE(IsFree(spin_));
  EXPECT_EQ(1u, __ZelTryToAcquireSpinLockTid(&spin_, 0, kOther));
  EXPECT_EQ(1u, spin_.recursionCount);
}

TEST_P(LocksTest, ReleasingWhatIsNotHeldChangesNothing) {
  __ZelReleaseSpinLock(&spin_);
  EXPECT_TRUE(IsFree(spin_));
  __ZelReleaseExclusiveLock(&shared_);
  __ZelReleaseSharedLockTid(&shared_, kMe);
  EXPECT_TRUE(IsFree(shared_));

  __ZelAcquireExclusiveLockTid(&shared_, kMe);
  __ZelReleaseSharedLockTid(&shared_, kOther);
  EXPECT_EQ(0u, shared_.sharedCount) << "a stray shared release under a writer";
  __ZelReleaseExclusiveLock(&shared_);
  __ZelAcquireSharedLockTid(&shared_, kMe);
  __ZelReleaseExclusiveLock(&shared_);
  EXPECT_EQ(1u, shared_.state);
}

TEST_P(LocksTest, ReadersShareAndTheLastOneFrees) {
  __ZelAcquireSharedLockTid(&shared_, kMe);
  __ZelAcquireSharedLockTid(&shared_, kOther);
  EXPECT_EQ(1u, shared_.state);
  EXPECT_EQ(2u, shared_.sharedCount);
  __ZelReleaseSharedLockTid(&shared_, kMe);
  EXPECT_EQ(1u, shared_.state);
  EXPECT_EQ(0u, __ZelTryToAcquireExclusiveLock(&shared_, 5));
  EXPECT_EQ(0u, shared_.exclusiveWaiting) << "who only tries holds nobody back";
  __ZelReleaseSharedLockTid(&shared_, kOther);
  EXPECT_TRUE(IsFree(shared_));
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
  EXPECT_TRUE(IsFree(shared_));
}

TEST_P(LocksTest, ATryThatSucceedsClearsTheWaitingFlag) {
  shared_.exclusiveWaiting = 1;
  EXPECT_EQ(1u, __ZelTryToAcquireExclusiveLock(&shared_, 1));
  EXPECT_EQ(0u, shared_.exclusiveWaiting);
  EXPECT_EQ(1u, __ZelTryToAcquireExclusiveLock(&shared_, 0)) << "recursive";
  EXPECT_EQ(2u, shared_.exclusiveRecursionCount);
}

// The two ways in which a caller has no id: none given, and no hook to ask.
TEST_P(LocksTest, IdZeroIsTheCallingThread) {
  for (const bool withHook : {false, true}) {
    if (withHook) __ZelSetGetNativeThreadIdProc([]() -> uint64_t { return 0x5'0000'0000; });
    __ZelAcquireSpinLock(&spin_);
    __ZelAcquireSpinLockTid(&spin_, 0);
    EXPECT_EQ(2u, spin_.recursionCount);
    EXPECT_NE(0u, spin_.owner);
    EXPECT_GT(spin_.owner, 0xFFFFFFFFu) << "could be somebody's id";
    EXPECT_EQ(1u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
    __ZelAcquireExclusiveLock(&shared_);
    __ZelAcquireExclusiveLockTid(&shared_, 0);
    __ZelAcquireSharedLock(&shared_);
    EXPECT_EQ(2u, shared_.exclusiveRecursionCount);
    EXPECT_EQ(1u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
    OnAnotherThread([this] {
      EXPECT_EQ(0u, __ZelTryToAcquireSpinLock(&spin_, 10));
      EXPECT_EQ(0u, __ZelTryToAcquireSpinLockTid(&spin_, 10, 0));
      EXPECT_EQ(0u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
      EXPECT_EQ(0u, __ZelTryToAcquireExclusiveLock(&shared_, 10));
      EXPECT_EQ(0u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
    });
    for (int i = 0; i < 2; ++i) {
      __ZelReleaseSpinLock(&spin_);
      __ZelReleaseExclusiveLock(&shared_);
    }
    EXPECT_TRUE(IsFree(spin_));
    EXPECT_TRUE(IsFree(shared_));
  }
}

TEST_P(LocksTest, OwnersAreTheLowHalfOfTheHooksIds) {
  __ZelSetGetNativeThreadIdProc([]() -> uint64_t { return 0x5'0000'0000 | kMe; });
  __ZelAcquireSpinLock(&spin_);
  __ZelAcquireExclusiveLock(&shared_);
  EXPECT_EQ(kMe, spin_.owner);
  EXPECT_EQ(kMe, shared_.exclusiveOwner);
  EXPECT_EQ(1u, __ZelTryToAcquireSpinLockTid(&spin_, 0, kMe));
  EXPECT_EQ(1u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
  EXPECT_EQ(1u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
  __ZelSetGetNativeThreadIdProc([]() -> uint64_t { return kOther; });
  EXPECT_EQ(0u, __ZelIsSpinLockAcquiredByCallingThread(&spin_));
  EXPECT_EQ(0u, __ZelIsExclusiveLockAcquiredByCallingThread(&shared_));
}

}  // namespace
