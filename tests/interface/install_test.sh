#!/usr/bin/env bash
# An installed zelrt serves C and C++, through CMake and through pkg-config, also after it was moved.
#
#   install_test.sh SOURCE_DIR BUILD_DIR CMAKE CC CXX

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 build=$2 cmake=$3 cc=$4 cxx=$5
consumer=$(dirname "${BASH_SOURCE[0]}")/consumer
unset LD_LIBRARY_PATH CPATH PKG_CONFIG_PATH

need "$cmake" --install "$build" --prefix "$scratch/built for"
prefix="$scratch/moved to"
mv "$scratch/built for" "$prefix"

diff -r "$sources/include" "$prefix/include" | fail_on_lines "installed headers differ"
library=$(find "$prefix" -name libzelrt.so)
[ "$(readlink -f "$library")" = "$(readlink -f "$library.13")" ] ||
  fail "libzelrt.so.13 and libzelrt.so are not the same"
grep -rIlF -e "$sources" -e "$build" -e "built for" "$prefix" |
  fail_on_lines "names a directory of the build"

# expect_installed_headers: reads the headers of a program from stdin, one a line.
expect_installed_headers() {
  grep -E '/include/zelrt(\.h|/)' | sed 's/^ *//' | xargs -d '\n' -r realpath | sort -u >"$scratch/used"
  [ -s "$scratch/used" ] || fail "$1: cannot read which headers were used"
  grep -vF "$prefix/include/" "$scratch/used" | fail_on_lines "$1: headers from elsewhere"
}

need "$cmake" -S "$consumer" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx"
need "$cmake" --build "$scratch/consumer"
for program in consumer_c consumer_cc; do
  need "$scratch/consumer/$program"
  ldd "$scratch/consumer/$program" | grep -qF "$prefix" || fail "$program: another library"
done
ninja -C "$scratch/consumer" -t deps | expect_installed_headers "CMake"

pkgconfig=$(dirname "$(find "$prefix" -name zelrt.pc)")
eval "flags=($(PKG_CONFIG_PATH=$pkgconfig pkg-config --cflags --libs zelrt))"
# shellcheck disable=SC2154 # made by the line above
need "$cc" -MD -MF "$scratch/depends" "$consumer/consumer.c" -o "$scratch/plain" "${flags[@]}"
need env LD_LIBRARY_PATH="$(dirname "$library")" "$scratch/plain"
sed 's/\\ /\x01/g' "$scratch/depends" | tr ' ' '\n' | tr '\001' ' ' |
  expect_installed_headers "pkg-config"

finish
