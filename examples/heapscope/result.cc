// The result file: what was counted, for programs to read. result.rng says what it looks like.
//
// Text from outside stands in elements, cleaned of what a document must not hold; attributes hold
// numbers and names of the collector's own.
//
// A file is written beside its place and renamed when it is whole, so that whoever reads while the
// program runs never sees half of one.
//
// Compiled with exceptions, for those of the standard library when there is no memory: the result
// file then breaks off.

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "examples/heapscope/annotations.h"
#include "examples/heapscope/internal.h"
#include "examples/heapscope/timeline.h"
#include "examples/heapscope/writing.h"
#include "examples/heapscope/xml_text.h"
#include "zelrt/xml_writer.hpp"

namespace heapscope {
namespace {

constexpr int kFormat = 3;
constexpr const char* kOccasions[] = {"end", "snapshot", "heartbeat"};
constexpr char kRoot[] = "heapscope_result";
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

void WriteFlow(ZelXmlWriter& result, const Flow& flow) {
  WriteAmount(result, "allocated", flow.allocated);
  WriteAmount(result, "freed", flow.freed);
  WriteAmount(result, "temporary", flow.temporary);
  WriteAmount(result, "live", flow.Live());
  result.startElement("peak", false).writeAttribute("bytes", 0ULL + flow.peakBytes).endElement();
}

const char* ReadExecutable(char* path, size_t size) {
  const ssize_t length = readlink("/proc/self/exe", path, size - 1);
  path[std::max<ssize_t>(length, 0)] = '\0';
  return path;
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
  char executable[PATH_MAX];
  result.startElement("process", true).writeElement("id", static_cast<uint32_t>(g_process.id));
  if (g_process.forkedFrom != 0)
    result.writeElement("forked_from", static_cast<uint32_t>(g_process.forkedFrom));
  result.writeElement("started_ms", static_cast<uint64_t>(g_process.startedMs))
      .writeElement("ended_ms", static_cast<uint64_t>(NowMs()));
  if (g_process.resetMs != 0)
    result.writeElement("reset_ms", static_cast<uint64_t>(g_process.resetMs));
  WriteText(result, "name", g_process.name);
  WriteText(result, "executable", ReadExecutable(executable, sizeof executable));
  WriteCommandLine(result);
  result.endElement();
}

void WriteTotals(ZelXmlWriter& result, const Flow& total) {
  result.startElement("totals", true);
  if (g_process.HasInherited()) {
    WriteAmount(result, "inherited", total.inherited);
  } else {
    WriteAmount(result, "allocated_at_load", EarlyAllocations());
  }
  WriteFlow(result, total);
  result.endElement();
}

void WritePoint(const TimelinePoint& point, void* result) {
  static_cast<ZelXmlWriter*>(result)
      ->startElement("point", false)
      .writeAttribute("at_ms", 0ULL + point.atMs)
      .writeAttribute("live_blocks", 0ULL + point.liveBlocks)
      .writeAttribute("live_bytes", 0ULL + point.liveBytes)
      .writeAttribute("allocated_blocks", 0ULL + point.allocatedBlocks)
      .writeAttribute("allocated_bytes", 0ULL + point.allocatedBytes)
      .writeAttribute("own_bytes", 0ULL + point.ownBytes)
      .endElement();
}

void WriteTimeline(ZelXmlWriter& result) {
  result.startElement("timeline", true);
  ReadTimeline(WritePoint, &result);
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
      .writeElement("calls_left_out_by_pause", figures.leftOut)
      .endElement();
}

void WriteClasses(ZelXmlWriter& result, const Flow* classes) {
  result.startElement("size_classes", true);
  for (uint32_t i = 0; i < kSizeClasses; ++i) {
    const Flow& figures = classes[i];
    if (figures.allocated.blocks == 0 && figures.inherited.blocks == 0) continue;
    result.startElement("size_class", false);
    if (i != kSizeClasses - 1) result.writeAttribute("up_to", 0ULL + LargestInClass(i));
    if (g_process.HasInherited()) WriteAmount(result, "inherited", figures.inherited);
    WriteFlow(result, figures);
    result.endElement();
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

// As readers of ELF files write it.
std::string BuildIdOf(const Module& module) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint32_t i = 0; i < module.buildIdSize; ++i) {
    text += kDigits[module.buildId[i] >> 4];
    text += kDigits[module.buildId[i] & 15];
  }
  return text;
}

void WriteModules(ZelXmlWriter& result) {
  result.startElement("modules", true);
  for (uint32_t number = 1; number <= NumberOfModules(); ++number) {
    const Module& module = GetModule(number);
    result.startElement("module", false).writeAttribute("id", 0ULL + number);
    if (module.buildIdSize != 0) result.writeStrAttribute("build_id", BuildIdOf(module));
    // The loader has no name for the program.
    char executable[PATH_MAX];
    WriteText(result, "path",
              module.path[0] == '\0' ? ReadExecutable(executable, sizeof executable) : module.path);
    result.endElement();
  }
  result.endElement();
}

void WriteSite(ZelXmlWriter& result, const SiteFigures& site) {
  result.startElement("site", true);
  if (g_process.HasInherited()) WriteAmount(result, "inherited", site.inherited);
  WriteFlow(result, site);
  for (uint64_t i = 0; site.path != nullptr && i < site.path->count; ++i) {
    const Place place = site.path->Places()[i];
    result.startElement("frame", false);
    if (place.Module() != 0) result.writeAttribute("module", 0ULL + place.Module());
    result.writeAttribute("offset", reinterpret_cast<const void*>(uintptr_t{place.Offset()}))
        .endElement();
  }
  result.endElement();
}

void WriteSites(ZelXmlWriter& result, uint32_t sites) {
  result.startElement("sites", true);
  for (uint32_t number = 0; number < sites; ++number) {
    const SiteFigures figures = ReadSite(number);
    if (figures.allocated.blocks != 0 || figures.inherited.blocks != 0) WriteSite(result, figures);
  }
  result.endElement();
}

// Paths of what is loaded, each ended by a NUL. What does not fit is left out: the loader's lock is
// held, and nothing may be allocated.
std::string PathsOfLoadedFiles() {
  std::string paths;
  const LoaderUse use;
  if (!use.IsBegun()) return paths;
  paths.reserve(64 * 1024);
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* result) {
        auto& list = *static_cast<std::string*>(result);
        const size_t size = std::strlen(info->dlpi_name) + 1;
        if (size <= list.capacity() - list.size()) list.append(info->dlpi_name, size);
        return 0;
      },
      &paths);
  return paths;
}

void WriteAnnotation(const ZelZCARecord& record, void* context) {
  ZelXmlWriter& result = *static_cast<ZelXmlWriter*>(context);
  result.startElement("annotation", false)
      .writeAttribute("offset", reinterpret_cast<const void*>(record.address))
      .writeAttribute("probe", 0ULL + record.probe);
  WriteText(result, "name", record.name);
  for (uint32_t i = 0; i < record.argumentCount; ++i) {
    const ZelZCAArgument& argument = record.arguments[i];
    result.startElement(argument.isRegister != 0 ? "register" : "constant", false)
        .writeAttribute("value", 0ULL + argument.value);
    if (argument.isRegister != 0) result.writeAttribute("plus", argument.offset);
    result.endElement();
  }
  result.endElement();
}

void WriteAnnotations(ZelXmlWriter& result, const std::string& paths) {
  result.startElement("annotations", true);
  for (size_t at = 0; at < paths.size(); at += std::strlen(paths.c_str() + at) + 1) {
    char executable[PATH_MAX];
    const char* const path =
        at == 0 ? ReadExecutable(executable, sizeof executable) : paths.c_str() + at;
    result.startElement("file", true);
    WriteText(result, "path", path);
    ReadAnnotations(path, WriteAnnotation, &result);
    result.endElement();
  }
  result.endElement();
}

void WriteOwnMemory(ZelXmlWriter& result) {
  result.startElement("own_memory", false).writeAttribute("mapped_bytes", 0ULL + OwnMappedBytes());
  for (size_t i = 0; i < kOwnMemoryPurposes; ++i) {
    const auto purpose = static_cast<OwnMemory>(i);
    result.startElement("category", false)
        .writeAttribute("bytes", 0ULL + OwnBytes(purpose))
        .writeStrElement("name", NameOf(purpose))
        .endElement();
  }
  result.endElement();
}

bool WriteDocument(const char* path, Occasion occasion, const Figures& figures,
                   const std::string& loaded) {
  ZelXmlWriter result;
  if (!result.create(path, false)) return false;
  // Nobody else has the file, but for its holder the stream needs no lock of its own.
  result.acquire()
      .startElement(kRoot, false)
      .writeAttribute("format", kFormat)
      .writeStrAttribute("written", kOccasions[static_cast<size_t>(occasion)]);
  WriteProcess(result);
  WriteTotals(result, figures.total);
  WriteTimeline(result);
  WriteCalls(result, figures);
  WriteProblems(result, figures);
  WriteClasses(result, figures.classes);
  WriteThreads(result);
  // The sites that are there now: later ones may lie in later modules.
  const uint32_t sites = NumberOfSites();
  WriteModules(result);
  WriteSites(result, sites);
  WriteAnnotations(result, loaded);
  WriteOwnMemory(result);
  result.endAll().release();
  result.close();
  return true;
}

// The stream does not tell of what it could not write.
bool IsWhole(const char* path) {
  const std::string end = std::string("</") + kRoot + ">";
  std::string tail(end.size() + 1, '\0');  // and the end of the line
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const off_t size = lseek(file, 0, SEEK_END);
  const auto from = size - static_cast<off_t>(tail.size());
  const bool isRead =
      from >= 0 && pread(file, tail.data(), tail.size(), from) == static_cast<ssize_t>(tail.size());
  close(file);
  return isRead && tail.find(end) != std::string::npos;
}

// Set at the end, after which no earlier figures may come.
constinit bool g_hasEnded = false;  // under the lock of the files

bool WriteInPlace(Occasion occasion, const Figures& figures, const char* path,
                  const std::string& loaded) {
  if (g_hasEnded || !HasMemoryForFiles()) return false;
  g_hasEnded = occasion == Occasion::kEnd;
  const std::string unfinished = std::string(path) + ".part";
  if (!WriteDocument(unfinished.c_str(), occasion, figures, loaded)) return false;
  const bool isWhole = IsWhole(unfinished.c_str());
  // Something is better than nothing.
  const bool isWanted = isWhole || (g_hasEnded && access(path, F_OK) != 0);
  if (isWanted && rename(unfinished.c_str(), path) == 0) return isWhole;
  unlink(unfinished.c_str());
  return false;
}

}  // namespace

bool WriteResult(Occasion occasion, const Figures& figures, const char* path) {
  try {
    const ArenaUse arena;
    // Before any lock: a thread that unloads a library frees memory under the loader's.
    const std::string loaded = PathsOfLoadedFiles();
    const NoForkMeanwhile noFork;
    if (!noFork.IsHeld()) return false;
    const Writing writing;
    return WriteInPlace(occasion, figures, path, loaded);
  } catch (...) {
    return false;
  }
}

void StartChildResult() { g_hasEnded = false; }

}  // namespace heapscope
