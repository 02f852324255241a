// Reads the summaries that heapscope writes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct Amounts {
  int64_t blocks = 0;
  int64_t bytes = 0;
  bool operator==(const Amounts&) const = default;
};

struct ClassRow {
  int64_t allocated = 0, bytes = 0, freed = 0, live = 0, liveBytes = 0, peakBytes = 0;
  bool operator==(const ClassRow&) const = default;
};

struct Summary {
  std::string name;
  int process = 0;
  int forkedFrom = 0;
  std::map<std::string, Amounts> totals;          // "allocated", "freed", "live at end", ...
  std::map<std::string, int64_t> calls;           // by function
  std::map<std::string, int64_t> irregularities;  // "calls that failed", ...
  std::map<std::string, ClassRow> classes;        // "16 B", "1 KiB", "larger"
  std::map<std::string, int64_t> ownMemory;       // by category
};

std::vector<Summary> ReadSummaries(const std::string& text);

// What b has more than a, in everything that adds up.
Summary operator-(const Summary& b, const Summary& a);
