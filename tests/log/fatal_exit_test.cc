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
  return Defect(number, text) + "\n\t<!-- (call stack) -->";
}
std::string Terminated(unsigned number) {
  return RecordText(number, "ABNORMAL_TERMINATE", "ERROR");
}

void StartUp(const char* log) {
  zelhost::Install();
  __ZelRtStartup();
  if (log != nullptr) __ZelCreateLogger("a", log, 0);
}
void ReportCode(int32_t code) {
  std::printf("hook %d\n", code);
  std::fflush(stdout);
}

constinit thread_local int t_idsUntilDefect = 0;

// The hook for thread ids is asked while the log file's lock is held, so it is a way into the
// middle of a record.
template <int kIds>
void FailInRecord() {
  __ZelSetGetNativeThreadIdProc([] {
    if (t_idsUntilDefect > 0 && --t_idsUntilDefect == 0) __ZelLogFatalToolDefect("inside");
    return zelhost::NativeThreadId();
  });
  t_idsUntilDefect = kIds;
  __ZelLogCommentInternal("outside");
}

void FailOnTheWay() {
  std::atexit([] { __ZelMalloc(64, 1, 0); });
  __ZelSetExitHandler([](int32_t code) {
    __ZelLogCommentInternal("bye");
    ReportCode(code);
    __ZelLogFatalToolDefect("in the hook");
  });
  __ZelLogFatalToolDefect("first");
}

// A collector runs under the system allocation lock, which a thread needs that the hook waits for.
void FailInCollector() {
  __ZelInitializeMemoryCollector();
  __ZelRegisterMemoryCollector([] { __ZelLogFatalToolDefect("collector"); });
  backing::OnRequest([] { __ZelAsynchronousCollectMemory(1); });
  __ZelSetExitHandler([](int32_t code) {
    std::thread([] { __ZelFree(__ZelMalloc(0, 100'000, 0)); }).join();
    ReportCode(code);
  });
  __ZelLogCommentInternal("may open the log, which needs memory");
  __ZelMalloc(0, 100'000, 0);
}

void RunOutOfMemory() {
  backing::RefuseIf([](size_t, size_t) { return true; });
  __ZelMalloc(0, 10'000'000, 0);
}

void FailInTwoThreads() {
  __ZelSetExitHandler([](int32_t code) {
    usleep(400'000);
    ReportCode(code);
  });
  std::thread first([] { __ZelFatalExit(-1); });
  usleep(200'000);
  __ZelLogFatalToolDefect("second");
}

enum LogFile { kNotStarted, kNone, kLog, kFull, kCannotBeOpened };

TEST(FatalExitTest, EachRoadReportsAndEnds) {
  const struct {
    LogFile log;
    void (*scenario)();
    const char* output;
    std::string records;
  } rows[] = {
      {kNotStarted, [] { __ZelLogFatalToolDefect("a %d", 5); }, "a 5\n(call stack)\nhook -1\n", ""},
      {kNotStarted, [] { __ZelFatalExit(7); }, "hook 7\n", ""},
      {kLog, [] { __ZelLogFatalToolDefect("a %d", 5); }, "hook -1\n",
       DefectAndStack(1, "a 5") + Terminated(2)},
      {kLog, [] { __ZelFatalExit(7); }, "hook 7\n", Terminated(1)},
      {kLog, [] { __ZelExitHandler(0); }, "hook 0\n", ""},
      {kNone, FailOnTheWay, "hook -1\n", ""},
      {kCannotBeOpened, FailOnTheWay, "hook -1\n", ""},
      {kFull, FailOnTheWay, "hook -1\n", ""},
      {kLog, FailOnTheWay, "hook -1\n",
       DefectAndStack(1, "first") + Terminated(2) + "\n\t<!-- bye -->"},
      {kLog, FailInRecord<1>, "hook -1\n", DefectAndStack(1, "inside") + Terminated(2)},
      {kLog, FailInRecord<2>, "hook -1\n", DefectAndStack(1, "inside") + Terminated(2)},
      {kNone, FailInCollector, "hook -1\n", ""},
      {kLog, FailInCollector, "hook -1\n",
       "\n\t<!-- may open the log, which needs memory -->" +
           RecordText(1, "COLLECT_MEMORY", "WARNING") + DefectAndStack(2, "collector") +
           Terminated(3)},
      {kNone, RunOutOfMemory, "hook -1\n", ""},
      {kLog, RunOutOfMemory, "hook -1\n", RecordText(1, "OUT_OF_MEMORY", "ERROR") + Terminated(2)},
      {kNotStarted, FailInTwoThreads, "hook -1\n", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const zeltest::TemporaryDirectory directory;
    const auto child = zeltest::RunInChild([&row] {
      const char* const files[] = {nullptr, nullptr, "log", "/dev/full", nullptr};
      if (row.log == kCannotBeOpened) mkdir("zellog.log", 0700);
      backing::Install();
      if (row.log != kNotStarted) StartUp(files[row.log]);
      __ZelSetExitHandler(ReportCode);
      row.scenario();
    });
    EXPECT_EQ(255, child.exitStatus);
    EXPECT_EQ(row.output, zeltest::FoldCallStacks(child.output));
    const std::string log = row.log == kLog ? zeltest::LogStart("a") : "(cannot be read)";
    EXPECT_EQ(log + row.records, zeltest::FoldCallStacks(zeltest::ReadLog("log")));
  }
}

TEST(FatalExitTest, OfSeveralThreadsOneReports) {
  const zeltest::TemporaryDirectory directory;
  for (int run = 0; run < 10; ++run) {
    const auto child = zeltest::RunInChild([run] {
      StartUp("log");
      zeltest::OnEachThread(4, [run](int thread) {
        if (run % 2 == 0) __ZelLogFatalToolDefect("defect");
        for (;;) {
          __ZelLogCommentInternal("busy");
          if (thread == 0) __ZelLogFatalToolDefect("defect");
        }
      });
    });
    EXPECT_EQ(255, child.exitStatus);
    // What others log may stand between the lines of a stack.
    std::string log = zeltest::ReadLog("log");
    const std::string busy = "\n\t<!-- busy -->";
    for (size_t at = 0; (at = log.find(busy, at)) != std::string::npos;) log.erase(at, busy.size());
    log = zeltest::FoldCallStacks(log);
    const std::string report = DefectAndStack(1, "defect");
    const size_t place = log.find(report);
    ASSERT_NE(std::string::npos, place) << "the report is missing";
    EXPECT_EQ(std::string::npos, log.find("defect", place + report.size()));
    EXPECT_NE(std::string::npos, log.find(Terminated(2), place));
  }
}

// Another thread holds the log file's lock for most of the time, so most children inherit it held
// by a thread that they do not have.
TEST(FatalExitTest, AForkedChildEndsWhoeverHeldTheLog) {
  const zeltest::TemporaryDirectory directory;
  const auto parent = zeltest::RunInChild([] {
    StartUp("log");
    __ZelLogCommentInternal("loads the time zone, under a lock of the C library");
    std::atomic<bool> stop = false;
    std::thread logger([&stop] {
      while (!stop) __ZelLogCommentInternal("%60000d", 0);
    });
    for (int i = 0; i < 5; ++i) {
      if (fork() == 0) __ZelLogFatalToolDefect("in the child");
      int status;
      wait(&status);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 255) std::puts("wrong status");
    }
    stop = true;
    logger.join();
  });
  // A leak detector may have something to say of the thread that the children lack.
  EXPECT_EQ(std::string::npos, parent.output.find("wrong status")) << parent.output;
  EXPECT_EQ(0, parent.exitStatus);
}

}  // namespace
