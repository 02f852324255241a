#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <vector>

#include "tests/support/threads.h"
#include "zelrt/files.h"

namespace {

TEST(CStringsThreadsTest, TimestampsGrowAndAreNeverGivenTwice) {
  constexpr int kThreads = 4;
  constexpr size_t kEach = 20'000;
  std::array<std::vector<int64_t>, kThreads> stamps;
  zeltest::OnEachThread(kThreads, [&stamps](int thread) {
    std::vector<int64_t>& own = stamps[static_cast<size_t>(thread)];
    for (size_t i = 0; i < kEach; ++i) own.push_back(__ZelUpdateTimestamp(1));
  });
  std::vector<int64_t> all;
  for (const auto& own : stamps) {
    EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
    all.insert(all.end(), own.begin(), own.end());
  }
  std::sort(all.begin(), all.end());
  std::vector<int64_t> expected(kThreads * kEach);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(expected, all);
}

}  // namespace
