#include "tests/heapscope/summary_reader.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

bool IsNumber(const std::string& word) {
  return !word.empty() && word.find_first_not_of("0123456789,") == std::string::npos;
}

int64_t Number(std::string word) {
  std::erase(word, ',');
  return std::stoll(word);
}

// Takes the numbers off the end of a line, at most `count`.
std::vector<int64_t> NumbersAtEnd(std::vector<std::string>* words, size_t count) {
  std::vector<int64_t> numbers;
  while (numbers.size() < count && !words->empty() && IsNumber(words->back())) {
    numbers.insert(numbers.begin(), Number(words->back()));
    words->pop_back();
  }
  return numbers;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// heapscope: name, process 12, forked from 11: counts from there on
void ReadHeading(const std::string& line, Summary* summary) {
  const size_t nameStart = line.find(' ') + 1;
  const size_t nameEnd = line.find(", process ");
  summary->name = line.substr(nameStart, nameEnd - nameStart);
  std::sscanf(line.c_str() + nameEnd, ", process %d, forked from %d", &summary->process,
              &summary->forkedFrom);
}

enum class Section { kTotals, kCalls, kClasses, kOwnMemory };

void ReadLine(const std::string& line, Section* section, Summary* summary) {
  std::vector<std::string> words = Words(line);
  if (words[0] == "calls:") {
    *section = Section::kCalls;
    for (size_t i = 1; i + 1 < words.size(); i += 2)
      summary->calls[words[i]] = Number(words[i + 1]);
    return;
  }
  if (words[0] == "size") *section = Section::kClasses;
  if (words[0] == "heapscope's") *section = Section::kOwnMemory;
  const std::vector<int64_t> n = NumbersAtEnd(&words, *section == Section::kClasses ? 6 : 2);
  if (n.empty()) return;
  const std::string name = Joined(words);
  switch (*section) {
    case Section::kTotals:
      summary->totals[name] = n.size() == 2 ? Amounts{n[0], n[1]} : Amounts{0, n[0]};
      break;
    case Section::kCalls:
      summary->irregularities[name.substr(0, name.find(':'))] = n[0];
      break;
    case Section::kClasses:
      summary->classes[name] = {n[0], n[1], n[2], n[3], n[4], n[5]};
      break;
    case Section::kOwnMemory:
      summary->ownMemory[name] = n[0];
      break;
  }
}

void Subtract(int64_t& from, int64_t amount) { from -= amount; }
void Subtract(Amounts& from, const Amounts& amount) {
  from = {from.blocks - amount.blocks, from.bytes - amount.bytes};
}
void Subtract(ClassRow& from, const ClassRow& row) {
  from = {from.allocated - row.allocated, from.bytes - row.bytes,
          from.freed - row.freed,         from.live - row.live,
          from.liveBytes - row.liveBytes, from.peakBytes - row.peakBytes};
}

// What comes to nothing is left out.
template <typename Value>
std::map<std::string, Value> Difference(std::map<std::string, Value> b,
                                        const std::map<std::string, Value>& a) {
  for (const auto& [name, value] : a) Subtract(b[name], value);
  std::erase_if(b, [](const auto& entry) { return entry.second == Value(); });
  return b;
}

}  // namespace

std::vector<Summary> ReadSummaries(const std::string& text) {
  std::istringstream lines(text);
  std::vector<Summary> summaries;
  Section section = Section::kTotals;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("heapscope: ")) {
      summaries.emplace_back();
      section = Section::kTotals;
      ReadHeading(line, &summaries.back());
    } else if (!summaries.empty() && !Trimmed(line).empty()) {
      ReadLine(line, &section, &summaries.back());
    }
  }
  return summaries;
}

Summary operator-(const Summary& b, const Summary& a) {
  Summary difference = b;
  difference.totals = Difference(b.totals, a.totals);
  difference.calls = Difference(b.calls, a.calls);
  difference.irregularities = Difference(b.irregularities, a.irregularities);
  difference.classes = Difference(b.classes, a.classes);
  return difference;
}
