#include "examples/heapscope/report/answers.h"

#include <charconv>
#include <map>

#include "examples/heapscope/report/symbols.h"
#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

constexpr std::string_view kFrame = "frame: ";
constexpr std::string_view kHexadecimal = "+0x";

class Modules {
 public:
  explicit Modules(const std::vector<std::string>& debugDirs) : debugDirs_(debugDirs) {}

  std::vector<SourcePlace> Find(const std::string& path, uint64_t offset) {
    return symbols_.try_emplace(path, path, std::nullopt, debugDirs_).first->second.Find(offset);
  }

 private:
  const std::vector<std::string>& debugDirs_;
  std::map<std::string, ModuleSymbols> symbols_;
};

// frame: /usr/lib/libz.so.1+0x2f10
std::string NameFrame(std::string_view line, Modules& modules) {
  std::string asItIs = CleanText(line) + "\n";
  const size_t end = line.rfind(kHexadecimal);
  if (!line.starts_with(kFrame) || end == std::string_view::npos) return asItIs;
  const std::string_view digits = line.substr(end + kHexadecimal.size());
  uint64_t offset = 0;
  if (digits.empty() ||
      std::from_chars(digits.begin(), digits.end(), offset, 16).ptr != digits.end())
    return asItIs;
  const std::string path(line.substr(kFrame.size(), end - kFrame.size()));
  std::string text;
  for (const SourcePlace& place : modules.Find(path, offset)) {
    if (place.function.empty()) break;
    text += std::string(kFrame) + CleanText(place.function);
    if (!place.file.empty())
      text += "  " + CleanText(FileName(place.file)) + ":" + std::to_string(place.line);
    text += "  [" + CleanText(FileName(path)) + "]\n";
  }
  return text.empty() ? asItIs : text;
}

}  // namespace

std::string NameFrames(std::string_view answer, const std::vector<std::string>& debugDirs) {
  Modules modules(debugDirs);
  std::string text;
  while (!answer.empty()) {
    const size_t end = std::min(answer.find('\n'), answer.size());
    text += NameFrame(answer.substr(0, end), modules);
    answer.remove_prefix(std::min(end + 1, answer.size()));
  }
  return text;
}

}  // namespace heapscope::report
