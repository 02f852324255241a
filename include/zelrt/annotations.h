/* Zero-cost annotations: marks in the analysed program's code that say what happens there and where
 * the argument of it can be found. They come in tables that a module carries (its section
 * ".wex_notify_tab") or, for modules that carry none, from definition files; a callback is given a
 * record of each.
 *
 *   static void Notice(const ZelZCARecord* record, void* module) {
 *     if (strcmp(record->name, "lock_acquire") == 0) Instrument(module, record->address);
 *   }
 *   __ZelZCAParseAndProcessRecords(loadBase, section, sectionSize, Notice, module);
 *   __ZelZCAProcessExternalRecords("libx.so", loadBase, Notice, module);
 *
 * Nothing here takes a lock, except that what is logged takes the log's. Callbacks run on the
 * calling thread under no lock; they may call whatever the caller may.
 *
 *   tables                  any number of threads at once
 *   deliveries              any number at once, as long as the list of definitions does not change
 *   loading and cleaning    one thread, while nothing else uses the list; not from a callback */
#ifndef ZELRT_ANNOTATIONS_H
#define ZELRT_ANNOTATIONS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where an argument is. */
typedef struct ZelZCAArgument {
  uint64_t value;      /* the argument itself, or a DWARF register number of x86-64 */
  uint32_t isRegister; /* 1 when value is a register number, else 0 */
  int32_t offset;      /* to be added to the register's content; else 0 */
} ZelZCAArgument;

/* One annotation. */
typedef struct ZelZCARecord {
  uint64_t address;          /* of the code, in memory */
  const char* name;          /* lives as long as the table's bytes, or the list of definitions */
  const uint8_t* expression; /* in the table's bytes, from its length on; null from a definition */
  uint32_t probe;            /* what the table says; 0 where it says nothing */
  uint32_t argumentCount;    /* 1 from a table, 2 from a definition */
  ZelZCAArgument arguments[2];
} ZelZCARecord;

/* Is given each record. The record is the same one each time: copy what is to be kept. */
typedef void (*ZelZCARecordProc)(const ZelZCARecord* record, void* context);

/* Tables. */

/* Bits of a table's flags, from version 1.2 on. */
ZEL_API extern const uint64_t ZEL_ZCA_FLAG_PCREL; /* 1: addresses count from the table's header */
ZEL_API extern const uint64_t ZEL_ZCA_FLAG_PROBE; /* 2: items have a probe value */
ZEL_API extern const uint64_t ZEL_ZCA_FLAG_32BIT; /* 4: addresses are signed 32-bit numbers */

/* Delivers the records of all tables in `size` bytes at `data`, in order; `base` is added to the
 * addresses of version 1.1. A null callback has the tables checked only.
 *
 * The bytes are not trusted. Nothing outside them is read, and whatever they hold, the time is
 * proportional to their number. A record's name ends, and its expression lies, inside the bytes.
 * What does not fit ends the parse with a comment in the log; what was delivered stays delivered:
 *
 *   ZCA parser: invalid zca section size           a header, name, expression or sub-table reaches
 *                                                  beyond the bytes
 *   zca_parser: Incorrect zca header format        no table where one should begin
 *   zca_parser: Expected zca version 2.0           this is the version found, neither 1.1 nor 1.2
 *   zca_parser: incorrect number of zca items      more items than there are bytes
 *
 * "Found ZCA section with version 1.1" announces a table. An expression that is neither a register
 * nor a number gets "ZELRT: Unsupported Dwarf Expression in ZCA", and its record the number 0; a
 * single unknown operation gets the register 0xFFFFFFFF. The lengths of expressions may be padded;
 * beyond nine bytes each, all items together have as many bytes of padding as there are bytes. */
ZEL_API void __ZelZCAParseAndProcessRecords(uint64_t base, const void* data, uint64_t size,
                                            ZelZCARecordProc callback, void* context);

/* Definition files: a definition a line, of five fields with white space between them. Inside
 * double quotes white space belongs to the field.
 *
 *   lock_acquire "/usr/lib/libx.so" 1a0 0x10 400000
 *
 * These are the annotation's name, the module's path, the hexadecimal address in the module's file,
 * the first argument (decimal, 0x hexadecimal or 0 octal) and the hexadecimal address that the file
 * says the module is loaded at, which is the second argument. A number ends where its digits do;
 * of the address, the low 32 bits count. */

/* A definition. Strings and the array come from __ZelMalloc in category 0. */
typedef struct ZelZCADefinition {
  uint32_t address;
  char* name;
  char* module; /* without its first and last character, the quotes; no runs of '/' */
  uint32_t argumentCount;
  ZelZCAArgument* arguments; /* two; null as long as argumentCount is 0 */
  struct ZelZCADefinition* next;
} ZelZCADefinition;

/* Appends a file's definitions to those of the process. Returns 1; or 0, with FAIL_OPEN_FILE in the
 * log, when the file cannot be opened.
 *
 * The file is not trusted: the list takes memory in proportion to it, while it is read another 64
 * KiB. A line is read up to its first NUL; one of more than 65,533 characters counts as several.
 * Left out are lines with fewer than five fields and those whose module has no room for its quotes.
 * One with more than five is kept, with a comment in the log. */
ZEL_API int __ZelZCALoadExternalDefinitions(const char* path);

/* Parses a line, which it changes, into a definition that is all zero. Returns 1 when there are
 * exactly five fields. Otherwise 0: the definition has the fields that there are, of more than five
 * the first five, with a comment in the log. A module field without room for its quotes leaves
 * `module` null. The caller frees name, module and arguments with __ZelFree, in any case. */
ZEL_API int __ZelZCAParseDefinition(char* line, ZelZCADefinition* definition);

/* Delivers a record of each definition for a module that is loaded at `loadBase`, in the order of
 * their loading. Definitions are chosen by the module's path, in which runs of '/' count as one, or
 * by what follows the last '/' of theirs (one in front does not count). The callback is not null. A
 * null name delivers nothing, with an error in the log. Time is proportional to the number of
 * definitions, whatever their modules. */
ZEL_API void __ZelZCAProcessExternalRecords(const char* moduleName, uint64_t loadBase,
                                            ZelZCARecordProc callback, void* context);

/* Frees all definitions. Loading may begin anew. */
ZEL_API void __ZelZCACleanupDefinitions(void);

#ifdef __cplusplus
}
#endif

#endif
