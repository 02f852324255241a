// The log file as text that tests can compare.
#pragma once

#include <string>

namespace zeltest {

// How a log file begins, up to and including its root element's opening tag.
std::string LogStart(const std::string& source);

// A file's content, in which "T" stands for each timestamp that has the right form and lies between
// the start of the program and now.
std::string ReadLog(const std::string& path);

// The text without the lines that tell the frames of a call stack.
std::string WithoutFrames(std::string text);

// A record without arguments in the form of ReadLog.
std::string RecordText(unsigned number, const std::string& type, const std::string& severity,
                       const std::string& content = "");

}  // namespace zeltest
