#include "examples/heapscope/report/diff.h"

#include <algorithm>
#include <functional>
#include <map>

#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

using ModuleNames = std::map<std::string, std::string>;  // by build id

ModuleNames NamesByBuildId(const Result& result) {
  ModuleNames names;
  for (const Module& module : result.modules) {
    if (!module.buildId.empty()) names.emplace(module.buildId, FileName(CleanText(module.path)));
  }
  return names;
}

// Texts that are the same for the same frame of either result.
class FrameKeys {
 public:
  FrameKeys(const NamedResult& named, const ModuleNames& oldNames) {
    std::map<std::string, std::string> modules;  // what to call them, by path
    for (const Module& module : named.result.modules) {
      const auto known = oldNames.find(module.buildId);
      const std::string path = CleanText(module.path);
      modules.emplace(path, known != oldNames.end() ? known->second : FileName(path));
    }
    for (const NamedFrame& frame : named.frames) {
      const std::string offset = frame.function.empty() ? std::to_string(frame.offset) : "";
      keys_.push_back(modules[frame.module] + '\n' + frame.function + '\n' + offset + '\n');
    }
  }

  std::string Of(const CallPath& path) const {
    std::string key;
    for (const uint32_t frame : path.frames) key += keys_[frame];
    return key;
  }

 private:
  std::vector<std::string> keys_;
};

int64_t Difference(uint64_t before, uint64_t after) { return static_cast<int64_t>(after - before); }

int64_t ChangeOf(const PathChange& change, const Metric& metric) {
  return Difference(metric.of(change.before), metric.of(change.after));
}

std::string FigureText(const Metric& metric, uint64_t figure) {
  return metric.isBytes ? HumanBytes(figure) : Grouped(figure);
}

std::string DifferenceText(const Metric& metric, int64_t difference) {
  return metric.isBytes ? HumanDifference(difference) : GroupedDifference(difference);
}

std::string Totals(const Flow& before, const Flow& after) {
  const auto line = [](std::string_view name, const std::string& a, const std::string& b,
                       const std::string& change, const std::string& exact) {
    return "  " + PadRight(name, 18) + PadLeft(a, 14) + PadLeft(b, 14) + PadLeft(change, 14) +
           PadLeft(exact, 20) + "\n";
  };
  std::string text = line("", "old", "new", "change", "exactly");
  for (const Metric& metric : kMetrics) {
    const uint64_t a = metric.of(before);
    const uint64_t b = metric.of(after);
    if (a == 0 && b == 0) continue;
    text += line(metric.title, FigureText(metric, a), FigureText(metric, b),
                 DifferenceText(metric, Difference(a, b)), GroupedDifference(Difference(a, b)));
  }
  return text;
}

std::string Table(std::string_view title, const std::vector<const PathChange*>& changes,
                  const Metric& metric, const TableOptions& options) {
  const size_t shown = std::min(options.top, changes.size());
  int64_t sum = 0;
  for (const PathChange* change : changes) sum += ChangeOf(*change, metric);
  std::string text = "\n" + TitleLine(options.style, title,
                                      Counted(changes.size(), "call path") + ", together " +
                                          DifferenceText(metric, sum));
  FrameLines lines(options);
  for (size_t i = 0; i < shown; ++i) lines.Measure(*changes[i]->frames, changes[i]->path);
  for (size_t i = 0; i < shown; ++i) {
    const PathChange& change = *changes[i];
    const int64_t difference = ChangeOf(change, metric);
    std::string row = PadLeft(std::to_string(i + 1), 4) + "  " +
                      PadLeft(DifferenceText(metric, difference), 13) +
                      PadLeft(GroupedDifference(difference), 20) + "   from " +
                      FigureText(metric, metric.of(change.before)) + " to " +
                      FigureText(metric, metric.of(change.after));
    if (change.before.allocated.blocks == 0) row += ", new";
    if (change.after.allocated.blocks == 0) row += ", gone";
    text += options.style.width != 0 ? CutTo(row, options.style.width) : row;
    text += "\n" + lines.Of(*change.frames, change.path);
  }
  return text;
}

}  // namespace

std::vector<PathChange> ComparePaths(const NamedResult& before, const NamedResult& after) {
  const ModuleNames oldNames = NamesByBuildId(before.result);
  const FrameKeys oldKeys(before, oldNames);
  const FrameKeys newKeys(after, oldNames);
  std::map<std::string, PathChange> changes;
  for (const CallPath& path : after.paths)
    changes.try_emplace(newKeys.Of(path), PathChange{&after.frames, path.frames, {}, {}})
        .first->second.after += path.flow;
  for (const CallPath& path : before.paths)
    changes.try_emplace(oldKeys.Of(path), PathChange{&before.frames, path.frames, {}, {}})
        .first->second.before += path.flow;
  std::vector<PathChange> list;
  for (auto& [key, change] : changes) list.push_back(std::move(change));
  return list;
}

std::string DiffText(const NamedResult& before, const NamedResult& after, const Metric& metric,
                     const TableOptions& options) {
  const std::vector<PathChange> changes = ComparePaths(before, after);
  std::vector<const PathChange*> grown;
  std::vector<const PathChange*> shrunk;
  for (const PathChange& change : changes) {
    const int64_t difference = ChangeOf(change, metric);
    if (difference > 0) grown.push_back(&change);
    if (difference < 0) shrunk.push_back(&change);
  }
  const auto byChange = [&](const PathChange* change) { return ChangeOf(*change, metric); };
  std::ranges::stable_sort(grown, std::greater(), byChange);
  std::ranges::stable_sort(shrunk, std::less(), byChange);

  std::string text = TitleLine(
      options.style, "Changes",
      before.result.name + " (process " + std::to_string(before.result.processId) + ") to " +
          after.result.name + " (process " + std::to_string(after.result.processId) + ")");
  text += "\n" + Totals(before.result.totals, after.result.totals);
  const std::string by = std::string(" by ") + std::string(metric.name);
  text += Table("Grown" + by, grown, metric, options);
  text += Table("Shrunk" + by, shrunk, metric, options);
  return text;
}

}  // namespace heapscope::report
