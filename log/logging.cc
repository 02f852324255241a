// The logging interface. There is no log file yet: messages are dropped.

#include <cstdarg>
#include <cstdio>

#include "zelrt/log.h"

constinit uint32_t ZELLOG_MSG_ABNORMAL_TERMINATE = 0;
constinit uint32_t ZELLOG_MSG_OUT_OF_MEMORY = 0;
constinit uint32_t ZELLOG_MSG_COLLECT_MEMORY = 0;
constinit uint32_t ZELLOG_MSG_MEMORY_IS_TIGHT = 0;
constinit uint32_t ZELLOG_MSG_FREEING_RESERVES = 0;

void __ZelLogInternal(uint32_t, uint32_t, uint32_t, uint64_t, ...) {}

int32_t __ZelLogCommentInternal(const char*, ...) { return 0; }

uint32_t __ZelIsLoggerInitialized() { return 0; }
