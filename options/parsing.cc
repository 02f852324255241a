// The command line, such as
//
//   -verbose -no-color -depth 0x10 -out /tmp/result -ignore liba -ignore libb
//
// The texts are read once, from left to right, and stored as they are understood.

#include "options/internal.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr char kNegation[] = "-no-";
constexpr size_t kNameInNegation = sizeof kNegation - 2;  // its last '-' is the name's first

// A fault of the user: a message with the option, and a comment on details that the place knows.
struct ParseError {
  const uint32_t* message;
  const char* comment;
};
constexpr ParseError kNotAnOption = {&ZELLOG_MSG_BAD_OPTION,
                                     "Bad command line option: %s used with tool: %s"};
constexpr ParseError kUnknownOption = {&ZELLOG_MSG_BAD_OPTION,
                                       "Invalid command line option: %s used with tool: %s"};
constexpr ParseError kInvalidNegation = {
    &ZELLOG_MSG_BAD_OPTION, "Invalid negation for command line option: %s used with tool: %s"};
constexpr ParseError kNoArgument = {&ZELLOG_MSG_BAD_ARGUMENT,
                                    "No arguments for command line option: %s"};
constexpr ParseError kBadInteger = {&ZELLOG_MSG_BAD_ARGUMENT,
                                    "Bad integer value: %s for command line option: %s"};

template <typename... Details>
void Report(const ParseError& error, const char* option, Details... details) {
  Log(ZELLOG_SEVERITY_ERROR, LoadRelaxed(*error.message), option);
  __ZelLogInternal(ZELLOG_SEVERITY_INFO, ZELLOG_MSG_COMMENT, 0,
                   reinterpret_cast<uint64_t>(error.comment), details...);
}

// The first of that name. Null when there is none.
ZelOption* FindOptionByName(uint32_t parser, const char* name) {
  for (uint32_t id = 0; id < g_options.Count(); ++id) {
    ZelOption* const option = FindOption(parser, id);
    if (option != nullptr && std::strcmp(option->name, name) == 0) return option;
  }
  return nullptr;
}

// An argument vector and how much of it has been used. A null in it is no option and no value.
class CommandLine {
 public:
  CommandLine(uint32_t parser, int32_t count, const char* const* arguments)
      : parser_(parser),
        tool_(ToolName(parser)),
        next_(arguments),
        end_(arguments + (arguments != nullptr && count > 0 ? count : 0)) {
    if (tool_ == nullptr) tool_ = "";
  }

  bool Parse() {
    while (next_ != end_) {
      if (!ParseOption(*next_++)) return false;
    }
    return true;
  }

 private:
  bool ParseOption(const char* text) {
    if (text == nullptr) text = "";
    if (text[0] != '-') return Fail(kNotAnOption, text, text, tool_);
    const bool isNegated = BeginsWith(text, kNegation);
    ZelOption* const option = FindOptionByName(parser_, isNegated ? text + kNameInNegation : text);
    if (option == nullptr) return Fail(kUnknownOption, text, text, tool_);
    const OptionType* const type = FindOptionType(option->type);
    const bool isSwitch = type != nullptr && type->isSwitch;
    if (isNegated && !isSwitch) return Fail(kInvalidNegation, text, text, tool_);
    if (!isSwitch) return ParseValue(*option, type, text);
    SetOptionValue(*option, *type, nullptr, isNegated ? 0 : 1);
    return true;
  }

  bool ParseValue(ZelOption& option, const OptionType* type, const char* text) {
    const char* const value = next_ != end_ ? *next_++ : nullptr;
    if (value == nullptr || value[0] == '-') return Fail(kNoArgument, text, text);
    if (type == nullptr) return false;
    int32_t integer = kNoInteger;
    if (!type->holdsText && !type->readInteger(value, &integer))
      return Fail(kBadInteger, text, value, text);
    SetOptionValue(option, *type, type->holdsText ? value : nullptr, integer);
    return true;
  }

  template <typename... Details>
  static bool Fail(const ParseError& error, const char* option, Details... details) {
    Report(error, option, details...);
    return false;
  }

  uint32_t parser_;
  const char* tool_;
  const char* const* next_;
  const char* const* end_;
};

}  // namespace
}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelParseOptions2(uint32_t parser, int32_t argumentCount, const char* const* arguments) {
  if (parser >= kMaxParsers) {
    __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
                     reinterpret_cast<uint64_t>("Invalid parser ID passed: %u (max: %u)"), parser,
                     kMaxParsers);
    return 0;
  }
  return CommandLine(parser, argumentCount, arguments).Parse() ? 1 : 0;
}

uint32_t __ZelParseOptions(uint32_t parser, int32_t argumentCount, const char* const* arguments) {
  return __ZelParseOptions2(parser, argumentCount, arguments);
}
