// A library of the subject's, whose destructor allocates or forks when it was asked to. The loader
// runs it after that of the collector's library, on which nothing depends.

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static int g_isAsked, g_isForkAsked;
void* g_fromDestructor;

void AllocateInDestructor(void) { g_isAsked = 1; }
void ForkInDestructor(void) { g_isForkAsked = 1; }

static void __attribute__((destructor)) Allocate(void) {
  if (g_isAsked) g_fromDestructor = malloc(503);
  if (!g_isForkAsked) return;
  if (fork() == 0) exit(0);
  wait(NULL);
}
