#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "zelrt/runtime.h"

namespace {

TEST(StartupThreadsTest, EveryCallerReturnsToACompleteStartup) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      EXPECT_EQ(0x0D0F0002u, __ZelRtStartup());
      EXPECT_EQ(1u, __ZelGetStarted());
      EXPECT_GT(__ZelGetNProcs(), 0u);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
