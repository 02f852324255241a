// The ends of a process that cannot go on, and the console that they report to before start-up.
//
// The first thread that comes here ends the process. On its way it may meet further fatal
// conditions, in the log or in the exit hook: they are not reported, and lead on to the exit.

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "log/internal.h"
#include "memory/internal.h"
#include "runtime/ending.h"
#include "runtime/internal.h"
#include "zelrt/call_stacks.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr int kExitStatus = -1;

constinit ZelExitHook g_exitHook = nullptr;
constinit uint32_t g_terminationLogged = 0;

void PrintLine(const char* format, va_list arguments) {
  flockfile(stdout);
  std::vprintf(format, arguments);
  std::putchar('\n');
  funlockfile(stdout);
}

// Returns on the thread that ends the process.
EndClaim ClaimOrEnd() {
  const uint64_t self = CallingOwner();
  AbandonMemoryLocks(self);
  const EndClaim claim = ClaimEndOfProcess(self);
  // The ending thread has not come through. A second exit() would meet it in the middle of the
  // first.
  if (claim == EndClaim::kOther) _exit(kExitStatus);
  return claim;
}

}  // namespace
}  // namespace zelrt

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
  ClaimOrEnd();
  // Taken out before it is called: a hook that meets a fatal condition itself is not called again.
  const ZelExitHook hook = LoadAcquire(g_exitHook);
  if (hook != nullptr && AtomicCompareExchange(g_exitHook, nullptr, hook) == hook) hook(code);
  KeepOthersFromLog(CallingOwner());
  std::exit(kExitStatus);
}

void __ZelFatalExit(int32_t code) {
  ClaimOrEnd();
  if (AtomicCompareExchange(g_terminationLogged, 1, 0) == 0)
    __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_ABNORMAL_TERMINATE, 0, 0);
  __ZelExitHandler(code);
}

void __ZelLogFatalToolDefect(const char* format, ...) {
  if (ClaimOrEnd() == EndClaim::kFirst) {
    va_list arguments;
    va_start(arguments, format);
    if (HasStarted()) {
      WriteLogRecord(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, false,
                     reinterpret_cast<uint64_t>(format), arguments);
    } else {
      PrintLine(format, arguments);
    }
    va_end(arguments);
    __ZelLogCurrentCallstack();
    if (!HasStarted()) std::fflush(stdout);
  }
  __ZelFatalExit(-1);
}
