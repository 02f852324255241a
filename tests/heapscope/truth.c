// A program that knows what it allocates, and prints it: a line for each place that does, with the
// place's code and what heapscope has to say of it.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern const char __executable_start;

static void* volatile g_newest;

// A function that is alone in a section, whose ends the linker knows. It has something left to do
// after the call: the address is to be its own.
#define PLACE(name, parameters, call)                                                     \
  extern const char __start_place_##name[], __stop_place_##name[];                        \
  __attribute__((noinline, section("place_" #name), used)) static void* name parameters { \
    void* const block = call;                                                             \
    g_newest = block;                                                                     \
    return block;                                                                         \
  }
PLACE(Small, (size_t size), malloc(size))
PLACE(Zeroed, (size_t count), calloc(count, 24))
PLACE(Grown, (void* old, size_t size), realloc(old, size))
PLACE(Aligned, (size_t size), aligned_alloc(64, size))

enum { kThreads = 4, kRounds = 5, kBlocks = 20000 };
static void* g_lists[kThreads][kBlocks];
static pthread_barrier_t g_barrier;

// Fills its own list, and frees its neighbour's; every tenth block after it was moved. Leaves every
// hundredth block of the last round, one zeroed block, the last reallocation's.
static void* Work(void* argument) {
  const size_t thread = (size_t)(uintptr_t)argument;
  void** const own = g_lists[thread];
  void** const others = g_lists[(thread + 1) % kThreads];
  for (int round = 1; round <= kRounds; ++round) {
    for (size_t i = 0; i < kBlocks; ++i) {
      own[i] = Small(i % 3000);
      free(Aligned(64 * (i % 3 + 1)));
    }
    pthread_barrier_wait(&g_barrier);
    for (size_t i = 0; i < kBlocks; ++i) {
      if (i % 10 == 0) others[i] = Grown(others[i], i % 3000 + 1000);
      if (i % 100 != 1 || round != kRounds) free(others[i]);
    }
    pthread_barrier_wait(&g_barrier);
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
  pthread_barrier_init(&g_barrier, NULL, kThreads);
  pthread_t threads[kThreads];
  for (uintptr_t i = 0; i < kThreads; ++i) pthread_create(&threads[i], NULL, Work, (void*)i);
  for (int i = 0; i < kThreads; ++i) pthread_join(threads[i], NULL);

  size_t smallBytes = 0, keptBytes = 0, grownBytes = 0, alignedBytes = 0;
  for (size_t i = 0; i < kBlocks; ++i) {
    smallBytes += i % 3000;
    if (i % 100 == 1) keptBytes += i % 3000;
    if (i % 10 == 0) grownBytes += i % 3000 + 1000;
    alignedBytes += 64 * (i % 3 + 1);
  }
  const size_t workers = kThreads, rounds = kThreads * kRounds;
  PRINT(Small, rounds * kBlocks, rounds * smallBytes, workers * kBlocks / 100, workers * keptBytes);
  PRINT(Zeroed, workers, (size_t)24 * (1 + 2 + 3 + 4), workers, (size_t)24 * (1 + 2 + 3 + 4));
  PRINT(Grown, rounds * kBlocks / 10 + workers * 10, rounds * grownBytes + workers * 5500, workers,
        workers * 1000);
  PRINT(Aligned, rounds * kBlocks, rounds * alignedBytes, (size_t)0, (size_t)0);
  return 0;
}
