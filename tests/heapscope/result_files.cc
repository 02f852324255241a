#include "tests/heapscope/result_files.h"

#include <gtest/gtest.h>

RunWithFiles::RunWithFiles(const std::vector<std::string>& arguments,
                           std::vector<std::string> options) {
  for (const std::string& more : {std::string("-out"), directory_.File("files"),
                                  std::string("-summary"), directory_.File("summary")})
    options.push_back(more);
  outcome_ = RunCommand(UnderHeapscope(options, arguments));
  for (const auto& entry : std::filesystem::directory_iterator(directory_.File("files")))
    files_.push_back(entry.path());
}

std::vector<Summary> RunWithFiles::Summaries() const {
  return ReadSummaries(Contents(directory_.File("summary")));
}

std::vector<std::string> RunWithFiles::Files(const std::string& kind) const {
  std::vector<std::string> files;
  for (const std::filesystem::path& file : files_) {
    if (file.extension() == "." + kind) files.push_back(file);
  }
  return files;
}

std::string RunWithFiles::OnlyFile(const std::string& kind) const {
  const std::vector<std::string> files = Files(kind);
  EXPECT_EQ(1u, files.size());
  return files.empty() ? "" : files[0];
}

void RunWithFiles::ExpectAllAreValid() const {
  std::vector<std::string> schema = {"xmllint", "--noout", "--relaxng", RESULT_SCHEMA};
  for (const std::string& file : Files("xml")) schema.push_back(file);
  EXPECT_EQ(0, ExitStatus(RunCommand({.arguments = schema})));
  std::vector<std::string> wellFormed = {"xmllint", "--noout"};
  for (const std::string& file : Files("log")) wellFormed.push_back(file);
  EXPECT_EQ(0, ExitStatus(RunCommand({.arguments = wellFormed})));
}

std::string AskAll(const std::string& file, const std::string& xpath) {
  return RunCommand({.arguments = {"xmllint", "--xpath", xpath, file}}).output;
}

std::string Ask(const std::string& file, const std::string& xpath) {
  std::string answer = AskAll(file, "string(" + xpath + ")");
  if (answer.ends_with('\n')) answer.pop_back();
  return answer;
}

int64_t AskNumber(const std::string& file, const std::string& xpath) {
  return std::stoll("0" + Ask(file, xpath));
}

Amounts AskAmounts(const std::string& file, const std::string& element) {
  return {AskNumber(file, "sum(" + element + "/@blocks)"),
          AskNumber(file, "sum(" + element + "/@bytes)")};
}
