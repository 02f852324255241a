// What heapscope says of a program that knows the truth.

#include <gtest/gtest.h>

#include <sstream>

#include "tests/heapscope/heapscope_run.h"

namespace {

// The sites whose innermost frame lies in that part of the program's file.
std::string SitesIn(uint64_t start, uint64_t stop, const std::string& file) {
  const std::string program = Ask(file, "//module[path=//process/executable]/@id");
  std::string predicate;
  const std::string frames = "//site/frame[1][@module='" + program + "']/@offset";
  std::istringstream offsets(
      RunCommand({.arguments = {"xmllint", "--xpath", frames, file}}).output);
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
  const HeapscopeRun run({TRUTH}, {"-stack", mode});
  const Summary summary = run.OnlySummary();
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  std::istringstream truth(run.GetOutcome().output);
  int places = 0;
  uint64_t start, stop;
  for (Numbers allocated(2), live(2);
       truth >> start >> stop >> allocated[0] >> allocated[1] >> live[0] >> live[1]; ++places) {
    SCOPED_TRACE(places);
    const std::string sites = SitesIn(start, stop, file);
    EXPECT_EQ(allocated, AskAmounts(file, sites + "allocated"));
    EXPECT_EQ(live, AskAmounts(file, sites + "live"));
    EXPECT_EQ((Numbers{allocated[0] - live[0], allocated[1] - live[1]}),
              AskAmounts(file, sites + "freed"));
    // The places are called from one function each: there is a second frame, or none is asked for.
    const bool hasCallers = Ask(file, sites + "frame[2]/@module") != "";
    EXPECT_EQ(mode != "caller", hasCallers);
    EXPECT_LE(live[1], AskNumber(file, "sum(" + sites + "peak/@bytes)"));
  }
  EXPECT_EQ(4, places);

  for (const std::string parent : {"//totals/", "//site/", "//size_class/", "//thread/"}) {
    EXPECT_EQ(summary.figures.at("allocated"), AskAmounts(file, parent + "allocated")) << parent;
    EXPECT_EQ(summary.figures.at("freed"), AskAmounts(file, parent + "freed")) << parent;
  }
  EXPECT_EQ(summary.figures.at("live at end"), AskAmounts(file, "//totals/live"));
  EXPECT_EQ(summary.figures.at("live at end"), AskAmounts(file, "//site/live"));
  EXPECT_EQ(Figures(), summary.irregularities);
  EXPECT_EQ("5 5 4 1", Ask(file,
                           "concat(//threads/@seen,' ',count(//thread),' ',"
                           "count(//thread[allocated/@blocks=210011]),' ',"
                           "count(//thread[@id=//process/id]))"));
}

}  // namespace
