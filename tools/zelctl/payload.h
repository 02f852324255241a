// The payload of a command, as the command line gives it.
#pragma once

#include <chrono>
#include <string>

namespace zelctl {

// TEXT itself, the content of the file for "@FILE", standard input for "-". Waits no longer than
// the time-out. Throws a Failure when it cannot be read or is longer than a command can carry.
std::string ReadPayload(const std::string& argument, std::chrono::milliseconds timeout);

}  // namespace zelctl
