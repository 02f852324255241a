// Log sources: the components that share the log file.
//
// A name that was released stays in memory, since a record may be about to write it; there are
// never more than fifteen.

#include <cstring>

#include "log/internal.h"
#include "runtime/slot_table.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

struct Source {
  const char* name;
  uint32_t isReleased;
};

constinit SlotTable<Source, kMaxSources> g_sources(Source{"zelrt", 0});

const char* CopyName(const char* name) {
  const size_t size = std::strlen(name) + 1;
  void* const copy = __ZelMallocInternal(size);
  return copy != nullptr ? static_cast<const char*>(std::memcpy(copy, name, size)) : nullptr;
}

bool BeginsWith(const char* text, const char* beginning) {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

}  // namespace

bool IsSource(int32_t handle) {
  return handle >= 0 && static_cast<uint32_t>(handle) < g_sources.Count();
}

const char* SourceName(int32_t handle) {
  const Source* const source = g_sources.Find(static_cast<uint32_t>(handle));
  return source != nullptr && LoadRelaxed(source->isReleased) == 0 ? source->name : "";
}

}  // namespace zelrt

using namespace zelrt;

int32_t __ZelGetLoggerHandle(const char* name) {
  if (name == nullptr || !LoggerWasCreated()) return -1;
  const char* const copy = CopyName(name);
  if (copy == nullptr) return -1;
  const uint32_t slot = g_sources.Claim();
  if (slot == kNoSlot) {
    __ZelFreeInternal(const_cast<char*>(copy));
    return -1;
  }
  g_sources[slot] = {copy, 0};
  g_sources.Publish(slot);
  return static_cast<int32_t>(slot);
}

uint32_t __ZelReleaseLoggerHandle(int32_t handle, const char* name) {
  if (CurrentLogFile() == nullptr || handle <= 0 || name == nullptr) return 0;
  const Source* const source = g_sources.Find(static_cast<uint32_t>(handle));
  if (source == nullptr || !BeginsWith(name, source->name)) return 0;
  // One of two releases at the same time succeeds.
  return AtomicCompareExchange(g_sources[static_cast<uint32_t>(handle)].isReleased, 1, 0) == 0 ? 1
                                                                                               : 0;
}
