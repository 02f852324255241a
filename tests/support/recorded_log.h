// A log for tests of what logs: it stands in for the library's own and keeps what it is given.
//
// Linked into a test program it takes the place of log/logging.cc.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zeltest {

// What was logged, one entry a call: the text of a comment; else the severity, then the text of an
// internal error, or the name of a message and its number or text where it has one.
std::vector<std::string> LoggedLines();
void ClearLog();

// Whether the library believes that there is a log file.
void SetLogOpen(bool open);

// Called for each entry before it is kept, as a log would that needs memory itself.
void OnLogging(std::function<void()> action);

// Prints entries to standard output as they come, for children.
void EchoLog(bool echo);

}  // namespace zeltest
