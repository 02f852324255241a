#include <gtest/gtest.h>

#include "tests/support/threads.h"
#include "zelrt/runtime.h"

TEST(StartupThreadsTest, EveryCallerReturnsToACompleteStartup) {
  zeltest::OnEachThread(4, [](int) {
    EXPECT_EQ(0x0D0F0002u, __ZelRtStartup());
    EXPECT_EQ(1u, __ZelGetStarted());
    EXPECT_GT(__ZelGetNProcs(), 0u);
  });
}
