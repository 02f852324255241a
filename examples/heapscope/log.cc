// The collector's log: start, problems, values and end of the process.
//
// A process has a log file of its own. A forked child goes on with its parent's until it has
// something to say, which most children never have. A log whose descriptor the program has closed
// is opened again, a few times at most: the library never closes a log.
//
// The functions that write hold a shard's lock, and then the lock of the files, so that a fork
// finds the log's lock free. What is set up here changes under the latter; only the numbers of
// records are looked at without.

#include <climits>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/own_files.h"
#include "examples/heapscope/writing.h"
#include "examples/heapscope/xml_text.h"
#include "zelrt/log.h"

namespace heapscope {
namespace {

constexpr uint32_t kMaxOpenings = 4;
constexpr uint32_t kMaxRecordsOfAKind = 100;
constexpr char kSource[] = "heapscope";

enum class Message : uint8_t {
  kProcessStarted,
  kUnknownFree,  // the problems come in the order of Problem
  kUnseenFree,
  kUntracked,
  kCallFailed,
  kProblemsLeftOut,
  kValues,
  kProcessEnded,
};
constexpr size_t kMessages = 8;

constexpr size_t kMaxArguments = 8;
constexpr struct {
  const char* name;
  const char* argumentNames[kMaxArguments + 1];
} kMessageTable[kMessages] = {
    {"PROCESS_STARTED", {"process", "forked_from", "program"}},
    {"FREE_OF_UNKNOWN_BLOCK", {"address", "size"}},
    {"FREE_NOT_SEEN", {"address", "size"}},
    {"BLOCK_NOT_COUNTED", {"address", "size"}},
    {"CALL_FAILED", {"function", "size"}},
    {"PROBLEMS_LEFT_OUT", {"type"}},
    {"VALUES",
     {"allocated_blocks", "allocated_bytes", "freed_blocks", "freed_bytes", "live_blocks",
      "live_bytes", "peak_bytes", "calls_not_counted"}},
    {"PROCESS_ENDED", {"process"}},
};

struct Log {
  bool isWanted;
  OwnDescriptor descriptor;
  bool isOfThisProcess;
  bool hasEnded;
  uint32_t openings;
  std::atomic<uint32_t> records[kMessages];  // written
  uint32_t ids[kMessages];                   // that the library gave the messages
  bool areRegistered;
};
constinit Log g_log = {};

uint32_t IdOf(Message message) { return g_log.ids[static_cast<size_t>(message)]; }

template <typename... Values>
void Write(uint32_t severity, Message message, const Values&... values) {
  zelrt::Log(severity, IdOf(message), values...);
}

void RegisterMessages() {
  if (g_log.areRegistered) return;
  g_log.areRegistered = true;
  const int32_t source = __ZelGetLoggerHandle(kSource);
  for (size_t i = 0; i < kMessages; ++i) {
    const ZelLogMessage message = {kMessageTable[i].name, kMessageTable[i].argumentNames, 0,
                                   source};
    g_log.ids[i] = __ZelRegisterLogMessage2(&message);
  }
}

void WriteStart() {
  char program[4 * sizeof g_process.name];
  CleanForXml(g_process.name, program, sizeof program);
  Write(ZELLOG_SEVERITY_INFO, Message::kProcessStarted, g_process.id, g_process.forkedFrom,
        static_cast<const char*>(program));
  g_options.LogValues();
}

bool Open() {
  char path[PATH_MAX];
  if (g_log.openings == kMaxOpenings || !LogFilePath(path, sizeof path)) return false;
  if (!HasMemoryForFiles()) return false;
  ++g_log.openings;
  const bool goesOn = g_log.isOfThisProcess;
  if (__ZelCreateLogger(kSource, path, goesOn ? 1 : 0) == 0) return false;
  g_log.descriptor = LatestOwnStream();
  g_log.isOfThisProcess = true;
  if (const char* const channels = g_options.Dump(); channels != nullptr)
    __ZelParseDbgDumpOption(channels);
  RegisterMessages();
  if (!goesOn) WriteStart();
  return true;
}

// Whether there is a log to write to. Opens it if need be.
bool IsOpen() {
  if (g_log.hasEnded) return false;
  return (g_log.isOfThisProcess && g_log.descriptor.IsIntact()) || Open();
}

// One record for each problem, as long as there are not too many of a kind.
template <typename... Values>
void WriteProblem(Message message, const Values&... values) {
  std::atomic<uint32_t>& records = g_log.records[static_cast<size_t>(message)];
  if (!g_log.isWanted || records.load(std::memory_order_relaxed) > kMaxRecordsOfAKind) return;
  const Writing writing;
  if (!IsOpen()) return;
  const uint32_t number = records.fetch_add(1, std::memory_order_relaxed);
  if (number < kMaxRecordsOfAKind) {
    Write(ZELLOG_SEVERITY_WARNING, message, values...);
  } else if (number == kMaxRecordsOfAKind) {
    Write(ZELLOG_SEVERITY_WARNING, Message::kProblemsLeftOut,
          kMessageTable[static_cast<size_t>(message)].name);
  }
}

}  // namespace

void LogProblem(Problem problem, uintptr_t address, size_t size) {
  const auto message = static_cast<Message>(static_cast<size_t>(Message::kUnknownFree) +
                                            static_cast<size_t>(problem));
  WriteProblem(message, reinterpret_cast<const void*>(address), size);
}

void LogFailure(Function function, size_t size) {
  WriteProblem(Message::kCallFailed, kFunctionNames[static_cast<size_t>(function)], size);
}

void LogStart() {
  g_log.isWanted = g_options.OutDirectory() != nullptr || g_options.LogPattern() != nullptr;
  if (!g_log.isWanted) return;
  const NoForkMeanwhile noFork;
  if (!noFork.IsHeld()) return;
  const Writing writing;
  IsOpen();
}

void LogEnd(const Figures& figures) {
  if (!g_log.isWanted) return;
  const NoForkMeanwhile noFork;
  if (!noFork.IsHeld()) return;
  const Writing writing;
  if (!IsOpen()) return;
  const Flow& total = figures.total;
  const Amount live = total.Live();
  Write(ZELLOG_SEVERITY_INFO, Message::kValues, total.allocated.blocks, total.allocated.bytes,
        total.freed.blocks, total.freed.bytes, live.blocks, live.bytes, total.peakBytes,
        figures.unrecorded);
  Write(ZELLOG_SEVERITY_INFO, Message::kProcessEnded, g_process.id);
  __ZelCloseLogger();
  g_log.hasEnded = true;
}

void StartChildLog() {
  g_log.isOfThisProcess = false;
  g_log.hasEnded = false;
  g_log.openings = 0;
  for (std::atomic<uint32_t>& records : g_log.records) records = 0;
}

}  // namespace heapscope
