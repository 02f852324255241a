# shellcheck shell=bash
# Shared by the tests of the interface; to be sourced, from bash.
#
# A script makes all its checks and then calls `finish`: one run shows everything that is wrong.

set -eu
shopt -s lastpipe # the end of a pipe counts failures in this shell
export LC_ALL=C

scratch=$(realpath "$(mktemp -d)")
trap 'rm -rf "$scratch"' EXIT

failures=0

fail() {
  printf 'FAILED: %s\n' "$1"
  shift
  [ $# -eq 0 ] || printf '    %s\n' "$@"
  failures=$((failures + 1))
}

# Reports the lines of stdin, if there are any, under a heading.
fail_on_lines() {
  local lines
  mapfile -t lines
  [ ${#lines[@]} -eq 0 ] || fail "$1" "${lines[@]}"
}

# Reports what one sorted file has and the other has not.
expect_same_lines() {
  comm -23 "$2" "$4" | fail_on_lines "in the $1, but not in the $3"
  comm -13 "$2" "$4" | fail_on_lines "in the $3, but not in the $1"
}

# Runs a command that has to succeed; shows what it said when it does not, and ends the test.
need() {
  local log=$scratch/need.log
  "$@" >"$log" 2>&1 && return
  cat "$log"
  fail "$*"
  finish
}

finish() {
  [ "$failures" -eq 0 ] && exit 0
  printf '%s failure(s)\n' "$failures"
  exit 1
}
