// The executable and the libraries that frames lie in.
//
// They are asked for when a path is seen for the first time, by a function of the loader that takes
// no lock: the allocation may come from the loader itself. A module cannot go away while there is a
// frame of it on the stack. So this needs to see no module being loaded, only, for addresses that
// are remembered, that some have gone.

#include "examples/heapscope/modules.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cstring>

#include "examples/heapscope/internal.h"
#include "host/host.h"
#include "zelrt/locks.h"
#include "zelrt/memory.h"

namespace heapscope {
namespace {

constexpr uint32_t kMaxModules = 4096;  // with the one that is none

constinit ZelSpinLock g_lock = {};  // for additions; comes after the shards'
constinit Module g_modules[kMaxModules] = {};
constinit std::atomic<uint32_t> g_count{1};
constinit std::atomic<uint32_t> g_epoch{0};

class AdditionHold {
 public:
  AdditionHold() {
    __ZelAcquireSpinLockTid(&g_lock, static_cast<uint32_t>(zelhost::NativeThreadId()));
  }
  ~AdditionHold() { __ZelReleaseSpinLock(&g_lock); }
  AdditionHold(const AdditionHold&) = delete;
  AdditionHold& operator=(const AdditionHold&) = delete;
};

// Which number a loaded module has: of a thread, by the loader's record.
struct Known {
  const link_map* map;
  uint32_t epoch;
  uint32_t number;
};
constexpr size_t kKnown = 32;
constinit thread_local Known t_known[kKnown] = {};

size_t RoundUp4(size_t size) { return (size + 3) & ~size_t{3}; }

// The build id is in a note of the module, which is in memory.
void ReadBuildId(const dl_find_object& object, Module* module) {
  const auto* const start = static_cast<const unsigned char*>(object.dlfo_map_start);
  const auto* const end = static_cast<const unsigned char*>(object.dlfo_map_end);
  const auto* const header = reinterpret_cast<const ElfW(Ehdr)*>(start);
  if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) return;
  const auto* const segments = reinterpret_cast<const ElfW(Phdr)*>(start + header->e_phoff);
  for (int i = 0; i < header->e_phnum; ++i) {
    if (segments[i].p_type != PT_NOTE) continue;
    const auto* note =
        reinterpret_cast<const unsigned char*>(object.dlfo_link_map->l_addr + segments[i].p_vaddr);
    const unsigned char* const notesEnd = note + segments[i].p_memsz;
    if (note < start || notesEnd > end) continue;
    while (note + sizeof(ElfW(Nhdr)) <= notesEnd) {
      ElfW(Nhdr) head;
      std::memcpy(&head, note, sizeof head);
      const unsigned char* const name = note + sizeof head;
      const unsigned char* const content = name + RoundUp4(head.n_namesz);
      note = content + RoundUp4(head.n_descsz);
      if (note > notesEnd) break;
      if (head.n_type != NT_GNU_BUILD_ID || head.n_descsz > kMaxBuildIdSize) continue;
      if (head.n_namesz != 4 || std::memcmp(name, "GNU", 4) != 0) continue;
      module->buildIdSize = head.n_descsz;
      std::memcpy(module->buildId, content, head.n_descsz);
      return;
    }
  }
}

bool IsSame(const Module& a, const Module& b) {
  return a.buildIdSize == b.buildIdSize && std::memcmp(a.buildId, b.buildId, a.buildIdSize) == 0 &&
         std::strcmp(a.path, b.path) == 0;
}

[[gnu::noinline]] uint32_t NumberOf(const dl_find_object& object) {
  Module module = {};
  module.path = object.dlfo_link_map->l_name;
  ReadBuildId(object, &module);

  const AdditionHold hold;
  const uint32_t count = g_count.load(std::memory_order_relaxed);
  for (uint32_t number = 1; number < count; ++number) {
    if (IsSame(g_modules[number], module)) return number;
  }
  if (count == kMaxModules || IsMemoryShort()) return 0;
  const size_t size = std::strlen(module.path) + 1;
  module.path = static_cast<const char*>(
      std::memcpy(__ZelMalloc(CategoryOf(OwnMemory::kSites), size, 0), module.path, size));
  g_modules[count] = module;
  g_count.store(count + 1, std::memory_order_release);
  return count;
}

}  // namespace

Place PlaceOf(uintptr_t address) {
  const Place unknown(0, address);
  dl_find_object object;
  if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0) return unknown;
  const link_map* const map = object.dlfo_link_map;
  Known& known = t_known[reinterpret_cast<uintptr_t>(map) / sizeof(link_map) % kKnown];
  if (known.map != map || known.epoch != ModuleEpoch()) {
    const uint32_t number = NumberOf(object);
    if (number == 0) return unknown;
    known = {map, ModuleEpoch(), number};
  }
  return Place(known.number, address - map->l_addr);
}

uint32_t NumberOfModules() { return g_count.load(std::memory_order_acquire) - 1; }

const Module& GetModule(uint32_t number) { return g_modules[number]; }

uint32_t ModuleEpoch() { return g_epoch.load(std::memory_order_relaxed); }
void StartNewModuleEpoch() { g_epoch.fetch_add(1, std::memory_order_relaxed); }

}  // namespace heapscope
