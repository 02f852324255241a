// An allocator to be preloaded after the collector: what the collector finds as the real functions.
//
// Its malloc is chosen when it is first looked up, which the collector does while it starts, and
// the choice allocates.

#include <stddef.h>
#include <string.h>

void* __libc_malloc(size_t size);
void* calloc(size_t count, size_t size);

static void* g_early;

static void* (*ChooseMalloc(void))(size_t) {
  if (g_early == NULL) {
    g_early = calloc(10, 10);
    if (g_early != NULL) memset(g_early, 'e', 100);
  }
  return __libc_malloc;
}

void* malloc(size_t size) __attribute__((ifunc("ChooseMalloc")));

void* BlockFromBeforeTheStart(void) { return g_early; }
