/* Options: what a collector lets its user set, the values, and the command line they come from.
 *
 *   uint32_t parser = __ZelGetOptionParser("mytool");
 *   uint32_t depth = __ZelRegisterIntegerOption(parser, "-depth", "Frames kept", 16, 0, 1);
 *   if (!__ZelParseOptions2(parser, count, arguments)) return __ZelPrintHelp(parser, 0);
 *   __ZelLogToolOptionValues(parser);
 *   Trace(__ZelGetIntegerOptionValue(parser, depth));
 *
 * A parser is a tool's group of options; an option belongs to one. Its value is the default until
 * one is set, and nothing brings the default back. An append option keeps all values that it is
 * given, in order, others the last one. There are at most 16 parsers (ids 0 to 15) and, for all of
 * them together, 256 options (ids 0 to 255); ids are never given out again. All texts are copied,
 * into memory of category 0.
 *
 * Every call that is given a parser and an option demands that the option is registered, with that
 * parser. Where that, or the option's type, is not as a call demands, the process ends as by
 * __ZelLogFatalToolDefect (zelrt/log.h), unless the call says otherwise: this is a defect of the
 * collector. Faults of the user go into the log and are told by the result of the parse.
 *
 * Threads may get parsers and register options at the same time. Otherwise nothing here takes a
 * lock: calls that only read may overlap, but what sets, limits, parses or releases must not
 * overlap with anything that concerns the same parser. A read is a few loads, and one more for each
 * value in front of the one that is asked for; parsing compares each option on the command line
 * with the names registered before it. */
#ifndef ZELRT_OPTIONS_H
#define ZELRT_OPTIONS_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Types of options. */
enum {
  ZEL_OPTION_BOOLEAN = 0,     /* 0 or 1 */
  ZEL_OPTION_INTEGER = 1,     /* 32 bits, signed */
  ZEL_OPTION_STRING = 2,      /* a text */
  ZEL_OPTION_STRING_ENUM = 3, /* a text out of a list, where each has a number */
  ZEL_OPTION_PATH = 4         /* a text, stored as __ZelSanitizePath (zelrt/files.h) leaves it */
};

/* Parsers. */

#define ZEL_INVALID_OPTION_PARSER 0xFFFFFFFFu

/* Returns a new parser for the tool of that name. ZEL_INVALID_OPTION_PARSER for null, and when
 * there are 16 already. */
ZEL_API uint32_t __ZelGetOptionParser(const char* toolName);

/* Gives a parser up, with all its options and their values: texts that were read from them end
 * here. Returns 1, or 0 when the parser was never handed out or is released, or when `toolName`
 * does not begin with its name. */
ZEL_API uint32_t __ZelReleaseOptionParserHandle(uint32_t parser, const char* toolName);

/* Registration.
 *
 * The name begins with '-' and is what stands on the command line; of two equal ones in a parser
 * the first is meant. The description is for the help, which lists the option always when
 * showInHelp is not 0, else on demand. The library gives no meaning to the flags. A default text
 * may be null. With append not 0 the option is an append option.
 *
 * Return the new option's id, or ZEL_INVALID_OPTION when there are 256 already. A null name or
 * description, a parser that was never handed out, and a name without '-' in front are defects. */

#define ZEL_INVALID_OPTION 0xFFFFFFFFu

ZEL_API uint32_t __ZelRegisterBooleanOption(uint32_t parser, const char* name,
                                            const char* description,
                                            int32_t defaultValue, /* stored as 1 unless it is 0 */
                                            uint32_t flags, uint32_t showInHelp);
ZEL_API uint32_t __ZelRegisterIntegerOption(uint32_t parser, const char* name,
                                            const char* description, int32_t defaultValue,
                                            uint32_t flags, uint32_t showInHelp);
ZEL_API uint32_t __ZelRegisterStringOption(uint32_t parser, const char* name,
                                           const char* description, const char* defaultText,
                                           uint32_t flags, uint32_t append, uint32_t showInHelp);
ZEL_API uint32_t __ZelRegisterStringEnumOption(uint32_t parser, const char* name,
                                               const char* description, const char* defaultText,
                                               uint32_t flags, uint32_t showInHelp);
ZEL_API uint32_t __ZelRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                         const char* defaultText, uint32_t flags, uint32_t append,
                                         uint32_t showInHelp);

/* Valid arguments: once an option has one, it can only be set to those it has. The default may be
 * another. For integer, string and string-enum options that are not append options; others are a
 * defect. Return 1.
 *
 * A text may be set in shortened form: it is valid when some valid argument begins with it. The
 * number of a text is -1 unless it is given. An entry of the other kind than the option's is never
 * met. */
ZEL_API uint32_t __ZelSetValidIntegerOptionArgument(uint32_t parser, uint32_t option,
                                                    int32_t value);
ZEL_API uint32_t __ZelSetValidStringOptionArgument(uint32_t parser, uint32_t option,
                                                   const char* text);
ZEL_API uint32_t __ZelSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option,
                                                           const char* text, int32_t enumValue);

/* Setting. A value that is not among the valid ones, and a null text, are defects. Return 1. When
 * an option is set anew that is not an append option, texts that were read from it end; the new
 * text may be the old one. */

/* A boolean is stored as given; what is not 0 is shown as true. */
ZEL_API uint32_t __ZelSetBooleanOption(uint32_t parser, uint32_t option, int32_t value);
ZEL_API uint32_t __ZelSetIntegerOption(uint32_t parser, uint32_t option, int32_t value);

/* The first sets string, string-enum and path options alike, the second path options only. */
ZEL_API uint32_t __ZelSetStringOption(uint32_t parser, uint32_t option, const char* text);
ZEL_API uint32_t __ZelSetPathOption(uint32_t parser, uint32_t option, const char* text);

/* Reading. */

/* Returns 1 when a value has been set, 0 while the default is in force. */
ZEL_API uint32_t __ZelIsOptionSet(uint32_t parser, uint32_t option);

ZEL_API int32_t __ZelGetBooleanOptionValue(uint32_t parser, uint32_t option);
ZEL_API int32_t __ZelGetIntegerOptionValue(uint32_t parser, uint32_t option);

/* Return the text in force, or the index-th of them, counting from 1; they remain the library's.
 * Null where there is none: for a default that is null, and for an index above 1 while the default
 * is in force; with an error in the log for index 0 and, once the option is set, for an index above
 * the number of its values. The ...String... calls serve string, string-enum and path options, the
 * ...Path... calls path options only. */
ZEL_API const char* __ZelGetStringOptionValue(uint32_t parser, uint32_t option);
ZEL_API const char* __ZelGetStringOptionArgumentValue(uint32_t parser, uint32_t option,
                                                      uint32_t index);
ZEL_API const char* __ZelGetPathOptionValue(uint32_t parser, uint32_t option);
ZEL_API const char* __ZelGetPathOptionArgumentValue(uint32_t parser, uint32_t option,
                                                    uint32_t index);

/* The number of the first valid argument, in the order of their registration, that begins with the
 * text in force of a string-enum option; 0xFFFFFFFF when there is no text or no such argument. */
ZEL_API uint32_t __ZelGetStringOptionEnumValue(uint32_t parser, uint32_t option);

/* 0xFFFFFFFF, with an error in the log, when there is no such option in the parser. */
ZEL_API uint32_t __ZelGetOptionFlags(uint32_t parser, uint32_t option);

/* Null when there is no such option in the parser. */
ZEL_API const char* __ZelGetOptionName(uint32_t parser, uint32_t option);

/* How many values have been set: 0 or 1, more for an append option. The parser is not looked at; 0
 * for an option that is not registered. */
ZEL_API uint32_t __ZelGetOptionNumberOfArguments(uint32_t parser, uint32_t option);

/* Receives a value. It runs on the calling thread under no lock; it may set further values, which
 * it will be given too, but must not release the parser. */
typedef uint32_t (*ZelOptionValueCallback)(const char* text, void* context);

/* Calls `callback` for each value that an append option was set to, in order. Returns the result of
 * the last call, 0 when there are no values. Other options are a defect. */
ZEL_API uint32_t __ZelProcessAppendOptionValues(uint32_t parser, uint32_t option,
                                                ZelOptionValueCallback callback, void* context);

/* The command line. */

/* Sets options from texts such as "-verbose", "-no-color", "-depth", "0x10": names of options, each
 * but those of boolean options followed by its value. "-no" in front of a boolean option's name
 * sets it to 0. An option that comes again is set again. A value never begins with '-'. An integer
 * is decimal, octal with 0 or hexadecimal with 0x in front, and between 0 and 2,147,483,647.
 *
 * `arguments` holds no program name. Returns 1 when all was understood, which an empty vector
 * always is. Returns 0 at the first fault, with "BAD_OPTION" or "BAD_ARGUMENT" and a comment that
 * says more in the log, or, for a parser above 15, an internal error; what stands before the fault
 * has been set. A value that is not among the valid ones ends the process. The second name is the
 * older one. */
ZEL_API uint32_t __ZelParseOptions2(uint32_t parser, int32_t argumentCount,
                                    const char* const* arguments);
ZEL_API uint32_t __ZelParseOptions(uint32_t parser, int32_t argumentCount,
                                   const char* const* arguments);

/* Prints a parser's options, their descriptions and defaults to standard output, in the order of
 * their registration; with `all` 0 only those to be shown in the help. Behind an empty line:
 *
 *   mytool tool options are the following:
 *      -depth                             Frames kept default: 16
 *
 * A text that is null shows as "none", here and in the listing. Nothing is printed for a parser
 * that was released or never handed out. Returns what flushing standard output returned: 0, or
 * EOF. */
ZEL_API int32_t __ZelPrintHelp(uint32_t parser, uint32_t all);

/* The same for each parser; returns how many have been handed out. */
ZEL_API uint32_t __ZelPrintHelpAll(uint32_t all);

/* Logs a parser's options and their values in force, a comment each; of an append option all
 * values, cut to 2,047 bytes. Otherwise as __ZelPrintHelp. */
ZEL_API int32_t __ZelLogToolOptionValues(uint32_t parser);

#ifdef __cplusplus
}
#endif

#endif
