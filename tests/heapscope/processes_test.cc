// Forks, other ways to make processes, and the ends of a process.

#include <gtest/gtest.h>
#include <signal.h>

#include <set>
#include <sstream>

#include "tests/heapscope/heapscope_run.h"

namespace {

TEST(ProcessesTest, ForksBesideAllocationsNeitherHangNorMiscount) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const HeapscopeRun run = RunPart("Forks");
  EXPECT_EQ(0, run.GetOutcome().status) << run.GetOutcome().errors;
  const std::vector<Summary>& summaries = run.Summaries();
  ASSERT_LE(201u, summaries.size());
  std::set<int> processes;
  int childrenOfMain = 0;
  for (const auto& [name, process, forkedFrom, figures, irregularities] : summaries) {
    EXPECT_EQ("heapscope_subject", name);
    EXPECT_TRUE(processes.insert(process).second);
    EXPECT_EQ(Figures(), irregularities);
    if (forkedFrom == 0) continue;
    // A child has what it did itself, on top of what was live.
    EXPECT_EQ(summaries.back().process, forkedFrom);
    EXPECT_EQ((Numbers{10, 1045}), figures.at("allocated"));
    const bool isChildOfMain = figures.at("free") == Numbers{6};
    childrenOfMain += isChildOfMain;
    const Numbers freed = isChildOfMain ? Numbers{6, 510 + 33} : Numbers{5, 510};
    const Numbers& inherited = figures.at("inherited");
    EXPECT_EQ(freed, figures.at("freed"));
    EXPECT_LE(200, inherited[0]);
    EXPECT_EQ((Numbers{inherited[0] + 10 - freed[0], inherited[1] + 1045 - freed[1]}),
              figures.at("live at end"));
  }
  EXPECT_EQ(200, childrenOfMain);
  EXPECT_EQ(0, summaries.back().forkedFrom);

  run.ExpectAllAreValid();
  const std::vector<std::string> results = run.Files("xml"), logs = run.Files("log");
  EXPECT_EQ(summaries.size(), results.size());
  EXPECT_EQ(summaries.size(), logs.size());
  std::vector<std::string> arguments = {"xmllint", "--xpath",
                                        "//msg[position()>1]/type[.!='VALUES']/text()"};
  arguments.insert(arguments.end(), logs.begin(), logs.end());
  std::istringstream answer(RunCommand({.arguments = arguments}).output);
  size_t ends = 0;
  for (std::string type; answer >> type; ++ends) EXPECT_EQ("PROCESS_ENDED", type);
  EXPECT_EQ(logs.size(), ends);

  // Sites too go on with what was live.
  for (const std::string amount : {"inherited", "allocated", "freed", "live"})
    EXPECT_EQ(AskAmounts(results[0], "//totals/" + amount),
              AskAmounts(results[0], "//site/" + amount))
        << amount;
}

TEST(ProcessesTest, AForkThatWaitsForAnAllocatingThreadGoesOn) {
  const HeapscopeRun run = RunPart("ForkBesideFlush");
  EXPECT_EQ(0, run.GetOutcome().status) << run.GetOutcome().errors;
  ASSERT_LE(1u, run.Summaries().size());
  EXPECT_LE(Numbers{200},
            run.Summaries().back().irregularities.at("calls not counted, because of a slow fork"));
}

// The collector's own destructors have run, its fork handlers must still be there.
TEST(ProcessesTest, AForkInALateDestructorHasCounts) {
  const HeapscopeRun run = RunPart("ForkInDestructor");
  EXPECT_EQ(0, run.GetOutcome().status) << run.GetOutcome().errors;
  ASSERT_EQ(2u, run.Summaries().size());
  EXPECT_EQ(run.Summaries()[1].process, run.Summaries()[0].forkedFrom);
}

TEST(ProcessesTest, AnExecReplacesTheCounts) {
  const Figures figures = RunPart("Exec").OnlySummary().figures;
  EXPECT_FALSE(figures.contains("16 KiB"));
  EXPECT_TRUE(figures.contains("pvalloc"));
}

// The parent allocates after its children are gone, and would have no summary left to say so.
TEST(ProcessesTest, AChildThatOnlyBorrowsTheMemoryWritesNothing) {
  EXPECT_EQ(1, RunPart("Vfork").OnlySummary().figures.at("16 KiB")[0]);
}

struct End {
  const char* part;
  int status;
  size_t results;
};
void PrintTo(const End& end, std::ostream* stream) { *stream << end.part; }

class EndsTest : public testing::TestWithParam<End> {};

TEST_P(EndsTest, StatusIsUnchangedAndAResultIsLeftIfThereCanBeOne) {
  const HeapscopeRun run = RunPart(GetParam().part);
  EXPECT_EQ(GetParam().status, run.GetOutcome().status);
  EXPECT_EQ("", run.GetOutcome().output + run.GetOutcome().errors);
  EXPECT_EQ(GetParam().results, run.Summaries().size());
  EXPECT_EQ(GetParam().results, run.Files("xml").size());
  EXPECT_NE(std::string::npos, zeltest::ReadFile(run.OnlyFile("log")).find("PROCESS_STARTED"));
}

INSTANTIATE_TEST_SUITE_P(Ends, EndsTest,
                         testing::Values(End{"ExitInThread", 7, 1}, End{"QuickExit", 8, 1},
                                         End{"ExitAtOnce", 9, 1}, End{"ExitAtOnceToo", 10, 1},
                                         End{"Abort", -SIGABRT, 0},
                                         End{"KillItself", -SIGKILL, 0}));

// What the handler interrupted may hold any lock that an allocation takes.
TEST(ProcessesTest, AProcessCanEndInASignalHandler) {
  for (int i = 0; i < 30; ++i) ASSERT_EQ(11, RunPart("ExitInHandler").GetOutcome().status);
}

}  // namespace
