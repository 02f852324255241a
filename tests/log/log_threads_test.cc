#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/leaks.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

constexpr int kThreads = 4;

class LogThreadsTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
  }
  static uint32_t Register(int32_t source) {
    static constexpr const char* kNames[] = {"text", nullptr};
    const ZelLogMessage message = {"M", kNames, 0, source};
    return __ZelRegisterLogMessage2(&message);
  }
  zeltest::TemporaryDirectory directory_;
};

// Reads the default log, which all threads open at once, from its start: record after record, with
// the numbers that follow each other.
TEST_F(LogThreadsTest, RecordsAreWholeAndNumberedWithoutAGap) {
  constexpr unsigned kRounds = 600;
  const std::string texts[kThreads] = {"0", std::string(300, '1'), std::string(600, '2'), "3"};
  const auto before = zeltest::OpenDescriptors();
  const uint32_t id = Register(0);
  zeltest::OnEachThread(kThreads, [&](int thread) {
    for (unsigned i = 0; i < kRounds; ++i) zelrt::Log(ZELLOG_SEVERITY_INFO, id, texts[thread]);
  });
  EXPECT_NE(-1, zeltest::DescriptorOpenedSince(before)) << "it was opened more than once";
  const std::string log = zeltest::ReadLog("zellog.log");
  std::string expected = zeltest::LogStart("zelrt");
  unsigned rounds[kThreads] = {};
  for (unsigned number = 1; number <= kThreads * kRounds; ++number) {
    const size_t argument = log.find("<arg name='text'>", expected.size());
    ASSERT_NE(std::string::npos, argument);
    const int thread = log[argument + 17] - '0';
    ASSERT_TRUE(thread >= 0 && thread < kThreads);
    ++rounds[thread];
    expected += zeltest::RecordText(number, "M", "INFO",
                                    "\n\t\t<arg name='text'>" + texts[thread] + "</arg>");
  }
  EXPECT_TRUE(expected == log) << "a record is not whole";
  for (const unsigned count : rounds) EXPECT_EQ(kRounds, count);
}

// More registrations than there is room for, while what was registered is used and log files are
// replaced.
TEST_F(LogThreadsTest, TablesFillUpExactly) {
  zeltest::IgnoreLeaks();  // a log file that is replaced stays
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  std::array<std::atomic<int>, 128> messages = {};
  std::array<std::atomic<int>, 16> sources = {};
  std::atomic<int> released = 0;
  zeltest::OnEachThread(kThreads, [&](int thread) {
    for (int i = 0; i < 40; ++i) {
      const int32_t source = __ZelGetLoggerHandle("source");
      if (source != -1) ++sources[static_cast<size_t>(source)];
      const uint32_t id = Register(source != -1 ? source : 0);
      if (id != ZEL_INVALID_LOG_MESSAGE) ++messages[id];
      zelrt::Log(ZELLOG_SEVERITY_INFO, id, "x");
      // One that may be coming to be.
      zelrt::Log(ZELLOG_SEVERITY_INFO, static_cast<uint32_t>(14 + i * 2), "x");
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
