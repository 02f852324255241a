#!/usr/bin/env bash
# What libzelrt.so defines, what the list of exports names and what the public headers declare are
# the same symbols.
#
#   exports_test.sh SOURCE_DIR LIBRARY CXX    (CXX is a g++)

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 library=$2 cxx=$3
headers=$sources/include
node=ZELRT_13

# Listed ------------------------------------------------------------------------------------------

sed '/^#/d; /^$/d' "$sources/cmake/exports.txt" | sort >"$scratch/listed"
uniq -d "$scratch/listed" | fail_on_lines "listed twice"

# Defined -----------------------------------------------------------------------------------------

nm -D --defined-only "$library" | awk '{ print $NF }' | grep -v "^$node" >"$scratch/versioned"
grep -v "@@$node\$" "$scratch/versioned" | fail_on_lines "defined, but not under version $node"
sed 's/@.*//' "$scratch/versioned" | sort >"$scratch/defined"

# Declared ----------------------------------------------------------------------------------------
#
# The compiler's bindings for another language tell every function and variable of a header with its
# symbol. They leave out names that begin with underscores, hence the mark in front of those.

mark=u_
for header in "$headers"/zelrt.h "$headers"/zelrt/*; do
  printf '#include "%s"\n' "${header#"$headers"/}"
done >"$scratch/all.cc"
need "$cxx" -std=c++20 -I"$headers" -E "$scratch/all.cc" -o "$scratch/all.plain.ii"
sed -E "s/\b(__[zZ]el)/$mark\1/g" "$scratch/all.plain.ii" >"$scratch/all.ii"
need env -C "$scratch" "$cxx" -std=c++20 -fsyntax-only -fdump-ada-spec all.ii

# Functions with a body in the header belong to whoever includes it.
need "$cxx" -std=c++20 -fkeep-inline-functions -c "$scratch/all.ii" -o "$scratch/all.o"
nm --defined-only "$scratch/all.o" | awk '{ print $3 }' | sort >"$scratch/inline"

# Constructors and destructors come in two variants, and in a third where a destructor is virtual;
# a class with one of those has a table and a description too.
sed -nE 's/.*(External_Name => |CPP_Constructor \([^"]*)"([^"]*)".*/\2/p' "$scratch"/zelrt_*.ads |
  awk '
    { print }
    /^_ZN[^I]*C1E/ { sub(/C1E/, "C2E"); print }
    /^_ZN.*D1Ev$/ { sub(/D1Ev$/, "D2Ev"); print }
    /^_ZN.*D0Ev$/ {
      sub(/^_Z/, ""); sub(/D0Ev$/, "E")
      print "_ZTV" $0; print "_ZTI" $0; print "_ZTS" $0
    }' |
  sort -u | comm -23 - "$scratch/inline" | sed "s/^$mark//" | sort >"$scratch/declared"

grep -q '^__ZelRtStartup$' "$scratch/declared" || fail "cannot read the declarations of the headers"

expect_same_lines "list" "$scratch/listed" "library" "$scratch/defined"
expect_same_lines "headers" "$scratch/declared" "list" "$scratch/listed"
finish
