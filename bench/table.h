// The table of a run: a section for each family, a line for each work and for each of its goals.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "bench/suite.h"

namespace bench {

struct MeasuredFamily {
  const char* name;
  const char* unit;
  std::vector<std::pair<Work, Figures>> works;
};

std::string FormatTable(const std::vector<MeasuredFamily>& families);

}  // namespace bench
