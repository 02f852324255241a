// Where summaries go, what of the program's stays untouched by that, and the launcher.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/heapscope/run.h"
#include "tests/heapscope/summary_reader.h"

namespace {

TEST(OutputTest, StandardErrorHasTheSummaryOfTheProgramAlone) {
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-children"}, {SUBJECT, "spawn-with-its-own-errors"}));
  EXPECT_EQ(0, ExitStatus(outcome));
  EXPECT_EQ("", outcome.output);
  EXPECT_EQ(1u, ReadSummaries(outcome.errors).size());
  EXPECT_EQ(0u, outcome.errors.find("heapscope: heapscope_subject"));
}

TEST(OutputTest, StandardErrorThatTheProgramRedirectedIsLeftAlone) {
  const Outcome outcome = RunCommand(UnderHeapscope({}, {SUBJECT, "exec-with-other-errors"}));
  EXPECT_EQ(0, ExitStatus(outcome));
  EXPECT_EQ("", outcome.output);
  EXPECT_EQ("", outcome.errors);
}

TEST(OutputTest, EachProcessCanHaveAFileOfItsOwn) {
  const TemporaryDirectory directory;
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-children", "-summary", directory.File("%%-%p.txt")},
                                {SUBJECT, "spawn-with-its-own-errors"}));
  EXPECT_EQ(0, ExitStatus(outcome));
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory.File(""))) {
    ++files;
    const std::vector<Summary> summaries = ReadSummaries(Contents(entry.path()));
    ASSERT_EQ(1u, summaries.size());
    EXPECT_EQ("%-" + std::to_string(summaries[0].process) + ".txt", entry.path().filename());
  }
  EXPECT_EQ(2u, files);
}

TEST(OutputTest, AFileOfAnEarlierRunIsEmptied) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  std::ofstream(file) << "of an earlier run";
  EXPECT_EQ(0, ExitStatus(RunCommand(UnderHeapscope({"-summary", file}, {SUBJECT, "nothing"}))));
  EXPECT_EQ(0u, Contents(file).find("heapscope: "));
}

TEST(OutputTest, AReaderThatIsGoneDoesNotChangeTheStatus) {
  Command command = UnderHeapscope({}, {SUBJECT, "nothing"});
  command.standardErrorIsBrokenPipe = true;
  EXPECT_EQ(0, ExitStatus(RunCommand(command)));
}

TEST(OutputTest, ClosedStandardDescriptorsStayFreeForTheProgram) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  Command plain = {.arguments = {SUBJECT, "new-descriptors"}, .closedDescriptors = {0, 1, 2}};
  const int firstDescriptor = ExitStatus(RunCommand(plain));
  EXPECT_LT(2, firstDescriptor);
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"-summary", file, "-out", directory.File("files")}}) {
    Command command = UnderHeapscope(options, plain.arguments);
    command.closedDescriptors = plain.closedDescriptors;
    EXPECT_EQ(firstDescriptor, ExitStatus(RunCommand(command)));
  }
  EXPECT_EQ(1u, ReadSummaries(Contents(file)).size());
}

TEST(OutputTest, ADescriptorThatBecameTheProgramsIsNotWrittenTo) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("summary");
  const std::string own = directory.File("own");
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"-children", "-summary", file}}) {
    Command command = UnderHeapscope(options, {SUBJECT, "take-all-descriptors"});
    command.variables = {"OWN_FILE=" + own};
    const Outcome outcome = RunCommand(command);
    EXPECT_EQ(0, ExitStatus(outcome)) << outcome.errors;
    EXPECT_TRUE(std::filesystem::exists(own));
    EXPECT_EQ("", Contents(own));
  }
  EXPECT_EQ(2u, ReadSummaries(Contents(file)).size());
}

TEST(LauncherTest, ItsOwnFailuresHaveStatusesOfTheirOwn) {
  const TemporaryDirectory directory;
  EXPECT_EQ(125, ExitStatus(RunCommand({.arguments = {LAUNCHER}})));
  EXPECT_EQ(125, ExitStatus(RunCommand(UnderHeapscope({"-x"}, {SUBJECT}))));
  for (const char* const option : {"-summary", "-out"}) {
    EXPECT_EQ(
        125,
        ExitStatus(RunCommand(UnderHeapscope({option, "/nowhere/file"}, {SUBJECT, "nothing"}))));
  }
  EXPECT_EQ(126, ExitStatus(RunCommand(UnderHeapscope({}, {directory.File("")}))));
  EXPECT_EQ(127, ExitStatus(RunCommand(UnderHeapscope({}, {directory.File("nothing")}))));
}

TEST(LauncherTest, HelpsWithOptions) {
  const Outcome asked = RunCommand(UnderHeapscope({"-help"}, {}));
  EXPECT_EQ(0, ExitStatus(asked));
  const Outcome unknown = RunCommand(UnderHeapscope({"-unknown"}, {SUBJECT, "nothing"}));
  const Outcome invalid = RunCommand(UnderHeapscope({"-stack", "x"}, {SUBJECT, "nothing"}));
  for (const Outcome& outcome : {asked, unknown, invalid}) {
    EXPECT_NE(std::string::npos, outcome.output.find("Usage: heapscope "));
    EXPECT_NE(std::string::npos, outcome.output.find("-stack"));
  }
  EXPECT_EQ(125, ExitStatus(unknown));
  EXPECT_EQ(125, ExitStatus(invalid));
}

TEST(LauncherTest, SaysWhyNothingIsRecorded) {
  const TemporaryDirectory directory;
  const Outcome outcome =
      RunCommand(UnderHeapscope({"-out", directory.File("files")}, {STATIC_PROGRAM}));
  EXPECT_EQ(6, ExitStatus(outcome));
  EXPECT_NE(std::string::npos, outcome.errors.find("it is linked statically"));
  EXPECT_NE(std::string::npos, outcome.errors.find("left no result"));
}

TEST(LauncherTest, RunsFromAnInstalledTree) {
  if (!std::filesystem::exists(BUILD_DIR "/cmake_install.cmake"))
    GTEST_SKIP() << "nothing to install";
  const TemporaryDirectory directory;
  const std::string prefix = directory.File("prefix");
  for (const std::vector<std::string>& component :
       {std::vector<std::string>{}, std::vector<std::string>{"--component", "heapscope"}}) {
    std::vector<std::string> arguments = {CMAKE, "--install", BUILD_DIR, "--prefix", prefix};
    arguments.insert(arguments.end(), component.begin(), component.end());
    const Outcome outcome = RunCommand({.arguments = arguments});
    ASSERT_EQ(0, ExitStatus(outcome)) << outcome.errors;
  }
  const std::string launcher = prefix + "/" INSTALL_BINDIR "/heapscope";
  const std::string file = directory.File("summary");
  const Outcome outcome =
      RunCommand({.arguments = {launcher, "-summary", file, "--", SUBJECT, "each-function"}});
  EXPECT_EQ(0, ExitStatus(outcome));
  EXPECT_EQ("", outcome.errors);
  EXPECT_EQ(1u, ReadSummaries(Contents(file)).size());
#ifdef HAS_REPORTER
  const std::string reporter = prefix + "/" INSTALL_BINDIR "/heapscope-report";
  EXPECT_EQ(0, ExitStatus(RunCommand({.arguments = {reporter, "--version"}})));
#endif
}

}  // namespace
