// Thread-local storage, the client lock, and the installation of everything into zelrt.

#include <pthread.h>

#include "host/host.h"
#include "host/thread_ids.h"
#include "zelrt/command.h"
#include "zelrt/runtime.h"

namespace zelhost {
namespace {

constinit pthread_mutex_t g_clientLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

uint32_t Flag(int posixResult) { return posixResult == 0 ? 1 : 0; }

}  // namespace

// An index is the number of a POSIX key.
uint32_t TlsAlloc() {
  pthread_key_t key;
  return pthread_key_create(&key, nullptr) == 0 ? key : kNoTlsIndex;
}
uint32_t TlsFree(uint32_t index) { return Flag(pthread_key_delete(index)); }
void* TlsGetValue(uint32_t index) { return pthread_getspecific(index); }
uint32_t TlsSetValue(uint32_t index, void* value) {
  return Flag(pthread_setspecific(index, value));
}

void ClientLock() { pthread_mutex_lock(&g_clientLock); }
void ClientUnlock() { pthread_mutex_unlock(&g_clientLock); }

void Install() {
  KeepIdentityAcrossForks();
  __ZelSetGetCurrentThreadIdProc(CurrentThreadId);
  __ZelSetGetNativeThreadIdProc(NativeThreadId);
  __ZelSetGetNativeParentThreadIdProc(NativeParentThreadId);
  __ZelSetTlsAllocProc(TlsAlloc);
  __ZelSetTlsFreeProc(TlsFree);
  __ZelSetTlsGetValueProc(TlsGetValue);
  __ZelSetTlsSetValueProc(TlsSetValue);
  __ZelSetGetPidProc(ProcessId);
  __ZelSetTavClientLockProc(ClientLock, ClientUnlock);
  __ZelSetThreadProcs(CreateServiceThread, ExitThread, WaitThread, AddEndCallback);
}

}  // namespace zelhost
