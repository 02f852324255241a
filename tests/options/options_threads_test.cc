// The tables are everybody's. Each thread has a parser, which no other disturbs.

#include <gtest/gtest.h>

#include <numeric>
#include <string>

#include "tests/support/threads.h"
#include "zelrt/options.h"

TEST(OptionsThreadsTest, TablesTakeWhatTheyHoldAndNoMore) {
  uint32_t registered[16] = {};
  zeltest::OnEachThread(16, [&](int thread) {
    const std::string value = std::to_string(thread);
    const uint32_t parser = __ZelGetOptionParser("tool");
    for (int i = 0; i < 20; ++i) {  // together more than there is room for
      const std::string name = '-' + std::to_string(i);
      const char* const arguments[] = {name.c_str(), value.c_str()};
      const uint32_t option = __ZelRegisterIntegerOption(parser, arguments[0], "", -1, 0, 1);
      if (option == ZEL_INVALID_OPTION) continue;
      registered[thread] += __ZelParseOptions2(parser, 2, arguments);
      EXPECT_EQ(thread, __ZelGetIntegerOptionValue(parser, option));
    }
    EXPECT_EQ(1u, __ZelReleaseOptionParserHandle(parser, "tool"));
  });
  EXPECT_EQ(256u, std::accumulate(registered, registered + 16, 0u));
  for (const char* name : {"-o", "-o", "o"}) {  // slots are not used again
    EXPECT_EQ(ZEL_INVALID_OPTION_PARSER, __ZelGetOptionParser(name));
    EXPECT_EQ(ZEL_INVALID_OPTION, __ZelRegisterBooleanOption(0, name, "", 0, 0, 0));
  }
}
