#!/usr/bin/env bash
# What documents lead to is there: files, and sections of their own.
# Argument: the source folder.

source "$(dirname "${BASH_SOURCE[0]}")/../interface/checks.sh"
cd "$1"

# anchors FILE: its headings as their links are written.
anchors() {
  sed -n 's/^##* //p' "$1" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

for document in *.md docs/*.md examples/*/*.md bench/*.md; do
  grep -oE '\]\([^)]+\)' "$document" | sed 's/^](//; s/)$//' | grep -v '^https:' |
    while IFS='#' read -r path anchor; do
      target=$document
      [ -z "$path" ] || target=$(dirname "$document")/$path
      [ -e "$target" ] || fail "$document leads to $path, which is not there"
      [ -z "$anchor" ] || anchors "$target" | grep -xF -e "$anchor" >/dev/null ||
        fail "$document leads to #$anchor, which is no section of $target"
    done
done

finish
