/* XML output files, written piece by piece.
 *
 * A file begins with the two header lines, is indented with one tab for each open element, and
 * keeps no tree: the caller names the element that a closing tag closes. A piece either starts a
 * line (opening tags, the closing tag, one-line elements, comments) or continues the current one
 * (attributes, ends of tags, values, the appended closing tag). For an element with attributes and
 * a value: start, attributes, finish, value, append. With children: opening tag, children, closing
 * tag.
 *
 * Texts of values and elements are escaped, and cut before the first character whose escaped form
 * would end beyond 65,535 bytes. Names and attribute values are written as they are; the latter
 * stand in single quotes. A null text is empty; a piece with a null name is not written. A null
 * handle is ignored. What cannot be written is lost; no call reports it but closing.
 *
 * Writing takes no lock. Threads that share a file put what belongs together between acquire and
 * release: what two threads write at the same time without is mixed up. All of them do, or none:
 * the lock spares its holder that of the stream. */
#ifndef ZELRT_XML_H
#define ZELRT_XML_H

#include <stdarg.h>

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelXmlFile ZelXmlFile;

/* Opens the file, and writes the header if it is empty. With append not 0 it goes on behind what
 * there is, inside a root element that was opened before; otherwise the file is emptied first.
 * Returns a handle, to be closed; null when the file cannot be opened. */
ZEL_API ZelXmlFile* __ZelXMLCreateFile(const char* path, uint32_t append);

/* For a process whose descriptors were closed under the library: when the file cannot be reached
 * any more, opens its path again to append. Returns 1 when the file is usable afterwards, else 0.
 */
ZEL_API uint32_t __ZelXMLReopenFile(ZelXmlFile* file);

/* Writes what is pending, closes, frees, and sets *file to null. When closing fails what was
 * pending is lost and *file stays: it takes no more writing, and can be reopened, or closed once
 * more. No other thread may use the file. */
ZEL_API void __ZelXMLCloseFile(ZelXmlFile** file);

/* In a forked child: frees the handle and sets *file to null, but leaves the stream alone, so that
 * nothing is written a second time by this call. */
ZEL_API void __ZelXMLCleanupAfterFork(ZelXmlFile** file);

/* The file's lock, a spin lock (zelrt/locks.h), recursive. A release writes what is pending. */
ZEL_API void __ZelXMLAcquireFile(ZelXmlFile* file);
ZEL_API void __ZelXMLReleaseFile(ZelXmlFile* file);

/* <!-- text -->; up to 65,534 bytes, each run of '-' made a single one. */
ZEL_API void __ZelXMLWriteCommentV(ZelXmlFile* file, const char* format, va_list arguments)
    ZEL_PRINTF_LIKE(2, 0);
ZEL_API void __ZelXMLWriteComment(ZelXmlFile* file, const char* format, ...) ZEL_PRINTF_LIKE(2, 3);

/* Opening tags: <name>; <name and, after attributes, > or, for an element without content, />. */
ZEL_API void __ZelXMLWriteOpeningTag(ZelXmlFile* file, const char* name);
ZEL_API void __ZelXMLStartWritingOpeningTag(ZelXmlFile* file, const char* name);
ZEL_API void __ZelXMLFinishWritingOpeningTag(ZelXmlFile* file);
ZEL_API void __ZelXMLCloseOpeningTag(ZelXmlFile* file);

/* Attributes: decimal, decimal, as it is, 0x and hexadecimal (the last two). */
ZEL_API void __ZelXMLWriteIntegerAttribute(ZelXmlFile* file, const char* name, int32_t value);
ZEL_API void __ZelXMLWriteLongIntegerAttribute(ZelXmlFile* file, const char* name, uint64_t value);
ZEL_API void __ZelXMLWriteStringAttribute(ZelXmlFile* file, const char* name, const char* value);
ZEL_API void __ZelXMLWriteHexadecimalAttribute(ZelXmlFile* file, const char* name, uint64_t value);
ZEL_API void __ZelXMLWriteHexadecimalAddressAttribute(ZelXmlFile* file, const char* name,
                                                      uint64_t address);

/* Values, after a finished opening tag. */
ZEL_API void __ZelXMLWriteStringValue(ZelXmlFile* file, const char* text);
ZEL_API void __ZelXMLWriteIntValue(ZelXmlFile* file, int32_t value);

/* </name>, on a line of its own; and on the current line, after a value. */
ZEL_API void __ZelXMLWriteClosingTag(ZelXmlFile* file, const char* name);
ZEL_API void __ZelXMLAppendClosingTag(ZelXmlFile* file, const char* name);

/* <name>value</name>, in the forms of the attributes. */
ZEL_API void __ZelXMLWriteDecimalElement(ZelXmlFile* file, const char* name, uint64_t value);
ZEL_API void __ZelXMLWriteLongDecimalElement(ZelXmlFile* file, const char* name, uint64_t value);
ZEL_API void __ZelXMLWriteHexadecimalElement(ZelXmlFile* file, const char* name, uint64_t value);
ZEL_API void __ZelXMLWriteHexadecimalAddressElement(ZelXmlFile* file, const char* name,
                                                    uint64_t address);
ZEL_API void __ZelXMLWriteStringElement(ZelXmlFile* file, const char* name, const char* text);

#ifdef __cplusplus
}
#endif

#endif
