#!/usr/bin/env bash
# Every public header stands alone: as C11 and as C++20, twice in a row, without a warning, with each
# compiler that is there. The umbrella leaves none out.
#
#   headers_test.sh SOURCE_DIR CC CXX

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
headers=$1/include cc=$2 cxx=$3

c_compilers=("$cc") cxx_compilers=("$cxx")
if command -v clang >/dev/null && command -v clang++ >/dev/null; then
  c_compilers+=(clang)
  cxx_compilers+=(clang++)
fi

# compile COMPILER LANGUAGE STANDARD HEADER [FLAGS]
compile() {
  local compiler=$1 language=$2 standard=$3 header=$4
  shift 4
  printf '#include "%s"\n' "$header" "$header" |
    "$compiler" -x "$language" -std="$standard" -I"$headers" -fsyntax-only \
      -Wall -Wextra -pedantic -Werror "$@" - 2>"$scratch/log" ||
    fail "$header as $standard with $(basename "$compiler")" "$(cat "$scratch/log")"
}

cd "$headers"
for header in zelrt.h zelrt/*; do
  for compiler in "${cxx_compilers[@]}"; do
    compile "$compiler" c++ c++20 "$header"
  done
  [ "${header##*.}" = h ] || continue
  for compiler in "${c_compilers[@]}"; do
    compile "$compiler" c c11 "$header" -Wstrict-prototypes
  done
done

included() { sed -nE 's/^#include "(zelrt\/[^"]*)"$/\1/p' zelrt.h | sort; }
printf '%s\n' zelrt/* | sort | comm -23 - <(included) | fail_on_lines "not in the umbrella header"

finish
