// Thread and process ids.

#include "host/thread_ids.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "host/host.h"

namespace zelhost {

constinit thread_local ThreadIdentity t_identity;

namespace {

constinit std::atomic<uint64_t> g_lastThreadNumber{0};

// Out of line, which keeps the getter down to a load and a test.
[[gnu::noinline]] uint64_t AskNativeThreadId() {
  return t_identity.native = static_cast<uint64_t>(syscall(SYS_gettid));
}

// The child's only thread is a new one to the kernel. Its number in here stays.
void ForgetNativeIds() {
  t_identity.parent = 0;
  t_identity.native = 0;
}

}  // namespace

uint64_t NextThreadNumber() {
  return g_lastThreadNumber.fetch_add(1, std::memory_order_relaxed) + 1;
}

void KeepIdentityAcrossForks() {
  static const int registered = pthread_atfork(nullptr, nullptr, ForgetNativeIds);
  static_cast<void>(registered);
}

uint64_t CurrentThreadId() {
  if (t_identity.current == 0) [[unlikely]]
    t_identity.current = NextThreadNumber();
  return t_identity.current;
}

uint64_t NativeThreadId() {
  const uint64_t known = t_identity.native;
  if (known == 0) [[unlikely]]
    return AskNativeThreadId();
  return known;
}

uint64_t NativeParentThreadId() { return t_identity.parent; }

int32_t ProcessId() { return getpid(); }

}  // namespace zelhost
