// The result file: what was counted, for programs to read. result.rng says what it looks like.
//
// Text from outside stands in elements, cleaned of what a document must not hold; attributes hold
// numbers and names of the collector's own.
//
// This file alone is compiled with exceptions, for those of the standard library when there is no
// memory: the result file then breaks off.

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "examples/heapscope/internal.h"
#include "examples/heapscope/writing.h"
#include "examples/heapscope/xml_text.h"
#include "zelrt/memory.h"
#include "zelrt/xml_writer.hpp"

namespace heapscope {
namespace {

constexpr int kFormat = 1;
constexpr size_t kMaxText = 4096;
constexpr size_t kMaxCommandLine = 16 * 1024;  // longer ones are cut off

void WriteText(ZelXmlWriter& result, const char* name, const char* text) {
  char clean[kMaxText];
  CleanForXml(text, clean, sizeof clean);
  result.writeStrElement(name, clean);
}

void WriteAmount(ZelXmlWriter& result, const char* name, const Amount& amount) {
  result.startElement(name, false)
      .writeAttribute("blocks", 0ULL + amount.blocks)
      .writeAttribute("bytes", 0ULL + amount.bytes)
      .endElement();
}

void WriteCommandLine(ZelXmlWriter& result) {
  const int file = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  std::string arguments(kMaxCommandLine, '\0');
  const ssize_t length = read(file, arguments.data(), arguments.size() - 1);
  close(file);
  const char* const end = arguments.data() + std::max<ssize_t>(length, 0);
  for (const char* argument = arguments.data(); argument < end; argument += strlen(argument) + 1)
    WriteText(result, "argument", argument);
}

void WriteProcess(ZelXmlWriter& result) {
  char executable[PATH_MAX] = "";
  static_cast<void>(!readlink("/proc/self/exe", executable, sizeof executable - 1));
  result.startElement("process", true).writeElement("id", static_cast<uint32_t>(g_process.id));
  if (g_process.forkedFrom != 0)
    result.writeElement("forked_from", static_cast<uint32_t>(g_process.forkedFrom));
  result.writeElement("started_ms", static_cast<uint64_t>(g_process.startedMs))
      .writeElement("ended_ms", static_cast<uint64_t>(NowMs()));
  WriteText(result, "name", g_process.name);
  WriteText(result, "executable", executable);
  WriteCommandLine(result);
  result.endElement();
}

void WriteTotals(ZelXmlWriter& result, const ClassFigures& total) {
  result.startElement("totals", true);
  if (g_process.forkedFrom != 0) {
    WriteAmount(result, "inherited", total.inherited);
  } else {
    WriteAmount(result, "allocated_at_load", EarlyAllocations());
  }
  WriteAmount(result, "allocated", total.allocated);
  WriteAmount(result, "freed", total.freed);
  WriteAmount(result, "live", total.Live());
  result.startElement("peak", false).writeAttribute("bytes", 0ULL + total.peakBytes).endElement();
  result.endElement();
}

void WriteCalls(ZelXmlWriter& result, const Figures& figures) {
  result.startElement("calls", true);
  for (size_t i = 0; i < kFunctions; ++i) {
    if (figures.calls[i] == 0) continue;
    result.startElement("call", false)
        .writeStrAttribute("function", kFunctionNames[i])
        .writeAttribute("count", 0ULL + figures.calls[i])
        .endElement();
  }
  result.endElement();
}

void WriteProblems(ZelXmlWriter& result, const Figures& figures) {
  result.startElement("problems", true)
      .writeElement("failed_calls", figures.failures)
      .writeElement("frees_of_unknown_blocks", figures.unknownFrees)
      .writeElement("frees_not_seen", figures.unseenFrees)
      .writeElement("blocks_not_counted", figures.untracked)
      .writeElement("calls_not_counted", figures.unrecorded)
      .endElement();
}

void WriteClasses(ZelXmlWriter& result, const ClassFigures* classes) {
  result.startElement("size_classes", true);
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    const ClassFigures& figures = classes[i];
    if (figures.allocated.blocks == 0 && figures.inherited.blocks == 0) continue;
    result.startElement("size_class", false);
    if (i != kSizeClasses - 1) result.writeAttribute("up_to", 0ULL + LargestInClass(i));
    if (g_process.forkedFrom != 0) WriteAmount(result, "inherited", figures.inherited);
    WriteAmount(result, "allocated", figures.allocated);
    WriteAmount(result, "freed", figures.freed);
    WriteAmount(result, "live", figures.Live());
    result.startElement("peak", false).writeAttribute("bytes", 0ULL + figures.peakBytes);
    result.endElement().endElement();
  }
  result.endElement();
}

void WriteThreads(ZelXmlWriter& result) {
  result.startElement("threads", false).writeAttribute("seen", 0ULL + ThreadsSeen());
  const uint32_t places = ThreadPlaces();
  for (uint32_t place = 0; place < places; ++place) {
    const ThreadFigures figures = ReadThread(place);
    result.startElement("thread", false);
    if (figures.thread != 0) result.writeAttribute("id", 0ULL + figures.thread);
    WriteAmount(result, "allocated", figures.allocated);
    WriteAmount(result, "freed", figures.freed);
    result.endElement();
  }
  result.endElement();
}

void WriteOwnMemory(ZelXmlWriter& result) {
  result.startElement("own_memory", false).writeAttribute("mapped_bytes", 0ULL + OwnMappedBytes());
  for (uint32_t id = 0; id < __ZelGetNumMemoryCategories(); ++id) {
    ZelMemoryCategoryInfo info;
    if (__ZelGetMemoryInfoByCategory(id, &info) == 0 || info.allocated == 0) continue;
    result.startElement("category", false)
        .writeAttribute("bytes", static_cast<unsigned long long>(info.allocated))
        .writeStrElement("name", info.name)
        .endElement();
  }
  result.endElement();
}

void WriteDocument(const char* path, const Figures& figures) {
  ZelXmlWriter result;
  if (!result.create(path, false)) return;
  result.startElement("heapscope_result", false).writeAttribute("format", kFormat);
  WriteProcess(result);
  WriteTotals(result, figures.total);
  WriteCalls(result, figures);
  WriteProblems(result, figures);
  WriteClasses(result, figures.classes);
  WriteThreads(result);
  WriteOwnMemory(result);
  result.close();
}

}  // namespace

void WriteResult(const Figures& figures) {
  char path[PATH_MAX];
  if (!OwnFilePath("xml", path, sizeof path)) return;
  const NoForkMeanwhile noFork;
  if (!noFork.IsHeld()) return;
  Writing writing;
  if (!writing.HasMemory()) return;
  try {
    WriteDocument(path, figures);
  } catch (...) {
  }
}

}  // namespace heapscope
