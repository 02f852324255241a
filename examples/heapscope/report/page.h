// The report as one HTML page that needs nothing else.
#pragma once

#include <string>

#include "examples/heapscope/report/call_paths.h"

namespace heapscope::report {

std::string Page(const NamedResult& named);

// The page of the new result, with what changed since the old one.
std::string DiffPage(const NamedResult& before, const NamedResult& after);

}  // namespace heapscope::report
