#!/usr/bin/env bash
# The program that the guide shows, piece by piece, is the one among the examples.
# Argument: the source folder.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/program.sh"
diff -u "$1/examples/syncscope/syncscope.cc" <(program_in "$1/docs/write-your-own-collector.md")
