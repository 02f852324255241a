#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/log/log_text.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace {

// The bits that are on, by the channels of the default map that have one bit each.
uint32_t EnabledMask() {
  uint32_t mask = 0;
  uint32_t bit = 1;
  for (uint32_t channel = 1; channel <= 25; ++channel) {
    if (channel == 10 || channel == 20) continue;
    mask |= __ZelIsDbgDumpEnabled(channel) * bit;
    bit <<= 1;
  }
  return mask;
}

TEST(DebugChannelsTest, OptionsSwitchChannels) {
  // Option, result, and what is on then, with everything off before.
  std::istringstream rows(
      "api,mem 1 5  api,mem,no-mem 1 1  ALL,No-Zelet 1 7c01ff  api,,mem, 1 4  api,C 1 3 "
      "0X8g 1 8  0xFFFFFFFF 1 7fffff  0 0 0  0y12 0 0  0x 0 0  0,mem 0 0  api,bogus,mem 0 1 "
      "dotnet 1 40000  dotnet_m,no-d 1 100000  api,no 1 0  api,no-n 1 1  api,no- 0 1  apix 0 0");
  std::string option;
  uint32_t result, mask;
  EXPECT_EQ(0u, EnabledMask()) << "at first all is off";
  while (rows >> option >> result >> std::hex >> mask) {
    EXPECT_EQ(result, __ZelParseDbgDumpOption(option.c_str())) << option;
    EXPECT_EQ(mask, EnabledMask()) << option;
    EXPECT_EQ(1u, __ZelParseDbgDumpOption("0x0"));
  }
  EXPECT_EQ("apix", option) << "that is the last row";
  EXPECT_EQ(1u, __ZelParseDbgDumpOption(""));
  EXPECT_EQ(0u, EnabledMask());
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
}

TEST(DebugChannelsTest, DumpsAreCommentsOfChannelAndThread) {
  const zeltest::TemporaryDirectory directory;
  __ZelSetGetNativeThreadIdProc([] { return uint64_t{42}; });
  __ZelRtStartup();
  ASSERT_EQ(1u, __ZelCreateLogger("a", "log", 0));
  __ZelDbgMessageDumpInternal(3, "off");
  __ZelParseDbgDumpOption("mem,dotnet_gc");
  __ZelDbgMessageDumpInternal(3, "%c", 'x');
  __ZelDbgMessageDumpInternal(21, "y%s", std::string(2'000, 'z').c_str());
  __ZelDbgMessageDumpInternal(28, "no channel");
  EXPECT_EQ(zeltest::LogStart("a") +
                "\n\t<!-- [MEM ] [42   ] x -->"
                "\n\t<!-- [DOTNET_GC] [42   ] y" +
                std::string(1'021, 'z') + " -->",
            zeltest::ReadLog("log"));
}

}  // namespace
