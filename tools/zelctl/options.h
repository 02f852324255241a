// The command line.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zelctl {

// Where a command goes: one of the two is set, or neither.
struct Target {
  std::string directory;
  int pid = 0;
};

struct Options {
  std::string command;  // the subcommand's name; empty when there is nothing to do but exit
  std::chrono::milliseconds timeout;
  bool isJson = false;
  Target target;
  std::vector<std::string> directories;  // of list
  std::vector<std::string> numbers;      // of send: the code and further arguments
  std::string payload;                   // of send, as it was given
  bool wantsAnswer = false;              // of send
  int count = 1;                         // of ping
};

// Stores the exit status when help, the version or an error was printed instead.
Options ParseCommandLine(int argc, char** argv, int& exitStatus);

}  // namespace zelctl
