// The log file: creation, reopening, closing, and the hold on it for a record.
//
// g_logFile changes under the creation flag only. A handle that it has held stays valid: a log file
// that another one replaces is left open, since a record may be on its way into it.
//
// Locks: the creation flag, then what opening a file needs, the system allocation lock among it. So
// who holds the system allocation lock must not wait for the flag, and does without a record.

#include "log/internal.h"
#include "memory/internal.h"
#include "runtime/ending.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr const char* kDefaultSource = "zelrt";
constexpr const char* kDefaultPath = "zellog.log";

constinit ZelXmlFile* g_logFile = nullptr;
constinit ZelXmlFile* g_newestLogFile = nullptr;  // leads to all there have been
constinit uint32_t g_wasCreated = 0;
constinit uint64_t g_creator = kNoOwner;  // the creation flag: who has taken it
constinit uint32_t g_enderWaits = 0;  // the thread that ends the process wants a log file's lock

// Set when the ending thread comes to exit(), which flushes streams without their locks: only that
// thread writes to a log file from then on. What others have to say is lost.
constinit uint64_t g_lastWriter = kNoOwner;

// The thread that ends the process has waited for the log in vain, and does not wait again: its
// report has many lines. It alone uses this.
constinit bool g_isOutOfReach = false;

int64_t EndingPatienceMs() { return g_isOutOfReach ? 0 : kEndingPatienceMs; }

// Waits, for some time, until the thread that ends the process has got the lock of its log file.
// Threads that log without a pause would keep that among themselves.
void GiveWayToEnder() {
  const Deadline deadline(kEndingPatienceMs);
  while (LoadRelaxed(g_enderWaits) != 0 && !deadline.HasPassed()) __ZelYield();
  // The ender has given up by now, or a fork has left it behind.
  StoreRelaxed(g_enderWaits, 0);
}

// Holds the creation flag, where that can be had.
class CreationHold {
 public:
  explicit CreationHold(uint64_t self) : isHeld_(Take(self)) {}
  ~CreationHold() {
    if (isHeld_) StoreRelease(g_creator, kNoOwner);
  }
  CreationHold(const CreationHold&) = delete;
  CreationHold& operator=(const CreationHold&) = delete;

  bool IsHeld() const { return isHeld_; }

 private:
  static bool Take(uint64_t self) {
    const bool ends = IsEndingProcess(self);
    const Deadline deadline(ends ? EndingPatienceMs() : 0);
    for (;;) {
      const uint64_t creator = AtomicCompareExchange(g_creator, self, kNoOwner);
      if (creator == kNoOwner) return true;
      // The creation itself has something to report.
      if (creator == self) return false;
      if (IsSpinLockHeldBy(&g_systemAllocationLock, self)) return false;
      if (ends && deadline.HasPassed()) {
        g_isOutOfReach = true;
        return false;
      }
      __ZelYield();
    }
  }

  const bool isHeld_;
};

bool CreateLogFileHeld(const char* sourceName, const char* path, bool append, uint64_t self) {
  ZelXmlFile* const file = __ZelXMLCreateFile(path, append ? 1 : 0);
  if (file != nullptr && !append) {
    const LogFileHold hold(file, self);
    XmlPieces(file)
        .StartTag("log")
        .Attribute("version", [](XmlPieces& pieces) { pieces.Add("2.0"); })
        .Attribute("source", [sourceName](XmlPieces& pieces) { pieces.Add(sourceName); })
        .FinishTag();
  }
  StoreRelease(g_logFile, file);
  if (file != nullptr) {
    file->earlier = g_newestLogFile;
    g_newestLogFile = file;
  }
  if (file != nullptr) StoreRelease(g_wasCreated, 1);
  return file != nullptr;
}

}  // namespace

ZelXmlFile* CurrentLogFile() { return LoadAcquire(g_logFile); }
bool LoggerWasCreated() { return LoadAcquire(g_wasCreated) != 0; }

ZelXmlFile* LogFileForRecord(uint64_t self) {
  ZelXmlFile* const file = CurrentLogFile();
  if (file != nullptr) [[likely]]
    return file;
  if (!HasStarted()) return nullptr;
  const CreationHold hold(self);
  if (!hold.IsHeld()) return CurrentLogFile();
  if (CurrentLogFile() == nullptr) CreateLogFileHeld(kDefaultSource, kDefaultPath, false, self);
  return CurrentLogFile();
}

LogFileHold::LogFileHold(ZelXmlFile* file, uint64_t self) : file_(file) {
  if constexpr (kDebugChecks) NoteLockWanted(&file->lock, LockRank::kLogFile);
  if (IsEndingProcess(self)) [[unlikely]] {
    const Deadline deadline(EndingPatienceMs());
    while (!TryToAcquireSpinLock(&file->lock, file->lock.spinCount, self)) {
      if (deadline.HasPassed()) {
        if constexpr (kDebugChecks) NoteLockReleased(&file->lock);
        file_ = nullptr;
        g_isOutOfReach = true;
        break;
      }
      StoreRelaxed(g_enderWaits, 1);
      __ZelYield();
    }
    StoreRelaxed(g_enderWaits, 0);
    if (file_ == nullptr) return;
  } else {
    if (LoadRelaxed(g_enderWaits) != 0 && !IsSpinLockHeldBy(&file->lock, self)) [[unlikely]]
      GiveWayToEnder();
    AcquireSpinLock(&file->lock, self);
    if (LoadRelaxed(g_lastWriter) != kNoOwner) [[unlikely]] {
      if constexpr (kDebugChecks) NoteLockReleased(&file->lock);
      ReleaseHeldSpinLock(&file->lock);
      file_ = nullptr;
      return;
    }
  }
  RecordXmlFileOwner(file, self);
}

void KeepOthersFromLog(uint64_t self) {
  // Whoever has the lock finishes its record first, if that does not take too long.
  ZelXmlFile* const file = CurrentLogFile();
  if (file == nullptr) {
    StoreRelaxed(g_lastWriter, self);
    return;
  }
  const LogFileHold hold(file, self);
  StoreRelaxed(g_lastWriter, self);
}

LogFileHold::~LogFileHold() {
  if (file_ == nullptr) return;
  if constexpr (kDebugChecks) NoteLockReleased(&file_->lock);
  __ZelXMLReleaseFile(file_);
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelCreateLogger(const char* sourceName, const char* path, uint32_t append) {
  const uint64_t self = CallingOwner();
  const CreationHold hold(self);
  if (!hold.IsHeld() || sourceName == nullptr || !HasStarted() || path == nullptr) return 0;
  return CreateLogFileHeld(sourceName, path, append != 0, self) ? 1 : 0;
}

uint32_t __ZelReopenLogger() {
  ZelXmlFile* const file = CurrentLogFile();
  if (!HasStarted() || file == nullptr) return 0;
  const LogFileHold hold(file, CallingOwner());
  return hold.IsHeld() ? __ZelXMLReopenFile(file) : 0;
}

void __ZelCloseLogger() {
  ZelXmlFile* const file = CurrentLogFile();
  if (file == nullptr) return;
  const LogFileHold hold(file, CallingOwner());
  if (hold.IsHeld()) __ZelXMLWriteClosingTag(file, "log");
}
