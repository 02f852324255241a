#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tools/zelctl/channels.h"
#include "tools/zelctl/commands.h"
#include "tools/zelctl/output.h"

namespace zelctl {
namespace {

using Clock = std::chrono::steady_clock;

void PrintSummary(const Options& options, const std::string& directory,
                  const std::vector<double>& times) {
  const auto [least, most] = std::minmax_element(times.begin(), times.end());
  const double mean =
      std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
  if (options.isJson) {
    PrintJson({{"directory", directory},
               {"microseconds", times},
               {"minimum", *least},
               {"mean", mean},
               {"maximum", *most}});
  } else {
    std::printf("%zu round trips: minimum %.1f us, mean %.1f us, maximum %.1f us\n", times.size(),
                *least, mean, *most);
  }
}

}  // namespace

ExitStatus Ping(const Options& options) {
  zelrt::CommandController controller;
  Connect(options.target, controller);
  std::vector<double> times;
  for (int i = 1; i <= options.count; ++i) {
    const auto start = Clock::now();
    Require(controller.Ping(options.timeout), controller);
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (!options.isJson) std::printf("ping %d: %.1f us\n", i, times.back());
  }
  PrintSummary(options, controller.directory(), times);
  return kExitDone;
}

}  // namespace zelctl
