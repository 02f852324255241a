// Names of output files, in which "%p" stands for the process id and "%%" for a percent sign.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heapscope {

// Stores the name with the process id in it. False when it does not fit.
bool ExpandFilePattern(const char* pattern, int32_t processId, char* path, size_t size);

bool HasProcessId(const char* pattern);

}  // namespace heapscope
