#!/usr/bin/env bash
# A man page has the options that the program's help lists, and no others.
#
#   man_pages_test.sh SOURCE_DIR PROGRAM [ARGUMENTS]     the program, and what has it print its help

source "$(dirname "${BASH_SOURCE[0]}")/../interface/checks.sh"
page=$1/docs/man/$(basename "$2").1
shift

"$@" | sed -nE 's/^ +-([a-z]+) .*/\1/p' | sort >"$scratch/help"
[ -s "$scratch/help" ] || fail "no option in the help"
grep -oE '^\.It Fl [a-z]+' "$page" | sed 's/.* //' | sort >"$scratch/page"
expect_same_lines "help" "$scratch/help" "man page" "$scratch/page"
finish
