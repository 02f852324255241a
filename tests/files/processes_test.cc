// Lock files, and the start of a child process.

#include "zelrt/processes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "host/host.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

class ProcessesTest : public testing::Test {
 protected:
  static std::string Read(int32_t descriptor) {
    char buffer[9] = "........";
    const int count = __ZelReadLockFile(descriptor, buffer);
    EXPECT_EQ(std::string(static_cast<size_t>(8 - count), '.'), buffer + count);
    return std::string(buffer, static_cast<size_t>(count));
  }
  // Starts what is not there. A second is promised; the rest is for busy machines.
  static void ExpectFailedLaunch() {
    char path[] = "missing";
    char* const arguments[] = {path, nullptr};
    const auto start = std::chrono::steady_clock::now();
    const int32_t child = __ZelCreateProcess(arguments);
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(ProcessesTest, TheRecordLiesAtTheStartOfTheLockFile) {
  umask(022);
  const int32_t descriptor = __ZelCreateLockFile("lock", 0);
  struct stat status;
  ASSERT_EQ(0, stat("lock", &status));
  EXPECT_EQ(0755u, status.st_mode & 07777);
  EXPECT_NE(0, fcntl(descriptor, F_GETFL) & O_SYNC);
  EXPECT_EQ("", Read(descriptor));
  EXPECT_EQ(8, __ZelWriteLockFile(descriptor, "12345678"));
  EXPECT_EQ(8, __ZelWriteLockFile(descriptor, "abcdefgh"));
  EXPECT_EQ("abcdefgh", Read(descriptor));
  EXPECT_EQ("abcdefgh", Read(__ZelCreateLockFile("lock", 0)));
  ASSERT_EQ(0, ftruncate(descriptor, 3));
  EXPECT_EQ("abc", Read(descriptor));
  EXPECT_EQ("", Read(__ZelCreateLockFile("lock", 1)));
  EXPECT_EQ(0, __ZelCloseLockFile(descriptor));
  EXPECT_EQ(-1, close(descriptor));
}

TEST_F(ProcessesTest, AnotherProcessWaitsForTheLock) {
  const int32_t descriptor = __ZelCreateLockFile("lock", 1);
  ASSERT_EQ(0, __ZelLockFile(descriptor));
  const pid_t other = fork();
  if (other == 0) {
    alarm(20);
    const int32_t own = __ZelCreateLockFile("lock", 0);
    _exit(__ZelLockFile(own) == 0 && Read(own) == "handover" ? 0 : 1);
  }
  usleep(100'000);
  EXPECT_EQ(0, waitpid(other, nullptr, WNOHANG)) << "it has not waited";
  __ZelWriteLockFile(descriptor, "handover");
  EXPECT_EQ(0, __ZelUnlockFile(descriptor));
  int status;
  waitpid(other, &status, 0);
  EXPECT_EQ(0, status);
}

TEST_F(ProcessesTest, ErrorsOfLocksAreReturnedAndOthersAreFatal) {
  EXPECT_EQ(-1, __ZelLockFile(-1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, __ZelUnlockFile(-1));
  static char buffer[8];
  const std::pair<void (*)(), const char*> rows[] = {
      {[] { __ZelCreateLockFile("missing/lock", 0); },
       "Could not open lock file missing/lock (error 2)\n"},
      {[] { __ZelReadLockFile(-1, buffer); }, "failed to read from lock file\n"},
      {[] { __ZelWriteLockFile(-1, buffer); }, "failed to write to lock file\n"}};
  for (const auto& [body, text] : rows) zeltest::ExpectFatalInChild(body, text);
}

TEST_F(ProcessesTest, AChildGetsItsArgumentsAndNoEnvironment) {
  const auto child = zeltest::RunInChild([] {
    setenv("ZELRT_TEST", "1", 1);
    char shell[] = "/bin/sh", option[] = "-c", text[] = "[ -z \"$ZELRT_TEST\" ]; echo $? \"$1\"",
         name[] = "name", argument[] = "a b";
    char* const arguments[] = {shell, option, text, name, argument, nullptr};
    waitpid(__ZelCreateProcess(arguments), nullptr, 0);
  });
  EXPECT_EQ("0 a b\n", child.output);
  char* const none[] = {nullptr};
  EXPECT_EQ(-1, __ZelCreateProcess(none));
}

TEST_F(ProcessesTest, AMissingExecutableIsLoggedByTheChild) {
  __ZelRtStartup();
  ExpectFailedLaunch();
  const std::string log = zeltest::ReadFile("zellog.log");
  EXPECT_NE(std::string::npos, log.find("<!-- failed to launch process missing  -->")) << log;
}

// The log goes into a pipe that nobody empties, so a thread that logs is stopped in the middle of a
// record and holds the log file's lock for as long as this lasts.
TEST_F(ProcessesTest, AChildThatCannotGetTheLogEndsAllTheSame) {
  zeltest::ExpectSuccessInChild([] {
    zelhost::Install();
    __ZelRtStartup();
    mkfifo("log", 0600);
    const int pipe = open("log", O_RDWR);
    __ZelCreateLogger("test", "log", 0);
    std::thread([] {
      for (;;) __ZelLogCommentInternal("%5000d", 0);
    }).detach();
    // It has stopped when nothing more comes.
    for (int before = -1, pending = 0; pending == 0 || pending != before;) {
      before = pending;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      ioctl(pipe, FIONREAD, &pending);
    }
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, nullptr);
    ExpectFailedLaunch();
    _exit(HasFailure() ? 1 : 0);  // to flush would be to wait for the log
  });
}

}  // namespace
