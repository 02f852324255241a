// What the files of containers/ show to tests: their invariants.
#pragma once

#include "zelrt/vector.h"

namespace zelrt {

// vector.cc --------------------------------------------------------------------------------------

bool VectorIsConsistent(const ZelVector* vector);

}  // namespace zelrt
