// The module map: a skip list.
//
// A record has a link on every level that is in use when it is inserted; loads raise the level by
// chance, one time in ten, up to the eleventh. So what lies on a level lies on all below it.
//
// Loads and unloads are the client's to serialise, but the fatal report looks addresses up at any
// moment. Links are therefore published whole: a lookup beside a load sees the map before it or
// after it. Nothing here can protect a lookup from the unload of a record that it stands on.

#include <cstddef>
#include <cstdlib>
#include <iterator>

#include "modules/internal.h"
#include "runtime/internal.h"
#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

constexpr int32_t kTopLevel = kModuleLevels - 1;
constexpr int kRaiseBelow = RAND_MAX / 10;  // of what rand() returns
static_assert(kRaiseBelow == 214'748'364);

static_assert(offsetof(ZelModuleRecord, name) == 0 && offsetof(ZelModuleRecord, start) == 8 &&
              offsetof(ZelModuleRecord, end) == 16 && offsetof(ZelModuleRecord, links) == 24);

constexpr const char* kArchitectures[] = {
    "unknown",       "x86",           "x86-64",        "accelerator-1",
    "accelerator-2", "accelerator-3", "accelerator-4", "accelerator-5",
    "accelerator-6", "accelerator-7", "accelerator-8",
};
static_assert(std::size(kArchitectures) == 11);

// On each level, the record behind which a search went down.
using SearchPath = ZelModuleRecord* [kModuleLevels];

ZelModuleRecord* Next(const ZelModuleRecord* record, int32_t level) {
  return LoadAcquire(record->links[level]);
}
void SetNext(ZelModuleRecord* record, int32_t level, ZelModuleRecord* next) {
  StoreRelease(record->links[level], next);
}

// The last record that starts below the key, or the head. The path may be null.
inline ZelModuleRecord* LastBelow(ZelModuleRecord* head, uint64_t key, SearchPath* path) {
  ZelModuleRecord* record = head;
  for (int32_t level = LoadRelaxed(g_moduleMap.level); level >= 0; --level) {
    ZelModuleRecord* next;
    while ((next = Next(record, level)) != head && next->start < key) record = next;
    if (path != nullptr) (*path)[level] = record;
  }
  return record;
}

ZelModuleRecord* AllocateRecord(int32_t height) {
  const size_t links = sizeof(ZelModuleRecord*) * static_cast<size_t>(height);
  return static_cast<ZelModuleRecord*>(__ZelMalloc(0, offsetof(ZelModuleRecord, links) + links, 0));
}

// Null when there is none and no memory for it.
ZelModuleRecord* EnsureHead() {
  if (g_moduleMap.head != nullptr) return g_moduleMap.head;
  ZelModuleRecord* const head = AllocateRecord(kModuleLevels);
  if (head == nullptr) return nullptr;
  *head = {.name = nullptr, .start = 0, .end = 0, .links = {}};
  for (int32_t level = 0; level < kModuleLevels; ++level) SetNext(head, level, head);
  StoreRelaxed(g_moduleMap.level, 0);
  StoreRelease(g_moduleMap.head, head);
  return head;
}

// The height of a new record, whose path is made to reach as high.
int32_t ChooseHeight(ZelModuleRecord* head, SearchPath& path) {
  int32_t level = g_moduleMap.level;
  if (level < kTopLevel && std::rand() < kRaiseBelow) {
    path[++level] = head;
    StoreRelaxed(g_moduleMap.level, level);
  }
  return level + 1;
}

void LowerLevel(const ZelModuleRecord* head) {
  int32_t level = g_moduleMap.level;
  while (level > 0 && Next(head, level) == head) --level;
  StoreRelaxed(g_moduleMap.level, level);
}

bool LevelIsConsistent(const ZelModuleRecord* head, int32_t level) {
  const ZelModuleRecord* below = head;
  const ZelModuleRecord* previous = head;
  for (const ZelModuleRecord* record = Next(head, level); record != head;
       record = Next(record, level)) {
    if (level > g_moduleMap.level) return false;
    if (previous != head && record->start <= previous->start) return false;
    if (level > 0) {
      do {
        below = Next(below, level - 1);
      } while (below != record && below != head);
      if (below == head) return false;
    }
    previous = record;
  }
  return true;
}

}  // namespace

constinit ModuleMap g_moduleMap = {nullptr, 0};

bool ModuleMapIsConsistent() {
  const ZelModuleRecord* const head = g_moduleMap.head;
  if (head == nullptr) return g_moduleMap.level == 0;
  if (g_moduleMap.level < 0 || g_moduleMap.level > kTopLevel) return false;
  for (int32_t level = 0; level < kModuleLevels; ++level) {
    if (!LevelIsConsistent(head, level)) return false;
  }
  return true;
}

}  // namespace zelrt

using namespace zelrt;

void __ZelLoadModule(const char* name, uint64_t start, uint64_t end) {
  ZelModuleRecord* const head = EnsureHead();
  if (head == nullptr) return;
  SearchPath path;
  const ZelModuleRecord* const above = Next(LastBelow(head, start, &path), 0);
  if (above != head && above->start == start) return;

  const int32_t height = ChooseHeight(head, path);
  // A level that was raised stays so without a record: the next unload lowers it.
  ZelModuleRecord* const record = AllocateRecord(height);
  if (record == nullptr) return;
  *record = {.name = __ZelStrdup(name), .start = start, .end = end, .links = {}};
  for (int32_t level = 0; level < height; ++level) {
    SetNext(record, level, Next(path[level], level));
    SetNext(path[level], level, record);
  }
  ZEL_ASSERT(ModuleMapIsConsistent());
}

void __ZelUnloadModule(uint64_t start) {
  ZelModuleRecord* const head = g_moduleMap.head;
  if (head == nullptr) return;
  SearchPath path;
  ZelModuleRecord* const record = Next(LastBelow(head, start, &path), 0);
  if (record == head || record->start != start) return;

  for (int32_t level = 0; level <= g_moduleMap.level; ++level) {
    if (Next(path[level], level) != record) break;
    SetNext(path[level], level, Next(record, level));
  }
  if (record->name != nullptr) __ZelFree(record->name);
  __ZelFree(record);
  LowerLevel(head);
  ZEL_ASSERT(ModuleMapIsConsistent());
}

ZelModuleRecord* __ZelFindModuleByAddress(uint64_t address) {
  ZelModuleRecord* const head = LoadAcquire(g_moduleMap.head);
  if (head == nullptr) return nullptr;
  ZelModuleRecord* const record = LastBelow(head, address, nullptr);
  return record != head && address < record->end ? record : nullptr;
}

uint64_t __ZelGetModuleForVariable(uint64_t address, char** name) {
  const ZelModuleRecord* const module = __ZelFindModuleByAddress(address);
  if (module == nullptr) return 0;
  if (name != nullptr) *name = module->name;
  return module->start;
}

const char* __ZelGetModuleArchString(uint32_t code) {
  return kArchitectures[code < std::size(kArchitectures) ? code : 0];
}
