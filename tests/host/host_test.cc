#include "host/host.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "tests/support/child_process.h"
#include "zelrt/runtime.h"

namespace {

uint64_t AskKernel() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

class HostTest : public testing::Test {
 protected:
  void SetUp() override { zelhost::Install(); }
  static uintptr_t Create(zelhost::ThreadFunction function, uint32_t* number) {
    uintptr_t handle = 0;
    *number = zelhost::CreateThread(function, 0, 256 << 10, &handle);
    EXPECT_NE(zelhost::kNoThread, *number);
    return handle;
  }
  uint32_t number_ = 0;
};

uint64_t g_current, g_native, g_kernel, g_parent;
sigset_t g_blocked;

TEST_F(HostTest, ThreadsKnowThemselvesAndTheirCreator) {
  EXPECT_EQ(AskKernel(), __ZelGetNativeThreadId());
  EXPECT_EQ(0u, __ZelGetNativeParentThreadId());
  uintptr_t handle = Create(
      [](uintptr_t) {
        g_current = __ZelGetCurrentThreadId();
        g_native = __ZelGetNativeThreadId();
        g_kernel = AskKernel();
        g_parent = __ZelGetNativeParentThreadId();
        pthread_sigmask(SIG_BLOCK, nullptr, &g_blocked);
        zelhost::ExitThread(33);
      },
      &number_);
  uint32_t code = 0;
  ASSERT_EQ(1u, zelhost::WaitThread(&handle, 10'000, &code));
  EXPECT_EQ(33u, code);
  EXPECT_EQ(0u, handle);
  EXPECT_EQ(number_, g_current);
  EXPECT_NE(__ZelGetCurrentThreadId(), g_current);
  EXPECT_EQ(g_kernel, g_native);
  EXPECT_EQ(__ZelGetNativeThreadId(), g_parent);
  for (const int signal : {SIGTERM, SIGUSR1}) EXPECT_EQ(1, sigismember(&g_blocked, signal));
}

std::atomic<bool> g_mayGo = false;

TEST_F(HostTest, AWaitThatTimesOutLeavesTheHandle) {
  const auto waitForPermission = [](uintptr_t) {
    while (!g_mayGo) usleep(1000);
  };
  uintptr_t handle = Create(waitForPermission, &number_);
  EXPECT_EQ(0u, zelhost::WaitThread(&handle, 20, nullptr));
  EXPECT_NE(0u, handle);
  g_mayGo = true;
  uint32_t code = 7;
  EXPECT_EQ(1u, zelhost::WaitThread(&handle, 10'000, &code));
  EXPECT_EQ(0u, code) << "returning is an exit with 0";
  EXPECT_EQ(0u, zelhost::WaitThread(&handle, 20, nullptr)) << "there is no thread any more";
  EXPECT_EQ(zelhost::kNoThread, zelhost::CreateThread([](uintptr_t) {}, 0, 1, &handle));
  EXPECT_EQ(0u, handle) << "an impossible stack";
}

TEST_F(HostTest, IdsAreRightInAForkedChild) {
  const uint64_t parents = __ZelGetNativeThreadId();
  zeltest::ExpectSuccessInChild([parents] {
    EXPECT_EQ(AskKernel(), __ZelGetNativeThreadId());
    EXPECT_EQ(getpid(), __ZelGetPid());
    EXPECT_NE(parents, __ZelGetNativeThreadId());
  });
  EXPECT_EQ(parents, __ZelGetNativeThreadId());
}

uint32_t g_index;
void* g_elsewhere = &g_index;

TEST_F(HostTest, StorageIsPerThread) {
  g_index = __ZelTlsAlloc();
  ASSERT_NE(zelhost::kNoTlsIndex, g_index);
  EXPECT_EQ(nullptr, __ZelTlsGetValue(g_index));
  EXPECT_EQ(1u, __ZelTlsSetValue(g_index, this));
  uintptr_t handle = Create([](uintptr_t) { g_elsewhere = __ZelTlsGetValue(g_index); }, &number_);
  ASSERT_EQ(1u, zelhost::WaitThread(&handle, 10'000, nullptr));
  EXPECT_EQ(nullptr, g_elsewhere);
  EXPECT_EQ(this, __ZelTlsGetValue(g_index));
  EXPECT_EQ(1u, __ZelTlsFree(g_index));
  EXPECT_EQ(0u, __ZelTlsSetValue(g_index, this));
}

TEST_F(HostTest, EndCallbacksRunOnceLastFirst) {
  static std::string called;
  const auto note = [](uintptr_t letter) { called += static_cast<char>(letter); };
  for (const char letter : {'a', 'b'})
    zelhost::AddEndCallback(note, static_cast<uintptr_t>(letter));
  for (int run = 0; run < 2; ++run) zelhost::RunEndCallbacks();
  EXPECT_EQ("ba", called);
}

}  // namespace
