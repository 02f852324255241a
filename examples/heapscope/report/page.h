// The report as one HTML page that needs nothing else.
#pragma once

#include <string>

#include "examples/heapscope/report/call_paths.h"

namespace heapscope::report {

std::string Page(const NamedResult& named);

}  // namespace heapscope::report
