// What the files of the collector lend each other, by the file that defines it.
//
// Locks, outermost first: the stripes' locks (record.cc), in ascending order; the growth lock
// (own_memory.cc); the library's. The library's allocator is called only by a thread that holds a
// stripe's lock, so whoever holds all stripes, as fork's handlers do, knows that every lock is
// free.
//
// Nothing here may allocate from the program's heap: no streams, strings or containers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

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

// Writes the summary unless it was written, or this is not the process that was counted.
void WriteSummaryOnce();

struct Process {
  char name[64];
  int32_t id;
  int32_t forkedFrom;  // 0: started by exec
};
extern constinit Process g_process;

// interpose.cc -----------------------------------------------------------------------------------

// False when the C library lacks one.
bool FindRealFunctions();

extern constinit thread_local bool t_isInside;

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

// bootstrap.cc -----------------------------------------------------------------------------------

// Blocks for allocations that come before the real functions are known. They are zeroed and never
// used again. Null, with errno ENOMEM, when the arena is used up.
void* ArenaAllocate(size_t alignment, size_t size);
bool IsInArena(const void* block);
size_t ArenaBlockSize(const void* block);

// own_memory.cc ----------------------------------------------------------------------------------

// Gives the library memory from mmap. False when there is not even enough for its first table.
bool SetUpOwnMemory();

// As __ZelMalloc and __ZelFree, for a thread that holds a stripe's lock; but the process does not
// end for want of memory: the result is null. Both leave errno alone.
void* AllocateOwn(uint32_t category, size_t size, uint32_t sizeShift);
void FreeOwn(void* block);

uint64_t OwnMappedBytes();  // what is mapped now

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

void RecordAllocation(Function function, const void* block, size_t size);
void RecordFailure(Function function);

// Before the real function frees the block: afterwards another thread may be given the address.
void RecordFree(const void* block);

// A reallocation takes the block out of the table for the same reason, and then either puts it back
// or says what became of it: block is null when the size was 0 and the block is gone.
struct TakenBlock {
  bool isKnown;
  size_t size;
};
TakenBlock TakeBlock(const void* block);
void PutBackBlock(Function function, const void* block, TakenBlock taken);
void RecordReallocation(Function function, TakenBlock taken, const void* block, size_t size);

// Around fork. The child keeps the table of live blocks and starts with fresh counts.
void HoldRecords();
void ReleaseRecords();
void StartChildRecords();  // between the two

struct Amount {
  uint64_t blocks;
  uint64_t bytes;
};
struct ClassFigures {
  Amount inherited;  // live when the process was forked
  Amount allocated;
  Amount freed;
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
  ClassFigures classes[kSizeClasses];
  ClassFigures total;
};

// Adds the figures up, without a lock: what other threads do meanwhile may be in some and not yet
// in others, but no free is counted without its allocation.
void ReadFigures(Figures* figures);

// output.cc --------------------------------------------------------------------------------------

void OpenOutput();
void KeepOutputInChild();
void WriteOutput(const char* text, size_t length);

// summary.cc -------------------------------------------------------------------------------------

// Remembers what libraries allocated that were initialised before the collector.
void NoteEndOfEarlyAllocations();
void WriteSummary();

}  // namespace heapscope
