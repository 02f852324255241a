// A result file of heapscope, read into memory.
//
// A file that breaks off, or is broken further on, is used as far as it is complete; `damage` says
// so.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace heapscope::report {

struct Amount {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
};

struct Flow {
  Amount inherited;
  Amount allocated;
  Amount freed;
  Amount temporary;  // of the freed
  Amount live;
  uint64_t peakBytes = 0;
};

// The peak of a sum is at most the sum of the peaks: they may have been at different times.
Flow& operator+=(Flow& sum, const Flow& other);

struct TimelinePoint {
  uint64_t atMs, liveBlocks, liveBytes, allocatedBlocks, allocatedBytes, ownBytes;
};

struct SizeClass {
  uint64_t upTo = 0;  // 0 for all that is larger
  Flow flow;
};

struct Thread {
  uint64_t id = 0;  // 0 for those without a place of their own
  Amount allocated, freed;
};

struct Module {
  std::string buildId;
  std::string path;  // as it is in the file; CleanText before it is shown
};

inline constexpr uint32_t kNoModule = UINT32_MAX;

struct Frame {
  uint32_t module;  // index of Result::modules, or kNoModule
  uint64_t offset;
};

struct Site {
  Flow flow;
  size_t firstFrame;
  size_t frameCount;
};

using NamedFigures = std::vector<std::pair<std::string, uint64_t>>;

struct Result {
  std::string file;
  uint32_t format = 0;
  std::string written;  // "end", "snapshot" or "heartbeat"
  uint64_t processId = 0;
  uint64_t forkedFrom = 0;
  uint64_t startedMs = 0;
  uint64_t resetMs = 0;  // when the counts were set to nothing; 0 when never
  uint64_t endedMs = 0;
  std::string name;
  std::string executable;
  std::vector<std::string> arguments;
  Amount allocatedAtLoad;
  Flow totals;
  std::vector<TimelinePoint> timeline;
  NamedFigures calls;
  NamedFigures problems;
  std::vector<SizeClass> sizeClasses;
  uint64_t threadsSeen = 0;
  std::vector<Thread> threads;
  std::vector<Module> modules;
  std::vector<Site> sites;
  std::vector<Frame> frames;  // of all sites, innermost first
  uint64_t ownMappedBytes = 0;
  NamedFigures ownMemory;
  std::vector<std::string> damage;

  std::span<const Frame> FramesOf(const Site& site) const {
    return std::span(frames).subspan(site.firstFrame, site.frameCount);
  }
  // Whether something was live when the counting began.
  bool HasInherited() const { return forkedFrom != 0 || resetMs != 0; }
  bool KnowsTemporary() const { return format >= 3; }
};

// Told how far a step is: of all, how many are done.
using ProgressReport = std::function<void(size_t done, size_t all)>;

// Throws FileError for what cannot be read or is not a result file.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
Result ReadResult(const std::string& path, const ProgressReport& progress);

}  // namespace heapscope::report
