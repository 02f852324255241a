// What the files of runtime/ lend to the rest of the library. Atomics, locks and their order have
// headers of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "runtime/atomics.h"
#include "zelrt/log.h"
#include "zelrt/runtime.h"

namespace zelrt {

// True in builds that check themselves: consistency of structures, order of locks.
#ifdef ZELRT_DEBUG_CHECKS
inline constexpr bool kDebugChecks = true;
#else
inline constexpr bool kDebugChecks = false;
#endif

// A condition that only a defect of the library can break. Not evaluated where checks are off.
#define ZEL_ASSERT(condition)                                                                 \
  do {                                                                                        \
    if constexpr (::zelrt::kDebugChecks) {                                                    \
      if (!(condition)) __ZelLogFatalToolDefect("%s:%d: %s", __FILE__, __LINE__, #condition); \
    }                                                                                         \
  } while (false)

// Calls an installed hook, or answers for a client that installed none. The slot is read once: the
// client may replace it meanwhile.
template <typename R, typename... Args>
inline R CallHook(R (*const& slot)(Args...), std::type_identity_t<R> whenAbsent,
                  std::type_identity_t<Args>... args) {
  R (*const hook)(Args...) = LoadRelaxed(slot);
  return hook != nullptr ? hook(args...) : whenAbsent;
}

// hooks.cc ---------------------------------------------------------------------------------------

inline uint64_t NativeThreadId() { return CallHook(__zelGetNativeThreadIdProc, 0); }

inline bool HasStarted() { return LoadAcquire(__zelRtStarted) != 0; }

// platform.cc ------------------------------------------------------------------------------------

// Counts processors from files in the format of the two "/proc" files; the second is asked when
// the first cannot be opened. 0 when neither can.
uint32_t CountProcessors(const char* statPath, const char* cpuinfoPath);

// The largest XSAVE area by the answers of a cpuid, with __ZelCpuidEx's signature.
uint32_t XsaveAreaSize(void (*cpuid)(unsigned, unsigned, unsigned[4]));

}  // namespace zelrt
