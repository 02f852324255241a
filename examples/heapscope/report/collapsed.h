// Collapsed stacks: a line for each call path, for viewers that draw them.
#pragma once

#include <string>

#include "examples/heapscope/report/call_paths.h"

namespace heapscope::report {

// "main;Open;ReadHeader 4096": outermost first, then the figure. Paths of the same functions are
// one.
std::string CollapsedStacks(const NamedResult& named, const Metric& metric);

}  // namespace heapscope::report
