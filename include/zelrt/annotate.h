/* Annotations of one's own code, for collectors that watch the program. What zelrt/annotations.h
 * reads from a module, this writes into it: the module's section ".wex_notify_tab" then tells where
 * in the code something happens, and in which register its argument is.
 *
 *   void Acquire(Lock* lock) {
 *     ...
 *     ZEL_ANNOTATE("lock_acquired", lock);
 *   }
 *
 * An annotation is no instruction and needs no library; nobody has to watch. Each makes a table of
 * version 1.2 with one item, 67 bytes and the name, read-only and without a relocation at load. It
 * lives as long as its code: inlined or unrolled code has one annotation for each copy, and code
 * that the linker drops takes its annotations along.
 *
 * To the compiler it is an empty asm statement that uses the value, and so
 *   - a value that is not in a register then is brought into one. So are constants above 31 and
 *     negative ones, which the tables cannot express, and without optimisation all variables;
 *   - annotations stay in order with each other, with volatile accesses and with calls that the
 *     compiler cannot see into. Other code may move across them, and may be arranged differently.
 *
 * For x86-64, in functions, with GCC 9 or Clang 11 and the assembler of binutils 2.35, or later
 * ones of each. The linker is that of binutils or LLVM; gold with --gc-sections drops the
 * annotations. */
#ifndef ZELRT_ANNOTATE_H
#define ZELRT_ANNOTATE_H

#include "zelrt/base.h"

/* Annotates the place where it stands: a statement, without a result.
 *
 * name: a string literal without quotes, backslashes and any of % { | }.
 * value: an integer or a pointer. Its record has the number itself for constants from 0 to 31, else
 * a register, of which the bits that the value's type has are the value. It is the value before
 * what comes behind the annotation.
 *
 * With ZEL_NO_ANNOTATIONS defined, here and below, there is none and the value is not evaluated. */
#ifndef ZEL_NO_ANNOTATIONS
#define ZEL_ANNOTATE(name, value) \
  __asm__ __inline__ __volatile__(ZEL_ANNOTATION_TABLE_(name) : : "rI"(value))
#else
#define ZEL_ANNOTATE(name, value) ((void)sizeof(value))
#endif

/* The same without an argument; the tables have one each, and this one's is the number 0. */
#define ZEL_ANNOTATE_MARK(name) ZEL_ANNOTATE(name, 0)

/* The table, as zelrt/annotations.h reads it.
 *
 * Flags of the section: allocated, in the order of its code and dropped with it (o), in its group
 * (?) since a copy of an inline function may be discarded. An operation of one byte stands for each
 * operand that the constraint allows: DW_OP_lit0 to DW_OP_lit31, then DW_OP_reg0 to DW_OP_reg15.
 * Which one it is can only be seen from how the compiler prints it, in either of its dialects: $5
 * or %rax, 5 or rax. */
#define ZEL_ANNOTATION_TABLE_(name)                                                \
  ".Lzel_code%=:\n"                                                                \
  ".pushsection .wex_notify_tab, \"ao?\", @progbits, .Lzel_code%=\n"               \
  ".Lzel_table%=:\n"                                                               \
  ".asciz \".wex_notify_tab\"\n"                                                   \
  ".2byte 0x0102, 0, 1, 0\n" /* version, items */                                  \
  ".4byte .Lzel_name%= - .Lzel_table%=, .Lzel_value%= - .Lzel_name%=\n"            \
  ".4byte .Lzel_value%= - .Lzel_table%=, 2\n"                                      \
  ".8byte 1\n" /* addresses count from the header */                               \
  ".8byte .Lzel_code%= - .Lzel_table%=\n"                                          \
  ".4byte 0, 0\n"                                                                  \
  ".Lzel_name%=:\n"                                                                \
  ".asciz \"" name                                                                 \
  "\"\n"                                                                           \
  ".Lzel_value%=:\n"                                                               \
  ".byte 1\n" /* length of the expression */                                       \
  ".set .Lzel_operation, 0x30\n" ZEL_ANNOTATION_OPERANDS_(                         \
      "{$|}",                                                                      \
      "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27," \
      "28,29,30,31")                                                               \
      ZEL_ANNOTATION_OPERANDS_(                                                    \
          "{%%|}", "rax,rdx,rcx,rbx,rsi,rdi,rbp,rsp,r8,r9,r10,r11,r12,r13,r14,r15") ".popsection"

/* Emits the operation when the operand is in the list; leaves behind the list's next operation. */
#define ZEL_ANNOTATION_OPERANDS_(prefix, list)  \
  ".irp operand, " list                         \
  "\n"                                          \
  ".ifc %q0," prefix                            \
  "\\operand\n"                                 \
  ".byte .Lzel_operation\n"                     \
  ".endif\n"                                    \
  ".set .Lzel_operation, .Lzel_operation + 1\n" \
  ".endr\n"

#endif
