// The result files and logs of heapscope -out, as xmllint reads them.

#include <gtest/gtest.h>

#include "tests/heapscope/heapscope_run.h"

namespace {

TEST(ResultTest, SaysWhatTheSummarySays) {
  const HeapscopeRun run = RunPart("EachFunction");
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  const auto [name, process, forkedFrom, figures, irregularities] = run.OnlySummary();
  EXPECT_EQ(process, AskNumber(file, "//process/id"));
  EXPECT_EQ(figures.at("live at end"), AskAmounts(file, "//totals/live"));
  EXPECT_EQ(figures.at("live at peak"), Numbers{AskNumber(file, "//totals/peak/@bytes")});
  for (const char* const function : {"malloc", "pvalloc", "free"}) {
    const std::string count = std::string("//call[@function='") + function + "']/@count";
    EXPECT_EQ(figures.at(function), Numbers{AskNumber(file, count)}) << function;
  }
}

TEST(ResultTest, ThreadsBeyondTheTableShareAnEntry) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const HeapscopeRun run = RunPart("ManyThreads");
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  EXPECT_EQ(1101, AskNumber(file, "//threads/@seen"));
  EXPECT_EQ(1023, AskNumber(file, "count(//thread[@id])"));
  EXPECT_EQ((Numbers{78, 7800}), AskAmounts(file, "//thread[not(@id)]/freed"));
  EXPECT_EQ(AskAmounts(file, "//totals/allocated"), AskAmounts(file, "//thread/allocated"));
}

TEST(ResultTest, TextFromOutsideIsCleaned) {
  const HeapscopeRun run({"bash", "-c", ":",
                          "a\1b\xFF<&'\"\xED\xA0\x80\xC0\x80\xEF\xBF\xBF\xC3\xA9",
                          std::string(6000, '&')});
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  EXPECT_EQ("a?b?<&'\"????????\xC3\xA9", Ask(file, "//argument[4]"));
  EXPECT_EQ(std::string(4095, '&'), Ask(file, "//argument[5]"));
}

// A module that comes back, at another address perhaps, keeps its sites.
TEST(ResultTest, AModuleThatIsLoadedAgainIsTheSameModule) {
  const HeapscopeRun run = RunPart("LoadAndUnload");
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  const std::string library = "//module[contains(path,'heapscope_plugin')]";
  EXPECT_EQ(1, AskNumber(file, "count(" + library + ")"));
  const std::string sites = "//site[frame[1]/@module=" + library + "/@id]";
  EXPECT_EQ(1, AskNumber(file, "count(" + sites + ")"));
  EXPECT_EQ((Numbers{5, 5 * 321}), AskAmounts(file, sites + "/allocated"));
}

TEST(LogTest, BeginsWithTheOptionsInForce) {
  const HeapscopeRun run({SUBJECT, "Nothing"}, {"-stack", "fp", "-depth", "7"});
  const std::string log = zeltest::ReadFile(run.OnlyFile("log"));
  for (const char* const line :
       {"-stack                             fp", "-depth                             7"})
    EXPECT_NE(std::string::npos, log.find(line)) << line;
}

TEST(LogTest, EveryProblemHasARecordUntilThereAreTooMany) {
  const HeapscopeRun few = RunPart("Edges"), many = RunPart("ManyFailures");
  few.ExpectAllAreValid();
  const std::string counts =
      "concat(count(//msg[type='CALL_FAILED']),' ',count(//msg[type='PROBLEMS_LEFT_OUT']))";
  EXPECT_EQ("7 0", Ask(few.OnlyFile("log"), counts));
  EXPECT_EQ("100 1", Ask(many.OnlyFile("log"), counts));
}

}  // namespace
