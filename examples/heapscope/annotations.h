// The annotations that a module's file carries.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelrt/annotations.h"

namespace heapscope {

// Is given each annotation, with its address in the file.
using AnnotationProc = void (*)(const ZelZCARecord& record, void* context);

// Reads them from the file: the module may be unloaded meanwhile. Calls nothing for a file that
// cannot be read, has no such section or an unreasonably large one. For a thread that is writing.
void ReadAnnotations(const char* path, AnnotationProc proc, void* context);

}  // namespace heapscope
