#!/usr/bin/env bash
# A machine that has nothing but Boost's headers can configure the project and build the library:
# parts whose packages are missing say so in a line and stay away.
#
#   configure_test.sh SOURCE_DIR CMAKE CC CXX

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 cmake=$2 cc=$3 cxx=$4
build=$scratch/build

# The directory of libraries is the one of Debian's packages, two levels deep.
if "$cmake" -S "$sources" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_INSTALL_LIBDIR=lib/x86_64-linux-gnu \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_pugixml=ON -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON \
  >"$scratch/log" 2>&1; then
  for part in tests benchmarks tools heapscope-report; do
    grep -qi "$part .*left out" "$scratch/log" ||
      fail "no word of the $part that are left out" "$(cat "$scratch/log")"
  done
else
  fail "cannot be configured without the packages of tests and benchmarks" "$(cat "$scratch/log")"
fi

need "$cmake" -S "$sources" -B "$build" -DZELRT_BUILD_TESTS=OFF -DZELRT_BUILD_BENCHMARKS=OFF \
  -DZELRT_BUILD_EXAMPLES=OFF
need "$cmake" --build "$build" --target zelrt

need "$cmake" --install "$build" --prefix "$scratch/prefix"
export PKG_CONFIG_PATH=$scratch/prefix/lib/x86_64-linux-gnu/pkgconfig
[ "$(realpath "$(pkg-config --variable=libdir zelrt)")" = \
  "$scratch/prefix/lib/x86_64-linux-gnu" ] || fail "pkg-config: another directory of libraries"
[ -e "$(pkg-config --variable=includedir zelrt)/zelrt.h" ] || fail "pkg-config: no headers"

finish
