#!/usr/bin/env bash
# Compiles and runs the collector that the README shows.
# Arguments: the source folder, the built library's folder, the C++ compiler.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/program.sh"
source_dir=$1 library_dir=$2 compiler=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

program_in "$source_dir/README.md" >"$work/collector.cc"
"$compiler" -std=c++20 -Wall -Wextra -pedantic -Werror -I "$source_dir/include" \
  "$work/collector.cc" -o "$work/collector" -L "$library_dir" -lzelrt -Wl,-rpath,"$library_dir" -pthread
cd "$work"
./collector
# 10,000 blocks of two units: five pages of 2,046 slots, and one more when both threads find a page full
# at the same moment.
for text in '<arg name=.category.>events</arg>' '<arg name=.bytes.>(327680|393216)</arg>' '</log>'; do
  grep -qE "$text" zellog.log || { echo "not in the log: $text"; cat zellog.log; exit 1; }
done
