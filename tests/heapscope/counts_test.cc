// What heapscope counts, against a program whose allocations are known.

#include <gtest/gtest.h>

#include "tests/heapscope/heapscope_run.h"

namespace {

// What the part allocates beyond what a process does anyway.
Summary CountsOf(const std::string& part) {
  return RunPart(part).OnlySummary() - RunPart("Nothing").OnlySummary();
}

TEST(CountsTest, EveryFunctionIsCountedExactly) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const Summary counts = CountsOf("EachFunction");
  EXPECT_EQ((Figures{{"malloc", {2}},
                     {"calloc", {1}},
                     {"realloc", {2}},
                     {"reallocarray", {1}},
                     {"posix_memalign", {1}},
                     {"aligned_alloc", {1}},
                     {"memalign", {1}},
                     {"valloc", {1}},
                     {"pvalloc", {1}},
                     {"free", {6}},
                     {"allocated", {11, 7776}},
                     {"freed", {7, 7510}},
                     {"live at end", {4, 266}},
                     {"live at peak", {5260}},
                     {"16 B", {1, 6, 0, 1, 6, 6}},
                     {"32 B", {2, 52, 1, 1, 32, 32}},
                     {"64 B", {1, 40, 1, 0, 0, 40}},
                     {"128 B", {3, 328, 1, 2, 228, 328}},
                     {"256 B", {2, 350, 2, 0, 0, 200}},
                     {"2 KiB", {1, 2000, 1, 0, 0, 2000}},
                     {"8 KiB", {1, 5000, 1, 0, 0, 5000}}}),
            counts.figures);
  EXPECT_EQ(Figures(), counts.irregularities);
}

TEST(CountsTest, CallsThatFailAndOddCallsCountAsWhatTheyAre) {
  const Summary counts = CountsOf("Edges");
  EXPECT_EQ((Figures{{"calls that failed", {7}}}), counts.irregularities);
  // Only the block of no bytes stays: a failed reallocation freed nothing, one to 0 bytes did.
  EXPECT_EQ((Numbers{1, 0}), counts.figures.at("live at end"));
  const int64_t sizes = 429;  // of the loop at the end
  EXPECT_EQ((Numbers{sizes + 4}), counts.figures.at("malloc"));
  EXPECT_EQ((Numbers{sizes + 2}), counts.figures.at("realloc"));
  EXPECT_EQ((Numbers{sizes + 2}), counts.figures.at("free"));
  EXPECT_EQ((Numbers{2 * sizes + 3, 130 + 3 * 7 * (sizes - 1) * sizes / 2 + sizes}),
            counts.figures.at("allocated"));
}

TEST(CountsTest, AllocationsOfExitHandlersAndDestructorsAreSeen) {
  const Summary counts = CountsOf("LateAllocations");
  EXPECT_EQ((Numbers{3, 501 + 502 + 503}), counts.figures.at("allocated"));
  EXPECT_EQ((Numbers{2, 502 + 503}), counts.figures.at("live at end"));
}

TEST(CountsTest, BlocksFromBeforeTheStartCanBeMovedAndFreed) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  const zeltest::TemporaryDirectory directory;
  const Outcome outcome =
      RunCommand({.arguments = {SUBJECT, "UseBlockFromBeforeTheStart"},
                  .variables = {"LD_PRELOAD=" COLLECTOR ":" SECOND_ALLOCATOR,
                                "HEAPSCOPE_OPTIONS=-summary\x1f" + directory.File("summary")}});
  EXPECT_EQ(0, outcome.status) << outcome.errors;
  const std::vector<Summary> summaries = ReadSummaries(zeltest::ReadFile("summary"));
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ(1, summaries[0].figures.at("512 B")[2]) << "freed";
  EXPECT_EQ(Figures(), summaries[0].irregularities);
}

TEST(CountsTest, AProgramThatRunsOutOfMemoryGoesOn) {
  if (!kCountsAreTheProgramsOwn) GTEST_SKIP();
  // With a second thread the C library looks for memory in ways that leave errno changed.
  const HeapscopeRun run({SUBJECT, "RunOutOfMemory"}, {"-no-channel"});
  Summary counts = run.OnlySummary() - RunPart("Nothing").OnlySummary();
  EXPECT_GE(1u, run.Files("xml").size());
  const int64_t count = std::stol("0" + run.GetOutcome().output);
  EXPECT_LT(10000, count);
  EXPECT_EQ((Numbers{count + 1}), counts.figures["malloc"]);
  EXPECT_EQ((Numbers{1}), counts.irregularities["calls that failed"]);
  const Numbers untracked = counts.irregularities["blocks not counted, for want of memory"];
  ASSERT_EQ(1u, untracked.size());
  EXPECT_LT(0, untracked[0]);
  EXPECT_EQ(count, counts.figures["allocated"][0] + untracked[0]);
}

}  // namespace
