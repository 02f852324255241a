#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

using zeltest::LogStart;
using zeltest::ReadLog;

constexpr char kDefault[] = "zellog.log";

class LogFileTest : public testing::Test {
 protected:
  void SetUp() override { zelhost::Install(); }

  static void Log() { zelrt::Log(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_COLLECT_MEMORY); }
  static std::string Logged(unsigned number) {
    return zeltest::RecordText(number, "COLLECT_MEMORY", "WARNING");
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(LogFileTest, BeforeStartUpThereIsNone) {
  EXPECT_EQ(0u, __ZelCreateLogger("a", "log", 0));
  __ZelLogCommentInternal("lost");
  EXPECT_EQ(0u, __ZelIsLoggerInitialized());
  EXPECT_EQ(0u, __ZelReopenLogger());
  EXPECT_EQ(-1, __ZelGetLoggerHandle("a"));
  __ZelCloseLogger();
  EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(LogFileTest, TheFirstRecordOpensTheDefaultOne) {
  __ZelRtStartup();
  zeltest::WriteFile(kDefault, "of an earlier run");
  EXPECT_EQ(0u, __ZelCreateLogger(nullptr, "log", 0));
  EXPECT_EQ(0u, __ZelCreateLogger("a", nullptr, 0));
  EXPECT_EQ(0u, __ZelIsLoggerInitialized());
  EXPECT_EQ(0u, __ZelReopenLogger());
  Log();
  EXPECT_EQ(1u, __ZelIsLoggerInitialized());
  EXPECT_EQ(1u, __ZelReopenLogger());
  Log();
  __ZelCloseLogger();
  __ZelLogCommentInternal("late");
  EXPECT_EQ(LogStart("zelrt") + Logged(1) + Logged(2) + "\n</log>\n<!-- late -->",
            ReadLog(kDefault));
}

TEST_F(LogFileTest, WhatCannotBeWrittenIsLostAndTakesNoNumber) {
  __ZelRtStartup();
  ASSERT_EQ(0, mkdir(kDefault, 0700));
  Log();
  EXPECT_EQ(0u, __ZelIsLoggerInitialized());
  ASSERT_EQ(0, rmdir(kDefault));
  Log();
  EXPECT_EQ(LogStart("zelrt") + Logged(1), ReadLog(kDefault));

  ASSERT_EQ(1u, __ZelCreateLogger("a", "/dev/full", 0));
  for (int i = 0; i < 100; ++i) __ZelLogCommentInternal("%10000d", i);
  __ZelCloseLogger();
  EXPECT_EQ(1u, __ZelIsLoggerInitialized());
}

TEST_F(LogFileTest, ANewLogFileTakesOver) {
  __ZelRtStartup();
  ASSERT_EQ(1u, __ZelCreateLogger("a", "first", 0));
  Log();
  ASSERT_EQ(1u, __ZelCreateLogger("b", "second", 0));
  Log();
  EXPECT_EQ(LogStart("a") + Logged(1), ReadLog("first"));
  EXPECT_EQ(LogStart("b") + Logged(2), ReadLog("second"));
  ASSERT_EQ(1u, __ZelCreateLogger("c", "first", 1));
  Log();
  __ZelCloseLogger();
  EXPECT_EQ(LogStart("a") + Logged(1) + Logged(3) + "\n</log>", ReadLog("first"));
  EXPECT_EQ(0u, __ZelCreateLogger("d", "missing/log", 0));
  EXPECT_EQ(0u, __ZelIsLoggerInitialized());
  Log();
  EXPECT_EQ(LogStart("zelrt") + Logged(4), ReadLog(kDefault));
}

TEST_F(LogFileTest, ALogFileWhoseDescriptorIsGoneIsReopened) {
  __ZelRtStartup();
  const auto before = zeltest::OpenDescriptors();
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  const int descriptor = zeltest::DescriptorOpenedSince(before);
  Log();
  ASSERT_EQ(0, close(descriptor));
  EXPECT_EQ(1u, __ZelReopenLogger());
  Log();
  EXPECT_EQ(LogStart("a") + Logged(1) + Logged(2), ReadLog("log"));
}

// A child logs, and tells the number of each record once its call has returned, until it is killed.
TEST_F(LogFileTest, RecordsWhoseCallReturnedSurviveAKill) {
  std::minstd_rand random(1);
  for (int run = 0; run < 50; ++run) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
      __ZelRtStartup();
      __ZelCreateLogger("a", "log", 0);
      for (unsigned number = 1;; ++number) {
        Log();
        if (write(ends[1], &number, sizeof number) != sizeof number) _exit(1);
      }
    }
    close(ends[1]);
    unsigned last = 0;
    // Killed after a number that was told, or a little later.
    const auto enough = static_cast<unsigned>(1 + random() % 300);
    while (last < enough) ASSERT_EQ(ssize_t{sizeof last}, read(ends[0], &last, sizeof last));
    usleep(static_cast<useconds_t>(random() % 200));
    kill(child, SIGKILL);
    for (unsigned next; read(ends[0], &next, sizeof next) == sizeof next;) last = next;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    std::string expected = LogStart("a");
    for (unsigned number = 1; number <= last; ++number) expected += Logged(number);
    EXPECT_EQ(expected, ReadLog("log").substr(0, expected.size())) << run;
  }
}

}  // namespace
