#include "examples/heapscope/report/tables.h"

#include <algorithm>
#include <ctime>

#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

constexpr size_t kFrameIndent = 8;
constexpr size_t kWidestFunction = 64;  // where the width is not limited

std::string TimeText(uint64_t ms) {
  const auto seconds = static_cast<time_t>(ms / 1000);
  tm parts = {};
  char text[64];
  if (gmtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
    return "?";
  return text;
}

std::string CommandLine(const Result& result) {
  std::string line;
  for (const std::string& argument : result.arguments) {
    const bool isPlain = !argument.empty() && argument.find_first_of(" \"'") == std::string::npos;
    line += (line.empty() ? "" : " ") + (isPlain ? argument : "'" + argument + "'");
  }
  return line;
}

std::string WhyWritten(const std::string& written) {
  if (written == "end") return "at the end of the process";
  if (written == "snapshot") return "while the process ran, as it was asked for";
  if (written == "heartbeat")
    return "while the process ran: it was killed, or is still running; figures up to then";
  return written;
}

void AddField(std::string* text, const Style& style, const char* name, const std::string& value) {
  if (value.empty()) return;
  constexpr size_t kNameWidth = 12;
  const size_t room = style.width > kNameWidth + 2 ? style.width - kNameWidth - 2 : SIZE_MAX;
  *text += "  " + style.Faint(PadRight(name, kNameWidth)) +
           (style.width != 0 ? CutTo(value, room) : value) + "\n";
}

std::string Heading(const Result& result, const Style& style) {
  std::string who = "process " + std::to_string(result.processId);
  if (result.forkedFrom != 0)
    who += ", forked from " + std::to_string(result.forkedFrom) + ": counts from there on";
  std::string text = TitleLine(style, result.name.empty() ? "?" : result.name, who);
  AddField(&text, style, "command", CommandLine(result));
  AddField(&text, style, "executable", result.executable);
  if (result.startedMs != 0 && result.endedMs >= result.startedMs)
    AddField(
        &text, style, "ran",
        HumanDuration(result.endedMs - result.startedMs) + ", from " + TimeText(result.startedMs));
  if (result.resetMs != 0)
    AddField(&text, style, "reset", TimeText(result.resetMs) + ": counts from there on");
  AddField(&text, style, "written", WhyWritten(result.written));
  AddField(&text, style, "threads", Grouped(result.threadsSeen));
  return text;
}

std::string TotalsLine(std::string_view name, const std::string& blocks, const std::string& human,
                       const std::string& bytes) {
  return "  " + PadRight(name, 12) + PadLeft(blocks, 16) + PadLeft(human, 14) + PadLeft(bytes, 21) +
         "\n";
}

std::string Totals(const Result& result) {
  std::string text = "\n" + TotalsLine("", "blocks", "", "bytes");
  const auto add = [&](const char* name, const Amount& amount) {
    text +=
        TotalsLine(name, Grouped(amount.blocks), HumanBytes(amount.bytes), Grouped(amount.bytes));
  };
  if (result.HasInherited()) add("inherited", result.totals.inherited);
  add("allocated", result.totals.allocated);
  if (!result.HasInherited()) add("  at load", result.allocatedAtLoad);
  add("freed", result.totals.freed);
  if (result.KnowsTemporary()) add("  temporary", result.totals.temporary);
  add(result.written == "end" ? "live at end" : "live", result.totals.live);
  text +=
      TotalsLine("peak", "", HumanBytes(result.totals.peakBytes), Grouped(result.totals.peakBytes));
  return text;
}

std::string Warnings(const NamedResult& named, const Style& style) {
  std::string text;
  const auto add = [&](const std::string& line) {
    text += "  " + style.Warning(style.width > 2 ? CutTo(line, style.width - 2) : line) + "\n";
  };
  for (const std::string& damage : named.result.damage) add(damage);
  for (const auto& [name, count] : named.result.problems) {
    std::string words = name;
    std::ranges::replace(words, '_', ' ');
    if (count != 0) add(words + ": " + Grouped(count));
  }
  for (const std::string& module : named.unnamedModules) add("no symbols of " + module);
  return text.empty() ? text : "\n" + text;
}

std::string FigureOf(const Metric& metric, uint64_t figure) {
  return metric.isBytes ? HumanBytes(figure) : Grouped(figure);
}

// "  12 blocks", with the number at the right end of its column.
std::string Column(uint64_t count, size_t width, std::string_view one) {
  return PadLeft(Grouped(count), width) + " " + std::string(one) + (count == 1 ? "" : "s");
}

// The figure of the table, then the other one of blocks and bytes.
std::string RowFigures(const Metric& metric, const CallPath& path, const Flow& totals) {
  const Flow& flow = path.flow;
  const uint64_t figure = metric.of(flow);
  const std::string text =
      PadLeft(FigureOf(metric, figure), 12) + PadLeft(Share(figure, metric.of(totals)), 8);
  if (metric.name == "temporary") return text + Column(flow.temporary.bytes, 19, "byte");
  if (metric.name == "calls") return text + Column(flow.allocated.bytes, 19, "byte");
  const std::string exact = PadRight(Column(figure, 19, "byte"), 25);
  if (metric.name == "live") return text + exact + Column(flow.live.blocks, 13, "block");
  return text + exact + Column(flow.allocated.blocks, 13, "call");
}

std::string Table(const NamedResult& named, const std::vector<CallPath>& merged,
                  const Metric& metric, const TableOptions& options) {
  const std::vector<const CallPath*> ranked = Ranked(merged, metric);
  const size_t shown = std::min(options.top, ranked.size());
  const uint64_t total = metric.of(named.result.totals);
  std::string remark = FigureOf(metric, total) + " in all, " + Counted(ranked.size(), "call path");
  if (metric.name == "peak") remark += "; each at its own peak";
  const bool ended = named.result.written == "end" || metric.name != "live";
  std::string text = "\n" + TitleLine(options.style, ended ? metric.title : "Live", remark);
  FrameLines lines(options);
  for (size_t i = 0; i < shown; ++i) lines.Measure(named.frames, ranked[i]->frames);
  for (size_t i = 0; i < shown; ++i) {
    const std::string row = PadLeft(std::to_string(i + 1), 4) + "  " +
                            RowFigures(metric, *ranked[i], named.result.totals);
    text += options.style.width != 0 ? CutTo(row, options.style.width) : row;
    text += "\n" + lines.Of(named.frames, ranked[i]->frames);
  }
  return text;
}

}  // namespace

void FrameLines::Measure(const std::vector<NamedFrame>& frames, const std::vector<uint32_t>& path) {
  for (size_t i = 0; i < std::min(options_.depth, path.size()); ++i) {
    functionWidth_ = std::max(functionWidth_, WidthOf(FunctionText(frames[path[i]])));
    placeWidth_ = std::max(placeWidth_, WidthOf(PlaceText(frames[path[i]])));
  }
}

std::string FrameLines::Of(const std::vector<NamedFrame>& frames,
                           const std::vector<uint32_t>& path) const {
  const Style& style = options_.style;
  const size_t width = style.width;
  // Functions get what the places leave, and half of the line at least.
  const size_t room = width > kFrameIndent ? width - kFrameIndent : 1;
  const size_t placeRoom = std::min(placeWidth_, room / 2);
  const size_t functionRoom = width == 0
                                  ? std::min(functionWidth_, kWidestFunction)
                                  : std::min(functionWidth_, room - std::min(room, placeRoom + 2));
  std::string text;
  const size_t shown = std::min(options_.depth, path.size());
  for (size_t i = 0; i < shown; ++i) {
    std::string function = FunctionText(frames[path[i]]);
    std::string place = PlaceText(frames[path[i]]);
    if (width != 0) {
      function = CutTo(function, functionRoom);
      place = CutTo(place, placeRoom);
    }
    const size_t gap =
        place.empty() ? 0 : 2 + functionRoom - std::min(functionRoom, WidthOf(function));
    text += std::string(kFrameIndent, ' ') + (i == 0 ? style.Strong(function) : function) +
            std::string(gap, ' ') + style.Faint(place) + "\n";
  }
  const std::string indent(kFrameIndent, ' ');
  if (path.empty()) text += indent + style.Faint("(paths that had no place of their own)") + "\n";
  if (shown < path.size())
    text += indent + style.Faint("… " + std::to_string(path.size() - shown) + " more") + "\n";
  return text;
}

std::string TitleLine(const Style& style, std::string_view title, std::string_view remark) {
  if (style.width == 0) return std::string(title) + "  " + std::string(remark) + "\n";
  const std::string head = CutTo(title, style.width);
  const size_t used = WidthOf(head) + 2;
  const std::string rest = used < style.width ? CutTo(remark, style.width - used) : "";
  return style.Title(head) + "  " + style.Faint(rest) + "\n";
}

std::string ReportText(const NamedResult& named, const TableOptions& options) {
  const std::vector<CallPath> merged = MergePaths(named, options.merge);
  std::string text =
      Heading(named.result, options.style) + Totals(named.result) + Warnings(named, options.style);
  for (const Metric& metric : kMetrics) {
    if (metric.of(named.result.totals) != 0 || !Ranked(merged, metric).empty())
      text += Table(named, merged, metric, options);
  }
  return text;
}

}  // namespace heapscope::report
