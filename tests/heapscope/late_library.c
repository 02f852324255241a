// A library of the subject's, whose destructor allocates when it was asked to. The loader runs it
// after that of the collector's library, on which nothing depends.

#include <stdlib.h>

static int g_isAsked;
void* g_fromDestructor;

void AllocateInDestructor(void) { g_isAsked = 1; }

static void __attribute__((destructor)) Allocate(void) {
  if (g_isAsked) g_fromDestructor = malloc(503);
}
