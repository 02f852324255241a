// A program that knows what it allocates, and prints it: a line for each place that does, with the
// place's code and what heapscope has to say of it.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

// Each place is alone in a section, whose ends the linker knows.
#define PLACE(name) __attribute__((noinline, section(#name), used))
#define CODE_OF(name) extern const char __start_##name[], __stop_##name[];
CODE_OF(place_small)
CODE_OF(place_zeroed)
CODE_OF(place_grown)
CODE_OF(place_aligned)

extern const char __executable_start;

static void* volatile g_kept;  // the compiler must not call in its stead: the address is to be ours

PLACE(place_small) static void* Small(size_t size) {
  g_kept = malloc(size);
  return g_kept;
}
PLACE(place_zeroed) static void* Zeroed(size_t count) {
  g_kept = calloc(count, 24);
  return g_kept;
}
PLACE(place_grown) static void* Grown(void* block, size_t size) {
  g_kept = realloc(block, size);
  return g_kept;
}
PLACE(place_aligned) static void* Aligned(size_t size) {
  g_kept = aligned_alloc(64, size);
  return g_kept;
}

enum { kThreads = 4, kRounds = 1000 };

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
static void Print(const char* start, const char* stop, size_t blocks, size_t bytes,
                  size_t liveBlocks, size_t liveBytes) {
  printf("%td %td %zu %zu %zu %zu\n", start - &__executable_start, stop - &__executable_start,
         blocks, bytes, liveBlocks, liveBytes);
}

int main(void) {
  pthread_t threads[kThreads];
  for (uintptr_t i = 0; i < kThreads; ++i) pthread_create(&threads[i], NULL, Work, (void*)i);
  for (int i = 0; i < kThreads; ++i) pthread_join(threads[i], NULL);

  size_t smallBytes = 0, smallLive = 0, alignedBytes = 0, zeroedBytes = 0;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    for (size_t i = 0; i < kRounds; ++i) {
      smallBytes += i % 100 + thread;
      if (i % 10 == 0) smallLive += i % 100 + thread;
      alignedBytes += 64 * (i % 3 + 1);
    }
    zeroedBytes += 24 * (thread + 1);
  }
  Print(__start_place_small, __stop_place_small, kThreads * kRounds, smallBytes,
        kThreads * kRounds / 10, smallLive);
  Print(__start_place_zeroed, __stop_place_zeroed, kThreads, zeroedBytes, kThreads, zeroedBytes);
  Print(__start_place_grown, __stop_place_grown, kThreads * 10, kThreads * 5500, kThreads,
        kThreads * 1000);
  Print(__start_place_aligned, __stop_place_aligned, kThreads * kRounds, alignedBytes, 0, 0);
  return 0;
}
