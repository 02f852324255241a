// The table of client hooks, their setters and getters.
//
// Nothing synchronises a replacement with threads that are calling: a getter reads its slot once,
// so it calls either the old hook or the new one.

#include "runtime/internal.h"
#include "zelrt/runtime.h"

constinit ZelThreadIdProc __zelGetCurrentThreadIdProc = nullptr;
constinit ZelThreadIdProc __zelGetNativeThreadIdProc = nullptr;
constinit ZelThreadIdProc __zelGetNativeParentThreadIdProc = nullptr;
constinit ZelTlsAllocProc __zelTlsAllocProc = nullptr;
constinit ZelTlsFreeProc __zelTlsFreeProc = nullptr;
constinit ZelTlsGetValueProc __zelTlsGetValueProc = nullptr;
constinit ZelTlsSetValueProc __zelTlsSetValueProc = nullptr;
constinit ZelClientLockProc __zelTAVClientLock = nullptr;
constinit ZelClientLockProc __zelTAVClientUnlock = nullptr;

namespace {

constexpr uint32_t kNoTlsIndex = 0xFFFFFFFF;
constexpr int32_t kNoPid = -1;

constinit ZelPidProc g_getPidProc = nullptr;

}  // namespace

using namespace zelrt;

void __ZelSetGetCurrentThreadIdProc(ZelThreadIdProc proc) {
  StoreRelaxed(__zelGetCurrentThreadIdProc, proc);
}
void __ZelSetGetNativeThreadIdProc(ZelThreadIdProc proc) {
  StoreRelaxed(__zelGetNativeThreadIdProc, proc);
}
void __ZelSetGetNativeParentThreadIdProc(ZelThreadIdProc proc) {
  StoreRelaxed(__zelGetNativeParentThreadIdProc, proc);
}
void __ZelSetTlsAllocProc(ZelTlsAllocProc proc) { StoreRelaxed(__zelTlsAllocProc, proc); }
void __ZelSetTlsFreeProc(ZelTlsFreeProc proc) { StoreRelaxed(__zelTlsFreeProc, proc); }
void __ZelSetTlsGetValueProc(ZelTlsGetValueProc proc) { StoreRelaxed(__zelTlsGetValueProc, proc); }
void __ZelSetTlsSetValueProc(ZelTlsSetValueProc proc) { StoreRelaxed(__zelTlsSetValueProc, proc); }
void __ZelSetGetPidProc(ZelPidProc proc) { StoreRelaxed(g_getPidProc, proc); }

void __ZelSetTavClientLockProc(ZelClientLockProc lock, ZelClientLockProc unlock) {
  StoreRelaxed(__zelTAVClientLock, lock);
  StoreRelaxed(__zelTAVClientUnlock, unlock);
}

uint64_t __ZelGetCurrentThreadId() { return CallHook(__zelGetCurrentThreadIdProc, 0); }
uint64_t __ZelGetNativeThreadId() { return NativeThreadId(); }
uint64_t __ZelGetNativeParentThreadId() { return CallHook(__zelGetNativeParentThreadIdProc, 0); }
uint32_t __ZelTlsAlloc() { return CallHook(__zelTlsAllocProc, kNoTlsIndex); }
uint32_t __ZelTlsFree(uint32_t index) { return CallHook(__zelTlsFreeProc, 0, index); }
void* __ZelTlsGetValue(uint32_t index) { return CallHook(__zelTlsGetValueProc, nullptr, index); }
uint32_t __ZelTlsSetValue(uint32_t index, void* value) {
  return CallHook(__zelTlsSetValueProc, 0, index, value);
}
int32_t __ZelGetPid() { return CallHook(g_getPidProc, kNoPid); }
