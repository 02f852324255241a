// syncscope: where a program waits for its files to reach the disk.
//
// Takes the place of fsync and fdatasync in a program that it is preloaded into. At the end it
// writes syncscope.<process id>.xml: how often each path of calls came there, for how long, and in
// vain.
//
// One lock guards all that is counted and every call of the library, and fork holds it too: so a
// child finds the library's locks free.

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/host.h"
#include "zelrt.h"

namespace {

// A path of calls that led to a sync, and what came of it.
struct Site {
  uint64_t frames[ZEL_MAX_STACK_FRAMES];  // return addresses, innermost first
  uint16_t count;
  uint64_t calls;
  uint64_t failures;
  uint64_t totalNs;
  uint64_t longestNs;
};

constinit ZelSpinLock g_lock = {};  // all zero is a free lock
constinit thread_local bool t_isInside = false;

// The state of a thread that works for the collector. errno stays as the program had it.
class Work {
 public:
  Work() {
    t_isInside = true;
    __ZelAcquireSpinLock(&g_lock);
  }
  ~Work() {
    __ZelReleaseSpinLock(&g_lock);
    t_isInside = false;
    errno = keptErrno_;
  }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

 private:
  const int keptErrno_ = errno;
};

constinit ZelHashTable* g_sites = nullptr;  // null until start-up is complete
constinit uint32_t g_category = 0;

// The table's keys are the sites themselves: equal when their frames are.
uint64_t KeyOf(const Site& site) { return reinterpret_cast<uint64_t>(&site); }
const Site& SiteOf(uint64_t key) { return *reinterpret_cast<const Site*>(key); }

uint64_t HashFrames(const ZelHashTable*, uint64_t key) {
  return __ZelCRC32(SiteOf(key).frames, SiteOf(key).count * sizeof(uint64_t));
}
uint32_t HaveSameFrames(uint64_t stored, uint64_t searched) {
  const Site& a = SiteOf(stored);
  const Site& b = SiteOf(searched);
  return a.count == b.count && std::equal(a.frames, a.frames + a.count, b.frames) ? 1 : 0;
}

void CreateTable() {
  g_category = __ZelRegisterMemoryCategory("sites");
  const ZelHashFunction hash[] = {HashFrames};
  g_sites = __ZelCreateHashTable(ZEL_HASH_FLAG_KEY_CALLBACKS | ZEL_HASH_FLAG_NO_LOCKING, hash, 1,
                                 HaveSameFrames, nullptr, g_category, 0);
}

// `frame` is the frame pointer of the function that the program called.
void CapturePath(uint64_t frame, Site* site) {
  uint64_t stackBase;
  const uint64_t size = __ZelGetThreadStackBaseAndSize(frame, &stackBase);
  site->count =
      __ZelCaptureStackBackTrace(stackBase, stackBase - size, frame, 0, frame, site->frames);
}

// Null only in a process that is ending for want of memory.
Site* SiteFor(uint64_t frame) {
  Site path = {};
  CapturePath(frame, &path);
  auto* site = static_cast<Site*>(__ZelLookupHashTable(g_sites, KeyOf(path)));
  if (site != nullptr) return site;
  site = static_cast<Site*>(__ZelMalloc(g_category, sizeof(Site), 0));
  if (site == nullptr) return nullptr;
  *site = path;
  __ZelInsertHashTableEntry(g_sites, KeyOf(*site), site);
  return site;
}

using Sync = int (*)(int);

struct RealFunction {
  const char* name;
  std::atomic<Sync> function;

  Sync Find() {
    if (function == nullptr) function = reinterpret_cast<Sync>(dlsym(RTLD_NEXT, name));
    return function;
  }
};
constinit RealFunction g_fsync = {"fsync", nullptr};
constinit RealFunction g_fdatasync = {"fdatasync", nullptr};

uint64_t NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

int Watch(RealFunction& real, int descriptor, void* frame) {
  const Sync function = real.Find();
  const uint64_t start = NowNs();
  const int result = function(descriptor);
  const uint64_t duration = NowNs() - start;
  // A signal handler that interrupts the collector finds its data half done.
  if (t_isInside) return result;
  const Work work;
  if (g_sites == nullptr) return result;
  Site* const site = SiteFor(reinterpret_cast<uint64_t>(frame));
  if (site == nullptr) return result;
  ++site->calls;
  if (result != 0) ++site->failures;
  site->totalNs += duration;
  site->longestNs = std::max(site->longestNs, duration);
  return result;
}

constinit uint32_t g_parser = 0;
constinit uint32_t g_outOption = 0;
constinit uint32_t g_slowOption = 0;

void RegisterOptions() {
  g_parser = __ZelGetOptionParser("syncscope");
  g_outOption = __ZelRegisterPathOption(g_parser, "-out", "Directory for the files", ".", 0, 0, 1);
  g_slowOption = __ZelRegisterIntegerOption(
      g_parser, "-slow", "Milliseconds that a sync takes to get its path logged", 100, 0, 1);
}

// SYNCSCOPE_OPTIONS="-out /tmp -slow 20"
void ParseOptions() {
  constexpr int kMaxArguments = 16;
  char* const text = __ZelStrdup(__ZelGetEnvironmentVariable("SYNCSCOPE_OPTIONS"));
  if (text == nullptr) return;
  const char* arguments[kMaxArguments];
  int count = 0;
  char* rest;
  for (char* word = strtok_r(text, " ", &rest); word != nullptr && count < kMaxArguments;
       word = strtok_r(nullptr, " ", &rest)) {
    arguments[count++] = word;
  }
  __ZelParseOptions2(g_parser, count, arguments);
  __ZelFree(text);
}

constinit char g_directory[PATH_MAX] = {};

// False when the path is too long.
bool PathOfFile(const char* suffix, char (&path)[PATH_MAX]) {
  const int length =
      std::snprintf(path, sizeof path, "%s/syncscope.%d%s", g_directory, getpid(), suffix);
  return length > 0 && static_cast<size_t>(length) < sizeof path;
}

int LoadModule(dl_phdr_info* info, size_t, void*) {
  uint64_t end = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type == PT_LOAD) end = std::max(end, header.p_vaddr + header.p_memsz);
  }
  const bool isProgram = info->dlpi_name[0] == '\0';
  const auto* const program = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
  __ZelLoadModule(isProgram ? program : info->dlpi_name, info->dlpi_addr, info->dlpi_addr + end);
  return 0;
}

void WriteFrame(ZelXmlFile* file, uint64_t returnAddress) {
  const uint64_t call = returnAddress - 1;  // inside the instruction that calls
  const ZelModuleRecord* const module = __ZelFindModuleByAddress(call);
  __ZelXMLWriteOpeningTag(file, "frame");
  if (module != nullptr) __ZelXMLWriteStringElement(file, "module", module->name);
  const uint64_t start = module != nullptr ? module->start : 0;
  __ZelXMLWriteHexadecimalAddressElement(file, "offset", call - start);
  __ZelXMLWriteClosingTag(file, "frame");
}

uint32_t WriteSite(void* data, void* context) {
  const Site& site = *static_cast<const Site*>(data);
  auto* const file = static_cast<ZelXmlFile*>(context);
  __ZelXMLStartWritingOpeningTag(file, "site");
  __ZelXMLWriteLongIntegerAttribute(file, "calls", site.calls);
  __ZelXMLWriteLongIntegerAttribute(file, "failures", site.failures);
  __ZelXMLWriteLongIntegerAttribute(file, "total_us", site.totalNs / 1000);
  __ZelXMLWriteLongIntegerAttribute(file, "longest_us", site.longestNs / 1000);
  __ZelXMLFinishWritingOpeningTag(file);
  for (uint16_t i = 0; i < site.count; ++i) WriteFrame(file, site.frames[i]);
  __ZelXMLWriteClosingTag(file, "site");
  return 0;
}

void WriteResult() {
  char path[PATH_MAX];
  ZelXmlFile* file = PathOfFile(".xml", path) ? __ZelXMLCreateFile(path, 0) : nullptr;
  if (file == nullptr) return;
  ZelMemoryCategoryInfo memory = {};
  __ZelGetMemoryInfoByCategory(g_category, &memory);
  __ZelXMLStartWritingOpeningTag(file, "syncscope_result");
  __ZelXMLWriteIntegerAttribute(file, "own_bytes", static_cast<int32_t>(memory.allocated));
  __ZelXMLFinishWritingOpeningTag(file);
  uint32_t sites;
  __ZelScanHashTable(g_sites, WriteSite, file, 0, nullptr, &sites);
  __ZelXMLWriteClosingTag(file, "syncscope_result");
  __ZelXMLCloseFile(&file);
}

uint32_t LogIfSlow(void* data, void* context) {
  const Site& site = *static_cast<const Site*>(data);
  const uint64_t longestMs = site.longestNs / 1'000'000;
  if (longestMs < static_cast<uint64_t>(__ZelGetIntegerOptionValue(g_parser, g_slowOption)))
    return 0;
  const uint32_t message = *static_cast<const uint32_t*>(context);
  zelrt::Log(ZELLOG_SEVERITY_WARNING, message, site.calls, longestMs);
  __ZelLogCallstack("slow sync", site.frames, site.count);
  return 0;
}

void WriteLog() {
  char path[PATH_MAX];
  if (!PathOfFile(".log", path) || __ZelCreateLogger("syncscope", path, 0) == 0) return;
  ParseOptions();  // again: now the log is there, for what is not understood
  __ZelLogToolOptionValues(g_parser);
  const char* const arguments[] = {"calls", "longest_ms", nullptr};
  const ZelLogMessage slow = {"SLOW_SYNC", arguments, 0, __ZelGetLoggerHandle("syncscope")};
  uint32_t message = __ZelRegisterLogMessage2(&slow);
  uint32_t sites;
  __ZelScanHashTable(g_sites, LogIfSlow, &message, 0, nullptr, &sites);
  __ZelCloseLogger();
}

void Report(int, void*) {
  // The library ends the process in the middle of the collector's work, or a signal handler does.
  if (t_isInside) return;
  const Work work;
  dl_iterate_phdr(LoadModule, nullptr);
  WriteResult();
  WriteLog();
  g_sites = nullptr;  // threads that are still at work go uncounted
}

void BeforeFork() { __ZelAcquireSpinLock(&g_lock); }
void AfterForkInParent() { __ZelReleaseSpinLock(&g_lock); }

uint32_t FreeSite(void* data) {
  __ZelFree(data);
  return 1;
}

// The child counts anew.
void AfterForkInChild() {
  uint32_t sites;
  if (g_sites != nullptr) __ZelScanAndEmptyHashTable(g_sites, FreeSite, &sites);
  __ZelReleaseSpinLock(&g_lock);
}

[[gnu::constructor]] void Start() {
  zelhost::Install();
  const Work work;
  __ZelEnableMemoryStatisticsCollection();
  RegisterOptions();
  ParseOptions();
  __ZelRtStartup();
  if (realpath(__ZelGetPathOptionValue(g_parser, g_outOption), g_directory) == nullptr) return;
  CreateTable();
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
  on_exit(Report, nullptr);
}

}  // namespace

extern "C" ZEL_API int fsync(int descriptor) {
  return Watch(g_fsync, descriptor, __builtin_frame_address(0));
}
extern "C" ZEL_API int fdatasync(int descriptor) {
  return Watch(g_fdatasync, descriptor, __builtin_frame_address(0));
}
