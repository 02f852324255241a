// The sites of a result by what their frames are called, and the figures that they are ranked by.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "examples/heapscope/report/result_file.h"

namespace heapscope::report {

// What a frame is called; frames that would be called the same are one.
struct NamedFrame {
  std::string function = {};  // empty when it is not known
  std::string file = {};      // of the source; empty when it is not known
  uint32_t line = 0;
  std::string module = {};  // path; empty for code that is in no file
  uint64_t offset = 0;      // in the module; 0 when the function is known
  bool isAllocator = false;

  bool operator==(const NamedFrame&) const = default;
};

std::string FunctionText(const NamedFrame& frame);  // or "libx.so.1+0x1234"
std::string PlaceText(const NamedFrame& frame);     // "file.c:12", "[libx.so.1]", or nothing

struct CallPath {
  std::vector<uint32_t> frames;  // indexes of NamedResult::frames, innermost first
  Flow flow;
  uint32_t sites = 0;  // that it was made of
};

struct NamedResult {
  Result result;
  std::vector<NamedFrame> frames;
  std::vector<CallPath> paths;
  std::vector<std::string> unnamedModules;  // used, but without symbols: which and why
};

// Frames of the allocator's own at the inner end are left out.
NamedResult NameSites(Result result, const std::vector<std::string>& debugDirs,
                      const ProgressReport& progress);

// By which frames paths are told apart.
enum class Merge {
  kPath,      // all
  kLine,      // the innermost
  kFunction,  // the innermost, by its function
  kModule     // the innermost, by its module
};

// A merged path has the frames of the largest of them by bytes.
std::vector<CallPath> MergePaths(const NamedResult& named, Merge merge);

// Figures
// --------------------------------------------------------------------------------------------

struct Metric {
  std::string_view name;   // on the command line
  std::string_view title;  // of a table
  bool isBytes;
  uint64_t (*of)(const Flow& flow);
};

inline constexpr Metric kMetrics[] = {
    {"peak", "Peak", true, [](const Flow& flow) { return flow.peakBytes; }},
    {"live", "Live at the end", true, [](const Flow& flow) { return flow.live.bytes; }},
    {"calls", "Calls", false, [](const Flow& flow) { return flow.allocated.blocks; }},
    {"bytes", "Allocated bytes", true, [](const Flow& flow) { return flow.allocated.bytes; }},
    {"temporary", "Temporary blocks", false,
     [](const Flow& flow) { return flow.temporary.blocks; }},
};

const Metric* FindMetric(std::string_view name);

// Largest first; those that have nothing of it are left out.
std::vector<const CallPath*> Ranked(const std::vector<CallPath>& paths, const Metric& metric);

}  // namespace heapscope::report
