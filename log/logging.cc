// The calls that log, and the question whether there is a log: what the rest of the library knows
// of it, kept apart from the log itself so that a test can put another in its place.

#include <cstdarg>

#include "log/internal.h"
#include "zelrt/log.h"

using namespace zelrt;

void __ZelLogInternal(uint32_t severity, uint32_t messageId, uint32_t notForDisplay,
                      uint64_t formatOrTag, ...) {
  va_list arguments;
  va_start(arguments, formatOrTag);
  WriteLogRecord(severity, messageId, notForDisplay != 0, formatOrTag, arguments);
  va_end(arguments);
}

int32_t __ZelLogCommentInternal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  WriteLogRecord(ZELLOG_SEVERITY_INFO, ZELLOG_MSG_COMMENT, false,
                 reinterpret_cast<uint64_t>(format), arguments);
  va_end(arguments);
  return 0;
}

uint32_t __ZelIsLoggerInitialized() { return CurrentLogFile() != nullptr ? 1 : 0; }
