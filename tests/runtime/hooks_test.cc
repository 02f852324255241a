#include <gtest/gtest.h>

#include <map>

#include "zelrt/runtime.h"

namespace {

std::map<uint32_t, void*> g_values;

uint64_t CurrentId() { return 0x1'0000'0001; }
uint64_t NativeId() { return 0x2'0000'0002; }
uint64_t ParentId() { return 0x3'0000'0003; }
uint32_t Alloc() { return 41; }
uint32_t Free(uint32_t index) { return index + 1; }
void* Get(uint32_t index) { return g_values[index]; }
uint32_t Set(uint32_t index, void* value) {
  g_values[index] = value;
  return 17;
}
int32_t Pid() { return 4711; }

TEST(HooksTest, WithoutHooksTheDefaultsAnswer) {
  EXPECT_EQ(0u, __ZelGetCurrentThreadId());
  EXPECT_EQ(0u, __ZelGetNativeThreadId());
  EXPECT_EQ(0u, __ZelGetNativeParentThreadId());
  EXPECT_EQ(0xFFFFFFFFu, __ZelTlsAlloc());
  EXPECT_EQ(0u, __ZelTlsFree(1));
  EXPECT_EQ(nullptr, __ZelTlsGetValue(1));
  EXPECT_EQ(0u, __ZelTlsSetValue(1, &g_values));
  EXPECT_EQ(-1, __ZelGetPid());
}

TEST(HooksTest, AnInstalledHookAnswersUntilItIsUninstalled) {
  __ZelSetGetCurrentThreadIdProc(CurrentId);
  __ZelSetGetNativeThreadIdProc(NativeId);
  __ZelSetGetNativeParentThreadIdProc(ParentId);
  __ZelSetTlsAllocProc(Alloc);
  __ZelSetTlsFreeProc(Free);
  __ZelSetTlsGetValueProc(Get);
  __ZelSetTlsSetValueProc(Set);
  __ZelSetGetPidProc(Pid);

  EXPECT_EQ(0x1'0000'0001u, __ZelGetCurrentThreadId());
  EXPECT_EQ(0x2'0000'0002u, __ZelGetNativeThreadId());
  EXPECT_EQ(0x3'0000'0003u, __ZelGetNativeParentThreadId());
  EXPECT_EQ(41u, __ZelTlsAlloc());
  EXPECT_EQ(8u, __ZelTlsFree(7));
  EXPECT_EQ(17u, __ZelTlsSetValue(5, &g_values));
  EXPECT_EQ(&g_values, __ZelTlsGetValue(5));
  EXPECT_EQ(4711, __ZelGetPid());
  EXPECT_EQ(NativeId, __zelGetNativeThreadIdProc) << "slots can be read by the client";

  __ZelSetGetNativeThreadIdProc(nullptr);
  __ZelSetTlsAllocProc(nullptr);
  EXPECT_EQ(0u, __ZelGetNativeThreadId());
  EXPECT_EQ(0xFFFFFFFFu, __ZelTlsAlloc());
}

int g_clientLockCalls = 0;

TEST(HooksTest, ClientLockIsStoredAndNeverCalled) {
  const auto count = [] { ++g_clientLockCalls; };
  const auto other = [] { g_clientLockCalls += 10; };
  const ZelClientLockProc lock = count;
  const ZelClientLockProc unlock = other;
  __ZelSetTavClientLockProc(lock, unlock);
  __ZelRtStartup();
  EXPECT_EQ(lock, __zelTAVClientLock);
  EXPECT_EQ(unlock, __zelTAVClientUnlock);
  EXPECT_EQ(0, g_clientLockCalls);
}

}  // namespace
