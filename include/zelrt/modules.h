/* Modules: which executable images are loaded where, and what the kernel says of an address.
 *
 *   __ZelLoadModule("/bin/app", 0x400000, 0x500000);
 *   char* name;
 *   const uint64_t start = __ZelGetModuleForVariable(0x401234, &name);
 *   if (start != 0) printf("%s+0x%lx\n", name, (unsigned long)(0x401234 - start));
 *   __ZelUnloadModule(0x400000);
 *
 * The module map has no lock: the client lets a load or an unload overlap with no other call on the
 * map. (The fatal report looks addresses up whenever it has to. A load at that moment does not harm
 * it; an unload may.) Lookups may overlap each other, allocate nothing and call nothing back. */
#ifndef ZELRT_MODULES_H
#define ZELRT_MODULES_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The module map. Records lie on every level that was in use when they were loaded, so a lookup
 * among a hundred modules takes some tens of steps, but among many more a step for every module
 * below the address: a microsecond among a thousand. */

/* A loaded module, for reading only; valid until it is unloaded. It holds the addresses strictly
 * between start and end. */
typedef struct ZelModuleRecord {
  char* name;     /* the map's own copy; null for a module loaded without a name */
  uint64_t start; /* differs from that of every other module */
  uint64_t end;
  /* The next record by start on each level of the map that has this one: 1 to 11 of them. The last
   * record leads to the head of the map, which is no module. */
  struct ZelModuleRecord* links[1];
} ZelModuleRecord;

/* Adds a module; the name is copied and may be null. Nothing happens when a module with that start
 * is there already. May draw from rand(), which it does not seed. Memory collectors may run: they
 * must not load or unload. */
ZEL_API void __ZelLoadModule(const char* name, uint64_t start, uint64_t end);

/* Removes the module that starts exactly there, if there is one. */
ZEL_API void __ZelUnloadModule(uint64_t start);

/* The module that holds the address, else null. Of modules that overlap, only the one that starts
 * last below the address is asked. */
ZEL_API ZelModuleRecord* __ZelFindModuleByAddress(uint64_t address);

/* The same, by its start, with its name (the map's own copy) through `name`; 0 and nothing through
 * `name` when there is none. */
ZEL_API uint64_t __ZelGetModuleForVariable(uint64_t address, char** name);

/* Mappings of the process. Each call reads "/proc/self/maps", through a stream of the C library and
 * under a flag that lets in one thread after another: in a process of many libraries, hundreds of
 * microseconds. The first mapping counts with start <= address <= end: an address that ends one and
 * starts the next belongs to the lower. Nothing is found when the file cannot be opened, and by a
 * thread that ends the process when the flag cannot be had. */

/* The start of the mapping, with its end through `end`; 0 and nothing through `end` when there is
 * none. 0 when `end` is null. */
ZEL_API uint64_t __ZelGetModuleAddressRange(const void* address, uint64_t* end);

/* The mapping that holds the library's own writable data, as above. Nothing happens when an
 * argument is null. */
ZEL_API void __ZelGetZELRTAddressRange(uint64_t* start, uint64_t* end);

/* The size of the mapping, with its end through `base`; both 0 when there is none. For an address
 * on a thread's stack, base is where the stack begins: its high end. 0 when `base` is null. */
ZEL_API uint64_t __ZelGetThreadStackBaseAndSize(uint64_t address, uint64_t* base);

/* The name of an architecture: 0 and all above 10 "unknown", 1 "x86", 2 "x86-64", 3 to 10
 * "accelerator-1" to "accelerator-8". */
ZEL_API const char* __ZelGetModuleArchString(uint32_t code);

#ifdef __cplusplus
}
#endif

#endif
