// What is behind the streams that the library opened for the collector.
#pragma once

#include "examples/heapscope/descriptors.h"

namespace heapscope {

// The one that was opened last, under the same hold of a shard's lock.
OwnDescriptor LatestOwnStream();

}  // namespace heapscope
