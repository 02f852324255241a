// Runs a program and tells what became of it.
#pragma once

#include <string>
#include <vector>

struct Command {
  std::vector<std::string> arguments;
  std::vector<std::string> variables = {};  // "NAME=value", added to the environment
  std::vector<int> closedDescriptors = {};  // when the program starts
  bool standardErrorIsBrokenPipe = false;
  int timeoutSeconds = 60;
};

constexpr int kTimedOut = -1000;

struct Outcome {
  int status;  // of the program's exit; below 0, the signal that ended it, or kTimedOut
  std::string output;
  std::string errors;
};

Outcome RunCommand(const Command& command);

// The same in parts: what a forked child does, and what its end means.
[[noreturn]] void Become(const Command& command);
int StatusOf(int endOfChild);

// The command under the launcher, with its options.
Command UnderHeapscope(const std::vector<std::string>& options,
                       const std::vector<std::string>& arguments);

// What xmllint answers to an XPath expression, as one text.
std::string Ask(const std::string& file, const std::string& xpath);
