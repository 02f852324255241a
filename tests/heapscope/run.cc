#include "tests/heapscope/run.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

std::vector<char*> Pointers(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (const std::string& string : strings) pointers.push_back(const_cast<char*>(string.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

void Redirect(int descriptor, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
  dup2(file, descriptor);
  close(file);
}

void BreakStandardError() {
  int ends[2];
  if (pipe(ends) != 0) _exit(99);
  dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  close(ends[1]);
}

[[noreturn]] void Become(const Command& command, const std::string& output,
                         const std::string& errors) {
  setpgid(0, 0);  // so that nothing of it outlives its time
  Redirect(STDOUT_FILENO, output);
  Redirect(STDERR_FILENO, errors);
  if (command.standardErrorIsBrokenPipe) BreakStandardError();
  for (const std::string& variable : command.variables) putenv(const_cast<char*>(variable.c_str()));
  for (const int descriptor : command.closedDescriptors) close(descriptor);
  const std::vector<char*> arguments = Pointers(command.arguments);
  execvp(arguments[0], arguments.data());
  _exit(98);
}

}  // namespace

Outcome RunCommand(const Command& command) {
  const TemporaryDirectory directory;
  const std::string output = directory.File("output");
  const std::string errors = directory.File("errors");
  const pid_t child = fork();
  if (child == 0) Become(command, output, errors);

  Outcome outcome = {};
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(command.timeoutSeconds);
  while (waitpid(child, &outcome.status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      outcome.timedOut = true;
      kill(-child, SIGKILL);
      waitpid(child, &outcome.status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  outcome.output = Contents(output);
  outcome.errors = Contents(errors);
  return outcome;
}

Command UnderHeapscope(const std::vector<std::string>& options,
                       const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {LAUNCHER};
  all.insert(all.end(), options.begin(), options.end());
  all.push_back("--");
  all.insert(all.end(), arguments.begin(), arguments.end());
  return {.arguments = all};
}

int ExitStatus(const Outcome& outcome) {
  if (outcome.timedOut) return -1000;
  return WIFEXITED(outcome.status) ? WEXITSTATUS(outcome.status) : -WTERMSIG(outcome.status);
}

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "heapscope_XXXXXX").string();
  path_ = mkdtemp(name.data());
}

TemporaryDirectory::~TemporaryDirectory() { std::filesystem::remove_all(path_); }

std::string Contents(const std::string& path) {
  std::ostringstream contents;
  contents << std::ifstream(path).rdbuf();
  return contents.str();
}
