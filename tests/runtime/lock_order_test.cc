#include "runtime/lock_order.h"

#include <gtest/gtest.h>

#include "tests/support/child_process.h"

namespace {

using zelrt::LockRank;
using zelrt::SpinGuard;

ZelSpinLock g_outer = {};
ZelSpinLock g_inner = {};
ZelSpinLock g_other = {};

class LockOrderTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!zelrt::kDebugChecks) GTEST_SKIP() << "this build does not check the order of locks";
  }
};

TEST_F(LockOrderTest, OrderAndRecursionAreAccepted) {
  const uint64_t self = zelrt::CallingOwner();
  const SpinGuard<LockRank::kSystemAllocation> outer(&g_outer, self);
  {
    SpinGuard<LockRank::kSizeClassBucket> inner(&g_inner, self);
    const SpinGuard<LockRank::kSystemAllocation> again(&g_outer, self);
    inner.Release();
    const SpinGuard<LockRank::kSizeClassBucket> other(&g_other, self);
  }
  const SpinGuard<LockRank::kStatistics> inner(&g_inner, self);
}

template <LockRank kSecond>
void AskBehindABucketLock() {
  const uint64_t self = zelrt::CallingOwner();
  const SpinGuard<LockRank::kSizeClassBucket> first(&g_inner, self);
  const SpinGuard<kSecond> second(&g_other, self);
}

TEST_F(LockOrderTest, AnAcquisitionOutOfOrderEndsTheProcess) {
  const std::pair<void (*)(), std::string> rows[] = {
      {AskBehindABucketLock<LockRank::kSystemAllocation>, "system allocation"},
      {AskBehindABucketLock<LockRank::kSizeClassBucket>, "size-class bucket"}};
  for (const auto& [scenario, name] : rows) {
    zeltest::ExpectFatalInChild(scenario, "Lock order: the " + name +
                                              " lock was asked for while the "
                                              "size-class bucket lock is held\n");
  }
}

TEST_F(LockOrderTest, AbandonedHoldsAreForgotten) {
  const uint64_t self = zelrt::CallingOwner();
  SpinGuard<LockRank::kSizeClassBucket> once(&g_inner, self);
  SpinGuard<LockRank::kSizeClassBucket> twice(&g_inner, self);
  zelrt::AbandonSpinLock(&g_inner, self);
  EXPECT_EQ(0u, __ZelIsSpinLockInAcquiredState(&g_inner));
  const SpinGuard<LockRank::kSystemAllocation> outer(&g_outer, self);
}

}  // namespace
