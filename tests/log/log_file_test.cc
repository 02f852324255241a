// The log file: what opens it, what survives, and the records in it.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "host/host.h"
#include "tests/log/log_text.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

using zeltest::LogStart;
using zeltest::ReadLog;
using zeltest::RecordText;

class LogFileTest : public testing::Test {
 protected:
  void SetUp() override { zelhost::Install(); }

  static void Log() { zelrt::Log(ZELLOG_SEVERITY_WARNING, ZELLOG_MSG_COLLECT_MEMORY); }
  static std::string Logged(unsigned number) {
    return RecordText(number, "COLLECT_MEMORY", "WARNING");
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(LogFileTest, WithoutOneARecordOpensTheDefaultOneOnceThereIsAStartUp) {
  EXPECT_EQ(0u, __ZelCreateLogger("a", "log", 0));
  __ZelLogCommentInternal("lost");
  __ZelCloseLogger();
  EXPECT_TRUE(std::filesystem::is_empty("."));
  __ZelRtStartup();
  EXPECT_EQ(0u, __ZelCreateLogger(nullptr, "log", 0) + __ZelCreateLogger("a", nullptr, 0));
  ASSERT_EQ(0, mkdir("zellog.log", 0700));
  Log();  // is lost, and takes no number
  EXPECT_EQ(0u, __ZelIsLoggerInitialized() + __ZelReopenLogger());
  ASSERT_EQ(0, rmdir("zellog.log"));
  zeltest::WriteFile("zellog.log", "of an earlier run");
  Log();
  EXPECT_EQ(1u, __ZelIsLoggerInitialized());
  __ZelCloseLogger();
  __ZelLogCommentInternal("late");
  EXPECT_EQ(LogStart("zelrt") + Logged(1) + "\n</log>\n<!-- late -->", ReadLog("zellog.log"));
}

TEST_F(LogFileTest, ANewLogFileTakesOver) {
  __ZelRtStartup();
  const auto before = zeltest::OpenDescriptors();
  ASSERT_EQ(1u, __ZelCreateLogger("a", "first", 0));
  close(zeltest::DescriptorOpenedSince(before));
  EXPECT_EQ(1u, __ZelReopenLogger());
  Log();
  ASSERT_EQ(1u, __ZelCreateLogger("b", "/dev/full", 0));
  Log();
  ASSERT_EQ(1u, __ZelCreateLogger("c", "first", 1));
  Log();
  __ZelCloseLogger();
  EXPECT_EQ(LogStart("a") + Logged(1) + Logged(3) + "\n</log>", ReadLog("first"));
  EXPECT_EQ(0u, __ZelCreateLogger("d", "missing/log", 0));
  EXPECT_EQ(0u, __ZelIsLoggerInitialized());
  Log();
  EXPECT_EQ(LogStart("zelrt") + Logged(4), ReadLog("zellog.log"));
}

// A child logs, and tells the number of each record once its call has returned, until it is killed.
TEST_F(LogFileTest, RecordsWhoseCallReturnedSurviveAKill) {
  std::minstd_rand random(1);
  for (int run = 0; run < 50; ++run) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
      __ZelRtStartup();
      __ZelCreateLogger("a", "log", 0);
      for (unsigned number = 1;; ++number) {
        Log();
        if (write(ends[1], &number, sizeof number) != sizeof number) _exit(1);
      }
    }
    close(ends[1]);
    unsigned last = 0;
    // Killed after a number that was told, or a little later.
    const auto enough = static_cast<unsigned>(1 + random() % 300);
    while (last < enough) ASSERT_EQ(ssize_t{sizeof last}, read(ends[0], &last, sizeof last));
    usleep(static_cast<useconds_t>(random() % 200));
    kill(child, SIGKILL);
    for (unsigned next; read(ends[0], &next, sizeof next) == sizeof next;) last = next;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    std::string expected = LogStart("a");
    for (unsigned number = 1; number <= last; ++number) expected += Logged(number);
    EXPECT_EQ(expected, ReadLog("log").substr(0, expected.size())) << run;
  }
}

// With a log file open.
class MessagesTest : public LogFileTest {
 protected:
  void SetUp() override {
    LogFileTest::SetUp();
    __ZelRtStartup();
    ASSERT_EQ(1u, __ZelCreateLogger("mytool", "log", 0));
  }
  static uint32_t Register(const char* name, int32_t source = 0,
                           const char* const* argumentNames = nullptr, uint32_t flags = 0) {
    const ZelLogMessage message = {name, argumentNames, flags, source};
    return __ZelRegisterLogMessage(&message);
  }
  static void ExpectLog(const std::string& records) {
    EXPECT_EQ(LogStart("mytool") + records, ReadLog("log"));
  }
  static std::string Argument(const std::string& name, const std::string& value) {
    return "\n\t\t<arg name='" + name + "'>" + value + "</arg>";
  }
};

template <typename T>
constexpr bool kIsLoggable = requires(T value) {
  zelrt::ToLogArgument(value);
};
static_assert(kIsLoggable<char[4]> && kIsLoggable<short> && kIsLoggable<const int*>);
static_assert(!kIsLoggable<int64_t> && !kIsLoggable<double>);

uint64_t Format(const char* format) { return reinterpret_cast<uint64_t>(format); }

TEST_F(MessagesTest, EachKindHasItsForm) {
  static constexpr const char* kNames[] = {"one", nullptr};
  const uint32_t comment = Register("C", 0, kNames, ZELLOG_FLAG_COMMENT);
  const uint32_t text = Register("<T>", 0, kNames, ZELLOG_FLAG_TEXT);
  const uint32_t hidden = Register("H", 0, nullptr, ZELLOG_FLAG_NO_DISPLAY);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, comment, 1, Format("x=%d"), 5);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, text, 0, Format("a--%s"), "<b>");
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, 127, 0, Format("id %u"), 127);
  __ZelLogInternal(ZELLOG_SEVERITY_WARNING, 0xFFFFFFFF, 0, Format("no id"));
  zelrt::Log(ZELLOG_SEVERITY_WARNING, 0xFFFFFFFF, "arguments of what could not be registered");
  __ZelLogInternal(3, ZELLOG_MSG_BAD_OPTION, 0, ZELLOG_ARG_STRING, "'\"");
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, hidden, 0, 0);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, ZELLOG_MSG_INTERNAL, 4, Format("t"));
  __ZelCloseLogger();
  std::string shown =
      RecordText(3, "H", "INFO") + RecordText(4, "INTERNAL", "INFO", "\n\t\t<!-- t -->");
  for (const char* id : {"'3'", "'4'"}) shown.insert(shown.find(id) + 3, " display='false'");
  ExpectLog("\n\t<!-- x=5 -->" + RecordText(1, "&lt;T&gt;", "INFO", "\n\t\t<!-- a-<b> -->") +
            "\n\t<!-- id 127 -->\n\t<!-- no id -->\n\t<!--  -->" +
            RecordText(2, "BAD_OPTION", "ERROR", Argument("option", "&apos;&quot;")) + shown +
            "\n</log>");
  const bool hasXmllint = std::system("xmllint --version >/dev/null 2>&1") == 0;
  EXPECT_TRUE(!hasXmllint || std::system("xmllint --noout log") == 0);
}

TEST_F(MessagesTest, AnUnknownTagLeavesTheRestEmpty) {
  static constexpr const char* kNames[] = {"a", "b", "c", nullptr};
  const uint32_t id = Register("M", 0, kNames);
  const uint64_t marked = 0xDEADBEEF00000000u;  // the upper half says nothing
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, id, 0, marked | ZELLOG_ARG_INT, -1, ZELLOG_ARG_ULONG,
                   UINT64_MAX, ZELLOG_ARG_POINTER, uint64_t{0xAB});
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, id, 0, 7, "x", ZELLOG_ARG_INT, 1, ZELLOG_ARG_INT, 2);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, id, 0, ZELLOG_ARG_STRING, "&", 7, "x", ZELLOG_ARG_INT, 2);
  zelrt::Log(ZELLOG_SEVERITY_INFO, id, static_cast<const char*>(nullptr), short{-2}, true);
  zelrt::Log(ZELLOG_SEVERITY_INFO, id, std::string("<"), UINT64_MAX, static_cast<void*>(nullptr));
  std::string expected;
  unsigned number = 0;
  for (const auto& [a, b, c] : std::initializer_list<std::array<const char*, 3>>{
           {"-1", "18446744073709551615", "0xab"},
           {"", "", ""},
           {"&amp;", "", ""},
           {"", "-2", "1"},
           {"&lt;", "18446744073709551615", "(nil)"}}) {
    expected +=
        RecordText(++number, "M", "INFO", Argument("a", a) + Argument("b", b) + Argument("c", c));
  }
  ExpectLog(expected);
}

TEST_F(MessagesTest, TheTableTakes114MessagesBesideTheLibrarysOwn) {
  EXPECT_EQ(13u, ZELLOG_MSG_FAIL_READ_FILE_VERBOSE);
  char name[] = "M", argument[] = "a";
  const char* names[] = {argument, nullptr};
  for (uint32_t id = 14; id < 128; ++id) EXPECT_EQ(id, Register(name, 0, names));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, Register("M"));
  name[0] = argument[0] = '?';  // all was copied
  zelrt::Log(ZELLOG_SEVERITY_INFO, 127, 1);
  std::string expected = RecordText(1, "M", "INFO", Argument("a", "1"));
  for (unsigned number = 2; number <= 5; ++number) {  // invalid ones are reported
    const int32_t source = number == 2 ? -1 : number == 3 ? 1 : 0;
    EXPECT_EQ(ZEL_INVALID_LOG_MESSAGE, number == 5 ? __ZelRegisterLogMessage2(nullptr)
                                                   : Register(number == 4 ? nullptr : "M", source));
    expected +=
        RecordText(number, "INTERNAL", "ERROR",
                   "\n\t\t<!-- A valid message must be specified to register it with ZELRT -->");
  }
  ExpectLog(expected);
}

TEST_F(MessagesTest, ThereAreFifteenSourcesForEver) {
  EXPECT_EQ(-1, __ZelGetLoggerHandle(nullptr));
  char name[] = "coll";
  for (int32_t handle = 1; handle <= 15; ++handle) EXPECT_EQ(handle, __ZelGetLoggerHandle(name));
  name[0] = '?';  // it was copied
  const uint32_t id = Register("M", 3);
  zelrt::Log(ZELLOG_SEVERITY_INFO, id);
  const std::tuple<int32_t, const char*, uint32_t> rows[] = {
      {0, "zelrt", 0}, {-1, "coll", 0},     {16, "coll", 0},     {3, nullptr, 0},
      {3, "col", 0},   {3, "collector", 1}, {3, "collector", 0}, {4, "coll", 1}};
  for (const auto& [handle, given, released] : rows)
    EXPECT_EQ(released, __ZelReleaseLoggerHandle(handle, given)) << handle;
  EXPECT_EQ(-1, __ZelGetLoggerHandle("coll"));
  zelrt::Log(ZELLOG_SEVERITY_INFO, id);
  EXPECT_EQ(15u, Register("N", 3)) << "a released source is still one";
  ExpectLog(RecordText(1, "M", "INFO", "", "coll") + RecordText(2, "M", "INFO", "", ""));
  EXPECT_EQ(0u, __ZelCreateLogger("a", "missing/log", 0));
  EXPECT_EQ(0u, __ZelReleaseLoggerHandle(5, "coll")) << "no log file is open";
}

}  // namespace
