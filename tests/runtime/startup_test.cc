#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>

#include "zelrt/platform.h"
#include "zelrt/runtime.h"

namespace {

TEST(StartupTest, HappensOnceAndReturnsTheVersionEachTime) {
  EXPECT_EQ(0u, __ZelGetStarted());
  EXPECT_EQ(1u, __ZelGetNProcs());
  auto processors = static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN));
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(0x0D0F0002u, __ZelRtStartup());
    EXPECT_EQ(processors, __ZelGetNProcs()) << "a second start-up measured again";
    __zelNumberOfProcessors = processors = 77;
    __ZelRtShutdown();
    EXPECT_EQ(1u, __ZelGetStarted());
  }
}

TEST(EnvironmentTest, NullIsRefusedAndOverwritingIsAsked) {
  constexpr const char* kName = "ZELRT_TEST_VARIABLE";
  EXPECT_EQ(nullptr, __ZelGetEnvironmentVariable(nullptr));
  EXPECT_EQ(0u, __ZelSetEnvironmentVariable(nullptr, "x"));
  EXPECT_EQ(0u, __ZelSetEnvironmentVariable(kName, nullptr));
  EXPECT_EQ(0u, __ZelSetEnvironmentVariable("a=b", "x")) << "refused by the environment";
  EXPECT_EQ(nullptr, __ZelGetEnvironmentVariable(kName));

  EXPECT_EQ(1u, __ZelSetEnvironmentVariable(kName, "one"));
  EXPECT_EQ(1u, __ZelSetEnvironmentVariableEx(kName, "two", 0));
  EXPECT_STREQ("one", __ZelGetEnvironmentVariable(kName));
  EXPECT_EQ(1u, __ZelSetEnvironmentVariable(kName, "two"));
  EXPECT_STREQ("two", __ZelGetEnvironmentVariable(kName));
  for (const char* name : {static_cast<const char*>(nullptr), kName})
    __ZelUnsetEnvironmentVariable(name);
  EXPECT_EQ(nullptr, __ZelGetEnvironmentVariable(kName));
}

TEST(SleepTest, CountsYieldsModulo32Bits) {
  const std::clock_t start = std::clock();
  __ZelSleep(0);
  __ZelSleep(859);  // 859 x 5,000,000 is 32,704 beyond 2^32
  EXPECT_LT(std::clock() - start, 5 * CLOCKS_PER_SEC) << "unwrapped it takes many minutes";
}

}  // namespace
