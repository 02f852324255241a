#!/usr/bin/env bash
# A project that takes zelrt in as a subdirectory gets the library and nothing else, and keeps its
# own settings.
#
#   subproject_test.sh SOURCE_DIR CMAKE CC CXX

source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
sources=$1 cmake=$2 cc=$3 cxx=$4
build=$scratch/build

need "$cmake" -S "$(dirname "${BASH_SOURCE[0]}")/subproject" -B "$build" -G Ninja \
  -DZELRT_SOURCE_DIR="$sources" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx"
need "$cmake" --build "$build"
need "$build/outer"

find "$build" -type f '(' -name '*.a' -o -perm /111 -not -name '*.bin' ')' -printf '%P\n' |
  grep -vE '^(outer|zelrt/libzelrt\.so\..*|CMakeFiles/.*)$' | fail_on_lines "built besides the library"
grep -E '^CMAKE_BUILD_TYPE:[A-Z]+=.+' "$build/CMakeCache.txt" | fail_on_lines "sets for the outer project"

need "$cmake" --install "$build" --prefix "$scratch/prefix"
find "$scratch/prefix" -type f -printf '%P\n' | grep -vx bin/outer |
  fail_on_lines "installed with the outer project"

finish
