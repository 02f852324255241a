// The page is a template with one place for the data: a JSON text, which the page's script draws.

#include "examples/heapscope/report/page.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

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

// The largest paths by any of the figures, and what the others come to.
struct Selection {
  std::vector<const CallPath*> paths;
  CallPath others;
};

Selection Select(const NamedResult& named) {
  Selection selection;
  const auto largestShare = [&](const CallPath* path) {
    double share = 0;
    for (const Metric& metric : kMetrics) {
      const auto whole = static_cast<double>(std::max<uint64_t>(metric.of(named.result.totals), 1));
      share = std::max(share, static_cast<double>(metric.of(path->flow)) / whole);
    }
    return share;
  };
  std::vector<std::pair<double, const CallPath*>> shares;
  for (const CallPath& path : named.paths) shares.emplace_back(largestShare(&path), &path);
  std::ranges::stable_sort(shares, std::greater(), [](const auto& each) { return each.first; });
  for (size_t i = 0; i < shares.size(); ++i) {
    if (i < kMaxPaths) {
      selection.paths.push_back(shares[i].second);
    } else {
      selection.others.flow += shares[i].second->flow;
      ++selection.others.sites;
    }
  }
  return selection;
}

// Frames, tree and paths, with only the frames that are used.
void AddPaths(const NamedResult& named, json* data) {
  const Selection selection = Select(named);
  Texts texts;
  CallTree tree;
  std::vector<uint32_t> numbers(named.frames.size(), UINT32_MAX);
  json frames = json::array();
  json paths = json::array();
  const auto add = [&](const CallPath& path, size_t node) {
    json row = ToJson(path.flow);
    row.insert(row.begin(), node);
    paths.push_back(std::move(row));
  };
  for (const CallPath* path : selection.paths) {
    std::vector<uint32_t> used;
    for (const uint32_t frame : path->frames) {
      if (numbers[frame] == UINT32_MAX) {
        numbers[frame] = static_cast<uint32_t>(frames.size());
        const NamedFrame& named_frame = named.frames[frame];
        frames.push_back({texts.NumberOf(FunctionText(named_frame)),
                          texts.NumberOf(named_frame.file), named_frame.line,
                          texts.NumberOf(named_frame.module)});
      }
      used.push_back(numbers[frame]);
    }
    add(*path, tree.Add(used));
  }
  if (selection.others.sites != 0) {
    const std::string name = std::to_string(selection.others.sites) + " smaller call paths";
    frames.push_back({texts.NumberOf("(" + name + ")"), texts.NumberOf(""), 0, texts.NumberOf("")});
    add(selection.others, tree.Add({static_cast<uint32_t>(frames.size() - 1)}));
  }
  (*data)["texts"] = texts.Take();
  (*data)["frames"] = std::move(frames);
  (*data)["tree"] = {{"parents", tree.Parents()}, {"frames", tree.Frames()}};
  (*data)["paths"] = std::move(paths);
}

json DataOf(const NamedResult& named) {
  const Result& result = named.result;
  json data = {
      {"format", result.format},
      {"written", result.written},
      {"process",
       {{"id", result.processId},
        {"forkedFrom", result.forkedFrom},
        {"startedMs", result.startedMs},
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
  AddPaths(named, &data);
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

}  // namespace

std::string Page(const NamedResult& named) {
  const std::string data = DataOf(named).dump(-1, ' ', false, json::error_handler_t::replace);
  std::string page(kPageTemplate);
  page.replace(page.find(kDataMark), kDataMark.size(), ForScriptElement(data));
  return page;
}

}  // namespace heapscope::report
