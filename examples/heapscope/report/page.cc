// The page is a template with one place for the data: a JSON text, which the page's script draws.

#include "examples/heapscope/report/page.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

#include "examples/heapscope/report/diff.h"
#include "examples/heapscope/report/page_template.h"

namespace heapscope::report {
namespace {

using nlohmann::json;

constexpr std::string_view kDataMark = "%DATA%";
constexpr size_t kMaxPaths = 20'000;  // more make a page slow; the smallest are then taken together
constexpr size_t kMaxThreads = 64;

json ToJson(const Flow& flow) {
  return {flow.allocated.blocks, flow.allocated.bytes,  flow.freed.blocks,
          flow.freed.bytes,      flow.live.blocks,      flow.live.bytes,
          flow.peakBytes,        flow.temporary.blocks, flow.temporary.bytes};
}

json ToJson(const NamedFigures& figures) {
  json list = json::array();
  for (const auto& [name, figure] : figures) list.push_back({name, figure});
  return list;
}

// Each text once, by number.
class Texts {
 public:
  size_t NumberOf(const std::string& text) {
    const auto [found, isNew] = numbers_.emplace(text, list_.size());
    if (isNew) list_.push_back(text);
    return found->second;
  }
  json Take() { return std::move(list_); }

 private:
  std::unordered_map<std::string, size_t> numbers_;
  json list_ = json::array();
};

// The paths as a tree, outermost frames at its root; a node's parent comes before it.
class CallTree {
 public:
  // The node of the innermost frame; 0 is the root.
  size_t Add(const std::vector<uint32_t>& path) {
    size_t node = 0;
    for (size_t i = path.size(); i-- > 0;) {
      const auto [found, isNew] =
          children_.emplace(uint64_t{node} << 32 | path[i], parents_.size());
      if (isNew) {
        parents_.push_back(node);
        frames_.push_back(path[i]);
      }
      node = found->second;
    }
    return node;
  }
  const std::vector<size_t>& Parents() const { return parents_; }
  const std::vector<int64_t>& Frames() const { return frames_; }

 private:
  std::unordered_map<uint64_t, size_t> children_;  // by parent and frame
  std::vector<size_t> parents_ = {0};
  std::vector<int64_t> frames_ = {-1};
};

struct PagePath {
  std::vector<uint32_t> frames;
  Flow flow;
  Flow before;  // of the result that is compared with, if there is one
};

// The largest paths by any of the figures, and what the others come to.
struct Selection {
  std::vector<const PagePath*> paths;
  PagePath others;
  size_t otherCount = 0;
};

Selection Select(const std::vector<PagePath>& paths, const Flow& totals) {
  Selection selection;
  const auto largestShare = [&](const PagePath* path) {
    double share = 0;
    for (const Metric& metric : kMetrics) {
      const auto whole = static_cast<double>(std::max<uint64_t>(metric.of(totals), 1));
      const uint64_t figure = std::max(metric.of(path->flow), metric.of(path->before));
      share = std::max(share, static_cast<double>(figure) / whole);
    }
    return share;
  };
  std::vector<std::pair<double, const PagePath*>> shares;
  for (const PagePath& path : paths) shares.emplace_back(largestShare(&path), &path);
  std::ranges::stable_sort(shares, std::greater(), [](const auto& each) { return each.first; });
  for (const auto& [share, path] : shares) {
    if (selection.paths.size() < kMaxPaths) {
      selection.paths.push_back(path);
    } else {
      selection.others.flow += path->flow;
      selection.others.before += path->before;
      ++selection.otherCount;
    }
  }
  return selection;
}

// Frames, tree and paths, with only the frames that are used.
class PathsWriter {
 public:
  PathsWriter(const std::vector<NamedFrame>& frames, bool withBefore)
      : frames_(frames), withBefore_(withBefore), numbers_(frames.size(), kUnused) {}

  void Add(const PagePath& path) {
    std::vector<uint32_t> used;
    for (const uint32_t frame : path.frames) {
      if (numbers_[frame] == kUnused) numbers_[frame] = AddFrame(frames_[frame]);
      used.push_back(numbers_[frame]);
    }
    AddRow(path, tree_.Add(used));
  }

  void AddOthers(const PagePath& others, size_t count) {
    NamedFrame frame;
    frame.function = "(" + std::to_string(count) + " smaller call paths)";
    AddRow(others, tree_.Add({AddFrame(frame)}));
  }

  void TakeInto(json* data) {
    (*data)["texts"] = texts_.Take();
    (*data)["frames"] = std::move(jsonFrames_);
    (*data)["tree"] = {{"parents", tree_.Parents()}, {"frames", tree_.Frames()}};
    (*data)["paths"] = std::move(rows_);
  }

 private:
  static constexpr uint32_t kUnused = UINT32_MAX;

  uint32_t AddFrame(const NamedFrame& frame) {
    jsonFrames_.push_back({texts_.NumberOf(FunctionText(frame)), texts_.NumberOf(frame.file),
                           frame.line, texts_.NumberOf(frame.module)});
    return static_cast<uint32_t>(jsonFrames_.size() - 1);
  }

  void AddRow(const PagePath& path, size_t node) {
    json row = {node, ToJson(path.flow)};
    if (withBefore_) row.push_back(ToJson(path.before));
    rows_.push_back(std::move(row));
  }

  const std::vector<NamedFrame>& frames_;
  const bool withBefore_;
  std::vector<uint32_t> numbers_;  // in jsonFrames_
  Texts texts_;
  CallTree tree_;
  json jsonFrames_ = json::array();
  json rows_ = json::array();
};

json DataOf(const NamedResult& named) {
  const Result& result = named.result;
  json data = {
      {"format", result.format},
      {"written", result.written},
      {"process",
       {{"id", result.processId},
        {"forkedFrom", result.forkedFrom},
        {"startedMs", result.startedMs},
        {"resetMs", result.resetMs},
        {"endedMs", result.endedMs},
        {"name", result.name},
        {"executable", result.executable},
        {"arguments", result.arguments}}},
      {"atLoad", {result.allocatedAtLoad.blocks, result.allocatedAtLoad.bytes}},
      {"inherited", {result.totals.inherited.blocks, result.totals.inherited.bytes}},
      {"totals", ToJson(result.totals)},
      {"knowsTemporary", result.KnowsTemporary()},
      {"calls", ToJson(result.calls)},
      {"problems", ToJson(result.problems)},
      {"threadsSeen", result.threadsSeen},
      {"own", {{"mapped", result.ownMappedBytes}, {"categories", ToJson(result.ownMemory)}}},
      {"damage", result.damage},
      {"unnamedModules", named.unnamedModules},
  };
  json timeline = json::array();
  for (const TimelinePoint& point : result.timeline)
    timeline.push_back({point.atMs, point.liveBlocks, point.liveBytes, point.allocatedBlocks,
                        point.allocatedBytes, point.ownBytes});
  data["timeline"] = std::move(timeline);
  json classes = json::array();
  for (const SizeClass& each : result.sizeClasses)
    classes.push_back({{"upTo", each.upTo}, {"flow", ToJson(each.flow)}});
  data["sizeClasses"] = std::move(classes);
  json threads = json::array();
  for (const Thread& thread : result.threads) {
    if (threads.size() == kMaxThreads) break;
    threads.push_back({thread.id, thread.allocated.blocks, thread.allocated.bytes,
                       thread.freed.blocks, thread.freed.bytes});
  }
  data["threads"] = std::move(threads);
  return data;
}

// Nothing in the text may end the element that it stands in. In JSON, "<" is in strings alone.
std::string ForScriptElement(const std::string& text) {
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    if (c == '<') {
      safe += "\\u003c";
    } else {
      safe += c;
    }
  }
  return safe;
}

std::string PageWith(json data, const std::vector<NamedFrame>& frames,
                     const std::vector<PagePath>& paths, const Flow& totals) {
  PathsWriter writer(frames, data.contains("before"));
  const Selection selection = Select(paths, totals);
  for (const PagePath* path : selection.paths) writer.Add(*path);
  if (selection.otherCount != 0) writer.AddOthers(selection.others, selection.otherCount);
  writer.TakeInto(&data);
  const std::string text = data.dump(-1, ' ', false, json::error_handler_t::replace);
  std::string page(kPageTemplate);
  page.replace(page.find(kDataMark), kDataMark.size(), ForScriptElement(text));
  return page;
}

}  // namespace

std::string Page(const NamedResult& named) {
  std::vector<PagePath> paths;
  for (const CallPath& path : named.paths) paths.push_back({path.frames, path.flow, {}});
  return PageWith(DataOf(named), named.frames, paths, named.result.totals);
}

std::string DiffPage(const NamedResult& before, const NamedResult& after) {
  // The frames of both, those of the old result behind those of the new.
  std::vector<NamedFrame> frames = after.frames;
  frames.insert(frames.end(), before.frames.begin(), before.frames.end());
  std::vector<PagePath> paths;
  for (PathChange& change : ComparePaths(before, after)) {
    if (change.frames == &before.frames) {
      for (uint32_t& frame : change.path) frame += static_cast<uint32_t>(after.frames.size());
    }
    paths.push_back({std::move(change.path), change.after, change.before});
  }
  json data = DataOf(after);
  const Result& old = before.result;
  data["before"] = {{"name", old.name}, {"id", old.processId}, {"totals", ToJson(old.totals)}};
  data["knowsTemporary"] = old.KnowsTemporary() && after.result.KnowsTemporary();
  return PageWith(std::move(data), frames, paths, after.result.totals);
}

}  // namespace heapscope::report
