// What heapscope says of a program that knows the truth.

#include <gtest/gtest.h>

#include <sstream>

#include "tests/heapscope/result_files.h"

namespace {

// The sites whose innermost frame lies in that part of the program's file.
std::string SitesIn(uint64_t start, uint64_t stop, const std::string& file) {
  const std::string program = Ask(file, "//module[path=//process/executable]/@id");
  std::string predicate;
  std::istringstream offsets(AskAll(file, "//site/frame[1][@module='" + program + "']/@offset"));
  for (std::string attribute; offsets >> attribute;) {
    const std::string offset = attribute.substr(8, attribute.size() - 9);  // offset="0x..."
    const uint64_t value = std::stoull(offset, nullptr, 16);
    if (value >= start && value < stop)
      predicate +=
          (predicate.empty() ? "frame[1]/@offset='" : " or frame[1]/@offset='") + offset + "'";
  }
  return "//site[" + (predicate.empty() ? "false()" : predicate) + "]/";
}

class TruthTest : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Stacks, TruthTest, testing::Values("unwind", "fp", "caller"));

TEST_P(TruthTest, EverySiteIsCountedToTheByte) {
  const std::string mode = GetParam();
  const RunWithFiles run({TRUTH}, {"-stack", mode});
  ASSERT_EQ(0, ExitStatus(run.GetOutcome()));
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  std::istringstream truth(run.GetOutcome().output);
  int places = 0;
  uint64_t start, stop;
  for (Amounts allocated, live;
       truth >> start >> stop >> allocated.blocks >> allocated.bytes >> live.blocks >> live.bytes;
       ++places) {
    const std::string sites = SitesIn(start, stop, file);
    EXPECT_EQ(allocated, AskAmounts(file, sites + "allocated")) << places;
    EXPECT_EQ(live, AskAmounts(file, sites + "live")) << places;
    EXPECT_EQ((Amounts{allocated.blocks - live.blocks, allocated.bytes - live.bytes}),
              AskAmounts(file, sites + "freed"))
        << places;
    // The places are called from one function each: there is a second frame, or none is asked for.
    const bool hasCallers = Ask(file, sites + "frame[2]/@module") != "";
    EXPECT_EQ(mode != "caller", hasCallers) << places;
    EXPECT_LE(live.bytes, AskNumber(file, "sum(" + sites + "peak/@bytes)"));
  }
  EXPECT_EQ(4, places);
  for (const char* const amount : {"allocated", "freed", "live"}) {
    EXPECT_EQ(AskAmounts(file, std::string("//totals/") + amount),
              AskAmounts(file, std::string("//site/") + amount));
  }
}

}  // namespace
