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

struct Outcome {
  int status;  // as from waitpid
  bool timedOut;
  std::string output;
  std::string errors;
};

Outcome RunCommand(const Command& command);

// The command under the launcher, with its options.
Command UnderHeapscope(const std::vector<std::string>& options,
                       const std::vector<std::string>& arguments);

// The exit status of a program that exited; below 0, how else it ended.
int ExitStatus(const Outcome& outcome);

// False when programs under heapscope allocate more than they would by themselves.
inline constexpr bool kCountsAreTheProgramsOwn =
#ifdef PROGRAMS_ALLOCATE_MORE
    false;
#else
    true;
#endif

// A directory that is there as long as the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string Contents(const std::string& path);
