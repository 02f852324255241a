// What the files of the collector lend each other, by the file that defines it.
//
// Locks, outermost first: the fork gate, then the shards' locks in ascending order (record.cc); the
// lock of the files (own_files.cc) or that of the modules (modules.cc); the library's. The library
// is called, where it takes locks, only by a thread that holds the gate or a shard's lock, so
// whoever holds them all, as fork's handlers do, knows that every lock is free. The command
// thread's waiting is the exception: a child lets go of the channel with whatever that thread held.
//
// Nothing here may allocate from the program's heap. Streams, strings and containers are for
// threads that are Writing alone: the arena serves them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "examples/heapscope/call_path.h"
#include "examples/heapscope/modules.h"
#include "examples/heapscope/options.h"
#include "examples/heapscope/size_classes.h"

namespace heapscope {

// lifecycle.cc -----------------------------------------------------------------------------------

enum class State : uint32_t {
  kUntouched,
  kStarting,
  kCounting,
  kUnable,  // no memory for the tables: the program runs uncounted
};
extern constinit std::atomic<State> g_state;

// Brings the collector up unless that was done, and returns kCounting or kUnable. Threads that come
// meanwhile wait. The caller is inside the collector.
State EnsureStarted();

// Writes all that is written at the end, unless it was written, or this is not the process that was
// counted.
void ReportOnce();

struct Process {
  char name[64];
  int32_t id;
  int32_t forkedFrom;  // 0: started by exec
  int64_t startedMs;   // since 1970
  int64_t resetMs;     // 0: the counts were never reset

  // Counts started on top of blocks that were live already.
  bool HasInherited() const { return forkedFrom != 0 || resetMs != 0; }
};
int64_t NowMs();

extern constinit Process g_process;

extern constinit Options g_options;  // those in force

// interpose.cc -----------------------------------------------------------------------------------

// False when the C library lacks one.
bool FindRealFunctions();

extern constinit thread_local bool t_isInside;

// Set while the thread calls what may allocate, on the collector's account: see Writing.
extern constinit thread_local bool t_isWriting;

// Marks the thread as inside the collector. Allocations that come then are not the program's
// ordinary ones: they stem from what the collector calls, from the real functions calling each
// other, or from a signal handler.
class InsideCollector {
 public:
  InsideCollector() : isOutermost_(!t_isInside) {
    t_isInside = true;
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  ~InsideCollector() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (isOutermost_) t_isInside = false;
  }
  InsideCollector(const InsideCollector&) = delete;
  InsideCollector& operator=(const InsideCollector&) = delete;

  bool IsOutermost() const { return isOutermost_; }

 private:
  const bool isOutermost_;
};

// arena.cc ---------------------------------------------------------------------------------------

// Zeroed blocks that do not come from the program's heap. Null when the arena is used up; errno
// stays as it is.
void* ArenaAllocate(size_t alignment, size_t size);
void ArenaFree(void* block);
bool IsInArena(const void* block);
size_t ArenaBlockSize(const void* block);

// own_memory.cc ----------------------------------------------------------------------------------

// Gives the library memory from mmap. False when there is not even enough for its first table.
bool SetUpOwnMemory();

// True for ever once the system has refused memory: from then on, new calls must not ask the
// library for more. Files may be written as long as there is memory for them.
bool IsMemoryShort();
bool HasMemoryForFiles();

// What the memory is for. The library has a category for each of them but the first.
enum class OwnMemory : uint8_t { kAllocator, kFiles, kLiveBlocks, kSites };
inline constexpr size_t kOwnMemoryPurposes = 4;

void RegisterOwnMemoryCategories();
uint32_t CategoryOf(OwnMemory purpose);

// Tells what a thread's calls of the library ask for memory for.
class MemoryPurpose {
 public:
  explicit MemoryPurpose(OwnMemory purpose) : outer_(t_purpose) { t_purpose = purpose; }
  ~MemoryPurpose() { t_purpose = outer_; }
  MemoryPurpose(const MemoryPurpose&) = delete;
  MemoryPurpose& operator=(const MemoryPurpose&) = delete;

  static OwnMemory OfThread() { return t_purpose; }

 private:
  static constinit thread_local OwnMemory t_purpose;
  const OwnMemory outer_;
};

const char* NameOf(OwnMemory purpose);
uint64_t OwnBytes(OwnMemory purpose);  // that the library got
uint64_t OwnMappedBytes();             // what is mapped, with what is kept back

// record.cc --------------------------------------------------------------------------------------

enum class Function : uint8_t {
  kMalloc,
  kCalloc,
  kRealloc,
  kReallocarray,
  kPosixMemalign,
  kAlignedAlloc,
  kMemalign,
  kValloc,
  kPvalloc,
  kFree,
};
inline constexpr size_t kFunctions = 10;
extern const char* const kFunctionNames[kFunctions];

void RecordAllocation(Function function, const Caller& caller, const void* block, size_t size);
void RecordFailure(Function function, size_t size);

// Before the real function frees the block: afterwards another thread may be given the address.
void RecordFree(const void* block);

// A reallocation takes the block out of the table for the same reason, and then either puts it back
// or says what became of it: block is null when the size was 0 and the block is gone.
struct TakenBlock {
  bool isKnown;
  uint32_t site;
  size_t size;
};
TakenBlock TakeBlock(const void* block);
void PutBackBlock(Function function, const void* block, TakenBlock taken, size_t refusedSize);
void RecordReallocation(Function function, const Caller& caller, const void* old, TakenBlock taken,
                        const void* block, size_t size);

// While paused, allocations are left out.
void PauseRecords();
void ResumeRecords();
bool AreRecordsPaused();

// The live block that holds an address.
struct BlockAround {
  uintptr_t start;
  size_t size;
  uint32_t site;
};
bool FindBlockAround(uintptr_t address, BlockAround* found);

// Holds the fork gate, for calls of the library that no block is the reason of, unless a fork
// keeps it for too long.
class NoForkMeanwhile {
 public:
  NoForkMeanwhile();
  ~NoForkMeanwhile();
  NoForkMeanwhile(const NoForkMeanwhile&) = delete;
  NoForkMeanwhile& operator=(const NoForkMeanwhile&) = delete;

  bool IsHeld() const { return isHeld_; }

 private:
  const bool isHeld_;
};

// Around what takes a lock of the loader that fork does not free in the child. A fork waits for its
// end, but not for ever. Not to be begun with a lock held.
class LoaderUse {
 public:
  LoaderUse();
  ~LoaderUse();
  LoaderUse(const LoaderUse&) = delete;
  LoaderUse& operator=(const LoaderUse&) = delete;

  bool IsBegun() const { return isBegun_; }

 private:
  bool isBegun_;
};
void ForgetLoaderUsesInChild();

// Around fork and reset. The table of live blocks stays when the counts start anew.
void HoldRecords();
void ReleaseRecords();
void StartRecordsAnew();  // between the two

struct Amount {
  uint64_t blocks;
  uint64_t bytes;
};
// What came and went, of everything, a size class or a site.
struct Flow {
  Amount inherited;  // live when the process was forked
  Amount allocated;
  Amount freed;
  Amount temporary;    // of them: by the thread that had allocated them, and nothing else since
  uint64_t peakBytes;  // most that were live at one time

  Amount Live() const {
    return {inherited.blocks + allocated.blocks - freed.blocks,
            inherited.bytes + allocated.bytes - freed.bytes};
  }
};
struct Figures {
  uint64_t calls[kFunctions];
  uint64_t failures;      // calls that gave no block
  uint64_t unknownFrees;  // of blocks that are not in the table
  uint64_t unseenFrees;   // blocks whose address was given out again
  uint64_t untracked;     // blocks for which the table had no memory
  uint64_t unrecorded;    // calls that found the table closed by a fork for too long
  uint64_t leftOut;       // calls that did not count because of a pause
  Flow classes[kSizeClasses];
  Flow total;
};

// Adds the figures up, without a lock: what other threads do meanwhile may be in some and not yet
// in others, but no free is counted without its allocation.
void ReadFigures(Figures* figures);

// What was allocated before the collector's own initialisation.
void NoteEndOfEarlyAllocations();
Amount EarlyAllocations();

// threads.cc -------------------------------------------------------------------------------------

struct ThreadFigures {
  uint32_t thread;  // the kernel's id; 0: those that found the table full
  Amount allocated;
  Amount freed;
};
uint32_t ThreadsSeen();
uint32_t ThreadPlaces();
ThreadFigures ReadThread(uint32_t place);
void ResetThreads();
void GiveUpThreadPlaces();  // of the threads that a child does not have

// sites.cc ---------------------------------------------------------------------------------------

// A head, which the places follow, innermost first. They are inside the instructions that call.
struct SitePath {
  uint64_t hash;
  uint64_t count;

  Place* Places() { return reinterpret_cast<Place*>(this + 1); }
  const Place* Places() const { return reinterpret_cast<const Place*>(this + 1); }
};

struct SiteFigures : Flow {
  const SitePath* path;  // null: all for which there was no site
};
void SetUpSites();
uint32_t NumberOfSites();
SiteFigures ReadSite(uint32_t number);
void StartSitesAnew();

// output.cc --------------------------------------------------------------------------------------

void OpenOutput();
void KeepOutputInChild();
void WriteOutput(const char* text, size_t length);

// own_files.cc -----------------------------------------------------------------------------------

void LockOwnFiles();
void UnlockOwnFiles();

// Store the path of this process's log, of its result file, and of a snapshot. False when there is
// to be none.
bool LogFilePath(char* path, size_t size);
bool ResultFilePath(char* path, size_t size);
bool SnapshotFilePath(uint32_t number, char* path, size_t size);

// As fopen with "w" or "a", for a thread that is writing.
FILE* OpenOwnStream(const char* path, const char* mode);

// log.cc -----------------------------------------------------------------------------------------

enum class Problem : uint8_t { kUnknownFree, kUnseenFree, kUntracked };

// For a thread that holds a shard's lock. Each kind of problem has a limited number of records.
void LogProblem(Problem problem, uintptr_t address, size_t size);
void LogFailure(Function function, size_t size);

// The record of the start, and those of the end. They take locks themselves.
void LogStart();
void LogEnd(const Figures& figures);
void StartChildLog();

// result.cc --------------------------------------------------------------------------------------

enum class Occasion : uint8_t { kEnd, kSnapshot, kHeartbeat };

// Writes a whole file and puts it in place of what is there. False when there is none to write, or
// it could not be written: then what was there stays, except at the end.
bool WriteResult(Occasion occasion, const Figures& figures, const char* path);
void StartChildResult();

// channel.cc -------------------------------------------------------------------------------------

void OpenChannel();
void CloseChannel();
void ForgetChannelInChild();

// summary.cc -------------------------------------------------------------------------------------

void WriteSummary(const Figures& figures);

}  // namespace heapscope
