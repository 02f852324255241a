// What the user can set.

#include "examples/heapscope/options.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "zelrt/options.h"

namespace heapscope {
namespace {

constexpr int kMaxArguments = 32;
constexpr size_t kMaxVariable = 16 * 1024;

constexpr struct {
  const char* name;
  StackMode mode;
} kStackModes[] = {
    {"unwind", StackMode::kUnwind},
    {"fp", StackMode::kFramePointer},
    {"caller", StackMode::kCaller},
};

}  // namespace

void Options::Register() {
  parser_ = __ZelGetOptionParser("heapscope");
  stack_ = __ZelRegisterStringEnumOption(
      parser_, "-stack",
      "How call paths are found: by unwind tables, by frame pointers, or the caller alone",
      kStackModes[0].name, 0, 1);
  for (const auto& row : kStackModes) {
    __ZelSetValidStringOptionArgumentWithEnum(parser_, stack_, row.name,
                                              static_cast<int32_t>(row.mode));
  }
  depth_ =
      __ZelRegisterIntegerOption(parser_, "-depth", "Calls kept of a path, at most 64", 32, 0, 1);
  out_ = __ZelRegisterPathOption(parser_, "-out",
                                 "Directory for result files and logs; made if it is not there",
                                 nullptr, 0, 0, 1);
  log_ = __ZelRegisterPathOption(parser_, "-log",
                                 "The log, elsewhere than in the directory; %p is the process id",
                                 nullptr, 0, 0, 1);
  summary_ = __ZelRegisterPathOption(
      parser_, "-summary", "File for summaries, instead of standard error; %p is the process id",
      nullptr, 0, 0, 1);
  children_ = __ZelRegisterBooleanOption(parser_, "-children",
                                         "Watch the program's child processes too", 0, 0, 1);
  channel_ = __ZelRegisterBooleanOption(
      parser_, "-channel", "Take commands while the program runs, by a thread of its own", 1, 0, 1);
  heartbeat_ = __ZelRegisterIntegerOption(
      parser_, "-heartbeat", "Seconds between saves of the result meanwhile; 0 for none", 1, 0, 1);
  dump_ = __ZelRegisterStringOption(parser_, "-dump", "Debug channels of the library", nullptr, 0,
                                    0, 0);
  help_ = __ZelRegisterBooleanOption(parser_, "-help", "Show this help", 0, 0, 1);
}

bool Options::Parse(int count, const char* const* arguments) const {
  return __ZelParseOptions2(parser_, count, arguments) != 0;
}

bool Options::ParseVariable() const {
  const char* const value = std::getenv(kVariable);
  if (value == nullptr || value[0] == '\0') return true;
  static char copy[kMaxVariable];
  const size_t length = std::strlen(value);
  if (length >= sizeof copy) return false;
  std::memcpy(copy, value, length + 1);
  const char* arguments[kMaxArguments];
  int count = 0;
  for (char* argument = copy; argument != nullptr && count < kMaxArguments;) {
    arguments[count++] = argument;
    argument = std::strchr(argument, kSeparator);
    if (argument != nullptr) *argument++ = '\0';
  }
  return Parse(count, arguments);
}

StackMode Options::Stack() const {
  return static_cast<StackMode>(__ZelGetStringOptionEnumValue(parser_, stack_));
}
uint32_t Options::Depth() const {
  return static_cast<uint32_t>(__ZelGetIntegerOptionValue(parser_, depth_));
}
bool Options::KeepsChildren() const { return __ZelGetBooleanOptionValue(parser_, children_) != 0; }
bool Options::WantsChannel() const { return __ZelGetBooleanOptionValue(parser_, channel_) != 0; }
uint32_t Options::HeartbeatSeconds() const {
  return static_cast<uint32_t>(std::max(__ZelGetIntegerOptionValue(parser_, heartbeat_), 0));
}
bool Options::WantsHelp() const { return __ZelGetBooleanOptionValue(parser_, help_) != 0; }
const char* Options::OutDirectory() const { return __ZelGetPathOptionValue(parser_, out_); }
const char* Options::LogPattern() const { return __ZelGetPathOptionValue(parser_, log_); }
const char* Options::SummaryPattern() const { return __ZelGetPathOptionValue(parser_, summary_); }
const char* Options::Dump() const { return __ZelGetStringOptionValue(parser_, dump_); }

void Options::PrintHelp() const { __ZelPrintHelp(parser_, 1); }
void Options::LogValues() const { __ZelLogToolOptionValues(parser_); }

}  // namespace heapscope
