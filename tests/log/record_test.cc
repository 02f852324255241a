#include <gtest/gtest.h>

#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

using zeltest::RecordText;

template <typename T>
concept IsLoggable = requires(T value) {
  zelrt::ToLogArgument(value);
};
static_assert(IsLoggable<const char*> && IsLoggable<std::string> && IsLoggable<char[4]>);
static_assert(IsLoggable<int> && IsLoggable<short> && IsLoggable<unsigned long long>);
static_assert(IsLoggable<void*> && IsLoggable<const int*>);
static_assert(!IsLoggable<int64_t> && !IsLoggable<double> && !IsLoggable<float>);

class RecordTest : public testing::Test {
 protected:
  void SetUp() override {
    zelhost::Install();
    __ZelRtStartup();
    ASSERT_EQ(1u, __ZelCreateLogger("mytool", "log", 0));
  }
  static uint32_t Register(const char* name, const char* const* argumentNames, uint32_t flags = 0) {
    const ZelLogMessage message = {name, argumentNames, flags, 0};
    return __ZelRegisterLogMessage2(&message);
  }
  static void ExpectLog(const std::string& records) {
    EXPECT_EQ(zeltest::LogStart("mytool") + records, zeltest::ReadLog("log"));
  }

  static constexpr const char* kOneName[] = {"one", nullptr};
  static constexpr const char* kThreeNames[] = {"one", "two", "three", nullptr};
  zeltest::TemporaryDirectory directory_;
};

uint64_t Format(const char* format) { return reinterpret_cast<uint64_t>(format); }

TEST_F(RecordTest, ASmallLog) {
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_FAIL_OPEN_FILE, 0, ZELLOG_ARG_STRING,
                   "/tmp/a&b");
  EXPECT_EQ(0, __ZelLogCommentInternal("%s", "started"));
  __ZelCloseLogger();
  ExpectLog(
      RecordText(1, "FAIL_OPEN_FILE", "ERROR", "\n\t\t<arg name='filename'>/tmp/a&amp;b</arg>") +
      "\n\t<!-- started -->\n</log>");
  EXPECT_TRUE(!zeltest::HasXmllint() || zeltest::XmllintAccepts("log"));
}

TEST_F(RecordTest, EachKindHasItsForm) {
  const uint32_t comment = Register("C", kOneName, ZELLOG_FLAG_COMMENT);
  const uint32_t text = Register("<T>", kOneName, ZELLOG_FLAG_TEXT);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, comment, 1, Format("x=%d"), 5);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, text, 0, Format("a--%s"), "<b>");
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, 127, 0, Format("id %u"), 127);
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, 128, 0, Format("id %u"), 128);
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, 0xFFFFFFFF, 0, Format("no id"));
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_COMMENT, 0, Format("bare"));
  __ZelLogInternal(3, ZELLOG_MSG_BAD_OPTION, 0, ZELLOG_ARG_STRING, "'\"");
  __ZelLogInternal(0xFFFFFFFF, ZELLOG_MSG_OUT_OF_MEMORY, 0, 0);
  ExpectLog("\n\t<!-- x=5 -->" + RecordText(1, "&lt;T&gt;", "INFO", "\n\t\t<!-- a-<b> -->") +
            "\n\t<!-- id 127 -->\n\t<!-- id 128 -->\n\t<!-- no id -->\n\t<!-- bare -->" +
            RecordText(2, "BAD_OPTION", "ERROR", "\n\t\t<arg name='option'>&apos;&quot;</arg>") +
            RecordText(3, "OUT_OF_MEMORY", "ERROR"));
}

TEST_F(RecordTest, RecordsAreMarkedNotForDisplay) {
  const uint32_t hidden = Register("HIDDEN", nullptr, ZELLOG_FLAG_NO_DISPLAY);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, hidden, 0, 0);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, ZELLOG_MSG_INTERNAL, 4, Format("t"));
  std::string expected =
      RecordText(1, "HIDDEN", "INFO") + RecordText(2, "INTERNAL", "INFO", "\n\t\t<!-- t -->");
  for (const char* id : {"'1'", "'2'"}) {
    expected.insert(expected.find(id) + 3, " display='false'");
  }
  ExpectLog(expected);
}

TEST_F(RecordTest, AnUnknownTagLeavesTheRestEmpty) {
  const uint32_t three = Register("THREE", kThreeNames);
  const uint64_t marked = 0xDEADBEEF00000000u;  // the upper half says nothing
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, three, 0, marked | ZELLOG_ARG_INT, -1, ZELLOG_ARG_ULONG,
                   UINT64_MAX, ZELLOG_ARG_POINTER, uint64_t{0xAB});
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, three, 0, 7, "x", ZELLOG_ARG_INT, 1, ZELLOG_ARG_INT, 2);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, three, 0, ZELLOG_ARG_STRING, nullptr, 7, "x",
                   ZELLOG_ARG_INT, 2);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, three, 0, ZELLOG_ARG_INT, 1, ZELLOG_ARG_STRING, "&", 7);
  const auto arguments = [](const char* one, const char* two, const char* last) {
    return std::string("\n\t\t<arg name='one'>") + one + "</arg>\n\t\t<arg name='two'>" + two +
           "</arg>\n\t\t<arg name='three'>" + last + "</arg>";
  };
  ExpectLog(RecordText(1, "THREE", "INFO", arguments("-1", "18446744073709551615", "0xab")) +
            RecordText(2, "THREE", "INFO", arguments("", "", "")) +
            RecordText(3, "THREE", "INFO", arguments("", "", "")) +
            RecordText(4, "THREE", "INFO", arguments("1", "&amp;", "")));
}

TEST_F(RecordTest, ArgumentsFindTheirTagsByTheirTypes) {
  static constexpr const char* kNames[] = {"a", "b", "c", "d", "e", "f", "g", "h", nullptr};
  const uint32_t id = Register("TYPES", kNames);
  const std::string text = "<string>";
  const int number = -3;
  zelrt::Log(ZELLOG_SEVERITY_WARNING, id, text, "literal", number, static_cast<short>(-2), true,
             UINT64_MAX, reinterpret_cast<const int*>(0x10), static_cast<void*>(nullptr));
  zelrt::Log(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_BAD_ARGUMENT, static_cast<const char*>(nullptr));
  zelrt::Log(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_OUT_OF_MEMORY);
  std::string arguments;
  const char* const values[] = {"&lt;string&gt;",       "literal", "-3",   "-2", "1",
                                "18446744073709551615", "0x10",    "(nil)"};
  for (size_t i = 0; i < std::size(values); ++i) {
    arguments += std::string("\n\t\t<arg name='") + kNames[i] + "'>" + values[i] + "</arg>";
  }
  ExpectLog(RecordText(1, "TYPES", "WARNING", arguments) +
            RecordText(2, "BAD_ARGUMENT", "ERROR", "\n\t\t<arg name='option'></arg>") +
            RecordText(3, "OUT_OF_MEMORY", "ERROR"));
}

}  // namespace
