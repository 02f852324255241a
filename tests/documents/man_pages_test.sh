#!/usr/bin/env bash
# A man page has the options that the program's help lists, and no others but their negations.
#
#   man_pages_test.sh SOURCE_DIR PROGRAM [ARGUMENTS]     the program, and what has it print its help

source "$(dirname "${BASH_SOURCE[0]}")/../interface/checks.sh"
page=$1/docs/man/$(basename "$2").1
shift

"$@" | sed -nE 's/^ +(-h,)?-(-?[a-z-]+) .*/\2/p' | sort >"$scratch/help"
[ -s "$scratch/help" ] || fail "no option in the help"
grep -oE '^\.It Fl [a-z-]+' "$page" | sed 's/.* //' | sort >"$scratch/page"
expect_same_lines "help" "$scratch/help" "man page" "$scratch/page"

# ".It Fl children , Fl no-children": the help has the first alone, the program understands the second.
sed -nE 's/^\.It Fl .* , Fl ([a-z-]+)$/\1/p' "$page" | while read -r option; do
  "$1" "-$option" "${@:2}" >/dev/null || fail "-$option is not understood"
done
finish
