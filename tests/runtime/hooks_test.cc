// The hooks when there are none. That each installed one is asked for what it knows shows in the
// tests of host/, which installs them all.

#include <gtest/gtest.h>

#include "host/host.h"
#include "zelrt/runtime.h"

namespace {

TEST(HooksTest, WithoutHooksTheDefaultsAnswer) {
  zelhost::Install();
  __ZelSetGetCurrentThreadIdProc(nullptr);
  __ZelSetGetNativeThreadIdProc(nullptr);
  __ZelSetGetNativeParentThreadIdProc(nullptr);
  __ZelSetTlsAllocProc(nullptr);
  __ZelSetTlsFreeProc(nullptr);
  __ZelSetTlsGetValueProc(nullptr);
  __ZelSetTlsSetValueProc(nullptr);
  __ZelSetGetPidProc(nullptr);
  EXPECT_EQ(0u, __ZelGetCurrentThreadId());
  EXPECT_EQ(0u, __ZelGetNativeThreadId());
  EXPECT_EQ(0u, __ZelGetNativeParentThreadId());
  EXPECT_EQ(0xFFFFFFFFu, __ZelTlsAlloc());
  EXPECT_EQ(0u, __ZelTlsFree(1));
  EXPECT_EQ(nullptr, __ZelTlsGetValue(1));
  EXPECT_EQ(0u, __ZelTlsSetValue(1, nullptr));
  EXPECT_EQ(-1, __ZelGetPid());
}

TEST(HooksTest, ClientLockIsStoredAndNeverCalled) {
  const ZelClientLockProc lock = [] { ADD_FAILURE() << "locked"; };
  const ZelClientLockProc unlock = [] { ADD_FAILURE() << "unlocked"; };
  __ZelSetTavClientLockProc(lock, unlock);
  __ZelRtStartup();
  EXPECT_EQ(lock, __zelTAVClientLock);
  EXPECT_EQ(unlock, __zelTAVClientUnlock);
}

}  // namespace
