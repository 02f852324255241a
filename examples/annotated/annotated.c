// A pool of buffers that marks in its code where buffers are taken and given back.
//
// It also says so on standard output, in the order in which it comes by the annotations.

#include <stdio.h>
#include <stdlib.h>

#include "zelrt/annotate.h"

#define BUFFERS 3
#define BUFFER_SIZE 256

typedef struct Pool {
  void* buffers[BUFFERS];
  size_t taken;  // the first so many
} Pool;

// Null when all are taken.
static void* Acquire(Pool* pool) {
  if (pool->taken == BUFFERS) {
    ZEL_ANNOTATE_MARK("pool_exhausted");
    return NULL;
  }
  void* const buffer = pool->buffers[pool->taken++];
  ZEL_ANNOTATE("buffer_acquired", buffer);
  return buffer;
}

static void Release(Pool* pool) {
  const size_t left = --pool->taken;
  ZEL_ANNOTATE("buffer_released", left);
}

static void Fill(Pool* pool) {
  ZEL_ANNOTATE("phase", 1);
  puts("phase 1");
  for (size_t i = 0; i < BUFFERS; ++i) {
    pool->buffers[i] = malloc(BUFFER_SIZE);
    if (pool->buffers[i] == NULL) abort();
  }
}

static void Use(Pool* pool) {
  ZEL_ANNOTATE("phase", 31);
  puts("phase 31");
  for (void* buffer; (buffer = Acquire(pool)) != NULL;)
    printf("buffer_acquired %zu\n", (size_t)buffer);
  puts("pool_exhausted 0");
  while (pool->taken > 0) {
    Release(pool);
    printf("buffer_released %zu\n", pool->taken);
  }
}

int main(void) {
  Pool pool = {{NULL}, 0};
  Fill(&pool);
  Use(&pool);
  for (size_t i = 0; i < BUFFERS; ++i) free(pool.buffers[i]);
  return 0;
}
