// What a thread knows of itself.
#pragma once

#include <cstdint>

namespace zelhost {

struct ThreadIdentity {
  uint64_t current = 0;  // 0: not asked for yet, here and below
  uint64_t native = 0;
  uint64_t parent = 0;
};

extern constinit thread_local ThreadIdentity t_identity;

// Gives out the number of a thread to come.
uint64_t NextThreadNumber();

// Makes the ids right in forked children from now on. Repeated calls do nothing.
void KeepIdentityAcrossForks();

}  // namespace zelhost
