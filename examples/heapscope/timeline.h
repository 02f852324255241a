// How the figures of the process went over time.
#pragma once

#include <cstdint>

namespace heapscope {

struct TimelinePoint {
  uint64_t atMs;  // since the start of the process
  uint64_t liveBlocks;
  uint64_t liveBytes;
  uint64_t allocatedBlocks;
  uint64_t allocatedBytes;
  uint64_t ownBytes;
};

// Adds a point for now. Threads that come at the same time go by.
void NoteTime();

// The same for threads that allocate: looks at the clock now and then, and adds a point when the
// latest is old enough. To be called without a lock.
void NoteTimeNowAndThen();

// Goes through the points in their order. Meanwhile none are added.
void ReadTimeline(void (*visit)(const TimelinePoint& point, void* context), void* context);

// Allocations in a second, since the last call, the start or a reset.
uint64_t AllocationRate();

void ForgetTimeline();

// In a child of fork: whoever was adding a point is not there.
void FreeTimelineInChild();

}  // namespace heapscope
