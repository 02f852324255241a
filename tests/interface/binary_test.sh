#!/usr/bin/env bash
# What the linker and the compiler have to keep in libzelrt.so, which is loaded into other people's
# processes and walked by its own stack walker.
#
#   binary_test.sh LIBRARY

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
library=$1

readelf -dW "$library" >"$scratch/dynamic"
expect_dynamic() { grep -qE "$2" "$scratch/dynamic" || fail "$1"; }

expect_dynamic "the SONAME is not libzelrt.so.13" '\(SONAME\).*\[libzelrt\.so\.13\]'
expect_dynamic "symbols are not bound at load" 'Flags:.* NOW|BIND_NOW'
grep TEXTREL "$scratch/dynamic" | fail_on_lines "text relocations"
grep -E 'R(UN)?PATH' "$scratch/dynamic" | fail_on_lines "a search path"
sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' "$scratch/dynamic" |
  grep -vE '^(libc|libm|libstdc\+\+|libgcc_s|ld-linux-x86-64)\.so\.' |
  fail_on_lines "needs more than the standard libraries"

readelf -lW "$library" >"$scratch/segments"
grep -q 'GNU_STACK.* RW ' "$scratch/segments" || fail "the stack is executable"
grep -q GNU_RELRO "$scratch/segments" || fail "relocated data stays writable"
grep -E 'LOAD.* RWE' "$scratch/segments" | fail_on_lines "a segment both writable and executable"

# Constructors ------------------------------------------------------------------------------------
#
# An entry of .init_array is a relative relocation whose addend is the function. The command handler
# has one.

read -r start size < <(readelf -SW "$library" |
  sed -nE 's/.* \.init_array +INIT_ARRAY +([0-9a-f]+) [0-9a-f]+ ([0-9a-f]+).*/\1 \2/p')
readelf -rW "$library" |
  awk '/R_X86_64_RELATIVE/ { print $1, $NF }' |
  while read -r place function; do
    ((16#$place >= 16#$start && 16#$place < 16#$start + 16#$size)) || continue
    printf '%016x\n' "$((16#$function))"
  done | sort >"$scratch/constructors"
[ "$(wc -l <"$scratch/constructors")" -eq $((16#$size / 8)) ] ||
  fail "cannot read the constructors"
nm "$library" | awk '$2 ~ /[tT]/ { print $1, $3 }' | sort |
  join "$scratch/constructors" - | cut -d' ' -f2 |
  grep -vxE 'frame_dummy|_GLOBAL__sub_I_command_handler\.cc' | fail_on_lines "runs code at load"

# Frame pointers ----------------------------------------------------------------------------------
#
# A stack walk relies on two things. %rbp never holds anything but a frame's address: it changes by
# the prologue and the epilogue alone, so a function without a frame leaves its caller's. And who
# calls has a frame by then. (A tail call is a jump, and leaves nothing to be found.)
#
# The C runtime's own functions and the lazy stubs are not compiled here. A ".cold" symbol is the
# far part of a function whose prologue has run.

objdump -d --no-show-raw-insn -j .text "$library" | awk -F'\t' '
  /^[0-9a-f]+ <.*>:$/ {
    name = $0; sub(/^[0-9a-f]+ </, "", name); sub(/>:$/, "", name)
    ours = name !~ /^(deregister_tm_clones|register_tm_clones|__do_global_dtors_aux|frame_dummy|_start)$/
    pushed = 0
    framed = name ~ /\.cold(\.[0-9]+)?$/
    if (ours) ++functions
    next
  }
  !ours || NF < 2 { next }
  {
    code = $2; sub(/ *[#<].*/, "", code); sub(/ +$/, "", code)
    if (code ~ /^push +%rbp$/) pushed = 1
    else if (code ~ /^mov +%rsp,%rbp$/) {
      if (pushed) framed = 1; else print name ": a frame without the link to the caller"
    }
    else if (code ~ /^(lock |rep |bnd |notrack )?call/ && !framed && name != reported) {
      print name ": calls without a frame"
      reported = name
    }
    else if (code ~ /(,| )%(rbp|ebp|bp|bpl)$/ && code !~ /^(pop|cmp|test|cmp[bwlq]|test[bwlq]|bt) /)
      print name ": uses %rbp for something else: " code
  }
  END { if (functions < 100) print "cannot read the code" }' |
  fail_on_lines "frame pointers"

finish
