// What keeps a program from being watched.
#pragma once

#include <string>

namespace heapscope {

// Why the collector will see nothing of a program, empty when nothing speaks against it. The
// program is looked for as execvp does.
std::string ReasonNotToBeWatched(const std::string& program);

}  // namespace heapscope
