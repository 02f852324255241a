#include "tests/support/child_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace zeltest {
namespace {

constexpr std::chrono::seconds kPatience(20);

// Reads until the child has closed its end; kills it when that takes too long.
std::string ReadAll(int descriptor, pid_t child) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string text;
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry = {.fd = descriptor, .events = POLLIN, .revents = 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) == 0) {
      kill(child, SIGKILL);
      return text + "\n(killed: took too long)\n";
    }
    const ssize_t got = read(descriptor, buffer, sizeof buffer);
    if (got <= 0) return text;
    text.append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

ChildResult RunInChild(const std::function<void()>& body) {
  int ends[2];
  if (pipe(ends) != 0) return {-1, "no pipe"};
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  close(ends[1]);
  ChildResult result;
  result.output = ReadAll(ends[0], child);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void ExpectSuccessInChild(const std::function<void()>& body) {
  const ChildResult child = RunInChild(body);
  EXPECT_EQ(0, child.exitStatus) << child.output;
}

void ExpectFatalInChild(const std::function<void()>& body, const std::string& text) {
  const ChildResult child = RunInChild(body);
  EXPECT_EQ(255, child.exitStatus) << child.output;
  EXPECT_TRUE(child.output.starts_with(text)) << text << " is not how this begins:\n"
                                              << child.output;
}

}  // namespace zeltest
