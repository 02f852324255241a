// Reads the summaries that heapscope writes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

using Numbers = std::vector<int64_t>;

// By what their line begins with: blocks and bytes "allocated", calls of "malloc", all columns of
// the sizes up to "1 KiB".
using Figures = std::map<std::string, Numbers>;

struct Summary {
  std::string name;
  int process = 0;
  int forkedFrom = 0;
  Figures figures;
  Figures irregularities;  // "calls that failed", ...
};

std::vector<Summary> ReadSummaries(const std::string& text);

// What b has more than a.
Summary operator-(Summary b, const Summary& a);
