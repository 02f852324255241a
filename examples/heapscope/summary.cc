// The summary: one text, written by one call so that those of several processes stay apart.

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "examples/heapscope/internal.h"

namespace heapscope {
namespace {

// 1234567 as "1,234,567".
class Grouped {
 public:
  explicit Grouped(uint64_t value) {
    char digits[24];
    const int count = std::snprintf(digits, sizeof digits, "%llu", 0ULL + value);
    char* to = text_;
    for (int i = 0; i < count; ++i) {
      if (i > 0 && (count - i) % 3 == 0) *to++ = ',';
      *to++ = digits[i];
    }
    *to = '\0';
  }
  const char* Text() const { return text_; }

 private:
  char text_[32];
};

// What does not fit is cut off.
class TextBuffer {
 public:
  [[gnu::format(printf, 2, 3)]] void Add(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, arguments);
    va_end(arguments);
    if (length > 0) length_ = std::min(length_ + static_cast<size_t>(length), sizeof text_ - 1);
  }
  void Clear() { length_ = 0; }
  const char* Text() const { return text_; }
  size_t Length() const { return length_; }

 private:
  char text_[16 * 1024];
  size_t length_;
};
constinit TextBuffer g_text = {};  // too large for the stack of some threads

// 4096 as "4 KiB".
void AddClassName(uint32_t sizeClass) {
  if (sizeClass == kSizeClasses - 1) {
    g_text.Add("  %10s", "larger");
    return;
  }
  constexpr const char* kUnits[] = {"B  ", "KiB", "MiB", "GiB"};
  size_t size = LargestInClass(sizeClass);
  size_t unit = 0;
  for (; size >= 1024; size /= 1024) ++unit;
  g_text.Add("  %6zu %s", size, kUnits[unit]);
}

void AddHeading() {
  g_text.Add("heapscope: %s, process %d", g_process.name, g_process.id);
  if (g_process.forkedFrom != 0)
    g_text.Add(", forked from %d: counts from there on", g_process.forkedFrom);
  if (g_process.resetMs != 0) g_text.Add(", counts from its reset on");
  g_text.Add("\n\n");
}

void AddAmount(const char* name, const Amount& amount) {
  g_text.Add("  %-12s %16s %20s\n", name, Grouped(amount.blocks).Text(),
             Grouped(amount.bytes).Text());
}

void AddTotals(const Flow& total) {
  g_text.Add("  %-12s %16s %20s\n", "", "blocks", "bytes");
  if (g_process.HasInherited()) AddAmount("inherited", total.inherited);
  AddAmount("allocated", total.allocated);
  if (!g_process.HasInherited()) AddAmount("  at load", EarlyAllocations());
  AddAmount("freed", total.freed);
  AddAmount("live at end", total.Live());
  g_text.Add("  %-12s %16s %20s\n", "live at peak", "", Grouped(total.peakBytes).Text());
}

void AddCalls(const Figures& figures) {
  g_text.Add("\n  calls:");
  for (size_t i = 0; i < kFunctions; ++i) {
    if (figures.calls[i] != 0)
      g_text.Add(" %s %s", kFunctionNames[i], Grouped(figures.calls[i]).Text());
  }
  g_text.Add("\n");
}

// What kept the figures from being complete, or the program from being served.
void AddIrregularities(const Figures& figures) {
  const struct {
    const char* text;
    uint64_t count;
  } lines[] = {
      {"calls that failed", figures.failures},
      {"frees of blocks whose allocation was not seen", figures.unknownFrees},
      {"blocks whose free was not seen", figures.unseenFrees},
      {"blocks not counted, for want of memory", figures.untracked},
      {"calls not counted, because of a slow fork", figures.unrecorded},
      {"calls left out by a pause", figures.leftOut},
  };
  for (const auto& line : lines) {
    if (line.count != 0) g_text.Add("  %s: %s\n", line.text, Grouped(line.count).Text());
  }
}

void AddClasses(const Flow* classes) {
  g_text.Add("\n  %10s %13s %17s %13s %13s %17s %17s\n", "size up to", "allocated", "bytes",
             "freed", "live", "live bytes", "peak bytes");
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    const Flow& figures = classes[i];
    const Amount live = figures.Live();
    if (figures.allocated.blocks == 0 && figures.inherited.blocks == 0) continue;
    AddClassName(i);
    g_text.Add(" %13s %17s %13s %13s %17s %17s\n", Grouped(figures.allocated.blocks).Text(),
               Grouped(figures.allocated.bytes).Text(), Grouped(figures.freed.blocks).Text(),
               Grouped(live.blocks).Text(), Grouped(live.bytes).Text(),
               Grouped(figures.peakBytes).Text());
  }
}

void AddOwnMemoryLine(const char* name, uint64_t bytes) {
  g_text.Add("  %-25s %16s\n", name, Grouped(bytes).Text());
}

void AddOwnMemory() {
  g_text.Add("\n  %-25s %16s\n", "heapscope's own memory", "bytes");
  uint64_t used = 0;
  for (size_t i = 0; i < kOwnMemoryPurposes; ++i) {
    const auto purpose = static_cast<OwnMemory>(i);
    if (OwnBytes(purpose) != 0) AddOwnMemoryLine(NameOf(purpose), OwnBytes(purpose));
    used += OwnBytes(purpose);
  }
  AddOwnMemoryLine("kept back", OwnMappedBytes() - used);
}

}  // namespace

void WriteSummary(const Figures& figures) {
  g_text.Clear();
  AddHeading();
  AddTotals(figures.total);
  AddCalls(figures);
  AddIrregularities(figures);
  AddClasses(figures.classes);
  AddOwnMemory();
  g_text.Add("\n");
  WriteOutput(g_text.Text(), g_text.Length());
}

}  // namespace heapscope
