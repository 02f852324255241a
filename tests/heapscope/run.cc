#include "tests/heapscope/run.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/temporary_directory.h"

namespace {

// A file in memory, for what a program writes.
class Captured {
 public:
  Captured() : descriptor_(memfd_create("captured", MFD_CLOEXEC)) {}
  ~Captured() { close(descriptor_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  void Become(int descriptor) const { dup2(descriptor_, descriptor); }
  std::string Text() const {
    return zeltest::ReadFile("/proc/self/fd/" + std::to_string(descriptor_));
  }

 private:
  const int descriptor_;
};

void BreakStandardError() {
  int ends[2];
  if (pipe(ends) != 0) _exit(99);
  dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace

void Become(const Command& command) {
  setpgid(0, 0);  // so that nothing of it outlives its time
  if (command.standardErrorIsBrokenPipe) BreakStandardError();
  for (const std::string& variable : command.variables) putenv(const_cast<char*>(variable.c_str()));
  for (const int descriptor : command.closedDescriptors) close(descriptor);
  std::vector<char*> arguments;
  for (const std::string& each : command.arguments)
    arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(98);
}

int StatusOf(int endOfChild) {
  return WIFEXITED(endOfChild) ? WEXITSTATUS(endOfChild) : -WTERMSIG(endOfChild);
}

Outcome RunCommand(const Command& command) {
  const Captured output, errors;
  const pid_t child = fork();
  if (child == 0) {
    output.Become(STDOUT_FILENO);
    errors.Become(STDERR_FILENO);
    Become(command);
  }
  pollfd end = {
      .fd = static_cast<int>(syscall(SYS_pidfd_open, child, 0)), .events = POLLIN, .revents = 0};
  const bool isInTime = poll(&end, 1, 1000 * command.timeoutSeconds) == 1;
  close(end.fd);
  if (!isInTime) kill(-child, SIGKILL);
  int status;
  waitpid(child, &status, 0);
  return {isInTime ? StatusOf(status) : kTimedOut, output.Text(), errors.Text()};
}

Command UnderHeapscope(const std::vector<std::string>& options,
                       const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {LAUNCHER};
  all.insert(all.end(), options.begin(), options.end());
  all.push_back("--");
  all.insert(all.end(), arguments.begin(), arguments.end());
  return {.arguments = all};
}

std::string Ask(const std::string& file, const std::string& xpath) {
  std::string answer =
      RunCommand({.arguments = {"xmllint", "--xpath", "string(" + xpath + ")", file}}).output;
  if (answer.ends_with('\n')) answer.pop_back();
  return answer;
}
