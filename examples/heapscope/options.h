// What the user can set: the launcher takes it from its command line, and hands it to the collector
// through the environment.
#pragma once

#include <cstdint>
#include <string_view>

#include "examples/heapscope/call_path.h"

namespace heapscope {

// The options are the library's, in a parser of their own. One object in a process.
class Options {
 public:
  constexpr Options() = default;

  // Registers the options, all with their defaults.
  void Register();

  // False when something is not understood. A value that is not among the valid ones of an option
  // ends the process, as the library has it.
  bool Parse(int count, const char* const* arguments) const;

  // From the environment variable, in which kSeparator stands between the arguments.
  bool ParseVariable() const;
  static constexpr char kVariable[] = "HEAPSCOPE_OPTIONS";
  static constexpr char kSeparator = '\x1f';

  StackMode Stack() const;
  uint32_t Depth() const;
  bool KeepsChildren() const;
  bool WantsHelp() const;
  bool WantsChannel() const;
  uint32_t HeartbeatSeconds() const;  // 0: none
  // Null when it was not given.
  const char* OutDirectory() const;
  const char* LogPattern() const;
  const char* SummaryPattern() const;
  const char* Dump() const;

  void PrintHelp() const;  // to standard output
  void LogValues() const;

 private:
  uint32_t parser_ = 0;
  uint32_t stack_ = 0;
  uint32_t depth_ = 0;
  uint32_t out_ = 0;
  uint32_t log_ = 0;
  uint32_t summary_ = 0;
  uint32_t dump_ = 0;
  uint32_t children_ = 0;
  uint32_t channel_ = 0;
  uint32_t heartbeat_ = 0;
  uint32_t help_ = 0;
};

}  // namespace heapscope
