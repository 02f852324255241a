// Registrations that fail: at each system call in turn, which this program has in its hands.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "host/host.h"
#include "tests/command/controller.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/command_handler.hpp"

namespace {

enum class Step { kNone, kOpen, kSemget, kLock, kShmget, kWrite, kShortWrite, kDoorbell, kShmat };
constinit Step g_failing = Step::kNone;

// What the system gave out.
constinit int g_segment = -1;
constinit int g_semaphores = -1;

bool Fails(Step step) {
  if (g_failing != step) return false;
  errno = ENOSPC;
  return true;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (std::string(path).ends_with(ZEL_COMMAND_LOCK_FILE) && Fails(Step::kOpen)) return -1;
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int semget(key_t key, int count, int flags) noexcept {
  if (Fails(Step::kSemget)) return -1;
  return g_semaphores = static_cast<int>(syscall(SYS_semget, key, count, flags));
}

int semctl(int set, int number, int command, ...) noexcept {
  va_list arguments;
  va_start(arguments, command);
  const long value = va_arg(arguments, long);
  va_end(arguments);
  if (command == SETVAL && Fails(number == ZEL_COMMAND_LOCK ? Step::kLock : Step::kDoorbell))
    return -1;
  return static_cast<int>(syscall(SYS_semctl, set, number, command, value));
}

int shmget(key_t key, size_t size, int flags) noexcept {
  if (Fails(Step::kShmget)) return -1;
  return g_segment = static_cast<int>(syscall(SYS_shmget, key, size, flags));
}

void* shmat(int id, const void* address, int flags) noexcept {
  if (Fails(Step::kShmat)) return reinterpret_cast<void*>(-1);
  return reinterpret_cast<void*>(syscall(SYS_shmat, id, address, flags));
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (size == sizeof(int32_t) && descriptor > STDERR_FILENO) {
    if (Fails(Step::kWrite)) return -1;
    if (Fails(Step::kShortWrite)) size = 3;
  }
  return syscall(SYS_write, descriptor, bytes, size);
}

}  // extern "C"

namespace {

void Ignore(int, int, int, int, int, unsigned char*, void*) {}

// Threads that made it to their end through the exit service.
std::atomic<int> g_ended = 0;
void CountedExit(uint32_t code) {
  if (code == 0) ++g_ended;
  zelhost::ExitThread(code);
}
int g_finis = 0;
void CountFini(ZelThreadFunction, uintptr_t argument) { g_finis += argument == 0 ? 1 : 100; }

uint32_t CreateNone(ZelThreadFunction, uintptr_t argument, size_t stackSize, uintptr_t*) {
  return argument == static_cast<uintptr_t>(-3) && stackSize == 0 ? 0xFFFFFFFF : 1;
}

class ChannelSetUp : public testing::Test {
 protected:
  void SetUp() override {
    g_failing = Step::kNone;
    __ZelSetThreadProcs(zelhost::CreateServiceThread, CountedExit, zelhost::WaitThread, CountFini);
  }
  void ExpectNothingIsLeft(const char* what) {
    EXPECT_FALSE(std::filesystem::exists(ZEL_COMMAND_LOCK_FILE)) << what;
    EXPECT_FALSE(zeltest::SegmentExists(g_segment)) << what;
    EXPECT_FALSE(zeltest::SemaphoresExist(g_semaphores)) << what;
    EXPECT_EQ(descriptors_, zeltest::OpenDescriptors()) << what;
  }

  const std::set<int> descriptors_ = zeltest::OpenDescriptors();
  zeltest::TemporaryDirectory directory_;
};

TEST_F(ChannelSetUp, FailureOfAnyStepLeavesNothing) {
  const struct {
    Step step;
    const char* name;
  } kSteps[] = {
      {Step::kOpen, "open"},         {Step::kSemget, "semget"}, {Step::kLock, "lock"},
      {Step::kShmget, "shmget"},     {Step::kWrite, "write"},   {Step::kShortWrite, "short write"},
      {Step::kDoorbell, "doorbell"}, {Step::kShmat, "shmat"},
  };
  int ended = 0;
  for (const auto& row : kSteps) {
    g_failing = row.step;
    g_segment = g_semaphores = -1;
    EXPECT_EQ(0u, __ZelRegisterCommandHandler("", Ignore, nullptr)) << row.name;
    g_failing = Step::kNone;
    ExpectNothingIsLeft(row.name);
    EXPECT_EQ(++ended, g_ended) << row.name << ": the thread is gone when the call returns";
    EXPECT_EQ(ended, g_finis) << row.name;
  }
  ASSERT_EQ(1u, __ZelRegisterCommandHandler("", Ignore, nullptr));
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  ExpectNothingIsLeft("torn down");
  EXPECT_EQ(ended + 1, g_ended);
}

// A file that is not ours to write stays.
TEST_F(ChannelSetUp, LockFileThatCannotBeOpenedStays) {
  zeltest::WriteFile(ZEL_COMMAND_LOCK_FILE, "x");
  g_failing = Step::kOpen;
  EXPECT_EQ(0u, __ZelRegisterCommandHandler("", Ignore, nullptr));
  EXPECT_EQ("x", zeltest::ReadFile(ZEL_COMMAND_LOCK_FILE));
}

TEST_F(ChannelSetUp, MissingServicesAndArguments) {
  const auto create = zelhost::CreateServiceThread;
  const auto wait = zelhost::WaitThread;
  const auto exit = zelhost::ExitThread;
  const auto fini = CountFini;
  const struct {
    ZelThreadCreateProc create;
    ZelThreadExitProc exit;
    ZelThreadWaitProc wait;
    ZelAddFiniProc addFini;
  } kIncomplete[] = {{nullptr, exit, wait, fini},
                     {create, nullptr, wait, fini},
                     {create, exit, nullptr, fini},
                     {create, exit, wait, nullptr},
                     {CreateNone, exit, wait, fini}};
  for (const auto& row : kIncomplete) {
    __ZelSetThreadProcs(row.create, row.exit, row.wait, row.addFini);
    EXPECT_EQ(0u, __ZelRegisterCommandHandlerWithHeartbeat("", Ignore, nullptr, -3));
  }
  EXPECT_EQ(0, g_finis);

  __ZelSetThreadProcs(create, exit, wait, fini);
  EXPECT_EQ(0u, __ZelRegisterCommandHandler("", nullptr, nullptr));
  EXPECT_EQ(0u, __ZelRegisterCommandHandler(nullptr, Ignore, nullptr));
  EXPECT_EQ(0u, __ZelRegisterCommandHandler("missing", Ignore, nullptr));
  EXPECT_EQ(-1, g_semaphores);
  ExpectNothingIsLeft("refused");
}

TEST_F(ChannelSetUp, LongestPathThatFits) {
  std::string directory = ".";
  while (directory.size() + 12 < 4096) directory += "/.";
  directory.resize(4095 - 12);
  if (directory.back() == '/') directory.back() = '.';
  EXPECT_EQ(0u, __ZelRegisterCommandHandler((directory + "x").c_str(), Ignore, nullptr));
  EXPECT_EQ(0u, __ZelRegisterCommandHandler(std::string(5000, '/').c_str(), Ignore, nullptr));
  ExpectNothingIsLeft("too long");
  std::filesystem::create_directories("a/b");
  ASSERT_EQ(1u, __ZelRegisterCommandHandler("a///b", Ignore, nullptr));
  EXPECT_TRUE(std::filesystem::exists("a/b/ulvcmds.dat"));
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
}

TEST_F(ChannelSetUp, SafeOpenGivesUpWithoutLeaks) {
  zeltest::WriteFile("file", "content");
  EXPECT_EQ(-1, zelrt::safeOpen("missing", O_RDONLY, 0));
  EXPECT_EQ(ENOENT, errno);
  const int kept = dup(0);
  close(0);
  const int opened = zelrt::safeOpen("file", O_RDONLY, 0);
  EXPECT_GT(opened, 2);
  EXPECT_EQ(-1, fcntl(0, F_GETFD));
  dup2(kept, 0);
  close(kept);
  close(opened);
  EXPECT_EQ(descriptors_, zeltest::OpenDescriptors());
}

}  // namespace
