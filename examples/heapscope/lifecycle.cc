// The collector's life in a process: start, fork, the ends.
//
// Counting starts with the process's first allocation, which comes from the initialisation of some
// library; the outputs are opened by this library's own. The exit handler is one without a library,
// so it runs after the destructors of all libraries. Nothing of the collector is torn down: threads
// may go on allocating until the process is gone.

#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "examples/heapscope/commands.h"
#include "examples/heapscope/internal.h"
#include "examples/heapscope/timeline.h"
#include "host/host.h"
#include "zelrt/runtime.h"

// The C library's own pthread_atfork, linked into this library, would have the handlers taken out
// with it, at the beginning of the end. But other threads fork until the process is gone: the C
// library stops one that is between the handlers then, and a later child would find the shards as
// they happened to be. So they are those of no library. What host/ registers comes here too.
// NOLINTNEXTLINE(readability-identifier-naming,bugprone-reserved-identifier): the C library's
extern "C" int __register_atfork(void (*before)(), void (*inParent)(), void (*inChild)(),
                                 void* library);
extern "C" int pthread_atfork(void (*before)(), void (*inParent)(), void (*inChild)()) noexcept {
  return __register_atfork(before, inParent, inChild, nullptr);
}

namespace heapscope {

constinit std::atomic<State> g_state{State::kUntouched};
constinit Process g_process = {};
constinit Options g_options;

namespace {

enum class Report : uint32_t { kOpen, kBeingWritten, kClosed };
constinit std::atomic<Report> g_report{Report::kOpen};
constexpr int64_t kReportPatienceMs = 5000;

void BeforeFork() { HoldRecords(); }

void AfterForkInParent() { ReleaseRecords(); }

void AfterForkInChild() {
  FreeTimelineInChild();
  ForgetLoaderUsesInChild();
  GiveUpThreadPlaces();
  StartRecordsAnew();
  ForgetChannelInChild();
  g_process.forkedFrom = g_process.id;
  g_process.id = getpid();
  g_process.startedMs = NowMs();
  g_process.resetMs = 0;
  g_report.store(g_options.KeepsChildren() ? Report::kOpen : Report::kClosed);
  ResumeRecords();  // nobody can ask the child to
  KeepOutputInChild();
  StartChildLog();
  StartChildResult();
  ReleaseRecords();
}

State Start() {
  if (!FindRealFunctions()) return State::kUnable;
  // First, so that in a child its thread ids are forgotten after the shards have been released by
  // whoever may allocate there before: handlers run in the order of registration.
  zelhost::Install();
  if (!SetUpOwnMemory()) return State::kUnable;
  RegisterOwnMemoryCategories();
  g_options.Register();
  g_options.ParseVariable();
  __ZelRtStartup();
  SetUpSites();
  SetUpCallPaths(g_options.Stack(), g_options.Depth());
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
  return State::kCounting;
}

// Takes the collector out of what new programs inherit. The list is shortened where it stands: the
// program may hold on to its address.
void HideFromChildren() {
  if (char* const list = std::getenv("LD_PRELOAD"); list != nullptr) {
    Dl_info self;
    static const char anchor = 0;
    if (dladdr(&anchor, &self) == 0) return;
    const size_t length = std::strlen(self.dli_fname);
    char* const entry = std::strstr(list, self.dli_fname);
    if (entry != nullptr) {
      const bool hasMore = entry[length] == ':' || entry[length] == ' ';
      const size_t removed = length + (hasMore ? 1 : 0);
      std::memmove(entry, entry + removed, std::strlen(entry + removed) + 1);
      if (list[0] == '\0') unsetenv("LD_PRELOAD");
    }
  }
  unsetenv(Options::kVariable);
  unsetenv("HEAPSCOPE_STDERR");
  unsetenv(kChannelVariable);
}

// Two threads may end the process at once: the second must not cut the first one's writing short.
void AwaitReport() {
  const int64_t start = NowMs();
  while (g_report.load() == Report::kBeingWritten && NowMs() - start < kReportPatienceMs)
    __ZelYield();
}

void AtExit(int, void*) { ReportOnce(); }
void AtQuickExit() { ReportOnce(); }

[[gnu::constructor]] void StartWithProcess() {
  const InsideCollector inside;
  const int kept = errno;
  g_process.id = getpid();
  g_process.startedMs = NowMs();
  std::strncpy(g_process.name, program_invocation_short_name, sizeof g_process.name - 1);
  if (EnsureStarted() == State::kCounting) {
    NoteEndOfEarlyAllocations();
    OpenOutput();
    LogStart();
    OpenChannel();
    if (!g_options.KeepsChildren()) HideFromChildren();
    on_exit(AtExit, nullptr);
    at_quick_exit(AtQuickExit);
  }
  errno = kept;
}

}  // namespace

State EnsureStarted() {
  State found = State::kUntouched;
  if (g_state.compare_exchange_strong(found, State::kStarting)) {
    found = Start();
    g_state.store(found, std::memory_order_release);
    return found;
  }
  while (found == State::kStarting) {
    __ZelYield();
    found = g_state.load(std::memory_order_acquire);
  }
  return found;
}

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
}

void ReportOnce() {
  // A child made without fork's handlers shares the parent's memory, or has tables with locks that
  // nobody will release.
  if (g_state.load(std::memory_order_acquire) != State::kCounting || g_process.id != getpid())
    return;
  const InsideCollector inside;
  Report found = Report::kOpen;
  if (!g_report.compare_exchange_strong(found, Report::kBeingWritten)) {
    if (inside.IsOutermost()) AwaitReport();
    return;
  }
  // A signal handler that interrupted the collector ends the process: nothing that needs a lock.
  if (inside.IsOutermost()) {
    CloseChannel();
    NoteTime();
  }
  Figures figures;
  ReadFigures(&figures);
  if (inside.IsOutermost()) {
    char path[PATH_MAX];
    if (ResultFilePath(path, sizeof path)) WriteResult(Occasion::kEnd, figures, path);
    LogEnd(figures);
  }
  WriteSummary(figures);
  g_report.store(Report::kClosed);
}

}  // namespace heapscope
