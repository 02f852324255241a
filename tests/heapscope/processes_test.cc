// Forks, other ways to make processes, and the ends of a process.

#include <gtest/gtest.h>
#include <signal.h>

#include <set>

#include "tests/heapscope/run.h"
#include "tests/heapscope/summary_reader.h"

namespace {

constexpr char kProgram[] = "heapscope_subject";

struct PartRun {
  Outcome outcome;
  std::vector<Summary> summaries;
};

PartRun RunPart(const std::string& part) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  PartRun result;
  result.outcome = RunCommand(UnderHeapscope({"-children", "-summary", file}, {SUBJECT, part}));
  result.summaries = ReadSummaries(Contents(file));
  return result;
}

TEST(ProcessesTest, ForksBesideAllocationsNeitherHangNorMiscount) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const auto [outcome, summaries] = RunPart("forks");
  EXPECT_FALSE(outcome.timedOut);
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  ASSERT_LE(201u, summaries.size());

  std::set<int> processes;
  int64_t childrenOfMain = 0;
  for (const Summary& summary : summaries) {
    EXPECT_EQ(kProgram, summary.name);
    EXPECT_TRUE(processes.insert(summary.process).second);
    EXPECT_EQ((std::map<std::string, int64_t>()), summary.irregularities);
    if (summary.forkedFrom == 0) continue;
    // A child has what it did itself, on top of what was live.
    EXPECT_EQ(summaries.back().process, summary.forkedFrom);
    EXPECT_EQ(10, summary.calls.at("malloc"));
    EXPECT_EQ((Amounts{10, 1045}), summary.totals.at("allocated"));
    const bool isChildOfMain = summary.calls.at("free") == 6;
    childrenOfMain += isChildOfMain;
    const Amounts freed = isChildOfMain ? Amounts{6, 510 + 33} : Amounts{5, 510};
    const Amounts inherited = summary.totals.at("inherited");
    EXPECT_EQ(freed, summary.totals.at("freed"));
    EXPECT_LE(200, inherited.blocks);
    EXPECT_EQ((Amounts{inherited.blocks + 10 - freed.blocks, inherited.bytes + 1045 - freed.bytes}),
              summary.totals.at("live at end"));
  }
  EXPECT_EQ(200, childrenOfMain);
  EXPECT_EQ(0, summaries.back().forkedFrom);
}

TEST(ProcessesTest, AForkThatWaitsForAnAllocatingThreadGoesOn) {
  const auto [outcome, summaries] = RunPart("fork-beside-flush");
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  ASSERT_LE(1u, summaries.size());
  EXPECT_LE(200, summaries.back().irregularities.at("calls not counted, because of a slow fork"));
}

// The collector's own destructors have run, its fork handlers must still be there.
TEST(ProcessesTest, AForkInALateDestructorHasCounts) {
  const auto [outcome, summaries] = RunPart("late-fork");
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  ASSERT_EQ(2u, summaries.size());
  EXPECT_EQ(summaries[1].process, summaries[0].forkedFrom);
}

TEST(ProcessesTest, AnExecReplacesTheCounts) {
  const auto [outcome, summaries] = RunPart("exec");
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ(0u, summaries[0].classes.count("16 KiB"));
  EXPECT_EQ(1, summaries[0].calls.at("pvalloc"));
}

// The parent allocates after its children are gone, and would have no summary left to say so.
TEST(ProcessesTest, AChildThatOnlyBorrowsTheMemoryWritesNothing) {
  const auto [outcome, summaries] = RunPart("vfork");
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ(1, summaries[0].classes.at("16 KiB").live);
}

struct End {
  const char* part;
  int status;
  size_t summaries;
};
void PrintTo(const End& end, std::ostream* stream) { *stream << end.part; }

class EndsTest : public testing::TestWithParam<End> {};

TEST_P(EndsTest, StatusIsUnchangedAndASummaryIsLeftIfThereCanBeOne) {
  const auto [outcome, summaries] = RunPart(GetParam().part);
  EXPECT_EQ(GetParam().status, ExitStatus(outcome));
  EXPECT_EQ("", outcome.output + outcome.errors);
  EXPECT_EQ(GetParam().summaries, summaries.size());
}

INSTANTIATE_TEST_SUITE_P(Ends, EndsTest,
                         testing::Values(End{"exit-in-thread", 7, 1}, End{"quick-exit", 8, 1},
                                         End{"exit-at-once", 9, 1}, End{"exit-at-once-too", 10, 1},
                                         End{"abort", -SIGABRT, 0},
                                         End{"kill-itself", -SIGKILL, 0}));

}  // namespace
