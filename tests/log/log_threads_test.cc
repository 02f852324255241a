#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/leaks.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

using zeltest::LogStart;
using zeltest::RecordText;

constexpr int kThreads = 4;

class LogThreadsTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
  }
  zeltest::TemporaryDirectory directory_;
};

uint32_t Register(const char* const* names, int32_t source) {
  const ZelLogMessage message = {"M", names, 0, source};
  return __ZelRegisterLogMessage2(&message);
}

// Reads the log from its start: record after record, with the numbers that follow each other, each
// thread's rounds in their order, comments in between.
TEST_F(LogThreadsTest, RecordsAreWholeAndNumberedWithoutAGap) {
  constexpr int kRounds = 600;
  static constexpr const char* kNames[] = {"thread", "round", "text", nullptr};
  const uint32_t id = Register(kNames, 0);
  const auto text = [](int round) { return std::string(static_cast<size_t>(round % 700), 'x'); };
  zeltest::OnEachThread(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      zelrt::Log(ZELLOG_SEVERITY_INFO, id, thread, round, text(round));
      if (round % 5 == 0) __ZelLogCommentInternal("%d", round);
    }
  });
  const std::string log = zeltest::ReadLog("zellog.log");
  size_t place = LogStart("zelrt").size();
  ASSERT_EQ(LogStart("zelrt"), log.substr(0, place));
  std::array<int, kThreads> next = {};
  int comments = 0;
  for (unsigned number = 1; place < log.size();) {
    if (const size_t end = log.find(" -->", place); log.compare(place, 6, "\n\t<!--") == 0) {
      ++comments;
      place = end + 4;
      continue;
    }
    const size_t argument = log.find("<arg name='thread'>", place);
    ASSERT_NE(std::string::npos, argument);
    const auto thread = static_cast<size_t>(log[argument + 19] - '0');
    ASSERT_LT(thread, next.size());
    const int round = next[thread]++;
    const std::string expected = RecordText(
        number++, "M", "INFO",
        "\n\t\t<arg name='thread'>" + std::to_string(thread) + "</arg>\n\t\t<arg name='round'>" +
            std::to_string(round) + "</arg>\n\t\t<arg name='text'>" + text(round) + "</arg>");
    ASSERT_EQ(expected, log.substr(place, expected.size()));
    place += expected.size();
  }
  for (const int rounds : next) EXPECT_EQ(kRounds, rounds);
  EXPECT_EQ(kThreads * kRounds / 5, comments);
}

TEST_F(LogThreadsTest, TheDefaultLogIsOpenedOnce) {
  const auto before = zeltest::OpenDescriptors();
  zeltest::OnEachThread(kThreads, [](int) { __ZelLogCommentInternal("x"); });
  std::string expected = LogStart("zelrt");
  for (int i = 0; i < kThreads; ++i) expected += "\n\t<!-- x -->";
  EXPECT_EQ(expected, zeltest::ReadLog("zellog.log"));
  EXPECT_NE(-1, zeltest::DescriptorOpenedSince(before));
}

// More registrations than there is room for, while what was registered is used and log files are
// replaced.
TEST_F(LogThreadsTest, TablesFillUpExactly) {
  zeltest::IgnoreLeaks();  // a log file that is replaced stays
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  static constexpr const char* kNames[] = {"thread", nullptr};
  std::array<std::atomic<int>, 128> messages = {};
  std::array<std::atomic<int>, 16> sources = {};
  std::atomic<int> released = 0;
  zeltest::OnEachThread(kThreads, [&](int thread) {
    for (int i = 0; i < 40; ++i) {
      const int32_t source = __ZelGetLoggerHandle("source");
      if (source != -1) ++sources[static_cast<size_t>(source)];
      const uint32_t id = Register(kNames, source != -1 ? source : 0);
      if (id != ZEL_INVALID_LOG_MESSAGE) {
        ++messages[id];
        zelrt::Log(ZELLOG_SEVERITY_INFO, id, thread);
      }
      // One that may be coming to be: a format while it is not there, then an unknown tag.
      __ZelLogInternal(ZELLOG_SEVERITY_INFO, static_cast<uint32_t>(14 + i * 2), 0,
                       reinterpret_cast<uint64_t>("format"));
      for (int32_t handle = 1; handle <= 15; ++handle) {
        if (i == 30) released += static_cast<int>(__ZelReleaseLoggerHandle(handle, "source"));
      }
      if (i % 10 == thread) __ZelCreateLogger("b", ("log" + std::to_string(thread)).c_str(), 0);
    }
  });
  for (size_t id = 0; id < messages.size(); ++id) EXPECT_EQ(id < 14 ? 0 : 1, messages[id]) << id;
  for (size_t id = 0; id < sources.size(); ++id) EXPECT_EQ(id == 0 ? 0 : 1, sources[id]) << id;
  EXPECT_EQ(15, released) << "of releases at the same moment one succeeds";
}

}  // namespace
