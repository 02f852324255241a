#include "tests/heapscope/summary_reader.h"

#include <regex>
#include <sstream>

namespace {

Numbers ReadNumbers(std::string text) {
  std::erase(text, ',');
  std::istringstream stream(text);
  Numbers numbers;
  for (int64_t number; stream >> number;) numbers.push_back(number);
  return numbers;
}

void ReadLine(const std::string& line, Summary* summary) {
  static const std::regex kCall("(\\w+) ([0-9,]+)"), kLine(" +(\\S.*?)(:?) +([0-9, ]+)");
  std::smatch match;
  if (line.starts_with("  calls: ")) {
    for (auto call = std::sregex_iterator(line.begin(), line.end(), kCall);
         call != std::sregex_iterator(); ++call)
      summary->figures[(*call)[1]] = ReadNumbers((*call)[2]);
  } else if (std::regex_match(line, match, kLine)) {
    Figures& figures = match[2].length() > 0 ? summary->irregularities : summary->figures;
    figures[match[1]] = ReadNumbers(match[3]);
  }
}

// What comes to nothing is left out.
void Subtract(Figures* from, const Figures& figures) {
  for (const auto& [name, numbers] : figures) {
    Numbers& rest = (*from)[name];
    rest.resize(numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i) rest[i] -= numbers[i];
    if (rest == Numbers(rest.size())) from->erase(name);
  }
}

}  // namespace

std::vector<Summary> ReadSummaries(const std::string& text) {
  std::istringstream lines(text);
  std::vector<Summary> summaries;
  bool isOwnMemory = false;
  for (std::string line; std::getline(lines, line);) {
    char name[100];
    Summary summary;
    if (std::sscanf(line.c_str(), "heapscope: %99[^,], process %d, forked from %d", name,
                    &summary.process, &summary.forkedFrom) >= 2) {
      summary.name = name;
      summaries.push_back(summary);
      isOwnMemory = false;
    }
    isOwnMemory |= line.starts_with("  heapscope's own memory");
    if (!summaries.empty() && !isOwnMemory) ReadLine(line, &summaries.back());
  }
  return summaries;
}

Summary operator-(Summary b, const Summary& a) {
  Subtract(&b.figures, a.figures);
  Subtract(&b.irregularities, a.irregularities);
  return b;
}
