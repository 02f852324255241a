// Runs a part of a test in a forked child, for roads that end the process.
#pragma once

#include <functional>
#include <string>

namespace zeltest {

struct ChildResult {
  int exitStatus;      // of exit(), -1 when a signal ended the child or it took too long
  std::string output;  // standard output and standard error, as they came
};

// A child that returns from the body ends with status 0, or 1 when an expectation has failed in it.
// One that takes longer than 20 seconds is killed.
ChildResult RunInChild(const std::function<void()>& body);

// Expects that the body returns, and of all expectations in it that they hold.
void ExpectSuccessInChild(const std::function<void()>& body);

// Expects that the body ends the process with status 255, after this text.
void ExpectFatalInChild(const std::function<void()>& body, const std::string& text);

}  // namespace zeltest
