#!/usr/bin/env bash
# docs/formats.md names what the sources have: elements and attributes of results, the library's messages,
# debug channels, what the parser of annotation tables says.
# Argument: the source folder.

source "$(dirname "${BASH_SOURCE[0]}")/../interface/checks.sh"
cd "$1"

# expect_named KIND: reads names from stdin, one a line.
expect_named() {
  local name names
  mapfile -t names
  [ ${#names[@]} -gt 2 ] || fail "$1: cannot read them"
  for name in "${names[@]}"; do
    grep -qE "(^|[^a-zA-Z_])$name($|[^a-zA-Z_])" docs/formats.md || fail "$1: $name is not in formats.md"
  done
}

sed -nE 's/.*<(element|attribute) name="([^"]*)".*/\2/p' examples/heapscope/result.rng | sort -u |
  expect_named "results"
sed -nE 's/^ *(Message)?\{"([A-Z_]+)",.*/\2/p' log/messages.cc | grep -v '^COMMENT$' | expect_named "messages"
sed -nE 's/^ *\{0x[0-9a-f]+, "([A-Z_]+)"\},/\1/p' log/debug_channels.cc | expect_named "debug channels"
sed -nE 's/.*"(zca_parser: |ZCA parser: )([A-Za-z ]+)( %d.*)?".*/\1\2/p' modules/annotations.cc |
  expect_named "annotation tables"
finish
