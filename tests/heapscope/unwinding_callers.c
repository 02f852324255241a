// Functions that call back from frames of many kinds. They are compiled with and without frame
// pointers.

#include <alloca.h>
#include <setjmp.h>
#include <stdlib.h>
#include <string.h>

typedef void (*Callback)(void);

#define KEPT __attribute__((noinline))

// A signal handler calls from here too, while the thread is here.
static _Thread_local volatile int t_sink;
static _Thread_local Callback t_callback;
static _Thread_local jmp_buf* t_back;

KEPT static void CallFromLeaf(Callback callback) {
  callback();
  ++t_sink;
}

KEPT static void CallFromLargeFrame(Callback callback) {
  volatile char large[100000];
  large[0] = 1;
  callback();
  t_sink += large[0];
}

KEPT static void CallFromSixRegisters(Callback callback) {
  volatile int a = t_sink, b = a + 1, c = b + a, d = c + b, e = d + c, f = e + d;
  const int v = a, w = b, x = c, y = d, z = e, u = f;
  callback();
  t_sink = v ^ w ^ x ^ y ^ z ^ u;
  callback();  // the registers are kept over this one too
  t_sink += v * w + x * y + z * u;
}

KEPT static void CallFromAlloca(Callback callback) {
  for (size_t size = 16; size < 5000; size *= 3) {
    char* const bytes = alloca(size);
    memset(bytes, 1, size);
    callback();
    t_sink += bytes[size - 1];
  }
}

KEPT static void CallFromRealigned(Callback callback) {
  _Alignas(64) volatile char aligned[64];
  aligned[0] = 1;
  callback();
  t_sink += aligned[0];
}

// Arguments on the stack and a realigned frame of variable size: the CFA is stored in the frame.
KEPT static void CallFromStoredCfa(long a, long b, long c, long d, long e, long f, long g,
                                   Callback callback) {
  _Alignas(64) volatile char aligned[64];
  char* const variable = alloca((size_t)g);
  aligned[0] = variable[0] = 1;
  callback();
  t_sink += (int)(a + b + c + d + e + f + g) + aligned[0] + variable[0];
}

KEPT static void CallWithArgumentsOnStack(Callback callback) {
  for (long size = 16; size < 4096; size *= 16) CallFromStoredCfa(1, 2, 3, 4, 5, 6, size, callback);
  ++t_sink;
}

KEPT static void CallInTail(Callback callback) { callback(); }

__attribute__((noreturn)) KEPT static void CallAndJump(Callback callback) {
  callback();
  longjmp(*t_back, 1);
}

// The return address is that of the function behind it.
__attribute__((noreturn)) KEPT static void EndInCall(Callback callback) { CallAndJump(callback); }

KEPT static void CallFromWithoutReturn(Callback callback) {
  jmp_buf back;
  jmp_buf* const volatile outer = t_back;
  t_back = &back;
  if (setjmp(back) == 0) EndInCall(callback);
  t_back = outer;
}

static int CompareAndCall(const void* left, const void* right) {
  t_callback();
  return *(const int*)left - *(const int*)right;
}

KEPT static void CallFromLibrary(Callback callback) {
  const Callback outer = t_callback;
  t_callback = callback;
  int numbers[] = {3, 1, 2, 5, 4};
  const int wanted = 4;
  qsort(numbers, 5, sizeof numbers[0], CompareAndCall);
  t_sink += bsearch(&wanted, numbers, 5, sizeof numbers[0], CompareAndCall) != NULL;
  t_callback = outer;
}

KEPT static void CallFromDepth(Callback callback, int depth) {
  if (depth == 0) return callback();
  CallFromDepth(callback, depth - 1);
  ++t_sink;
}

KEPT static void CallFromDeep(Callback callback) {
  for (int depth = 1; depth < 200; depth += 31) CallFromDepth(callback, depth);
  ++t_sink;
}

void CallFromAllKinds(Callback callback) {
  CallFromLeaf(callback);
  CallFromLargeFrame(callback);
  CallFromSixRegisters(callback);
  CallFromAlloca(callback);
  CallFromRealigned(callback);
  CallWithArgumentsOnStack(callback);
  CallInTail(callback);
  CallFromWithoutReturn(callback);
  CallFromLibrary(callback);
  CallFromDeep(callback);
  ++t_sink;
}
