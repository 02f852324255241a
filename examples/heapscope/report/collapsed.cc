#include "examples/heapscope/report/collapsed.h"

#include <algorithm>
#include <map>

namespace heapscope::report {

std::string CollapsedStacks(const NamedResult& named, const Metric& metric) {
  std::vector<std::string> names;
  for (const NamedFrame& frame : named.frames) {
    names.push_back(FunctionText(frame));
    std::ranges::replace(names.back(), ';', ':');  // what parts the frames
  }
  std::map<std::string, uint64_t> stacks;
  for (const CallPath& path : named.paths) {
    const uint64_t figure = metric.of(path.flow);
    if (figure == 0) continue;
    std::string stack;
    for (size_t i = path.frames.size(); i-- > 0;) {
      if (!stack.empty()) stack += ';';
      stack += names[path.frames[i]];
    }
    stacks[stack.empty() ? "(unknown)" : stack] += figure;
  }
  std::string text;
  for (const auto& [stack, figure] : stacks) text += stack + " " + std::to_string(figure) + "\n";
  return text;
}

}  // namespace heapscope::report
