// The functions that take the place of the C library's: those that allocate, _exit, open, fopen,
// dlclose.
//
// Each calls the real function of its name and records what came of it: blocks, results and errno
// are the real function's. reallocarray is the exception: the real one would come back through
// realloc, so it is a checked multiplication in front of that.
//
// Calls that come from inside the collector go to the real functions and are not recorded; before
// the collector is up they are served from the arena, and so are those of the functions that it
// calls itself when it writes.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "examples/heapscope/descriptors.h"
#include "examples/heapscope/internal.h"

namespace heapscope {

constinit thread_local bool t_isInside = false;
constinit thread_local bool t_isWriting = false;

namespace {

struct RealFunctions {
  decltype(&::malloc) malloc;
  decltype(&::calloc) calloc;
  decltype(&::realloc) realloc;
  decltype(&::posix_memalign) posixMemalign;
  decltype(&::aligned_alloc) alignedAlloc;
  decltype(&::memalign) memalign;
  decltype(&::valloc) valloc;
  decltype(&::pvalloc) pvalloc;
  decltype(&::free) free;
  decltype(&::malloc_usable_size) usableSize;
  void (*exit)(int);
  decltype(&::fopen) fopen;
  decltype(&::open) open;
  decltype(&::dlclose) dlclose;
};
constinit RealFunctions g_real = {};

template <typename FunctionPointer>
bool Find(const char* name, FunctionPointer* function) {
  *function = reinterpret_cast<FunctionPointer>(dlsym(RTLD_NEXT, name));
  return *function != nullptr;
}

enum class Route {
  kRecord,  // to the real function, and recorded
  kReal,
  kArena,
};

Route RouteInside() { return t_isWriting ? Route::kArena : Route::kReal; }

[[gnu::noinline]] Route RouteAtStart(bool isOutermost) {
  const int kept = errno;
  if (isOutermost) EnsureStarted();
  errno = kept;
  const State state = g_state.load(std::memory_order_acquire);
  if (state == State::kCounting) return isOutermost ? Route::kRecord : RouteInside();
  return g_real.free != nullptr && state == State::kUnable ? Route::kReal : Route::kArena;
}

// One call of the program's, and where it goes.
class Call {
 public:
  Call() : route_(FindRoute()) {}
  bool IsRecorded() const { return route_ == Route::kRecord; }
  bool GoesToArena() const { return route_ == Route::kArena; }

 private:
  Route FindRoute() const {
    if (g_state.load(std::memory_order_acquire) != State::kCounting) [[unlikely]]
      return RouteAtStart(inside_.IsOutermost());
    return inside_.IsOutermost() ? Route::kRecord : RouteInside();
  }

  const InsideCollector inside_;
  const Route route_;
};

// From the arena or, when that is used up, from the real function if there is one.
template <typename Real>
[[gnu::noinline]] void* AllocateInArena(size_t alignment, size_t size, Real real) {
  void* block = ArenaAllocate(alignment, size);
  if (block == nullptr && g_real.free != nullptr) block = real();
  if (block == nullptr) errno = ENOMEM;
  return block;
}

template <typename Real>
inline void* Allocate(Function function, const Caller& caller, size_t alignment, size_t size,
                      Real real) {
  const Call call;
  if (call.GoesToArena()) [[unlikely]]
    return AllocateInArena(alignment, size, real);
  void* const block = real();
  if (!call.IsRecorded()) return block;
  if (block != nullptr) [[likely]] {
    RecordAllocation(function, caller, block, size);
  } else {
    RecordFailure(function, size);
  }
  return block;
}

// The arena knows no growing: the contents move to a new block.
void* ReallocateFromArena(const Call& call, Function function, const Caller& caller, void* old,
                          size_t size) {
  if (size == 0) {
    ArenaFree(old);
    return nullptr;
  }
  const auto real = [size] { return g_real.malloc(size); };
  void* const block = call.GoesToArena() ? AllocateInArena(0, size, real) : real();
  if (block == nullptr) return nullptr;
  std::memcpy(block, old, std::min(size, ArenaBlockSize(old)));
  ArenaFree(old);
  if (call.IsRecorded()) RecordAllocation(function, caller, block, size);
  return block;
}

void* Reallocate(Function function, const Caller& caller, void* old, size_t size) {
  if (old == nullptr)
    return Allocate(function, caller, 0, size, [size] { return g_real.realloc(nullptr, size); });
  const Call call;
  if (IsInArena(old)) [[unlikely]]
    return ReallocateFromArena(call, function, caller, old, size);
  if (!call.IsRecorded()) return g_real.realloc(old, size);

  const TakenBlock taken = TakeBlock(old);
  void* const block = g_real.realloc(old, size);
  if (block == nullptr && size != 0) {
    PutBackBlock(function, old, taken, size);
  } else {
    RecordReallocation(function, caller, old, taken, block, size);
  }
  return block;
}

// Since the start of the process. Not to be called where a lock is held.
unsigned long long ModulesUnloaded() {
  unsigned long long count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* result) {
        *static_cast<unsigned long long*>(result) = info->dlpi_subs;
        return 1;
      },
      &count);
  return count;
}

size_t PageAlignment() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

}  // namespace

bool FindRealFunctions() {
  return Find("malloc", &g_real.malloc) && Find("calloc", &g_real.calloc) &&
         Find("realloc", &g_real.realloc) && Find("posix_memalign", &g_real.posixMemalign) &&
         Find("aligned_alloc", &g_real.alignedAlloc) && Find("memalign", &g_real.memalign) &&
         Find("valloc", &g_real.valloc) && Find("pvalloc", &g_real.pvalloc) &&
         Find("malloc_usable_size", &g_real.usableSize) && Find("_exit", &g_real.exit) &&
         Find("free", &g_real.free);  // last: it being there tells that all are
}

}  // namespace heapscope

using namespace heapscope;

// The caller of the function that it stands in.
#define HEAPSCOPE_CALLER (Caller{__builtin_return_address(0), __builtin_frame_address(0)})

#pragma GCC visibility push(default)
extern "C" {

void* malloc(size_t size) noexcept {
  return Allocate(Function::kMalloc, HEAPSCOPE_CALLER, 0, size,
                  [size] { return g_real.malloc(size); });
}

void* calloc(size_t count, size_t size) noexcept {
  size_t total;
  // Too much for the real function too, and for the arena.
  if (__builtin_mul_overflow(count, size, &total)) total = SIZE_MAX;
  return Allocate(Function::kCalloc, HEAPSCOPE_CALLER, 0, total,
                  [=] { return g_real.calloc(count, size); });
}

void* realloc(void* old, size_t size) noexcept {
  return Reallocate(Function::kRealloc, HEAPSCOPE_CALLER, old, size);
}

void* reallocarray(void* old, size_t count, size_t size) noexcept {
  size_t total;
  if (!__builtin_mul_overflow(count, size, &total))
    return Reallocate(Function::kReallocarray, HEAPSCOPE_CALLER, old, total);
  if (const Call call; call.IsRecorded()) RecordFailure(Function::kReallocarray, SIZE_MAX);
  errno = ENOMEM;
  return nullptr;
}

int posix_memalign(void** result, size_t alignment, size_t size) noexcept {
  const Call call;
  if (call.GoesToArena()) [[unlikely]] {
    void* const block =
        AllocateInArena(alignment, size, [=] { return g_real.memalign(alignment, size); });
    if (block == nullptr) return ENOMEM;
    *result = block;
    return 0;
  }
  const int error = g_real.posixMemalign(result, alignment, size);
  if (!call.IsRecorded()) return error;
  if (error == 0) {
    RecordAllocation(Function::kPosixMemalign, HEAPSCOPE_CALLER, *result, size);
  } else {
    RecordFailure(Function::kPosixMemalign, size);
  }
  return error;
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return Allocate(Function::kAlignedAlloc, HEAPSCOPE_CALLER, alignment, size,
                  [=] { return g_real.alignedAlloc(alignment, size); });
}

void* memalign(size_t alignment, size_t size) noexcept {
  return Allocate(Function::kMemalign, HEAPSCOPE_CALLER, alignment, size,
                  [=] { return g_real.memalign(alignment, size); });
}

void* valloc(size_t size) noexcept {
  return Allocate(Function::kValloc, HEAPSCOPE_CALLER, PageAlignment(), size,
                  [size] { return g_real.valloc(size); });
}

void* pvalloc(size_t size) noexcept {
  return Allocate(Function::kPvalloc, HEAPSCOPE_CALLER, PageAlignment(), size,
                  [size] { return g_real.pvalloc(size); });
}

void free(void* block) noexcept {
  const Call call;
  if (IsInArena(block)) [[unlikely]]
    return ArenaFree(block);
  if (call.IsRecorded()) RecordFree(block);
  if (g_real.free != nullptr) g_real.free(block);
}

size_t malloc_usable_size(void* block) noexcept {
  if (IsInArena(block)) [[unlikely]]
    return ArenaBlockSize(block);
  const Call call;
  return g_real.usableSize != nullptr ? g_real.usableSize(block) : 0;
}

// Ends the process without its exit handlers. After a vfork it is the parent's memory that this
// runs in: nothing may change there but what the process id allows.
void _exit(int status) {
  ReportOnce();
  if (g_real.exit != nullptr) g_real.exit(status);
  for (;;) syscall(SYS_exit_group, status);
}

void _Exit(int status) noexcept { _exit(status); }

// The library opens its files with it. The collector's go where the program's do not come.
FILE* fopen(const char* path, const char* mode) {
  if (g_real.fopen == nullptr && !Find("fopen", &g_real.fopen)) return nullptr;
  return t_isWriting ? OpenOwnStream(path, mode) : g_real.fopen(path, mode);
}

// The same for what is opened without a stream: the channel's lock file.
int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (__OPEN_NEEDS_MODE(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (g_real.open == nullptr && !Find("open", &g_real.open)) return -1;
  const int opened = g_real.open(path, flags, mode);
  return t_isWriting && opened >= 0 ? MoveOwnDescriptor(opened) : opened;
}

// Modules may go here.
int dlclose(void* handle) noexcept {
  if (g_real.dlclose == nullptr && !Find("dlclose", &g_real.dlclose)) return -1;
  const unsigned long long before = ModulesUnloaded();
  const int result = g_real.dlclose(handle);
  if (ModulesUnloaded() != before) StartNewModuleEpoch();
  return result;
}

}  // extern "C"
#pragma GCC visibility pop
