#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"
#include "zelrt/runtime.h"

namespace {

void Say(const char* text) {
  std::printf("%s\n", text);
  std::fflush(stdout);
}

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(200)); }

TEST(EndingTest, TheStatusIs255WhateverTheCode) {
  const auto child = zeltest::RunInChild([] {
    __ZelSetExitHandler([](int32_t code) { std::printf("hook %d\n", code); });
    std::atexit([] { Say("atexit"); });
    __ZelExitHandler(7);
  });
  EXPECT_EQ(255, child.exitStatus);
  EXPECT_EQ("hook 7\natexit\n", child.output);
}

TEST(EndingTest, AFaultOnTheWayIsNeitherReportedNorHandledAgain) {
  const auto child = zeltest::RunInChild([] {
    __ZelSetExitHandler([](int32_t) {
      Say("hook");
      __ZelLogFatalToolDefect("in the hook");
    });
    std::atexit([] { __ZelFatalExit(-1); });
    __ZelLogFatalToolDefect("defect %d", 1);
  });
  EXPECT_EQ(255, child.exitStatus);
  EXPECT_EQ("defect 1\nFrames of tavtool call stack:\nhook\n",
            zeltest::WithoutFrames(child.output));
}

TEST(EndingTest, ASecondThreadDoesNotCutTheFirstOneShort) {
  const auto child = zeltest::RunInChild([] {
    __ZelSetExitHandler([](int32_t) {
      Say("begin");
      Pause();
      Say("end");
    });
    std::thread first([] { __ZelFatalExit(-1); });
    Pause();
    __ZelLogFatalToolDefect("second");
  });
  EXPECT_EQ(255, child.exitStatus);
  EXPECT_EQ("begin\nend\n", child.output);
}

// A collector runs under the system allocation lock; a thread that the exit hook waits for needs
// it.
TEST(EndingTest, ADefectInACollectorLeavesNoLockBehind) {
  const auto child = zeltest::RunInChild([] {
    __ZelInitializeSubAllocator(
        [](size_t size) {
          static bool told = false;
          if (size > 6'000'000 && !told) {
            told = true;
            __ZelAsynchronousCollectMemory(size);
          }
          return std::malloc(size);
        },
        std::free);
    __ZelInitializeMemoryCollector();
    __ZelRegisterMemoryCollector([] { __ZelLogFatalToolDefect("in a collector"); });
    __ZelSetExitHandler([](int32_t) {
      std::thread([] { __ZelFree(__ZelMalloc(0, 100'000, 0)); }).join();
      Say("allocated");
    });
    __ZelMalloc(0, 7'000'000, 0);
  });
  EXPECT_EQ(255, child.exitStatus);
  EXPECT_EQ("in a collector\nFrames of tavtool call stack:\nallocated\n",
            zeltest::WithoutFrames(child.output));
}

}  // namespace
