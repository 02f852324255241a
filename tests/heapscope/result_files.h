// Runs programs under heapscope -d, and asks xmllint for what their files say.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/heapscope/run.h"
#include "tests/heapscope/summary_reader.h"

// Runs a program with a directory for its files.
class RunWithFiles {
 public:
  explicit RunWithFiles(const std::vector<std::string>& arguments,
                        std::vector<std::string> options = {"-children"});

  const Outcome& GetOutcome() const { return outcome_; }
  std::vector<Summary> Summaries() const;
  std::vector<std::string> Files(const std::string& kind) const;
  std::string OnlyFile(const std::string& kind) const;

  // Result files keep to their schema, logs are well-formed.
  void ExpectAllAreValid() const;

 private:
  const TemporaryDirectory directory_;
  Outcome outcome_;
  std::vector<std::filesystem::path> files_;
};

// What xmllint answers to an XPath expression: as one text, as nodes, and as numbers.
std::string Ask(const std::string& file, const std::string& xpath);
std::string AskAll(const std::string& file, const std::string& xpath);
int64_t AskNumber(const std::string& file, const std::string& xpath);
Amounts AskAmounts(const std::string& file, const std::string& element);  // sums
