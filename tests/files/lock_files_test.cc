#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/processes.h"

namespace {

class LockFilesTest : public testing::Test {
 protected:
  static std::string Read(int32_t descriptor) {
    char buffer[9] = "........";
    const int count = __ZelReadLockFile(descriptor, buffer);
    EXPECT_EQ(std::string(static_cast<size_t>(8 - count), '.'), buffer + count);
    return std::string(buffer, static_cast<size_t>(count));
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(LockFilesTest, TheRecordLiesAtTheStart) {
  umask(022);
  const int32_t descriptor = __ZelCreateLockFile("lock", 0);
  struct stat status;
  ASSERT_EQ(0, stat("lock", &status));
  EXPECT_EQ(0755u, status.st_mode & 07777);
  EXPECT_EQ("", Read(descriptor));
  EXPECT_EQ(8, __ZelWriteLockFile(descriptor, "12345678"));
  EXPECT_EQ(8, __ZelWriteLockFile(descriptor, "abcdefgh"));
  EXPECT_EQ("abcdefgh", Read(descriptor));
  EXPECT_EQ("abcdefgh", zeltest::ReadFile("lock"));
  EXPECT_EQ(0, __ZelCloseLockFile(descriptor));
  EXPECT_EQ(-1, __ZelCloseLockFile(descriptor));

  const int32_t again = __ZelCreateLockFile("lock", 0);
  EXPECT_EQ("abcdefgh", Read(again));
  ASSERT_EQ(0, ftruncate(again, 3));
  EXPECT_EQ("abc", Read(again));
  const int32_t emptied = __ZelCreateLockFile("lock", 1);
  EXPECT_EQ("", Read(emptied));
  __ZelCloseLockFile(again);
  __ZelCloseLockFile(emptied);
}

// The second process: reports an interruption of its wait, then what it finds once it has the lock.
[[noreturn]] void WaitForLockAndReport(int report) {
  struct sigaction interrupt = {};
  interrupt.sa_handler = [](int) {};
  sigaction(SIGALRM, &interrupt, nullptr);
  const itimerval soon = {.it_interval = {}, .it_value = {0, 50'000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  const int32_t descriptor = __ZelCreateLockFile("lock", 0);
  char text[9] = "wrong";
  if (__ZelLockFile(descriptor) == -1 && errno == EINTR) std::strcpy(text, "INTRRUPT");
  if (write(report, text, 8) != 8) _exit(1);
  if (__ZelLockFile(descriptor) == 0) __ZelReadLockFile(descriptor, text);
  if (write(report, text, 8) != 8) _exit(1);
  _exit(0);
}

TEST_F(LockFilesTest, AnotherProcessWaitsForTheLock) {
  const auto hasText = [](int descriptor, int patienceMs) {
    pollfd entry = {.fd = descriptor, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, patienceMs) == 1;
  };
  for (const auto giveUp : {__ZelUnlockFile, __ZelCloseLockFile}) {
    const int32_t descriptor = __ZelCreateLockFile("lock", 1);
    ASSERT_EQ(0, __ZelLockFile(descriptor));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t other = fork();
    if (other == 0) WaitForLockAndReport(ends[1]);
    char text[9] = "";
    ASSERT_EQ(8, read(ends[0], text, 8));
    EXPECT_STREQ("INTRRUPT", text);
    EXPECT_FALSE(hasText(ends[0], 100));
    __ZelWriteLockFile(descriptor, "handover");
    EXPECT_EQ(0, giveUp(descriptor));
    ASSERT_TRUE(hasText(ends[0], 20'000));
    ASSERT_EQ(8, read(ends[0], text, 8));
    EXPECT_STREQ("handover", text);
    waitpid(other, nullptr, 0);
    for (const int end : ends) close(end);
  }
}

TEST_F(LockFilesTest, ErrorsOfLocksAreReturnedAndOthersAreFatal) {
  EXPECT_EQ(-1, __ZelLockFile(-1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, __ZelUnlockFile(-1));
  const struct {
    void (*body)();
    const char* text;
  } rows[] = {{[] { __ZelCreateLockFile("missing/lock", 0); },
               "Could not open lock file missing/lock (error 2)\n"},
              {[] {
                 char buffer[8];
                 __ZelReadLockFile(-1, buffer);
               },
               "failed to read from lock file\n"},
              {[] { __ZelWriteLockFile(-1, "12345678"); }, "failed to write to lock file\n"}};
  for (const auto& row : rows) {
    const auto child = zeltest::RunInChild(row.body);
    EXPECT_EQ(0u, child.output.find(row.text)) << child.output;
    EXPECT_EQ(255, child.exitStatus);
  }
}

}  // namespace
