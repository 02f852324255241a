#include "tests/support/recorded_log.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>

#include "zelrt/log.h"

namespace zeltest {
namespace {

// The names of the messages are the library's; their ids must be known without a start-up.
[[maybe_unused]] const uint32_t g_registered = __ZelRegisterInternalZELRTLogMessages();

struct Log {
  std::mutex mutex;
  std::vector<std::string> lines;
  bool open = false;
  bool echo = false;
  std::function<void()> action;
};

Log& TheLog() {
  static auto& log = *new Log;
  return log;
}

void Keep(const std::string& line) {
  Log& log = TheLog();
  if (log.action) log.action();
  const std::lock_guard guard(log.mutex);
  log.lines.push_back(line);
  if (log.echo) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
}

std::string Format(const char* format, va_list arguments) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

}  // namespace

std::vector<std::string> LoggedLines() {
  const std::lock_guard guard(TheLog().mutex);
  return TheLog().lines;
}

void ClearLog() {
  const std::lock_guard guard(TheLog().mutex);
  TheLog().lines.clear();
}

void SetLogOpen(bool open) { TheLog().open = open; }
void OnLogging(std::function<void()> action) { TheLog().action = std::move(action); }
void EchoLog(bool echo) { TheLog().echo = echo; }

}  // namespace zeltest

using namespace zeltest;

void __ZelLogInternal(uint32_t severity, uint32_t messageId, uint32_t, uint64_t formatOrTag, ...) {
  const std::map<uint32_t, const char*> names = {
      {ZELLOG_MSG_ABNORMAL_TERMINATE, "ABNORMAL_TERMINATE"},
      {ZELLOG_MSG_OUT_OF_MEMORY, "OUT_OF_MEMORY"},
      {ZELLOG_MSG_COLLECT_MEMORY, "COLLECT_MEMORY"},
      {ZELLOG_MSG_MEMORY_IS_TIGHT, "MEMORY_IS_TIGHT"},
      {ZELLOG_MSG_FREEING_RESERVES, "FREEING_RESERVES"},
      {ZELLOG_MSG_FAIL_OPEN_FILE, "FAIL_OPEN_FILE"},
  };
  static const char* const severities[] = {"ERROR", "WARNING", "INFO"};
  va_list arguments;
  va_start(arguments, formatOrTag);
  std::string line = severities[severity];
  const auto name = names.find(messageId);
  if (name == names.end()) {
    line += " " + Format(reinterpret_cast<const char*>(formatOrTag), arguments);
  } else {
    line += std::string(" ") + name->second;
    if (formatOrTag == ZELLOG_ARG_INT) line += " " + std::to_string(va_arg(arguments, int32_t));
    if (formatOrTag == ZELLOG_ARG_STRING) line += std::string(" ") + va_arg(arguments, const char*);
  }
  va_end(arguments);
  Keep(line);
}

int32_t __ZelLogCommentInternal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string line = Format(format, arguments);
  va_end(arguments);
  Keep(line);
  return 0;
}

uint32_t __ZelIsLoggerInitialized() { return TheLog().open ? 1 : 0; }
