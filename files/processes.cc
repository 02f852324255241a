// The start of a child process.
//
// The child of a process with threads may find any lock held by a thread that it does not have. So
// nothing comes between fork and exec; and what comes after a failed exec runs under a timer, which
// ends the child when it gets stuck.

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "zelrt/log.h"
#include "zelrt/processes.h"

namespace {

constexpr int kLaunchFailed = -1;
constexpr suseconds_t kReportTimeoutUs = 500'000;

void EndStuckChild(int) { _exit(kLaunchFailed); }

void EndUnlessDoneInTime() {
  struct sigaction action = {};
  action.sa_handler = EndStuckChild;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  const itimerval timeout = {.it_interval = {}, .it_value = {0, kReportTimeoutUs}};
  setitimer(ITIMER_REAL, &timeout, nullptr);
}

[[noreturn]] void RunInChild(char* const arguments[]) {
  char* const noEnvironment[] = {nullptr};
  execve(arguments[0], arguments, noEnvironment);
  EndUnlessDoneInTime();
  const char* const format = "failed to launch process %s ";
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0,
                   reinterpret_cast<uint64_t>(format), arguments[0]);
  _exit(kLaunchFailed);
}

}  // namespace

int32_t __ZelCreateProcess(char* const arguments[]) {
  if (arguments == nullptr || arguments[0] == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const pid_t child = fork();
  if (child == 0) RunInChild(arguments);
  return child;
}
