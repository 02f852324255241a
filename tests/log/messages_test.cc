// The tables of messages and sources.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

class MessagesTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
  }
  static uint32_t Register(const char* name, int32_t source = 0) {
    const ZelLogMessage message = {name, nullptr, 0, source};
    return __ZelRegisterLogMessage(&message);
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(MessagesTest, TheTableTakes114MessagesBesideTheLibrarysOwn) {
  EXPECT_EQ(2u, ZELLOG_MSG_ABNORMAL_TERMINATE);
  EXPECT_EQ(13u, ZELLOG_MSG_FAIL_READ_FILE_VERBOSE);
  for (uint32_t id = 14; id < 128; ++id) EXPECT_EQ(id, Register("M"));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register("M"));
  EXPECT_NE(0, access("zellog.log", F_OK)) << "a full table is no reason for a message";
  zelrt::Log(ZELLOG_SEVERITY_INFO, 127);
  EXPECT_EQ(zeltest::LogStart("zelrt") + zeltest::RecordText(1, "M", "INFO"),
            zeltest::ReadLog("zellog.log"));
}

TEST_F(MessagesTest, InvalidDefinitionsAreReported) {
  EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, __ZelRegisterLogMessage2(nullptr));
  EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register(nullptr));
  EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register("M", -1));
  EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register("M", 1)) << "not handed out yet";
  ASSERT_EQ(1, __ZelGetLoggerHandle("tool"));
  EXPECT_EQ(14u, Register("M", 1));
  EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register("M", 2));
  std::string expected = zeltest::LogStart("zelrt");
  for (unsigned i = 1; i <= 5; ++i) {
    expected += zeltest::RecordText(
        i, "INTERNAL", "ERROR",
        "\n\t\t<!-- A valid message must be specified to register it with ZELRT -->");
  }
  EXPECT_EQ(expected, zeltest::ReadLog("zellog.log"));
}

TEST_F(MessagesTest, NothingOfADefinitionIsNeededAfterwards) {
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  char name[] = "NAME", first[] = "first", second[] = "second", source[] = "source";
  const char* arguments[] = {first, second, nullptr};
  const int32_t handle = __ZelGetLoggerHandle(source);
  ZelLogMessage message = {name, arguments, 0, handle};
  const uint32_t id = __ZelRegisterLogMessage2(&message);
  for (char* text : {name, first, second, source}) std::memset(text, '?', 3);
  std::memset(arguments, 0, sizeof arguments);
  message = {};
  zelrt::Log(ZELLOG_SEVERITY_INFO, id, 1, 2);
  std::string expected = zeltest::RecordText(
      1, "NAME", "INFO", "\n\t\t<arg name='first'>1</arg>\n\t\t<arg name='second'>2</arg>");
  expected.replace(expected.find("zelrt"), 5, "source");
  EXPECT_EQ(zeltest::LogStart("a") + expected, zeltest::ReadLog("log"));
}

TEST_F(MessagesTest, ThereAreFifteenSourcesForEver) {
  EXPECT_EQ(-1, __ZelGetLoggerHandle("early")) << "no log file has been opened";
  EXPECT_EQ(0u, __ZelReleaseLoggerHandle(0, "zelrt"));
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  EXPECT_EQ(-1, __ZelGetLoggerHandle(nullptr));
  for (int32_t handle = 1; handle <= 15; ++handle) EXPECT_EQ(handle, __ZelGetLoggerHandle("coll"));
  EXPECT_EQ(-1, __ZelGetLoggerHandle("coll"));
  const struct {
    int32_t handle;
    const char* name;
    uint32_t released;
  } rows[] = {{0, "zelrt", 0},     {-1, "coll", 0}, {16, "coll", 0},     {3, nullptr, 0},
              {3, "col", 0},       {3, "Coll", 0},  {3, "collector", 1}, {3, "collector", 0},
              {3, "collector", 0}, {4, "coll", 1},  {INT32_MAX, "", 0},  {INT32_MIN, "coll", 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.released, __ZelReleaseLoggerHandle(row.handle, row.name)) << row.handle;
  }
  EXPECT_EQ(-1, __ZelGetLoggerHandle("coll"));
}

TEST_F(MessagesTest, RecordsOfAReleasedSourceNameNone) {
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  const uint32_t id = Register("M", __ZelGetLoggerHandle("tool"));
  zelrt::Log(ZELLOG_SEVERITY_INFO, id);
  EXPECT_EQ(0u, __ZelCreateLogger("a", "missing/log", 0));
  EXPECT_EQ(0u, __ZelReleaseLoggerHandle(1, "tool")) << "no log file is open";
  EXPECT_EQ(2, __ZelGetLoggerHandle("late")) << "but one has been";
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 1));
  EXPECT_EQ(1u, __ZelReleaseLoggerHandle(1, "tool"));
  zelrt::Log(ZELLOG_SEVERITY_INFO, id);
  EXPECT_EQ(15u, Register("N", 1)) << "a released source is still one";
  std::string with = zeltest::RecordText(1, "M", "INFO");
  std::string without = zeltest::RecordText(2, "M", "INFO");
  with.replace(with.find("zelrt"), 5, "tool");
  without.erase(without.find("zelrt"), 5);
  EXPECT_EQ(zeltest::LogStart("a") + with + without, zeltest::ReadLog("log"));
}

}  // namespace
