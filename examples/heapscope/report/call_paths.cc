#include "examples/heapscope/report/call_paths.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>

#include "examples/heapscope/report/symbols.h"
#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

size_t Combine(size_t hash, size_t other) {
  return (hash ^ other) * 0x9E3779B97F4A7C15u + (hash >> 29);
}

struct FrameHash {
  size_t operator()(const NamedFrame& frame) const {
    size_t hash = Combine(frame.line, frame.offset);
    for (const std::string* text : {&frame.function, &frame.file, &frame.module})
      hash = Combine(hash, std::hash<std::string>()(*text));
    return hash;
  }
};

struct PathHash {
  size_t operator()(const std::vector<uint32_t>& path) const {
    size_t hash = path.size();
    for (const uint32_t frame : path) hash = Combine(hash, frame);
    return hash;
  }
};

struct PlaceHash {
  size_t operator()(const Frame& frame) const { return Combine(frame.module, frame.offset); }
};
struct SamePlace {
  bool operator()(const Frame& a, const Frame& b) const {
    return a.module == b.module && a.offset == b.offset;
  }
};

// Collects paths; equal ones become one.
class PathTable {
 public:
  CallPath& Add(const std::vector<uint32_t>& key, const Flow& flow, uint32_t sites) {
    const auto [found, isNew] = index_.emplace(key, paths_.size());
    if (isNew) paths_.emplace_back();
    CallPath& path = paths_[found->second];
    path.flow += flow;
    path.sites += sites;
    return path;
  }
  std::vector<CallPath> Take() { return std::move(paths_); }

 private:
  std::vector<CallPath> paths_;
  std::unordered_map<std::vector<uint32_t>, size_t, PathHash> index_;
};

// The functions that other languages' allocations come through on their way to malloc, and the
// collector's own library.
bool IsAllocator(const NamedFrame& frame) {
  constexpr std::string_view kFunctions[] = {"malloc",
                                             "calloc",
                                             "realloc",
                                             "reallocarray",
                                             "aligned_alloc",
                                             "posix_memalign",
                                             "memalign",
                                             "valloc",
                                             "pvalloc",
                                             "__rust_alloc",
                                             "__rdl_alloc",
                                             "__rdl_realloc",
                                             "__rust_realloc",
                                             "__rust_alloc_zeroed",
                                             "__rdl_alloc_zeroed"};
  return frame.function.starts_with("operator new(") ||
         frame.function.starts_with("operator new[](") ||
         std::ranges::find(kFunctions, frame.function) != std::end(kFunctions) ||
         frame.module.ends_with("/libheapscope.so");
}

class Namer {
 public:
  Namer(NamedResult& named, const std::vector<std::string>& debugDirs)
      : named_(named), debugDirs_(debugDirs), symbols_(named.result.modules.size()) {}

  const std::vector<uint32_t>& NamesOf(const Frame& frame) {
    const auto [found, isNew] = known_.try_emplace(frame);
    if (isNew) found->second = Resolve(frame);
    return found->second;
  }

 private:
  std::vector<uint32_t> Resolve(const Frame& frame) {
    NamedFrame name;
    std::vector<SourcePlace> places;
    if (frame.module != kNoModule) {
      name.module = CleanText(named_.result.modules[frame.module].path);
      places = SymbolsOf(frame.module).Find(frame.offset);
    }
    if (places.empty() || (places.size() == 1 && places[0].function.empty()))
      name.offset = frame.offset;
    if (places.empty()) places.emplace_back();
    std::vector<uint32_t> names;
    for (SourcePlace& place : places) {
      name.function = std::move(place.function);
      name.file = std::move(place.file);
      name.line = place.line;
      name.isAllocator = IsAllocator(name);
      names.push_back(NumberOf(name));
    }
    return names;
  }

  ModuleSymbols& SymbolsOf(uint32_t number) {
    std::unique_ptr<ModuleSymbols>& symbols = symbols_[number];
    if (symbols == nullptr) {
      const Module& module = named_.result.modules[number];
      symbols = std::make_unique<ModuleSymbols>(module.path, module.buildId, debugDirs_);
      if (!symbols->Problem().empty())
        named_.unnamedModules.push_back(CleanText(module.path) + ": " + symbols->Problem());
    }
    return *symbols;
  }

  uint32_t NumberOf(const NamedFrame& name) {
    const auto [found, isNew] = numbers_.emplace(name, static_cast<uint32_t>(named_.frames.size()));
    if (isNew) named_.frames.push_back(name);
    return found->second;
  }

  NamedResult& named_;
  const std::vector<std::string>& debugDirs_;
  std::vector<std::unique_ptr<ModuleSymbols>> symbols_;
  std::unordered_map<Frame, std::vector<uint32_t>, PlaceHash, SamePlace> known_;
  std::unordered_map<NamedFrame, uint32_t, FrameHash> numbers_;
};

void DropAllocatorFrames(const std::vector<NamedFrame>& frames, std::vector<uint32_t>* path) {
  const auto first =
      std::ranges::find_if(*path, [&](uint32_t frame) { return !frames[frame].isAllocator; });
  if (first != path->end()) path->erase(path->begin(), first);
}

}  // namespace

std::string FunctionText(const NamedFrame& frame) {
  if (!frame.function.empty()) return frame.function;
  char offset[32];
  std::snprintf(offset, sizeof offset, "0x%llx", 0ULL + frame.offset);
  return frame.module.empty() ? std::string(offset) : FileName(frame.module) + "+" + offset;
}

std::string PlaceText(const NamedFrame& frame) {
  if (!frame.file.empty()) {
    const std::string line = frame.line != 0 ? ":" + std::to_string(frame.line) : "";
    return FileName(frame.file) + line;
  }
  if (frame.function.empty() || frame.module.empty()) return "";
  return "[" + FileName(frame.module) + "]";
}

NamedResult NameSites(Result result, const std::vector<std::string>& debugDirs,
                      const ProgressReport& progress) {
  NamedResult named;
  named.result = std::move(result);
  Namer namer(named, debugDirs);
  PathTable paths;
  std::vector<uint32_t> path;
  const std::vector<Site>& sites = named.result.sites;
  for (size_t i = 0; i < sites.size(); ++i) {
    path.clear();
    for (const Frame& frame : named.result.FramesOf(sites[i])) {
      const std::vector<uint32_t>& names = namer.NamesOf(frame);
      path.insert(path.end(), names.begin(), names.end());
    }
    DropAllocatorFrames(named.frames, &path);
    CallPath& added = paths.Add(path, sites[i].flow, 1);
    if (added.sites == 1) added.frames = path;
    progress(i + 1, sites.size());
  }
  named.paths = paths.Take();
  return named;
}

std::vector<CallPath> MergePaths(const NamedResult& named, Merge merge) {
  if (merge == Merge::kPath) return named.paths;
  // Which frames count as the same: the innermost's number among these keys.
  std::map<std::pair<std::string, std::string>, uint32_t> numbers;
  const auto keyOf = [&](const CallPath& path) -> std::vector<uint32_t> {
    if (path.frames.empty()) return {};
    if (merge == Merge::kLine) return {path.frames[0]};
    const NamedFrame& frame = named.frames[path.frames[0]];
    const std::string function = merge == Merge::kFunction ? FunctionText(frame) : "";
    return {numbers.emplace(std::pair(frame.module, function), numbers.size()).first->second};
  };
  std::vector<const CallPath*> largestFirst;
  for (const CallPath& path : named.paths) largestFirst.push_back(&path);
  std::ranges::stable_sort(largestFirst, std::greater(),
                           [](const CallPath* path) { return path->flow.allocated.bytes; });
  PathTable merged;
  for (const CallPath* path : largestFirst) {
    CallPath& into = merged.Add(keyOf(*path), path->flow, path->sites);
    if (into.sites == path->sites) into.frames = path->frames;
  }
  return merged.Take();
}

const Metric* FindMetric(std::string_view name) {
  const auto found = std::ranges::find(kMetrics, name, &Metric::name);
  return found != std::end(kMetrics) ? found : nullptr;
}

std::vector<const CallPath*> Ranked(const std::vector<CallPath>& paths, const Metric& metric) {
  std::vector<const CallPath*> ranked;
  for (const CallPath& path : paths) {
    if (metric.of(path.flow) != 0) ranked.push_back(&path);
  }
  std::ranges::stable_sort(ranked, std::greater(),
                           [&](const CallPath* path) { return metric.of(path->flow); });
  return ranked;
}

}  // namespace heapscope::report
