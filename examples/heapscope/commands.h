// What can be asked of a collector while its program runs: codes of the command channel. Each
// command is answered.
#pragma once

#include <cstdint>

namespace heapscope {

enum class CommandCode : int32_t {
  kStatus = 1,
  kSnapshot,  // writes a result file now
  kWhere,     // the block that holds an address; the payload is its text
  kPause,     // what is allocated from now on does not count
  kResume,
  kReset,  // counts start anew, on top of what is live
};

inline constexpr char kChannelName[] = "heapscope";              // of its directory
inline constexpr char kChannelVariable[] = "HEAPSCOPE_CHANNEL";  // process:directory

}  // namespace heapscope
