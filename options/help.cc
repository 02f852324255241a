// The help on standard output, and the listing of values in the log. Their columns line up:
//
//    -depth                             Frames kept default: 16

#include <cstdio>

#include "options/internal.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr size_t kJoinedSize = 2048;

void LogUnknownType(const char* format, const ZelOption& option) {
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
                   reinterpret_cast<uint64_t>(format), option.name);
}

void PrintOption(const ZelOption& option) {
  std::printf("   %-33s  %s default: ", option.name, option.description);
  const OptionType* const type = FindOptionType(option.type);
  if (type == nullptr) return LogUnknownType("UNKNOWN OPTION TYPE %s", option);
  IntegerText buffer;
  std::puts(type->show(option.defaultValue, buffer));
}

// "a, b, " for the values a and b. What does not fit is cut.
const char* JoinTexts(const ZelOptionValue* value, char (&buffer)[kJoinedSize]) {
  buffer[0] = '\0';
  for (size_t used = 0; value != nullptr && used < kJoinedSize - 1; value = value->next)
    used +=
        static_cast<size_t>(std::snprintf(buffer + used, kJoinedSize - used, "%s, ", value->text));
  return buffer;
}

void LogValue(const ZelOption& option) {
  const OptionType* const type = FindOptionType(option.type);
  if (type == nullptr) return LogUnknownType("UNKNOWN OPTION TYPE for option %s", option);
  const ZelOptionValue& value = *option.currentValue;
  char joined[kJoinedSize];
  IntegerText buffer;
  const bool isJoined = option.append != 0 && value.text != nullptr;
  __ZelLogCommentInternal("%-33s  %s", option.name,
                          isJoined ? JoinTexts(&value, joined) : type->show(value, buffer));
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

int32_t __ZelPrintHelp(uint32_t parser, uint32_t all) {
  if (const char* const tool = ToolName(parser)) {
    std::printf("\n%s tool options are the following:\n", tool);
    ForEachOption(parser, [all](const ZelOption& option) {
      if (all != 0 || option.showInHelp != 0) PrintOption(option);
    });
  }
  return std::fflush(stdout);
}

uint32_t __ZelPrintHelpAll(uint32_t all) {
  const uint32_t count = ParserCount();
  for (uint32_t parser = 0; parser < count; ++parser) __ZelPrintHelp(parser, all);
  return count;
}

int32_t __ZelLogToolOptionValues(uint32_t parser) {
  if (const char* const tool = ToolName(parser)) {
    __ZelLogCommentInternal("%s's options are the following: ", tool);
    ForEachOption(parser, LogValue);
  }
  return std::fflush(stdout);
}
