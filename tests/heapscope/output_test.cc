// Where summaries go, what of the program's stays untouched by that, and the launcher.

#include <gtest/gtest.h>

#include "tests/heapscope/heapscope_run.h"

namespace {

using zeltest::ReadFile;

class OutputTest : public testing::Test {
 protected:
  const zeltest::TemporaryDirectory directory_;
  const std::string summary_ = directory_.File("summary");
};

TEST_F(OutputTest, StandardErrorHasTheSummaryOfTheProgramAlone) {
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-children"}, {SUBJECT, "SpawnWithItsOwnErrors"}));
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.output);
  EXPECT_EQ(1u, ReadSummaries(outcome.errors).size());
  EXPECT_EQ(0u, outcome.errors.find("heapscope: heapscope_subject"));
  const Outcome redirected = RunCommand(UnderHeapscope({}, {SUBJECT, "ExecWithOtherErrors"}));
  EXPECT_EQ(0, redirected.status);
  EXPECT_EQ("", redirected.output + redirected.errors);
}

TEST_F(OutputTest, ChildrenAreWatchedOnRequestAndCanHaveFilesOfTheirOwn) {
  for (const std::string option : {"-children", "-no-children"}) {
    const zeltest::TemporaryDirectory directory;
    EXPECT_EQ(0, RunCommand(UnderHeapscope({option, "-summary", directory.File("%%-%p.txt")},
                                           {SUBJECT, "SpawnWithItsOwnErrors"}))
                     .status);
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.File(""))) {
      ++files;
      const std::vector<Summary> summaries = ReadSummaries(ReadFile(entry.path()));
      ASSERT_EQ(1u, summaries.size());
      EXPECT_EQ("%-" + std::to_string(summaries[0].process) + ".txt", entry.path().filename());
    }
    EXPECT_EQ(option == "-children" ? 2u : 1u, files);
  }
}

TEST_F(OutputTest, AFileOfAnEarlierRunIsEmptied) {
  zeltest::WriteFile(summary_, "of an earlier run");
  EXPECT_EQ(0, RunCommand(UnderHeapscope({"-summary", summary_}, {SUBJECT, "Nothing"})).status);
  EXPECT_EQ(0u, ReadFile(summary_).find("heapscope: "));
}

TEST_F(OutputTest, AReaderThatIsGoneDoesNotChangeTheStatus) {
  Command command = UnderHeapscope({}, {SUBJECT, "Nothing"});
  command.standardErrorIsBrokenPipe = true;
  EXPECT_EQ(0, RunCommand(command).status);
}

TEST_F(OutputTest, ClosedStandardDescriptorsStayFreeForTheProgram) {
  Command plain = {.arguments = {SUBJECT, "NewDescriptors"}, .closedDescriptors = {0, 1, 2}};
  const int firstDescriptor = RunCommand(plain).status;
  EXPECT_LT(2, firstDescriptor);
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"-summary", summary_, "-out", directory_.File("files")}}) {
    Command command = UnderHeapscope(options, plain.arguments);
    command.closedDescriptors = plain.closedDescriptors;
    EXPECT_EQ(firstDescriptor, RunCommand(command).status);
  }
  EXPECT_EQ(1u, ReadSummaries(ReadFile(summary_)).size());
}

TEST_F(OutputTest, ADescriptorThatBecameTheProgramsIsNotWrittenTo) {
  const std::string own = directory_.File("own");
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{},
        {"-children", "-summary", summary_},
        {"-out", directory_.File("files"), "-summary", directory_.File("other")}}) {
    Command command = UnderHeapscope(options, {SUBJECT, "TakeAllDescriptors"});
    command.variables = {"OWN_FILE=" + own};
    const Outcome outcome = RunCommand(command);
    EXPECT_EQ(0, outcome.status) << outcome.errors;
    EXPECT_EQ("", ReadFile(own));
  }
  EXPECT_EQ(2u, ReadSummaries(ReadFile(summary_)).size());
}

class LauncherTest : public OutputTest {};

TEST_F(LauncherTest, ItsOwnFailuresHaveStatusesOfTheirOwn) {
  const std::vector<std::string> program = {SUBJECT, "Nothing"};
  EXPECT_EQ(125, RunCommand({.arguments = {LAUNCHER}}).status);
  for (const std::string option : {"-summary", "-out", "-x"})
    EXPECT_EQ(125, RunCommand(UnderHeapscope({option, "/nowhere/file"}, program)).status);
  EXPECT_EQ(126, RunCommand(UnderHeapscope({}, {directory_.File("")})).status);
  EXPECT_EQ(127, RunCommand(UnderHeapscope({}, {directory_.File("nothing")})).status);
}

TEST_F(LauncherTest, HelpsWithOptions) {
  const Outcome asked = RunCommand(UnderHeapscope({"-help"}, {}));
  const Outcome unknown = RunCommand(UnderHeapscope({"-unknown"}, {SUBJECT, "Nothing"}));
  const Outcome invalid = RunCommand(UnderHeapscope({"-stack", "x"}, {SUBJECT, "Nothing"}));
  for (const Outcome& outcome : {asked, unknown, invalid}) {
    EXPECT_NE(std::string::npos, outcome.output.find("Usage: heapscope "));
    EXPECT_NE(std::string::npos, outcome.output.find("-stack"));
  }
  EXPECT_EQ(0, asked.status);
  EXPECT_EQ(125, unknown.status);
  EXPECT_EQ(125, invalid.status);
}

TEST_F(LauncherTest, SaysWhyNothingIsRecorded) {
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-out", directory_.File("files")}, {STATIC_PROGRAM}));
  EXPECT_EQ(6, outcome.status);
  EXPECT_NE(std::string::npos, outcome.errors.find("it is linked statically"));
  EXPECT_NE(std::string::npos, outcome.errors.find("left no result"));
}

TEST_F(LauncherTest, RunsFromAnInstalledTree) {
  if (!std::filesystem::exists(BUILD_DIR "/cmake_install.cmake"))
    GTEST_SKIP() << "nothing to install";
  const std::string prefix = directory_.File("prefix");
  for (const std::vector<std::string>& component :
       {std::vector<std::string>{}, std::vector<std::string>{"--component", "heapscope"}}) {
    std::vector<std::string> arguments = {CMAKE, "--install", BUILD_DIR, "--prefix", prefix};
    arguments.insert(arguments.end(), component.begin(), component.end());
    const Outcome outcome = RunCommand({.arguments = arguments});
    ASSERT_EQ(0, outcome.status) << outcome.errors;
  }
  const std::string launcher = prefix + "/" INSTALL_BINDIR "/heapscope";
  const Outcome outcome =
      RunCommand({.arguments = {launcher, "-summary", summary_, "--", SUBJECT, "Nothing"}});
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.errors);
  EXPECT_EQ(1u, ReadSummaries(ReadFile(summary_)).size());
#ifdef HAS_REPORTER
  EXPECT_EQ(0, RunCommand({.arguments = {launcher + "-report", "--version"}}).status);
#endif
}

}  // namespace
