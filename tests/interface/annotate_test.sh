#!/usr/bin/env bash
# Annotations add no instruction, and link without relocations, with copies of inline functions,
# and with sections dropped: with each compiler that is there.
#
#   annotate_test.sh SOURCE_DIR CC CXX

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 cc=$2 cxx=$3

names() { LC_ALL=C grep -aoE 'an_annotation_[a-z]+' "$1" | sort | uniq -c | xargs; }

cat >"$scratch/copied.h" <<'END'
#include "zelrt/annotate.h"
extern "C" int Dropped(int x), Kept(int x);
inline int Copied(char x) { ZEL_ANNOTATE("an_annotation_copied", x); return x; }
END
cat >"$scratch/kept.cc" <<'END'
#include "copied.h"
int Dropped(int x) { ZEL_ANNOTATE("an_annotation_dropped", x); return x; }
int Kept(int x) { ZEL_ANNOTATE("an_annotation_kept", -1); return Copied(static_cast<char>(x)); }
END
cat >"$scratch/main.cc" <<'END'
#include "copied.h"
int main(int argc, char**) { return Kept(Copied(static_cast<char>(argc))) - 1; }
END

# As far as the compiler's own work goes, an annotation is a statement without text.
mkdir -p "$scratch/empty/zelrt"
cat >"$scratch/empty/zelrt/annotate.h" <<'END'
#define ZEL_ANNOTATE(name, value) __asm__ __inline__ __volatile__("" : : "rI"(value))
#define ZEL_ANNOTATE_MARK(name) ZEL_ANNOTATE(name, 0)
END

compilers=("$cc $cxx")
if command -v clang >/dev/null && command -v clang++ >/dev/null; then compilers+=("clang clang++"); fi
for pair in "${compilers[@]}"; do
  read -r cc cxx <<<"$pair"
  for level in -O0 -O1 -O2 "-O2 -fPIC" "-O2 -masm=intel"; do
    for headers in "$sources/include" "$scratch/empty"; do
      # shellcheck disable=SC2086 # several flags
      need "$cc" $level -Wall -Wextra -pedantic -Werror -I"$headers" \
        -c "$sources/examples/annotated/annotated.c" -o "$scratch/code.o"
      objdump -d "$scratch/code.o" >"$scratch/code.${headers##*/}"
    done
    cmp -s "$scratch/code.include" "$scratch/code.empty" || fail "$cc $level: other code"
  done
  for flags in "-O0 -fno-inline" "-O2 -fno-inline -fPIE -pie"; do
    # shellcheck disable=SC2086 # several flags
    need "$cxx" -std=c++20 $flags -ffunction-sections -I"$sources/include" "$scratch/kept.cc" \
      "$scratch/main.cc" -o "$scratch/linked" -Wl,--gc-sections,-z,text,--fatal-warnings
    need "$scratch/linked"
    found=$(names "$scratch/linked")
    [ "$found" = "1 an_annotation_copied 1 an_annotation_kept" ] || fail "$cxx $flags: $found"
  done
done
finish
