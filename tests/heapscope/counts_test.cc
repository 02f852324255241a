// What heapscope counts, against a program whose allocations are known.

#include <gtest/gtest.h>

#include "tests/heapscope/run.h"
#include "tests/heapscope/summary_reader.h"

namespace {

using Counts = std::map<std::string, int64_t>;

Summary SummaryOf(const std::string& part) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  const Outcome outcome = RunCommand(UnderHeapscope({"-summary", file}, {SUBJECT, part}));
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  const std::vector<Summary> summaries = ReadSummaries(Contents(file));
  EXPECT_EQ(1u, summaries.size());
  return summaries.empty() ? Summary() : summaries[0];
}

// What the part allocates beyond what a process does anyway.
Summary CountsOf(const std::string& part, const std::string& idlePart = "nothing") {
  return SummaryOf(part) - SummaryOf(idlePart);
}

void ExpectTotalsAreThoseOfTheClasses(const Summary& summary) {
  Amounts allocated, freed, live;
  for (const auto& [name, row] : summary.classes) {
    allocated = {allocated.blocks + row.allocated, allocated.bytes + row.bytes};
    freed.blocks += row.freed;
    live = {live.blocks + row.live, live.bytes + row.liveBytes};
    EXPECT_GE(row.peakBytes, row.liveBytes) << name;
  }
  EXPECT_EQ(allocated, summary.totals.at("allocated"));
  EXPECT_EQ(freed.blocks, summary.totals.at("freed").blocks);
  EXPECT_EQ(live, summary.totals.at("live at end"));
  EXPECT_EQ(live.bytes, allocated.bytes - summary.totals.at("freed").bytes);
}

TEST(CountsTest, EveryFunctionIsCountedExactly) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const Summary counts = CountsOf("each-function");
  EXPECT_EQ((Counts{{"malloc", 2},
                    {"calloc", 1},
                    {"realloc", 2},
                    {"reallocarray", 1},
                    {"posix_memalign", 1},
                    {"aligned_alloc", 1},
                    {"memalign", 1},
                    {"valloc", 1},
                    {"pvalloc", 1},
                    {"free", 6}}),
            counts.calls);
  EXPECT_EQ((std::map<std::string, Amounts>{{"allocated", {11, 7776}},
                                            {"freed", {7, 7510}},
                                            {"live at end", {4, 266}},
                                            {"live at peak", {0, 5260}}}),
            counts.totals);
  EXPECT_EQ((std::map<std::string, ClassRow>{{"16 B", {1, 6, 0, 1, 6, 6}},
                                             {"32 B", {2, 52, 1, 1, 32, 32}},
                                             {"64 B", {1, 40, 1, 0, 0, 40}},
                                             {"128 B", {3, 328, 1, 2, 228, 328}},
                                             {"256 B", {2, 350, 2, 0, 0, 200}},
                                             {"2 KiB", {1, 2000, 1, 0, 0, 2000}},
                                             {"8 KiB", {1, 5000, 1, 0, 0, 5000}}}),
            counts.classes);
  EXPECT_EQ(Counts(), counts.irregularities);
}

TEST(CountsTest, CallsThatFailAndOddCallsCountAsWhatTheyAre) {
  const Summary counts = CountsOf("edges");
  EXPECT_EQ(7, counts.irregularities.at("calls that failed"));
  EXPECT_EQ(1u, counts.irregularities.size());
  // Only the block of no bytes stays: a failed reallocation freed nothing, one to 0 bytes did.
  EXPECT_EQ((Amounts{1, 0}), counts.totals.at("live at end"));
  const int64_t sizes = 429;  // of the loop at the end
  EXPECT_EQ(sizes + 4, counts.calls.at("malloc"));
  EXPECT_EQ(sizes + 2, counts.calls.at("realloc"));
  EXPECT_EQ(sizes + 2, counts.calls.at("free"));
  EXPECT_EQ((Amounts{2 * sizes + 3, 130 + 3 * 7 * (sizes - 1) * sizes / 2 + sizes}),
            counts.totals.at("allocated"));
}

TEST(CountsTest, ResultsAreThoseOfTheRealFunctions) {
  const TemporaryDirectory directory;
  const Outcome plain = RunCommand({.arguments = {SUBJECT, "edges"}});
  const Outcome counted =
      RunCommand(UnderHeapscope({"-summary", directory.File("summary")}, {SUBJECT, "edges"}));
  EXPECT_EQ(0, ExitStatus(counted)) << counted.errors;
  EXPECT_LT(1000u, plain.output.size());
  EXPECT_EQ(plain.output, counted.output);
}

TEST(CountsTest, BlocksThatOtherThreadsFreeAreCountedExactly) {
  constexpr int64_t kThreads = 4, kRounds = 5, kBlocks = 20000;
  int64_t bytes = 0, movedBytes = 0, keptBytes = 0;
  for (int64_t i = 0; i < kBlocks; ++i) {
    const int64_t size = 1 + i % 3000;
    bytes += size;
    if (i % 10 == 0) movedBytes += 2 * size;
    if (i % 100 == 1) keptBytes += size;
  }
  const Summary counts = CountsOf("cross-threads", "idle-threads");
  EXPECT_EQ((Amounts{kThreads * kRounds * (kBlocks + kBlocks / 10),
                     kThreads * kRounds * (bytes + movedBytes)}),
            counts.totals.at("allocated"));
  EXPECT_EQ((Amounts{kThreads * kBlocks / 100, kThreads * keptBytes}),
            counts.totals.at("live at end"));
  EXPECT_EQ((Counts{{"malloc", kThreads * kRounds * kBlocks},
                    {"realloc", kThreads * kRounds * kBlocks / 10},
                    {"free", kThreads * (kRounds * kBlocks - kBlocks / 100)}}),
            counts.calls);
  EXPECT_EQ(Counts(), counts.irregularities);
  ExpectTotalsAreThoseOfTheClasses(SummaryOf("cross-threads"));
}

TEST(CountsTest, AllocationsOfExitHandlersAndDestructorsAreSeen) {
  const Summary counts = CountsOf("late-allocations");
  EXPECT_EQ((Amounts{3, 501 + 502 + 503}), counts.totals.at("allocated"));
  EXPECT_EQ((Amounts{2, 502 + 503}), counts.totals.at("live at end"));
}

TEST(CountsTest, BlocksFromBeforeTheStartCanBeMovedAndFreed) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  const Outcome outcome = RunCommand({.arguments = {SUBJECT, "use-block-from-before-the-start"},
                                      .variables = {"LD_PRELOAD=" COLLECTOR ":" SECOND_ALLOCATOR,
                                                    "HEAPSCOPE_OPTIONS=-summary\x1f" + file}});
  EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  const std::vector<Summary> summaries = ReadSummaries(Contents(file));
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ(1, summaries[0].classes.at("512 B").freed);
  EXPECT_EQ(Counts(), summaries[0].irregularities);
}

TEST(CountsTest, AProgramThatRunsOutOfMemoryGoesOn) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-summary", file}, {SUBJECT, "run-out-of-memory"}));
  ASSERT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  const std::vector<Summary> summaries = ReadSummaries(Contents(file));
  ASSERT_EQ(1u, summaries.size());
  Summary counts = summaries[0] - SummaryOf("nothing");
  const int64_t count = std::stol(outcome.output);
  EXPECT_LT(10000, count);
  EXPECT_EQ(count + 1, counts.calls["malloc"]);
  EXPECT_EQ(1, counts.irregularities["calls that failed"]);
  const int64_t untracked = counts.irregularities["blocks not counted, for want of memory"];
  EXPECT_LT(0, untracked);
  EXPECT_EQ(count, counts.totals["allocated"].blocks + untracked);
}

}  // namespace
