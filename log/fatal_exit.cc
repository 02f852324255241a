// The ends of a process that cannot go on, and the console that they report to.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "runtime/internal.h"
#include "zelrt/log.h"

namespace {

constinit ZelExitHook g_exitHook = nullptr;

void PrintLine(const char* format, va_list arguments) {
  std::vprintf(format, arguments);
  std::putchar('\n');
}

}  // namespace

using namespace zelrt;

int32_t __ZelLogToConsole(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PrintLine(format, arguments);
  va_end(arguments);
  return 0;
}

void __ZelSetExitHandler(ZelExitHook hook) { StoreRelease(g_exitHook, hook); }

void __ZelExitHandler(int32_t code) {
  // Taken out before it is called: a hook that meets a fatal condition itself is not called again.
  const ZelExitHook hook = LoadAcquire(g_exitHook);
  if (hook != nullptr && AtomicCompareExchange(g_exitHook, nullptr, hook) == hook) hook(code);
  std::exit(-1);
}

void __ZelFatalExit(int32_t code) {
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_ABNORMAL_TERMINATE, 0, 0);
  __ZelExitHandler(code);
}

void __ZelLogFatalToolDefect(const char* format, ...) {
  // On the console whatever the state: there is no log file yet that could take it.
  va_list arguments;
  va_start(arguments, format);
  PrintLine(format, arguments);
  va_end(arguments);
  // The current call stack belongs here.
  std::fflush(stdout);
  __ZelFatalExit(-1);
}
