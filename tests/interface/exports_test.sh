#!/usr/bin/env bash
# What libzelrt.so defines, what the list of exports names and what the public headers declare are
# the same symbols.
#
#   exports_test.sh SOURCE_DIR LIBRARY CXX    (CXX is a g++)

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 library=$2 cxx=$3
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
# symbol. They leave out names that begin with underscores, hence copies with a mark before those.

mark=u_
cp -r "$sources/include" "$scratch/include"
find "$scratch/include" -type f -exec sed -Ei "s/\b(__[zZ]el)/$mark\1/g" {} +
(cd "$scratch/include" && printf '#include "%s"\n' zelrt.h zelrt/*) >"$scratch/all.cc"
compile() { need env -C "$scratch" "$cxx" -std=c++20 -I"$scratch/include" "$@"; }
compile -fsyntax-only -fdump-ada-spec all.cc
sed -nE 's/.*(External_Name => |CPP_Constructor \([^"]*)"([^"]*)".*/\2/p' "$scratch"/*zelrt*.ads |
  grep -vE 'aSERKS|LogArgumentI' | # assignments are the compiler's or deleted; a template is its user's
  sort -u >"$scratch/bound"

# Functions with a body in the header belong to whoever includes it. A destructor that is defaulted
# there gets its body at the first use.
grep 'D1Ev$' "$scratch/bound" | c++filt |
  sed -E 's/^(.*)::~(.*)$/void Use(\1* object) { object->\1::~\2; }/' >>"$scratch/all.cc"
compile -fkeep-inline-functions -fno-access-control -c all.cc
nm --defined-only "$scratch/all.o" | awk '{ print $3 }' | sort >"$scratch/inline"

# Constructors and destructors come in two variants, and in a third where a destructor is virtual;
# a class with one of those has a table and a description too.
awk '
  { print }
  /^_ZN.*C1E/ { sub(/C1E/, "C2E"); print }
  /^_ZN.*D1Ev$/ { sub(/D1Ev$/, "D2Ev"); print }
  /^_ZN.*D0Ev$/ {
    sub(/^_Z/, ""); sub(/D0Ev$/, "E")
    if ($0 ~ /^N[0-9]+[A-Za-z]+E$/) gsub(/^N|E$/, "")  # not in a namespace: N12ZelXmlWriterE
    print "_ZTV" $0; print "_ZTI" $0; print "_ZTS" $0
  }' "$scratch/bound" |
  sort -u | comm -23 - "$scratch/inline" | sed "s/^$mark//" | sort >"$scratch/declared"

grep -q '^__ZelRtStartup$' "$scratch/declared" || fail "cannot read the declarations of the headers"

expect_same_lines "list" "$scratch/listed" "library" "$scratch/defined"
expect_same_lines "headers" "$scratch/declared" "list" "$scratch/listed"
finish
