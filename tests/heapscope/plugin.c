// A library that the subject loads and unloads.

#include <stdlib.h>

void* g_fromPlugin;

void AllocateInPlugin(void) { g_fromPlugin = malloc(321); }
