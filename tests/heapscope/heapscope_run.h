// Runs programs under heapscope, and reads what it writes of them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/heapscope/run.h"
#include "tests/heapscope/summary_reader.h"
#include "tests/support/temporary_directory.h"

// False when programs under heapscope allocate more than they would by themselves.
inline constexpr bool kCountsAreTheProgramsOwn =
#ifdef PROGRAMS_ALLOCATE_MORE
    false;
#else
    true;
#endif

// One run, with a directory for its files.
class HeapscopeRun {
 public:
  explicit HeapscopeRun(const std::vector<std::string>& arguments,
                        std::vector<std::string> options = {"-children"});

  const Outcome& GetOutcome() const { return outcome_; }
  const std::vector<Summary>& Summaries() const { return summaries_; }
  std::vector<std::string> Files(const std::string& kind) const;

  // Those of a run of one process.
  Summary OnlySummary() const;
  std::string OnlyFile(const std::string& kind) const;

  // Result files keep to their schema, logs are well-formed.
  void ExpectAllAreValid() const;

 private:
  const zeltest::TemporaryDirectory directory_;
  Outcome outcome_;
  std::vector<Summary> summaries_;
};

// A run of a part of the subject.
inline HeapscopeRun RunPart(const std::string& part) { return HeapscopeRun({SUBJECT, part}); }

void ExpectValid(const std::vector<std::string>& results);

// What xmllint answers, as a number and as the sums of blocks and bytes.
int64_t AskNumber(const std::string& file, const std::string& xpath);
Numbers AskAmounts(const std::string& file, const std::string& element);
