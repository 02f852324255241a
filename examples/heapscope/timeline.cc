// How the figures of the process went over time.
//
// The points are at least g_intervalMs apart. When there is no room left, every second one goes and
// the interval doubles: a long run has as many points as a short one.

#include "examples/heapscope/timeline.h"

#include <time.h>

#include <atomic>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/try_flag.h"
#include "zelrt/runtime.h"

namespace heapscope {
namespace {

constexpr size_t kMaxPoints = 1024;
constexpr int64_t kFirstIntervalMs = 10;
constexpr uint32_t kCallsBetweenLooks = 64;

// Over what follows. Nobody takes another lock while holding it, but may hold that of the files
// already.
constinit std::atomic<bool> g_isTaken{false};
constinit TimelinePoint g_points[kMaxPoints] = {};
constinit size_t g_count = 0;
constinit int64_t g_intervalMs = kFirstIntervalMs;
constinit std::atomic<int64_t> g_nextMs{0};  // when the next point is due, by the coarse clock

constinit uint64_t g_rateMs = 0;  // what AllocationRate saw last
constinit uint64_t g_rateBlocks = 0;

// Waits for whoever adds a point.
template <typename Use>
void TakeAnd(Use use) {
  for (;;) {
    if (const TryFlag taken(g_isTaken); taken.IsOurs()) return use();
    __ZelYield();
  }
}

constinit thread_local uint32_t t_calls = 0;  // since the start, of NoteTimeNowAndThen

int64_t CoarseMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
}

void MakeRoom() {
  for (size_t i = 1; 2 * i < kMaxPoints; ++i) g_points[i] = g_points[2 * i];
  g_count = kMaxPoints / 2;
  g_intervalMs *= 2;
}

uint64_t MsSinceStart() {
  const int64_t sinceStart = NowMs() - g_process.startedMs;
  return sinceStart > 0 ? static_cast<uint64_t>(sinceStart) : 0;
}

TimelinePoint PointNow() {
  Figures figures;
  ReadFigures(&figures);
  const Flow& total = figures.total;
  const Amount live = total.Live();
  return {MsSinceStart(),         live.blocks,           live.bytes,
          total.allocated.blocks, total.allocated.bytes, OwnMappedBytes()};
}

}  // namespace

void NoteTime() {
  const TryFlag taken(g_isTaken);
  if (!taken.IsOurs()) return;
  if (g_count == kMaxPoints) MakeRoom();
  TimelinePoint point = PointNow();
  // The clock of the day may be set back.
  if (g_count > 0) point.atMs = std::max(point.atMs, g_points[g_count - 1].atMs);
  g_points[g_count++] = point;
  g_nextMs.store(CoarseMs() + g_intervalMs, std::memory_order_relaxed);
}

void NoteTimeNowAndThen() {
  if (++t_calls % kCallsBetweenLooks != 0) [[likely]]
    return;
  if (CoarseMs() >= g_nextMs.load(std::memory_order_relaxed)) [[unlikely]]
    NoteTime();
}

void ReadTimeline(void (*visit)(const TimelinePoint& point, void* context), void* context) {
  TakeAnd([&] {
    for (size_t i = 0; i < g_count; ++i) visit(g_points[i], context);
  });
}

uint64_t AllocationRate() {
  const TimelinePoint now = PointNow();
  // The clock of the day may be set back.
  const uint64_t milliseconds = now.atMs > g_rateMs ? now.atMs - g_rateMs : 1;
  const uint64_t blocks = now.allocatedBlocks - g_rateBlocks;
  g_rateMs = now.atMs;
  g_rateBlocks = now.allocatedBlocks;
  return blocks * 1000 / milliseconds;
}

void ForgetTimeline() {
  TakeAnd([] {
    g_count = 0;
    g_intervalMs = kFirstIntervalMs;
    g_nextMs.store(0, std::memory_order_relaxed);
    g_rateMs = MsSinceStart();
    g_rateBlocks = 0;
  });
}

void FreeTimelineInChild() { g_isTaken.store(false, std::memory_order_release); }

}  // namespace heapscope
