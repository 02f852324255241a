// The result files and logs of heapscope -out, as xmllint reads them.

#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "tests/heapscope/result_files.h"

namespace {

TEST(ResultTest, SaysWhatTheSummarySays) {
  const RunWithFiles run({SUBJECT, "each-function"});
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  const Summary summary = run.Summaries().at(0);
  EXPECT_EQ(summary.process, AskNumber(file, "//process/id"));
  for (const char* const name : {"allocated", "freed"}) {
    const Amounts& amounts = summary.totals.at(name);
    for (const char* const parent : {"//totals/", "//size_class/", "//thread/"})
      EXPECT_EQ(amounts, AskAmounts(file, std::string(parent) + name)) << parent << name;
  }
  EXPECT_EQ(summary.totals.at("live at end"), AskAmounts(file, "//totals/live"));
  EXPECT_EQ(summary.totals.at("live at peak").bytes, AskNumber(file, "//totals/peak/@bytes"));
  for (const auto& [function, count] : summary.calls)
    EXPECT_EQ(count, AskNumber(file, "//call[@function='" + function + "']/@count")) << function;
}

TEST(ResultTest, EachThreadHasItsOwnCounts) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const RunWithFiles run({SUBJECT, "cross-threads"});
  const std::string file = run.OnlyFile("xml");
  EXPECT_EQ(5, AskNumber(file, "//threads/@seen"));
  EXPECT_EQ(5, AskNumber(file, "count(//thread)"));
  EXPECT_EQ(4, AskNumber(file, "count(//thread[allocated/@blocks=110000][freed/@blocks=109800])"));
  EXPECT_EQ(1, AskNumber(file, "count(//thread[@id=//process/id])"));
}

TEST(ResultTest, ThreadsBeyondTheTableShareAnEntry) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const RunWithFiles run({SUBJECT, "many-threads"});
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  EXPECT_EQ(1101, AskNumber(file, "//threads/@seen"));
  EXPECT_EQ(1023, AskNumber(file, "count(//thread[@id])"));
  EXPECT_EQ((Amounts{78, 7800}), AskAmounts(file, "//thread[not(@id)]/freed"));
  EXPECT_EQ(AskAmounts(file, "//totals/allocated"), AskAmounts(file, "//thread/allocated"));
}

TEST(ResultTest, EveryForkedProcessHasFilesOfItsOwn) {
  const RunWithFiles run({SUBJECT, "forks"});
  EXPECT_EQ(0, ExitStatus(run.GetOutcome()));
  run.ExpectAllAreValid();
  EXPECT_EQ(run.Summaries().size(), run.Files("xml").size());
  EXPECT_EQ(run.Summaries().size(), run.Files("log").size());
  std::vector<std::string> arguments = {"xmllint", "--xpath",
                                        "//msg[position()>1]/type[.!='VALUES']/text()"};
  for (const std::string& file : run.Files("log")) arguments.push_back(file);
  std::istringstream answer(RunCommand({.arguments = arguments}).output);
  size_t ends = 0;
  for (std::string type; answer >> type; ++ends) EXPECT_EQ("PROCESS_ENDED", type);
  EXPECT_EQ(run.Files("log").size(), ends);

  // Children go on with their parents' live blocks, and know where they came from.
  const std::string file = run.Files("xml").front();
  for (const char* const amount : {"inherited", "allocated", "freed", "live"}) {
    EXPECT_EQ(AskAmounts(file, std::string("//totals/") + amount),
              AskAmounts(file, std::string("//site/") + amount))
        << amount;
  }
}

TEST(ResultTest, TextFromOutsideIsCleaned) {
  const RunWithFiles run({"bash", "-c", ":",
                          "a\1b\xFF<&'\"\xED\xA0\x80\xC0\x80\xEF\xBF\xBF\xC3\xA9",
                          std::string(6000, '&')});
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  EXPECT_EQ("a?b?<&'\"????????\xC3\xA9", Ask(file, "//argument[4]"));
  EXPECT_EQ(std::string(4095, '&'), Ask(file, "//argument[5]"));
}

TEST(ResultTest, ChildrenAreWatchedOnRequest) {
  for (const size_t results : {1u, 2u}) {
    const RunWithFiles run({SUBJECT, "spawn-with-its-own-errors"},
                           results == 2 ? std::vector<std::string>{"-children"}
                                        : std::vector<std::string>{"-no-children"});
    EXPECT_EQ(results, run.Files("xml").size());
    EXPECT_EQ(results, run.Files("log").size());
  }
}

// A module that comes back, at another address perhaps, keeps its sites.
TEST(ResultTest, AModuleThatIsLoadedAgainIsTheSameModule) {
  const RunWithFiles run({SUBJECT, "load-and-unload"});
  run.ExpectAllAreValid();
  const std::string file = run.OnlyFile("xml");
  const std::string library = "//module[contains(path,'heapscope_plugin')]";
  EXPECT_EQ(1, AskNumber(file, "count(" + library + ")"));
  const std::string sites = "//site[frame[1]/@module=" + library + "/@id]";
  EXPECT_EQ(1, AskNumber(file, "count(" + sites + ")"));
  EXPECT_EQ((Amounts{5, 5 * 321}), AskAmounts(file, sites + "/allocated"));
}

TEST(LogTest, BeginsWithTheOptionsInForce) {
  const RunWithFiles run({SUBJECT, "nothing"}, {"-stack", "fp", "-depth", "7"});
  const std::string log = Contents(run.OnlyFile("log"));
  for (const char* const line :
       {"-stack                             fp", "-depth                             7"})
    EXPECT_NE(std::string::npos, log.find(line)) << line;
}

TEST(LogTest, EveryProblemHasARecordUntilThereAreTooMany) {
  const RunWithFiles few({SUBJECT, "edges"});
  few.ExpectAllAreValid();
  EXPECT_EQ(few.Summaries().at(0).irregularities.at("calls that failed"),
            AskNumber(few.OnlyFile("log"), "count(//msg[type='CALL_FAILED'])"));
  const RunWithFiles many({SUBJECT, "many-failures"});
  EXPECT_EQ("100 1", Ask(many.OnlyFile("log"),
                         "concat(count(//msg[type='CALL_FAILED']),' ',"
                         "count(//msg[type='PROBLEMS_LEFT_OUT']))"));
}

// Its log breaks off: xmllint is to take what is there.
TEST(LogTest, AKilledProcessLeavesItsLog) {
  const RunWithFiles run({SUBJECT, "kill-itself"});
  EXPECT_EQ(-SIGKILL, ExitStatus(run.GetOutcome()));
  EXPECT_NE(std::string::npos, Contents(run.OnlyFile("log")).find("PROCESS_STARTED"));
  EXPECT_EQ(0u, run.Files("xml").size());
}

// What the handler interrupted may hold any lock that an allocation takes.
TEST(LogTest, AProcessCanEndInASignalHandler) {
  for (int i = 0; i < 30; ++i) {
    const RunWithFiles run({SUBJECT, "exit-in-handler"});
    ASSERT_EQ(11, ExitStatus(run.GetOutcome()));
  }
}

TEST(LogTest, AProgramWithoutMemoryOrDescriptorsGoesOn) {
  for (const char* const part : {"run-out-of-memory", "take-all-descriptors"}) {
    const TemporaryDirectory directory;
    Command plain = {.arguments = {SUBJECT, part}};
    plain.variables = {"OWN_FILE=" + directory.File("own")};
    // With a second thread the C library looks for memory in ways that leave errno changed.
    Command counted = UnderHeapscope(
        {"-no-channel", "-out", directory.File("files"), "-summary", directory.File("summary")},
        plain.arguments);
    counted.variables = plain.variables;
    EXPECT_EQ(0, ExitStatus(RunCommand(counted))) << part;
    EXPECT_EQ("", Contents(directory.File("own")));
    size_t results = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.File("files")))
      results += entry.path().extension() == ".xml";
    EXPECT_LE(1u, results);
  }
}

}  // namespace
