// Answers one question about one contender with one number on standard output. For what can be
// measured only once in a process: a first allocation, loading, resident memory.
//
//   zelrt_probe QUESTION CONTENDER [FILE]
//
// FILE is our library's. This program is not linked to it, nor to the C++ library, so that loading
// ours costs here what it costs a host that has neither.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "bench/peer_libraries.h"
#include "zelrt/memory.h"
#include "zelrt/runtime.h"

namespace {

using bench::FindFunction;
using bench::PeerLibrary;

[[noreturn]] void Fail(const char* what) {
  fprintf(stderr, "zelrt_probe: %s\n", what);
  exit(1);
}

double Microseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// Not from statm: the kernel sums up that figure lazily, and may be off by some hundred KiB.
size_t ResidentBytes() {
  char text[4096];
  const int file = open("/proc/self/smaps_rollup", O_RDONLY);
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  if (length <= 0) Fail("cannot read /proc/self/smaps_rollup");
  text[length] = '\0';
  const char* const line = strstr(text, "\nRss:");
  if (line == nullptr) Fail("no Rss in /proc/self/smaps_rollup");
  return strtoul(line + strlen("\nRss:"), nullptr, 10) * 1024;
}

// Hooks, as a client's would be.
__thread uint64_t t_threadId;
uint64_t ThreadId() {
  if (t_threadId == 0) t_threadId = static_cast<uint64_t>(syscall(SYS_gettid));
  return t_threadId;
}
int32_t ProcessId() { return getpid(); }

decltype(__ZelMalloc)* g_zelMalloc;
void* AllocateOurs(size_t size) { return g_zelMalloc(0, size, 0); }

struct Contender {
  const char* name;
  const char* file;
  const PeerLibrary* peer;  // null for ours and for the process's own malloc
};

void* Load(const Contender& contender) {
  void* const library = contender.peer != nullptr ? bench::LoadPeer(*contender.peer)
                                                  : dlopen(contender.file, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) Fail(dlerror());
  return library;
}

using Allocate = void* (*)(size_t);

// Loads and starts the contender up to its first allocation.
Allocate BringUp(const Contender& contender) {
  if (contender.file == nullptr && contender.peer == nullptr) return malloc;
  void* const library = Load(contender);
  if (contender.peer != nullptr)
    return FindFunction<void*(size_t)>(library, contender.peer->allocate);
  using SetThreadId = decltype(__ZelSetGetNativeThreadIdProc);
  FindFunction<SetThreadId>(library, "__ZelSetGetNativeThreadIdProc")(ThreadId);
  FindFunction<SetThreadId>(library, "__ZelSetGetCurrentThreadIdProc")(ThreadId);
  FindFunction<decltype(__ZelSetGetPidProc)>(library, "__ZelSetGetPidProc")(ProcessId);
  FindFunction<decltype(__ZelRtStartup)>(library, "__ZelRtStartup")();
  g_zelMalloc = FindFunction<decltype(__ZelMalloc)>(library, "__ZelMalloc");
  return AllocateOurs;
}

void TouchNew(void* block) { *static_cast<volatile uint64_t*>(block) = 1; }

double FirstAllocation(const Contender& contender) {
  const Allocate allocate = BringUp(contender);
  const double start = Microseconds();
  TouchNew(allocate(64));
  return Microseconds() - start;
}

double ResidentKiBAfterFirstUse(const Contender& contender) {
  const size_t before = ResidentBytes();
  TouchNew(BringUp(contender)(64));
  return static_cast<double>(ResidentBytes() - before) / 1024;
}

double ResidentPerLiveByte(const Contender& contender) {
  constexpr size_t kBlocks = 1'000'000;
  constexpr size_t kBlockSize = 48;
  // All live to the end of the process, so nobody has to remember where they are.
  const Allocate allocate = BringUp(contender);
  const size_t before = ResidentBytes();
  for (size_t i = 0; i < kBlocks; ++i) TouchNew(allocate(kBlockSize));
  return static_cast<double>(ResidentBytes() - before) / (kBlocks * kBlockSize);
}

double Loading(const Contender& contender) {
  if (contender.file == nullptr && contender.peer == nullptr) Fail("nothing to load");
  const double start = Microseconds();
  Load(contender);
  return Microseconds() - start;
}

struct Question {
  const char* name;
  double (*answer)(const Contender&);
};
constexpr Question kQuestions[] = {
    {"first-allocation", FirstAllocation},
    {"resident-after-first-use", ResidentKiBAfterFirstUse},
    {"resident-per-live-byte", ResidentPerLiveByte},
    {"loading", Loading},
};

constexpr const PeerLibrary* kPeers[] = {&bench::kJemalloc, &bench::kMimalloc, &bench::kTcmalloc};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) Fail("usage: zelrt_probe QUESTION CONTENDER [FILE]");
  Contender contender = {argv[2], argc > 3 ? argv[3] : nullptr, nullptr};
  for (const PeerLibrary* peer : kPeers) {
    if (strcmp(peer->name, contender.name) == 0) contender.peer = peer;
  }
  for (const Question& question : kQuestions) {
    if (strcmp(question.name, argv[1]) != 0) continue;
    printf("%.3f\n", question.answer(contender));
    return 0;
  }
  Fail("no such question");
}
