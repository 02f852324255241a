#include "tools/zelctl/payload.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/zelctl/exit_status.h"
#include "zelrt/command.h"

namespace zelctl {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void FailToRead(const std::string& name) {
  throw Failure{kExitFailed, name + ": " + std::strerror(errno)};
}

// Reads to the end, or one byte more than there is room for.
std::string ReadUpToLimit(int descriptor, const std::string& name, Clock::time_point deadline) {
  std::string content(ZEL_COMMAND_PAYLOAD_SIZE + 1, '\0');
  size_t length = 0;
  while (length < content.size()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry = {.fd = descriptor, .events = POLLIN, .revents = 0};
    const int ready = poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready == 0) throw Failure{kExitTimeout, "timed out: " + name + " does not end"};
    const ssize_t got =
        ready > 0 ? read(descriptor, content.data() + length, content.size() - length) : -1;
    if (got == 0) break;
    if (got > 0) {
      length += static_cast<size_t>(got);
    } else if (errno != EINTR && errno != EAGAIN) {
      FailToRead(name);
    }
  }
  content.resize(length);
  return content;
}

std::string ReadFile(const std::string& path, Clock::time_point deadline) {
  // A pipe without a writer would be waited for by the call itself.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor == -1) FailToRead(path);
  struct Closer {
    int descriptor;
    ~Closer() { close(descriptor); }
  } closer{descriptor};
  return ReadUpToLimit(descriptor, path, deadline);
}

}  // namespace

std::string ReadPayload(const std::string& argument, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  std::string payload = argument;
  if (argument == "-") {
    payload = ReadUpToLimit(STDIN_FILENO, "standard input", deadline);
  } else if (argument.starts_with('@')) {
    payload = ReadFile(argument.substr(1), deadline);
  }
  if (payload.size() > ZEL_COMMAND_PAYLOAD_SIZE)
    throw Failure{kExitUsage,
                  "a payload has at most " + std::to_string(ZEL_COMMAND_PAYLOAD_SIZE) + " bytes"};
  return payload;
}

}  // namespace zelctl
