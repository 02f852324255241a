// The report as text: what a process did, and the call paths that did most of it.
#pragma once

#include <string>

#include "examples/heapscope/report/call_paths.h"
#include "examples/heapscope/report/terminal.h"

namespace heapscope::report {

struct TableOptions {
  size_t top = 10;    // paths of each table
  size_t depth = 12;  // frames printed of a path
  Merge merge = Merge::kPath;
  Style style;
};

std::string ReportText(const NamedResult& named, const TableOptions& options);

// The frames of a path, a line for each; for other tables too.
class FrameLines {
 public:
  explicit FrameLines(const TableOptions& options) : options_(options) {}

  // Columns are as wide as the paths that were measured need.
  void Measure(const std::vector<NamedFrame>& frames, const std::vector<uint32_t>& path);
  std::string Of(const std::vector<NamedFrame>& frames, const std::vector<uint32_t>& path) const;

 private:
  const TableOptions& options_;
  size_t functionWidth_ = 0;
  size_t placeWidth_ = 0;
};

// A heading; cut before it gets its colours, which count as characters afterwards.
std::string TitleLine(const Style& style, std::string_view title, std::string_view remark);

}  // namespace heapscope::report
