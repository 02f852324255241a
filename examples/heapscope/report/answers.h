// Answers of a running collector, which knows places in modules and no functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace heapscope::report {

// Names functions and lines in what `heapscope where` has printed. Other lines stay as they are.
std::string NameFrames(std::string_view answer, const std::vector<std::string>& debugDirs);

}  // namespace heapscope::report
