/* What every header of the library needs: the export mark and the integer types. */
#ifndef ZELRT_BASE_H
#define ZELRT_BASE_H

#include <stddef.h>
#include <stdint.h>

/* Marks what leaves the shared library; everything without it stays inside. */
#define ZEL_API __attribute__((visibility("default")))

/* Lets the compiler check printf-like calls; 0 as first argument means "takes a va_list". */
#define ZEL_PRINTF_LIKE(formatIndex, firstArgument) \
  __attribute__((format(printf, formatIndex, firstArgument)))

/* Marks what does not return: the process is gone afterwards. */
#define ZEL_NO_RETURN __attribute__((noreturn))

#endif
