#include "examples/heapscope/report/result_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <pugixml.hpp>
#include <string_view>
#include <unordered_map>

#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

constexpr const char* kRoot = "heapscope_result";
constexpr uint32_t kOldestFormat = 2;
constexpr uint32_t kNewestFormat = 3;

std::string ReadWhole(const std::string& path) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  std::string text;
  if (file != nullptr) {
    constexpr size_t kPiece = 1 << 20;
    for (size_t got = kPiece; got == kPiece;) {
      const size_t before = text.size();
      text.resize(before + kPiece);
      got = std::fread(text.data() + before, 1, kPiece, file.get());
      text.resize(before + got);
    }
  }
  if (file == nullptr || std::ferror(file.get()) != 0)
    throw FileError(path + ": " + std::strerror(errno));
  return text;
}

// Repair
// -------------------------------------------------------------------------------------------

// Elements that are worth having without their ends. All others mean something only as a whole.
bool IsContainer(std::string_view name) {
  constexpr std::string_view kContainers[] = {kRoot,      "process",      "timeline", "calls",
                                              "problems", "size_classes", "threads",  "modules",
                                              "sites",    "annotations",  "file",     "own_memory"};
  return std::ranges::find(kContainers, name) != std::end(kContainers);
}

// Whether the parser has seen the end of an element, before it gave up.
bool IsComplete(const pugi::xml_node& element, std::string_view seen) {
  const ptrdiff_t offset = element.offset_debug();
  if (offset < 0) return false;
  const std::string_view rest = seen.substr(std::min(seen.size(), static_cast<size_t>(offset)));
  const size_t tagEnd = rest.find('>');
  if (tagEnd == std::string_view::npos) return false;
  if (tagEnd > 0 && rest[tagEnd - 1] == '/') return true;
  return rest.find(std::string("</") + element.name() + ">") != std::string_view::npos;
}

// What was being read when the file broke off is the last child of the last child of ... of the
// root; the first of these that is no container goes.
void DropIncompleteElement(pugi::xml_document& document, std::string_view seen) {
  pugi::xml_node node = document.last_child();
  while (node && IsContainer(node.name())) node = node.last_child();
  if (node && node.parent() != document && !IsComplete(node, seen))
    node.parent().remove_child(node);
}

// Reading
// ------------------------------------------------------------------------------------------

class Reader {
 public:
  Reader(Result& result, size_t size, const ProgressReport& progress)
      : result_(result), size_(size), progress_(progress) {}

  void Read(const pugi::xml_node& root) {
    result_.written = root.attribute("written").as_string("end");
    ReadProcess(root.child("process"));
    const pugi::xml_node totals = root.child("totals");
    result_.allocatedAtLoad = ReadAmount(totals.child("allocated_at_load"));
    result_.totals = ReadFlow(totals);
    if (!totals) result_.damage.emplace_back("the file has no totals");
    ReadTimeline(root.child("timeline"));
    for (const pugi::xml_node& call : root.child("calls").children("call"))
      result_.calls.emplace_back(Text(call.attribute("function").value()), Number(call, "count"));
    for (const pugi::xml_node& problem : root.child("problems").children())
      result_.problems.emplace_back(Text(problem.name()), Number(problem.child_value()));
    for (const pugi::xml_node& each : root.child("size_classes").children("size_class"))
      result_.sizeClasses.push_back({Number(each, "up_to"), ReadFlow(each)});
    result_.threadsSeen = Number(root.child("threads"), "seen");
    for (const pugi::xml_node& thread : root.child("threads").children("thread"))
      result_.threads.push_back({Number(thread, "id"), ReadAmount(thread.child("allocated")),
                                 ReadAmount(thread.child("freed"))});
    ReadModules(root.child("modules"));
    for (const pugi::xml_node& site : root.child("sites").children("site")) {
      ReadSite(site);
      // How far it is in the text, as nobody has counted the sites.
      progress_(static_cast<size_t>(std::max<ptrdiff_t>(site.offset_debug(), 0)), size_);
    }
    const pugi::xml_node own = root.child("own_memory");
    result_.ownMappedBytes = Number(own, "mapped_bytes");
    for (const pugi::xml_node& category : own.children("category"))
      result_.ownMemory.emplace_back(Text(category.child_value("name")), Number(category, "bytes"));
    if (badNumbers_ != 0)
      result_.damage.push_back(Grouped(badNumbers_) + " figures are not numbers, and count as 0");
  }

 private:
  static std::string Text(const char* text) { return CleanText(text); }

  uint64_t Number(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x")) {
      base = 16;
      text.remove_prefix(2);
    }
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error == std::errc() && end == text.data() + text.size()) return value;
    ++badNumbers_;
    return 0;
  }

  // 0 where there is no such attribute.
  uint64_t Number(const pugi::xml_node& node, const char* attribute) {
    const pugi::xml_attribute found = node.attribute(attribute);
    return found ? Number(found.value()) : 0;
  }

  Amount ReadAmount(const pugi::xml_node& node) {
    return {Number(node, "blocks"), Number(node, "bytes")};
  }

  Flow ReadFlow(const pugi::xml_node& node) {
    return {.inherited = ReadAmount(node.child("inherited")),
            .allocated = ReadAmount(node.child("allocated")),
            .freed = ReadAmount(node.child("freed")),
            .temporary = ReadAmount(node.child("temporary")),
            .live = ReadAmount(node.child("live")),
            .peakBytes = Number(node.child("peak"), "bytes")};
  }

  void ReadProcess(const pugi::xml_node& process) {
    const auto number = [&](const char* name) {
      const pugi::xml_node child = process.child(name);
      return child ? Number(child.child_value()) : 0;
    };
    result_.processId = number("id");
    result_.forkedFrom = number("forked_from");
    result_.startedMs = number("started_ms");
    result_.resetMs = number("reset_ms");
    result_.endedMs = number("ended_ms");
    result_.name = Text(process.child_value("name"));
    result_.executable = Text(process.child_value("executable"));
    for (const pugi::xml_node& argument : process.children("argument"))
      result_.arguments.push_back(Text(argument.child_value()));
  }

  void ReadTimeline(const pugi::xml_node& timeline) {
    for (const pugi::xml_node& point : timeline.children("point"))
      result_.timeline.push_back({Number(point, "at_ms"), Number(point, "live_blocks"),
                                  Number(point, "live_bytes"), Number(point, "allocated_blocks"),
                                  Number(point, "allocated_bytes"), Number(point, "own_bytes")});
    // A chart of it needs ascending times.
    std::ranges::stable_sort(result_.timeline, {}, &TimelinePoint::atMs);
  }

  void ReadModules(const pugi::xml_node& modules) {
    for (const pugi::xml_node& module : modules.children("module")) {
      modules_.emplace(Number(module, "id"), static_cast<uint32_t>(result_.modules.size()));
      result_.modules.push_back({module.attribute("build_id").value(), module.child_value("path")});
    }
  }

  void ReadSite(const pugi::xml_node& node) {
    Site site = {ReadFlow(node), result_.frames.size(), 0};
    for (const pugi::xml_node& frame : node.children("frame")) {
      const pugi::xml_attribute module = frame.attribute("module");
      const auto found = module ? modules_.find(Number(module.value())) : modules_.end();
      result_.frames.push_back(
          {found != modules_.end() ? found->second : kNoModule, Number(frame, "offset")});
      ++site.frameCount;
    }
    result_.sites.push_back(site);
  }

  Result& result_;
  const size_t size_;  // of the text
  const ProgressReport& progress_;
  std::unordered_map<uint64_t, uint32_t> modules_;  // index by id
  uint64_t badNumbers_ = 0;
};

}  // namespace

Flow& operator+=(Flow& sum, const Flow& other) {
  const auto add = [](Amount& to, const Amount& amount) {
    to.blocks += amount.blocks;
    to.bytes += amount.bytes;
  };
  add(sum.inherited, other.inherited);
  add(sum.allocated, other.allocated);
  add(sum.freed, other.freed);
  add(sum.temporary, other.temporary);
  add(sum.live, other.live);
  sum.peakBytes += other.peakBytes;
  return sum;
}

Result ReadResult(const std::string& path, const ProgressReport& progress) {
  const std::string text = ReadWhole(path);
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
  const pugi::xml_node root = document.document_element();
  if (std::string_view(root.name()) != kRoot || !root.attribute("format"))
    throw FileError(path + ": not a result file of heapscope");
  const auto format = root.attribute("format").as_uint();
  if (format < kOldestFormat || format > kNewestFormat)
    throw FileError(path + ": a result file of format " +
                    CleanText(root.attribute("format").value()) +
                    ", which this program does not read");

  Result result;
  result.file = path;
  result.format = format;
  if (!parsed) {
    // The byte of the error may be the last of a tag: the parser found nothing behind it.
    const auto end = static_cast<size_t>(std::max<ptrdiff_t>(parsed.offset, 0));
    DropIncompleteElement(document, {text.data(), std::min(end + 1, text.size())});
    result.damage.push_back("the file is broken at byte " + Grouped(end) + " of " +
                            Grouped(text.size()) + "; what was complete before it is used");
  }
  Reader(result, text.size(), progress).Read(root);
  return result;
}

}  // namespace heapscope::report
