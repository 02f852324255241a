// What the files of containers/ show to tests: their invariants.
#pragma once

#include "zelrt/queue.h"
#include "zelrt/vector.h"

namespace zelrt {

// queue.cc ---------------------------------------------------------------------------------------

// In a queue with locks, for a thread that holds both or is alone.
bool QueueIsConsistent(const ZelQueue* queue);

// vector.cc --------------------------------------------------------------------------------------

bool VectorIsConsistent(const ZelVector* vector);

}  // namespace zelrt
