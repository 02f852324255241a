/* Files, C strings, character sets, dynamic loading.
 *
 * Most calls are those of the C library under another name, for clients that must not call it
 * directly; they take, return and leave in errno what it does. The others say what they add. Texts
 * that are returned as new come from __ZelMalloc in category 0 and are given back with __ZelFree.
 * A null path, mode, text or handle fails like one that cannot be used. Any thread may make any
 * call; nothing here logs. */
#ifndef ZELRT_FILES_H
#define ZELRT_FILES_H

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Streams. */

/* fopen, but the stream is never on descriptor 0, 1 or 2, which stay as free as they were: the host
 * may have closed them and expect to get them. Stores errno after the last open through `error`,
 * unless that is null. Null on failure. Not atomic against other threads that open and close. */
ZEL_API FILE* __ZelFopen(const char* path, const char* mode, int* error);

/* The same for wide texts, converted in the process's locale; here the descriptor may be any. */
ZEL_API FILE* __ZelWFopen(const wchar_t* path, const wchar_t* mode, int* error);

ZEL_API int __ZelFclose(FILE* stream);
ZEL_API char* __ZelFgets(char* buffer, int size, FILE* stream);
ZEL_API long __ZelFtell(FILE* stream);
ZEL_API int __ZelFflush(FILE* stream);
ZEL_API size_t __ZelFread(void* buffer, size_t size, size_t count, FILE* stream);
ZEL_API size_t __ZelFwrite(const void* buffer, size_t size, size_t count, FILE* stream);
ZEL_API int __ZelFseek(FILE* stream, long offset, int whence);
ZEL_API int __ZelFprintf(FILE* stream, const char* format, ...) ZEL_PRINTF_LIKE(2, 3);

/* Texts. The ...SC... twins do the same. */

ZEL_API int __ZelVsnprintf(char* buffer, size_t size, const char* format, va_list arguments)
    ZEL_PRINTF_LIKE(3, 0);
ZEL_API int __ZelSnprintf(char* buffer, size_t size, const char* format, ...) ZEL_PRINTF_LIKE(3, 4);
ZEL_API int __ZelSCnprintf(char* buffer, size_t size, const char* format, ...)
    ZEL_PRINTF_LIKE(3, 4);

/* A new copy; null for null. */
ZEL_API char* __ZelStrdup(const char* text);

/* strncpy, but the result always ends in NUL within its size: a text of `size` characters or more
 * is cut. The rest is filled with NULs. A size of 0 writes nothing. Returns destination. */
ZEL_API char* __ZelStrncpy(char* destination, const char* source, uint64_t size);
ZEL_API char* __ZelStrSCncpy(char* destination, const char* source, uint64_t size);

/* What follows the last '/', as a new text. A '/' in front is no separator: "/c" stays "/c". Null
 * for an empty path. */
ZEL_API char* __ZelGetBaseName(const char* path);
ZEL_API char* __ZelGetSCBaseName(const char* path);

/* Makes each run of '/' a single one, in place. */
ZEL_API void __ZelSanitizePath(char* path);

/* Overwrites white space (isspace) at the end with NULs, and returns where the text begins after
 * the white space in front. */
ZEL_API char* __ZelStripWhiteSpaces(char* text);

/* tolower for each byte, in place: in the POSIX locale only A to Z change. */
ZEL_API void __ZelConvertUtf8ToLowerCase(char* text);

/* Adds increment (1 for 0) to a process-wide counter that starts at 0, and returns the new value:
 * with positive increments each call of any thread gets a larger one. */
ZEL_API int64_t __ZelUpdateTimestamp(int32_t increment);

/* Character sets: between multi-byte texts of the process's LC_CTYPE locale (UTF-8 where that is a
 * UTF-8 one) and wide ones. */

/* Convert into a buffer of `size` bytes. Return the characters written, wide ones or bytes, without
 * the end mark. Return 0 and write nothing when the source is empty or cannot be converted, or when
 * the result and its end mark do not fit. */
ZEL_API uint64_t __ZelUtf8ToWstring(wchar_t* destination, uint64_t size, const char* source);
ZEL_API uint64_t __ZelWstringToUtf8(char* destination, uint64_t size, const wchar_t* source);

/* Convert into a new text, to be freed by the call below it. Null when that cannot be done. */
ZEL_API wchar_t* __ZelAllocateAndConvertUtf8ToWstring(const char* source);
ZEL_API void __ZelFreeWstring(wchar_t* text);
ZEL_API char* __ZelAllocateAndConvertWstringToUtf8(const wchar_t* source);
ZEL_API void __ZelFreeMbString(char* text);

/* Dynamic loading. */

/* Loads a shared object and binds it at once; a null name is the program itself. Null on failure;
 * dlerror() says why. */
ZEL_API void* __ZelRtLoadImage(const char* fileName);

/* The address of a symbol; null for a null handle or a symbol that is not there. Leaves no error
 * for dlerror() to report. */
ZEL_API void* __ZelRtGetSymbol(void* handle, const char* name);

#ifdef __cplusplus
}
#endif

#endif
