// Call paths by the unwind tables of the program.
#pragma once

#include "examples/heapscope/call_path.h"

namespace heapscope {

// By the unwinder of the compiler's runtime: follows all that the tables can say, and takes its
// time.
void UnwindByRuntime(const Caller& caller, uint32_t depth, CallPath* path);

// The same path by rules that are remembered. False when there is something on it that needs the
// unwinder.
bool UnwindByRules(const Caller& caller, uint32_t depth, CallPath* path);

// Modules may go while there is one. Meanwhile no rule is used: those of a module must be forgotten
// before another one comes to lie where it was.
class ModulesMayGo {
 public:
  ModulesMayGo();
  ~ModulesMayGo();
  ModulesMayGo(const ModulesMayGo&) = delete;
  ModulesMayGo& operator=(const ModulesMayGo&) = delete;

  void ForgetRules();  // when some have gone
};

}  // namespace heapscope
