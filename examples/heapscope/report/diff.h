// What changed between two results, by call path.
//
// Paths are compared by functions and modules, not by lines or addresses, so that those of a module
// that was built anew are found again. A module is the same by its build id, or by its file name.
#pragma once

#include <string>
#include <vector>

#include "examples/heapscope/report/call_paths.h"
#include "examples/heapscope/report/tables.h"

namespace heapscope::report {

struct PathChange {
  const std::vector<NamedFrame>* frames;  // those of the result that the path is from
  std::vector<uint32_t> path;             // of the new result, or of the old when it is only there
  Flow before, after;
};

std::vector<PathChange> ComparePaths(const NamedResult& before, const NamedResult& after);

std::string DiffText(const NamedResult& before, const NamedResult& after, const Metric& metric,
                     const TableOptions& options);

}  // namespace heapscope::report
