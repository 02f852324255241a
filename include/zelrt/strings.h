/* Counted strings: texts that grow, and know their length.
 *
 *   ZelString* line = __ZelStrAlloc(category, 64, "leak of ");
 *   __ZelStrAppend(line, count);
 *   puts(line->text);
 *   __ZelStrDestroy(line);
 *
 * A string and its buffer belong to a memory category (zelrt/memory.h). The buffer never shrinks. A
 * text that is given may be the string's own, or a part of it. A text that does not fit into the
 * 32-bit capacity is not taken: the string stays as it was. One thread at a time may use a string;
 * nothing here locks, logs or calls back. */
#ifndef ZELRT_STRINGS_H
#define ZELRT_STRINGS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* To be read freely, and changed by the calls below. length + 1 <= capacity. */
typedef struct ZelString {
  uint32_t length;         /* characters of the text, without its NUL */
  uint32_t capacity;       /* bytes of the buffer */
  uint32_t memoryCategory; /* of the record and its buffer */
  char* text;              /* the buffer: the text and its NUL */
} ZelString;

/* A new string with that text, in a buffer of `capacity` bytes or, if that is too small, of the
 * size that __ZelStrSet would choose. Null when the text does not fit into any capacity, or for
 * lack of memory (__ZelMalloc says when that is). The text must not be null. */
ZEL_API ZelString* __ZelStrAlloc(uint32_t memoryCategory, uint32_t capacity, const char* text);

/* Replaces the text, and returns the string. A buffer that is too small is given back before one of
 * twice the new length, at least 1 byte, is asked for; if there is none, the string is left without
 * a buffer: text null, length and capacity 0. It can be set, appended to and destroyed as ever.
 * Neither argument may be null. */
ZEL_API ZelString* __ZelStrSet(ZelString* string, const char* text);

/* Puts the text behind the string's. A buffer that is too small is replaced by one of twice the sum
 * of its capacity and the appended length; if there is none, the string stays as it was. Does
 * nothing when either is null. */
ZEL_API void __ZelStrAppend(ZelString* string, const char* text);

/* Frees buffer and record. Null is ignored. */
ZEL_API void __ZelStrDestroy(ZelString* string);

#ifdef __cplusplus
}
#endif

#endif
