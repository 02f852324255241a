// Start-up, the environment wrappers, yield and sleep.

#include <sched.h>

#include <cstdlib>

#include "runtime/internal.h"
#include "runtime/spin_flag.h"
#include "zelrt/platform.h"
#include "zelrt/runtime.h"

constinit uint32_t __zelRtStarted = 0;
constinit uint32_t __zelNumberOfProcessors = 1;

namespace {

constexpr uint32_t kYieldsPerSleepUnit = 5'000'000;

constinit zelrt::SpinFlag g_startupGuard;
constinit uint32_t g_sleepScratch = 0;

// Everything that has to be there before the runtime counts as started.
void PrepareRuntime() {
  zelrt::StoreRelaxed(__zelNumberOfProcessors, __ZelGetNProcsInternal());
  // Their ids must be known once __zelRtStarted lets messages through.
  __ZelRegisterInternalZELRTLogMessages();
}

}  // namespace

using namespace zelrt;

uint32_t __ZelRtStartup() {
  const SpinFlagGuard guard(g_startupGuard);
  if (!HasStarted()) {
    PrepareRuntime();
    StoreRelease(__zelRtStarted, 1);
  }
  return ZELRT_VERSION_CODE;
}

void __ZelRtShutdown() {}

uint32_t __ZelGetStarted() { return LoadAcquire(__zelRtStarted); }
uint32_t __ZelGetNProcs() { return LoadRelaxed(__zelNumberOfProcessors); }

const char* __ZelGetEnvironmentVariable(const char* name) {
  return name != nullptr ? std::getenv(name) : nullptr;
}

uint32_t __ZelSetEnvironmentVariableEx(const char* name, const char* value, int32_t overwrite) {
  if (name == nullptr || value == nullptr) return 0;
  return setenv(name, value, overwrite) == 0 ? 1 : 0;
}

uint32_t __ZelSetEnvironmentVariable(const char* name, const char* value) {
  return __ZelSetEnvironmentVariableEx(name, value, 1);
}

void __ZelUnsetEnvironmentVariable(const char* name) {
  if (name != nullptr) unsetenv(name);
}

int32_t __ZelYield() { return sched_yield(); }

void __ZelSleep(uint32_t units) {
  for (uint32_t left = units * kYieldsPerSleepUnit; left > 0; --left) {
    __ZelYield();
    AtomicIncrement(g_sleepScratch);
    StoreRelaxed(g_sleepScratch, 0);
  }
}
