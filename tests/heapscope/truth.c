// A program that knows what it allocates, and prints it: a line for each place that does, with the
// place's code and what heapscope has to say of it.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern const char __executable_start;

static void* volatile g_kept;  // the compiler must not call in its stead: the address is to be ours

// A function that is alone in a section, whose ends the linker knows.
#define PLACE(name, parameters, call)                                                     \
  extern const char __start_place_##name[], __stop_place_##name[];                        \
  __attribute__((noinline, section("place_" #name), used)) static void* name parameters { \
    g_kept = call;                                                                        \
    return g_kept;                                                                        \
  }
PLACE(Small, (size_t size), malloc(size))
PLACE(Zeroed, (size_t count), calloc(count, 24))
PLACE(Grown, (void* block, size_t size), realloc(block, size))
PLACE(Aligned, (size_t size), aligned_alloc(64, size))

static const size_t kThreads = 4, kRounds = 1000;

// Leaves every tenth small block, one zeroed block, the last reallocation's.
static void* Work(void* argument) {
  const size_t thread = (size_t)(uintptr_t)argument;
  for (size_t i = 0; i < kRounds; ++i) {
    void* block = Small(i % 100 + thread);
    if (i % 10 != 0) free(block);
    free(Aligned(64 * (i % 3 + 1)));
  }
  Zeroed(thread + 1);
  void* block = NULL;
  for (size_t size = 100; size <= 1000; size += 100) block = Grown(block, size);
  return NULL;
}

// The place's code, as addresses in the file; then blocks and bytes allocated, blocks and bytes
// live.
#define PRINT(name, ...)                                                          \
  printf("%td %td %zu %zu %zu %zu\n", __start_place_##name - &__executable_start, \
         __stop_place_##name - &__executable_start, __VA_ARGS__)

int main(void) {
  pthread_t threads[kThreads];
  for (uintptr_t i = 0; i < kThreads; ++i) pthread_create(&threads[i], NULL, Work, (void*)i);
  for (size_t i = 0; i < kThreads; ++i) pthread_join(threads[i], NULL);

  size_t smallBytes = 0, smallLive = 0, alignedBytes = 0, zeroedBytes = 0;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    for (size_t i = 0; i < kRounds; ++i) {
      smallBytes += i % 100 + thread;
      if (i % 10 == 0) smallLive += i % 100 + thread;
      alignedBytes += 64 * (i % 3 + 1);
    }
    zeroedBytes += 24 * (thread + 1);
  }
  PRINT(Small, kThreads * kRounds, smallBytes, kThreads * kRounds / 10, smallLive);
  PRINT(Zeroed, kThreads, zeroedBytes, kThreads, zeroedBytes);
  PRINT(Grown, kThreads * 10, kThreads * 5500, kThreads, kThreads * 1000);
  PRINT(Aligned, kThreads * kRounds, alignedBytes, (size_t)0, (size_t)0);
  return 0;
}
