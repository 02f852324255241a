// What the files of modules/ lend each other, and their tests.
#pragma once

#include <cstdint>

#include "zelrt/modules.h"

namespace zelrt {

// module_map.cc -----------------------------------------------------------------------------------

inline constexpr int32_t kModuleLevels = 11;

// A skip list, ordered by start. On each level it is a ring through the head, whose other fields
// mean nothing.
struct ModuleMap {
  ZelModuleRecord* head;  // null before the first load; has kModuleLevels links
  int32_t level;          // the highest one in use
};
extern ModuleMap g_moduleMap;

// Whether each level is in ascending order and part of the one below it, and no level above the
// highest in use has a record.
bool ModuleMapIsConsistent();

}  // namespace zelrt
