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

using Clock = std::chrono::steady_clock;

// What a missing executable's child ends with, and whether it does so in time. A second is
// promised; the rest is for busy machines.
void ExpectFailedLaunch() {
  char path[] = "missing";
  char* const arguments[] = {path, nullptr};
  const auto start = Clock::now();
  const int32_t child = __ZelCreateProcess(arguments);
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(255, WEXITSTATUS(status));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
}

TEST(ProcessesTest, AChildGetsItsArgumentsAndNoEnvironment) {
  const auto child = zeltest::RunInChild([] {
    setenv("ZELRT_TEST", "1", 1);
    char shell[] = "/bin/sh", option[] = "-c", text[] = "[ -z \"$ZELRT_TEST\" ]; echo $? \"$1\"",
         name[] = "name", argument[] = "a b";
    char* const arguments[] = {shell, option, text, name, argument, nullptr};
    waitpid(__ZelCreateProcess(arguments), nullptr, 0);
    char environment[] = "/usr/bin/env";
    char* const alone[] = {environment, nullptr};
    int status = -1;
    waitpid(__ZelCreateProcess(alone), &status, 0);
    std::printf("%d\n", status);
  });
  EXPECT_EQ("0 a b\n0\n", child.output);
}

TEST(ProcessesTest, WithoutArgumentsThereIsNoChild) {
  char* const none[] = {nullptr};
  for (char* const* arguments : {none + 0, static_cast<char* const*>(nullptr)}) {
    errno = 0;
    EXPECT_EQ(-1, __ZelCreateProcess(arguments));
    EXPECT_EQ(EINVAL, errno);
  }
}

TEST(ProcessesTest, AMissingExecutableIsLoggedByTheChild) {
  const zeltest::TemporaryDirectory directory;
  zelhost::Install();
  __ZelRtStartup();
  ExpectFailedLaunch();
  const std::string log = zeltest::ReadFile("zellog.log");
  EXPECT_NE(std::string::npos, log.find("<!-- failed to launch process missing  -->")) << log;
}

// The log goes into a pipe that nobody empties, so a thread that logs is stopped in the middle of a
// record and holds the log file's lock for as long as this lasts.
TEST(ProcessesTest, AChildThatCannotGetTheLogEndsAllTheSame) {
  const zeltest::TemporaryDirectory directory;
  const auto child = zeltest::RunInChild([] {
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
    _exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(0, child.exitStatus) << child.output;
}

}  // namespace
