// The collector's end of the command channel: what is asked of it, and the heartbeats.
//
// Commands come on a thread of the collector's own. It is inside the collector all its life, and
// what the C library allocates for it comes from the arena. Its callback takes the fork gate or the
// locks of the shards as any other thread does.
//
// Compiled with exceptions, for those of the standard library when there is no memory.

#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "examples/heapscope/commands.h"
#include "examples/heapscope/internal.h"
#include "examples/heapscope/timeline.h"
#include "examples/heapscope/writing.h"
#include "host/host.h"
#include "zelrt/command.h"
#include "zelrt/command_channels.hpp"

namespace heapscope {
namespace {

// A result is saved at a heartbeat when saving takes less than this part of the time.
constexpr int64_t kSavingShare = 20;

struct Channel {
  char directory[PATH_MAX];  // stays when the channel has gone: a late answer may be under way
  bool isUp;
  bool isOwnDirectory;      // made by this process, and not by the launcher
  ZelThreadFunction serve;  // what the command thread runs
  int64_t nextSaveMs;       // by the monotonic clock
  uint32_t snapshots;
};
constinit Channel g_channel = {};

int64_t MonotonicMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
}

struct Answer {
  bool isOk;
  std::string text;
};

[[gnu::format(printf, 2, 3)]] void AddLine(std::string& text, const char* format, ...) {
  char line[PATH_MAX + 64];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  text += line;
  text += '\n';
}

Answer AnswerStatus() {
  Figures figures;
  ReadFigures(&figures);
  const Flow& total = figures.total;
  const Amount live = total.Live();
  char path[PATH_MAX];
  std::string text;
  AddLine(text, "process: %d %s", g_process.id, g_process.name);
  AddLine(text, "state: %s", AreRecordsPaused() ? "paused" : "counting");
  AddLine(text, "running_ms: %" PRId64, NowMs() - g_process.startedMs);
  AddLine(text, "live_blocks: %" PRIu64, live.blocks);
  AddLine(text, "live_bytes: %" PRIu64, live.bytes);
  AddLine(text, "peak_bytes: %" PRIu64, total.peakBytes);
  AddLine(text, "allocated_blocks: %" PRIu64, total.allocated.blocks);
  AddLine(text, "allocated_bytes: %" PRIu64, total.allocated.bytes);
  AddLine(text, "blocks_per_second: %" PRIu64, AllocationRate());
  AddLine(text, "own_bytes: %" PRIu64, OwnMappedBytes());
  AddLine(text, "result: %s", ResultFilePath(path, sizeof path) ? path : "none");
  AddLine(text, "log: %s", LogFilePath(path, sizeof path) ? path : "none");
  return {true, text};
}

Answer AnswerSnapshot() {
  char path[PATH_MAX];
  if (!SnapshotFilePath(g_channel.snapshots + 1, path, sizeof path))
    return {false, "there is no directory for results: start with -out\n"};
  NoteTime();
  Figures figures;
  ReadFigures(&figures);
  if (!WriteResult(Occasion::kSnapshot, figures, path))
    return {false, std::string("cannot write ") + path + "\n"};
  ++g_channel.snapshots;
  return {true, std::string("result: ") + path + "\n"};
}

void AddFrame(std::string& text, Place place) {
  if (place.Module() == 0) return AddLine(text, "frame: 0x%" PRIx64, place.Offset());
  const Module& module = GetModule(place.Module());
  char executable[PATH_MAX];
  const char* path = module.path;
  if (path[0] == '\0') {
    const ssize_t length = readlink("/proc/self/exe", executable, sizeof executable - 1);
    executable[std::max<ssize_t>(length, 0)] = '\0';
    path = executable;
  }
  AddLine(text, "frame: %s+0x%" PRIx64, path, place.Offset());
}

Answer AnswerWhere(const char* addressText) {
  char* end;
  const uintptr_t address = std::strtoull(addressText, &end, 0);
  if (end == addressText || *end != '\0')
    return {false, "not an address: " + std::string(addressText).substr(0, 64) + "\n"};
  BlockAround block;
  if (!FindBlockAround(address, &block))
    return {false, "no live block that was counted holds the address\n"};
  const SiteFigures site = ReadSite(block.site);
  const Amount live = site.Live();
  std::string text;
  AddLine(text, "block: 0x%" PRIxPTR, block.start);
  AddLine(text, "size: %zu", block.size);
  AddLine(text, "offset: %" PRIuPTR, address - block.start);
  AddLine(text, "site_live_blocks: %" PRIu64, live.blocks);
  AddLine(text, "site_live_bytes: %" PRIu64, live.bytes);
  for (uint64_t i = 0; site.path != nullptr && i < site.path->count; ++i)
    AddFrame(text, site.path->Places()[i]);
  return {true, text};
}

Answer AnswerReset() {
  HoldRecords();
  StartRecordsAnew();
  g_process.resetMs = NowMs();
  ReleaseRecords();
  NoteTime();
  return {true, ""};
}

Answer AnswerTo(int code, const char* payload) {
  switch (static_cast<CommandCode>(code)) {
    case CommandCode::kStatus:
      return AnswerStatus();
    case CommandCode::kSnapshot:
      return AnswerSnapshot();
    case CommandCode::kWhere:
      return AnswerWhere(payload);
    case CommandCode::kPause:
      PauseRecords();
      return {true, ""};
    case CommandCode::kResume:
      ResumeRecords();
      return {true, ""};
    case CommandCode::kReset:
      return AnswerReset();
  }
  return {false, "unknown command\n"};
}

void Beat() {
  NoteTime();
  char path[PATH_MAX];
  const int64_t start = MonotonicMs();
  if (start < g_channel.nextSaveMs || !ResultFilePath(path, sizeof path)) return;
  Figures figures;
  ReadFigures(&figures);
  WriteResult(Occasion::kHeartbeat, figures, path);
  const int64_t end = MonotonicMs();
  g_channel.nextSaveMs = end + (end - start) * kSavingShare;
}

void OnCommand(int code, int, int, int, int ticket, unsigned char* payload, void*) {
  if (payload == nullptr) return Beat();
  payload[ZEL_COMMAND_PAYLOAD_SIZE - 1] = '\0';
  try {
    const Answer answer = AnswerTo(code, reinterpret_cast<char*>(payload));
    if (ticket != 0) zelrt::PutAnswer(g_channel.directory, ticket, answer.isOk, answer.text);
  } catch (...) {
  }
}

void ServeInside(uintptr_t argument) {
  t_isInside = true;
  t_isWriting = true;
  g_channel.serve(argument);
}

uint32_t CreateCommandThread(ZelThreadFunction function, uintptr_t argument, size_t stackSize,
                             uintptr_t* handle) {
  g_channel.serve = function;
  return zelhost::CreateServiceThread(ServeInside, argument, stackSize, handle);
}

// HEAPSCOPE_CHANNEL is "process:directory". Another process has to find a place of its own: the
// channel's is that of the process that it was made for.
bool FindDirectory() {
  const char* const value = std::getenv(kChannelVariable);
  if (value == nullptr) return false;
  char* directory;
  const bool isOurs = std::strtol(value, &directory, 10) == g_process.id;
  if (*directory != ':') return false;
  std::string path = directory + 1;
  if (!isOurs && !zelrt::MakeChannelDirectory(kChannelName, path)) return false;
  if (path.size() >= sizeof g_channel.directory) return false;
  std::memcpy(g_channel.directory, path.c_str(), path.size() + 1);
  g_channel.isOwnDirectory = !isOurs;
  return true;
}

}  // namespace

void OpenChannel() {
  NoteTime();
  try {
    const ArenaUse arena;
    if (!g_options.WantsChannel() || !FindDirectory()) return;
    __ZelSetThreadProcs(CreateCommandThread, zelhost::ExitThread, zelhost::WaitThread,
                        zelhost::AddEndCallback);
    const auto seconds = static_cast<int>(g_options.HeartbeatSeconds());
    g_channel.isUp = __ZelRegisterCommandHandlerWithHeartbeat(g_channel.directory, OnCommand,
                                                              nullptr, seconds) != 0;
    if (!g_channel.isUp && g_channel.isOwnDirectory) rmdir(g_channel.directory);
  } catch (...) {
  }
}

void CloseChannel() {
  if (!g_channel.isUp) return;
  const ArenaUse arena;
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  // Answers that nobody has fetched keep it: the launcher sees to them.
  if (g_channel.isOwnDirectory) rmdir(g_channel.directory);
  g_channel.isUp = false;
}

void ForgetChannelInChild() {
  if (!g_channel.isUp) return;
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  g_channel.isUp = false;
}

}  // namespace heapscope
