/* Questions to the machine. Answers come from /proc, sysconf and cpuid; any thread may ask. */
#ifndef ZELRT_PLATFORM_H
#define ZELRT_PLATFORM_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Counts the processors that are on-line, anew at each call. 0 when neither "/proc/stat" nor
 * "/proc/cpuinfo" can be opened. __ZelGetNProcs() returns what start-up counted. */
ZEL_API uint32_t __ZelGetNProcsInternal(void);

/* Bytes in an OS page; asked once, 4096 if the system does not say. */
ZEL_API uint32_t __ZelGetNativePageSize(void);

/* Executes cpuid and stores EAX, EBX, ECX and EDX, in this order. */
ZEL_API void __ZelCpuidEx(unsigned int leaf, unsigned int subleaf, unsigned int registers[4]);

/* Bytes of the largest XSAVE area this processor can need, all its features enabled; 512, the
 * legacy area, where it does not say. Asked once. */
ZEL_API uint32_t __ZelGetXsaveAreaMaxSize(void);

#ifdef __cplusplus
}
#endif

#endif
