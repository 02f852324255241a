#include "host/host.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "zelrt/runtime.h"

namespace {

uint64_t AskKernel() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

struct Seen {
  uint64_t current, native, kernel, parent;
  sigset_t blocked;
};

TEST(HostTest, ThreadsKnowThemselvesAndTheirCreator) {
  zelhost::Install();
  EXPECT_EQ(AskKernel(), __ZelGetNativeThreadId());
  EXPECT_EQ(0u, __ZelGetNativeParentThreadId());
  EXPECT_EQ(getpid(), __ZelGetPid());

  Seen seen = {};
  uintptr_t handle = 0;
  const uint32_t number = zelhost::CreateThread(
      [](uintptr_t place) {
        auto* const mine = reinterpret_cast<Seen*>(place);
        *mine = {__ZelGetCurrentThreadId(),
                 __ZelGetNativeThreadId(),
                 AskKernel(),
                 __ZelGetNativeParentThreadId(),
                 {}};
        pthread_sigmask(SIG_BLOCK, nullptr, &mine->blocked);
        zelhost::ExitThread(33);
      },
      reinterpret_cast<uintptr_t>(&seen), 256 << 10, &handle);
  ASSERT_NE(zelhost::kNoThread, number);
  uint32_t code = 0;
  ASSERT_EQ(1u, zelhost::WaitThread(&handle, 10'000, &code));
  EXPECT_EQ(33u, code);
  EXPECT_EQ(0u, handle);
  EXPECT_EQ(number, seen.current);
  EXPECT_NE(__ZelGetCurrentThreadId(), seen.current);
  EXPECT_EQ(seen.kernel, seen.native);
  EXPECT_EQ(__ZelGetNativeThreadId(), seen.parent);
  EXPECT_EQ(1, sigismember(&seen.blocked, SIGTERM));
  EXPECT_EQ(1, sigismember(&seen.blocked, SIGUSR1));
}

TEST(HostTest, AWaitThatTimesOutLeavesTheHandle) {
  static std::atomic<bool> mayGo = false;
  uintptr_t handle = 0;
  ASSERT_NE(zelhost::kNoThread, zelhost::CreateThread(
                                    [](uintptr_t) {
                                      while (!mayGo) usleep(1000);
                                    },
                                    0, 0, &handle));
  EXPECT_EQ(0u, zelhost::WaitThread(&handle, 20, nullptr));
  EXPECT_NE(0u, handle);
  mayGo = true;
  uint32_t code = 7;
  EXPECT_EQ(1u, zelhost::WaitThread(&handle, 10'000, &code));
  EXPECT_EQ(0u, code) << "returning is an exit with 0";
  EXPECT_EQ(0u, zelhost::WaitThread(&handle, 20, nullptr)) << "there is no thread any more";
}

TEST(HostTest, AnImpossibleStackIsAFailure) {
  uintptr_t handle = 0;
  EXPECT_EQ(zelhost::kNoThread, zelhost::CreateThread([](uintptr_t) {}, 0, 1, &handle));
  EXPECT_EQ(0u, handle);
}

TEST(HostTest, IdsAreRightInAForkedChild) {
  zelhost::Install();
  const uint64_t parents = __ZelGetNativeThreadId();
  const pid_t child = fork();
  if (child == 0) {
    const bool right = __ZelGetNativeThreadId() == AskKernel() && __ZelGetPid() == getpid();
    _exit(right && __ZelGetNativeThreadId() != parents ? 0 : 1);
  }
  int status;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(parents, __ZelGetNativeThreadId());
}

TEST(HostTest, StorageIsPerThread) {
  zelhost::Install();
  static uint32_t index;
  index = __ZelTlsAlloc();
  ASSERT_NE(zelhost::kNoTlsIndex, index);
  EXPECT_EQ(nullptr, __ZelTlsGetValue(index));
  int mine;
  EXPECT_EQ(1u, __ZelTlsSetValue(index, &mine));
  uintptr_t handle = 0;
  static void* elsewhere = &handle;
  zelhost::CreateThread([](uintptr_t) { elsewhere = __ZelTlsGetValue(index); }, 0, 0, &handle);
  ASSERT_EQ(1u, zelhost::WaitThread(&handle, 10'000, nullptr));
  EXPECT_EQ(nullptr, elsewhere);
  EXPECT_EQ(&mine, __ZelTlsGetValue(index));
  EXPECT_EQ(1u, __ZelTlsFree(index));
  EXPECT_EQ(0u, __ZelTlsSetValue(index, &mine));
}

std::string g_called;

TEST(HostTest, EndCallbacksRunOnceLastFirst) {
  const auto note = [](uintptr_t letter) { g_called += static_cast<char>(letter); };
  zelhost::AddEndCallback(note, 'a');
  zelhost::AddEndCallback(note, 'b');
  zelhost::RunEndCallbacks();
  zelhost::RunEndCallbacks();
  EXPECT_EQ("ba", g_called);
}

}  // namespace
