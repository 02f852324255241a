// The directories in which command channels lie, as the launcher sees to them.
#pragma once

#include <string>

namespace heapscope {

// Makes a new one; "" when that cannot be.
std::string MakeChannel();

// Removes a directory with all that a channel in it left behind. Its process must be gone.
void RemoveChannel(const std::string& directory);

// The same for all of heapscope's whose process is gone.
void RemoveStaleChannels();

// The directory of a process's channel; "" when there is none.
std::string FindChannel(int process);

}  // namespace heapscope
