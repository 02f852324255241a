#include "tests/heapscope/heapscope_run.h"

#include <gtest/gtest.h>

HeapscopeRun::HeapscopeRun(const std::vector<std::string>& arguments,
                           std::vector<std::string> options) {
  options.insert(options.end(), {"-out", directory_.File("files"),  //
                                 "-summary", directory_.File("summary")});
  outcome_ = RunCommand(UnderHeapscope(options, arguments));
  summaries_ = ReadSummaries(zeltest::ReadFile(directory_.File("summary")));
}

std::vector<std::string> HeapscopeRun::Files(const std::string& kind) const {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory_.File("files"))) {
    if (entry.path().extension() == "." + kind) files.push_back(entry.path());
  }
  return files;
}

Summary HeapscopeRun::OnlySummary() const {
  EXPECT_EQ(0, outcome_.status) << outcome_.errors;
  EXPECT_EQ(1u, summaries_.size());
  return summaries_.empty() ? Summary() : summaries_[0];
}

std::string HeapscopeRun::OnlyFile(const std::string& kind) const {
  const std::vector<std::string> files = Files(kind);
  EXPECT_EQ(1u, files.size());
  return files.empty() ? "" : files[0];
}

void HeapscopeRun::ExpectAllAreValid() const {
  ExpectValid(Files("xml"));
  std::vector<std::string> wellFormed = {"xmllint", "--noout"};
  for (const std::string& file : Files("log")) wellFormed.push_back(file);
  EXPECT_EQ(0, RunCommand({.arguments = wellFormed}).status);
}

void ExpectValid(const std::vector<std::string>& results) {
  std::vector<std::string> arguments = {"xmllint", "--noout", "--relaxng", RESULT_SCHEMA};
  arguments.insert(arguments.end(), results.begin(), results.end());
  EXPECT_EQ(0, RunCommand({.arguments = arguments}).status);
}

int64_t AskNumber(const std::string& file, const std::string& xpath) {
  return std::stoll("0" + Ask(file, xpath));
}

Numbers AskAmounts(const std::string& file, const std::string& element) {
  return {AskNumber(file, "sum(" + element + "/@blocks)"),
          AskNumber(file, "sum(" + element + "/@bytes)")};
}
