#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

constexpr uint32_t kMem = 3;
constexpr uint32_t kAll = 27;

// What is on, bit by bit, as a map of 32 channels shows it. That map stays in force.
uint32_t EnabledMask() {
  static ZelDbgMapEntry bits[33] = {};
  for (uint32_t i = 0; i < 32; ++i) bits[i] = {uint64_t{1} << i, "bit"};
  __ZelDbgRegisterDbgMap(bits);
  uint32_t mask = 0;
  for (uint32_t i = 0; i < 32; ++i) mask |= __ZelIsDbgDumpEnabled(i) << i;
  return mask;
}

TEST(DebugChannelsTest, OptionsSwitchChannels) {
  const struct {
    const char* options;  // several are separated by blanks
    const char* results;
    uint32_t mask;
  } rows[] = {{"api,mem", "1", 0x5},
              {"api,mem no-mem", "11", 0x1},
              {"all,no-zelet", "1", 0x7c01ff},
              {"ALL,No-ZelCore", "1", 0x7ffe00},
              {"0x80", "1", 0x80},
              {"0X8g 0x1", "11", 0x9},
              {"all 0x0", "11", 0},
              {"0xFFFFFFFF", "1", 0xFFFFFFFF},
              {"api 0 0y12 0x 0xg 0,mem", "100000", 0x1},
              {"api,bogus,mem", "0", 0x1},
              {"api,,mem", "1", 0x4},
              {"api ,mem", "11", 0x4},
              {"api,mem,", "1", 0x5},
              {"C", "1", 0x2},
              {"D", "1", 0x40000},
              {"dotnet", "1", 0x40000},
              {"dotnet_m,no-d", "1", 0x100000},
              {"api,no", "1", 0},
              {"api,no- mem", "01", 0x5},
              {"api,no-n", "1", 0x1},
              {"apix", "0", 0},
              {"no-bogus", "0", 0}};
  for (const auto& row : rows) {
    const auto child = zeltest::RunInChild([&row] {
      const std::string options = row.options;
      for (size_t start = 0; start != std::string::npos;) {
        const size_t end = options.find(' ', start);
        std::printf("%u", __ZelParseDbgDumpOption(options.substr(start, end - start).c_str()));
        start = end == std::string::npos ? end : end + 1;
      }
      std::printf(" %x", EnabledMask());
    });
    char expected[64];
    std::snprintf(expected, sizeof expected, "%s %x", row.results, row.mask);
    EXPECT_EQ(expected, child.output) << row.options;
  }
}

TEST(DebugChannelsTest, AllChannelsAreOffAtFirst) {
  for (uint32_t channel = 0; channel < 40; ++channel) EXPECT_EQ(0u, __ZelIsDbgDumpEnabled(channel));
  EXPECT_EQ(0u, __ZelParseDbgDumpOption(nullptr));
  EXPECT_EQ(1u, __ZelParseDbgDumpOption(""));
  EXPECT_EQ(1u, __ZelParseDbgDumpOption("0xFFFFFFFF"));
  EXPECT_EQ(0u, __ZelIsDbgDumpEnabled(0)) << "nothing switches NONE on";
  for (uint32_t channel = 1; channel <= kAll; ++channel) {
    EXPECT_EQ(1u, __ZelIsDbgDumpEnabled(channel)) << channel;
  }
  EXPECT_EQ(0u, __ZelIsDbgDumpEnabled(kAll + 1));
}

TEST(DebugChannelsTest, AMapOfTheClientCountsUpTo32Entries) {
  static ZelDbgMapEntry map[34] = {};
  for (ZelDbgMapEntry& entry : map) entry = {0xF00000002u, "SAME"};
  map[1] = {0x1, "NO-SUCH"};
  EXPECT_EQ(0u, __ZelDbgRegisterDbgMap(nullptr));
  EXPECT_EQ(1u, __ZelDbgRegisterDbgMap(map));
  EXPECT_EQ(1u, __ZelParseDbgDumpOption("no-such,sa"));
  EXPECT_EQ(1u, __ZelIsDbgDumpEnabled(1)) << "a name that looks negated";
  EXPECT_EQ(1u, __ZelIsDbgDumpEnabled(31));
  EXPECT_EQ(0u, __ZelIsDbgDumpEnabled(32));
  EXPECT_EQ(3u, EnabledMask());
}

TEST(DebugChannelsTest, DumpsAreCommentsOfChannelAndThread) {
  const zeltest::TemporaryDirectory directory;
  __ZelSetGetNativeThreadIdProc([] { return uint64_t{42}; });
  __ZelRtStartup();
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  __ZelDbgMessageDumpInternal(kMem, "off");
  __ZelParseDbgDumpOption("mem,dotnet_gc");
  __ZelDbgMessageDumpInternal(kMem, "%c", 'x');
  __ZelDbgMessageDumpInternal(21, "y%s", std::string(2'000, 'z').c_str());
  __ZelDbgMessageDumpInternal(28, "no channel");
  EXPECT_EQ(zeltest::LogStart("a") +
                "\n\t<!-- [MEM ] [42   ] x -->"
                "\n\t<!-- [DOTNET_GC] [42   ] y" +
                std::string(1'021, 'z') + " -->",
            zeltest::ReadLog("log"));
}

}  // namespace
