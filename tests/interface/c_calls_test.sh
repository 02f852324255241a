#!/usr/bin/env bash
# The interface can be called from C, with something of every header that declares functions for it.
#
#   c_calls_test.sh PROGRAM SOURCE_DIR CC    (CC is a gcc)

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
program=$1 headers=$2/include cc=$3

"$program" || fail "the program in C ended with status $?"

# /* .../zelrt/atomics.h:16:NC */ extern uint32_t __ZelInterlockedCompareExchange (...);
printf '#include <zelrt.h>\n' >"$scratch/all.c"
need "$cc" -I"$headers" -fsyntax-only -aux-info "$scratch/prototypes" "$scratch/all.c"
sed -nE 's/.*\/(zelrt\/[^:]*):.*extern [^(]*[ *]([A-Za-z0-9_]+) \(.*/\2 \1/p' \
  "$scratch/prototypes" | sort >"$scratch/functions"
[ -s "$scratch/functions" ] || fail "cannot read the prototypes"

nm -D --undefined-only "$program" | awk '{ sub(/@.*/, "", $2); print $2 }' | sort |
  join - "$scratch/functions" | cut -d' ' -f2 | sort -u >"$scratch/called"
cut -d' ' -f2 "$scratch/functions" | sort -u | comm -23 - "$scratch/called" |
  fail_on_lines "the program in C calls nothing of"

finish
