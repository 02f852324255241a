// The ends of a process: what is printed, what is logged, what the exit hook sees, and that there
// is an end. Each scenario runs in a child, which the support code kills when it hangs.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"
#include "zelrt/runtime.h"

namespace {

using zeltest::RecordText;
namespace backing = zeltest::backing;

std::string Defect(unsigned number, const std::string& text) {
  return RecordText(number, "INTERNAL", "ERROR", "\n\t\t<!-- " + text + " -->");
}
std::string DefectAndStack(unsigned number, const std::string& text) {
  return Defect(number, text) + "\n\t<!-- Frames of tavtool call stack: -->";
}
std::string Terminated(unsigned number) {
  return RecordText(number, "ABNORMAL_TERMINATE", "ERROR");
}

void ReportCode(int32_t code) {
  std::printf("hook %d\n", code);
  std::fflush(stdout);
}

class FatalExitTest : public testing::Test {
 protected:
  // Runs the scenario; it ends with 255 after having printed this.
  static void ExpectEnd(const std::string& output, const std::function<void()>& scenario) {
    const auto child = zeltest::RunInChild([&scenario] {
      __ZelSetExitHandler(ReportCode);
      scenario();
    });
    EXPECT_EQ(output, zeltest::WithoutFrames(child.output));
    EXPECT_EQ(255, child.exitStatus);
  }
  static void StartUp() {
    zelhost::Install();
    __ZelRtStartup();
  }
  static void StartUpWithLog() {
    StartUp();
    __ZelCreateLogger("a", "log", 0);
  }
  static void ExpectLog(const std::string& records) {
    EXPECT_EQ(zeltest::LogStart("a") + records, zeltest::WithoutFrames(zeltest::ReadLog("log")));
  }
  static void ExpectNoLog() { EXPECT_NE(0, access("zellog.log", F_OK)); }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(FatalExitTest, EachCallReportsInItsWay) {
  ExpectEnd("a 5\nFrames of tavtool call stack:\nhook -1\n",
            [] { __ZelLogFatalToolDefect("a %d", 5); });
  ExpectEnd("hook 7\n", [] { __ZelFatalExit(7); });
  ExpectEnd("hook 0\n", [] { __ZelExitHandler(0); });
  ExpectEnd("", [] {
    __ZelSetExitHandler(nullptr);
    __ZelFatalExit(1);
  });
  ExpectEnd("a line 1\n", [] {
    EXPECT_EQ(0, __ZelLogToConsole("a line %d", 1));
    __ZelSetExitHandler(nullptr);
    __ZelExitHandler(3);
  });
  ExpectNoLog();
  ExpectEnd("hook -1\n", [] {
    StartUpWithLog();
    __ZelLogFatalToolDefect("a %d", 5);
  });
  ExpectLog(DefectAndStack(1, "a 5") + Terminated(2));
  ExpectEnd("hook 7\n", [] {
    StartUpWithLog();
    __ZelFatalExit(7);
  });
  ExpectLog(Terminated(1));
  ExpectEnd("hook -1\n", [] {
    StartUpWithLog();
    __ZelExitHandler(-1);
  });
  ExpectLog("");
}

TEST_F(FatalExitTest, TheHookMayEndTheProcessItsOwnWay) {
  for (const ZelExitHook hook : {+[](int32_t) { std::exit(3); }, +[](int32_t) { _exit(3); }}) {
    const auto child = zeltest::RunInChild([hook] {
      __ZelSetExitHandler(hook);
      __ZelFatalExit(1);
    });
    EXPECT_EQ(3, child.exitStatus);
  }
}

TEST_F(FatalExitTest, WhatFailsOnTheWayOutReportsNothingMore) {
  const struct {
    void (*fail)();
    const char* what;
  } rows[] = {{[] { __ZelLogFatalToolDefect("second"); }, "defect"},
              {[] { __ZelFatalExit(2); }, "exit"},
              {[] { __ZelExitHandler(2); }, "handler"},
              {[] { __ZelMalloc(64, 1, 0); }, "category"}};
  for (const auto& row : rows) {
    static void (*fail)();
    fail = row.fail;
    SCOPED_TRACE(row.what);
    ExpectEnd("hook -1\n", [] {
      StartUpWithLog();
      __ZelSetExitHandler([](int32_t code) {
        ReportCode(code);
        fail();
      });
      __ZelLogFatalToolDefect("first");
    });
    ExpectLog(DefectAndStack(1, "first") + Terminated(2));
    // The same for the handlers of exit().
    ExpectEnd("hook -1\n", [] {
      StartUpWithLog();
      std::atexit([] { fail(); });
      __ZelLogFatalToolDefect("first");
    });
    ExpectLog(DefectAndStack(1, "first") + Terminated(2));
  }
}

TEST_F(FatalExitTest, TheHookMayLogAndAllocate) {
  ExpectEnd("hook -1\n", [] {
    StartUpWithLog();
    __ZelSetExitHandler([](int32_t code) {
      ReportCode(code);
      __ZelFree(__ZelMalloc(0, 100, 0));
      __ZelLogCommentInternal("bye");
      __ZelCloseLogger();
    });
    __ZelFatalExit(-1);
  });
  ExpectLog(Terminated(1) + "\n\t<!-- bye -->\n</log>");
}

// The hook for thread ids is asked while the log file's lock is held, so it is a way into the
// middle of a record.
TEST_F(FatalExitTest, AThreadThatIsWritingARecordEnds) {
  static thread_local bool t_fails = false;
  static thread_local int t_calls = 0;
  for (const int failing : {1, 2}) {  // before the lock is taken, and under it
    static int failingCall;
    failingCall = failing;
    ExpectEnd("hook -1\n", [] {
      StartUpWithLog();
      __ZelSetGetNativeThreadIdProc([] {
        if (t_fails && ++t_calls == failingCall) __ZelLogFatalToolDefect("inside");
        return zelhost::NativeThreadId();
      });
      t_fails = true;
      __ZelLogCommentInternal("outside");
    });
    const std::string log = zeltest::ReadLog("log");
    EXPECT_NE(std::string::npos, log.find("<!-- inside -->")) << log;
    EXPECT_NE(std::string::npos, log.find(Terminated(2).substr(1))) << log;
  }
}

TEST_F(FatalExitTest, AThreadThatOpensTheLogEnds) {
  ExpectEnd("hook -1\n", [] {
    StartUp();
    backing::Install();
    __ZelInitializeMemoryCollector();
    __ZelRegisterMemoryCollector([] { __ZelLogFatalToolDefect("collector"); });
    backing::OnRequest([] { __ZelAsynchronousCollectMemory(1); });
    __ZelLogCommentInternal("opens the log, which needs memory");
  });
  EXPECT_EQ(std::string::npos, zeltest::ReadFile("zellog.log").find("collector"));
}

TEST_F(FatalExitTest, AMemoryCollectorEnds) {
  ExpectEnd("hook -1\n", [] {
    backing::Install();
    StartUpWithLog();
    __ZelInitializeMemoryCollector();
    __ZelRegisterMemoryCollector([] { __ZelLogFatalToolDefect("collector"); });
    backing::OnRequest([] { __ZelAsynchronousCollectMemory(1); });
    __ZelMalloc(0, 100'000, 0);
  });
  ExpectLog(RecordText(1, "COLLECT_MEMORY", "WARNING") + DefectAndStack(2, "collector") +
            Terminated(3));
}

TEST_F(FatalExitTest, WithoutALogFileThereIsAnEndToo) {
  ASSERT_EQ(0, mkdir("zellog.log", 0700));
  ExpectEnd("hook -1\n", [] {
    StartUp();
    __ZelLogFatalToolDefect("lost");
  });
  ASSERT_EQ(0, rmdir("zellog.log"));
  ExpectEnd("hook -1\n", [] {
    StartUp();
    __ZelCreateLogger("a", "/dev/full", 0);
    __ZelLogFatalToolDefect("lost");
  });
  ExpectNoLog();
}

TEST_F(FatalExitTest, WithoutMemoryThereIsAnEndToo) {
  const auto everything = [](size_t, size_t) { return true; };
  ExpectEnd("hook -1\n", [everything] {
    StartUp();
    backing::Install();
    backing::RefuseIf(everything);
    __ZelLogFatalToolDefect("the log cannot be opened");
  });
  ExpectEnd("hook -1\n", [everything] {
    StartUp();
    backing::Install();
    backing::RefuseIf(everything);
    __ZelMalloc(0, 1, 0);
  });
  ExpectEnd("hook -1\n", [everything] {
    backing::Install();
    StartUpWithLog();
    backing::RefuseIf(everything);
    __ZelMalloc(0, 1, 0);
  });
  ExpectLog(RecordText(1, "OUT_OF_MEMORY", "ERROR") + Terminated(2));
}

TEST_F(FatalExitTest, OfSeveralThreadsOneReports) {
  for (int run = 0; run < 10; ++run) {
    ExpectEnd("hook -1\n", [run] {
      StartUpWithLog();
      zeltest::OnEachThread(4, [run](int thread) {
        if (run % 2 == 0) __ZelLogFatalToolDefect("defect");
        for (;;) {
          __ZelLogCommentInternal("busy");
          if (thread == 0) __ZelLogFatalToolDefect("defect");
        }
      });
    });
    std::string log = zeltest::ReadLog("log");
    const std::string report = Defect(1, "defect");
    const size_t place = log.find(report);
    ASSERT_NE(std::string::npos, place) << "the report is missing";
    EXPECT_EQ(std::string::npos, log.find("defect", place + report.size()));
    EXPECT_NE(std::string::npos, log.find(Terminated(2), place));
  }
}

// Another thread holds the log file's lock for most of the time, so most children inherit it held
// by a thread that they do not have.
TEST_F(FatalExitTest, AForkedChildEndsWhoeverHeldTheLog) {
  const auto parent = zeltest::RunInChild([] {
    StartUpWithLog();
    __ZelSetExitHandler([](int32_t) {
      static int calls = 0;
      if (++calls == 2) _exit(1);
    });
    __ZelLogCommentInternal("loads the time zone, under a lock of the C library");
    std::atomic<bool> stop = false;
    std::thread logger([&stop] {
      while (!stop) __ZelLogCommentInternal("%60000d", 0);
    });
    for (int i = 0; i < 5; ++i) {
      const pid_t child = fork();
      if (child == 0) __ZelLogFatalToolDefect("in the child");
      int status;
      waitpid(child, &status, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 255)
        std::printf("wrong status %d\n", status);
    }
    stop = true;
    logger.join();
  });
  // A leak detector may have something to say of the thread that the children lack.
  EXPECT_EQ(std::string::npos, parent.output.find("wrong status")) << parent.output;
  EXPECT_EQ(0, parent.exitStatus);
}

}  // namespace
