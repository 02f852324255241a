#!/usr/bin/env bash
# syncscope counts the syncs of a program that makes a known number of them, in its threads and children.
#
#   collector_test.sh COLLECTOR SUBJECT

source "$(dirname "${BASH_SOURCE[0]}")/../interface/checks.sh"
collector=$1 subject=$2
cd "$scratch"
mkdir files work
cd work

# watch OPTIONS: runs the subject, and leaves its process id in `process`.
watch() {
  local output=$scratch/output
  rm -f "$scratch"/files/*
  timeout 60 env SYNCSCOPE_OPTIONS="-out ../files $1" LD_PRELOAD="$collector" "$subject" >"$output" ||
    fail "the subject ended with status $?"
  process=$(tail -n 1 "$output")
}

# expect_sites PROCESS TEXT...: calls and failures of the sites, by the frame of the subject that called.
expect_sites() {
  local file=$scratch/files/syncscope.$1.xml
  need xmllint --noout "$file"
  shift
  sed -nE "s/^\t<site (calls='[0-9]+' failures='[0-9]+') .*/\1/p" "$file" | sort >"$scratch/sites"
  printf '%s\n' "$@" | sort >"$scratch/expected"
  expect_same_lines "sites of $file" "$scratch/sites" "expected ones" "$scratch/expected"
}

watch "-slow 0"
expect_sites "$process" "calls='3' failures='0'" "calls='1' failures='1'" "calls='100' failures='0'"
find . -type f ! -name synced | fail_on_lines "files in the working directory"

children=0
for file in "$scratch"/files/*.xml; do
  child=${file##*/syncscope.}
  child=${child%.xml}
  [ "$child" != "$process" ] || continue
  expect_sites "$child" "calls='1' failures='0'"
  children=$((children + 1))
done
[ "$children" -eq 5 ] || fail "$children children have a result, not 5"

# The first frame of each site is in the function that made the call.
result=$scratch/files/syncscope.$process.xml
for site in 1 2 3; do
  xmllint --xpath "string(//site[$site]/frame[1]/offset)" "$result" | xargs addr2line -f -e "$subject" | head -n 1
done | sort | paste -sd ' ' | grep -qx 'Fail Flush Save' || fail "the sites are not in Fail, Flush and Save"

log=$scratch/files/syncscope.$process.log
need xmllint --noout "$log"
[ "$(grep -c '<type>SLOW_SYNC</type>' "$log")" -eq 3 ] || fail "not three slow syncs in the log" "$(<"$log")"

watch "-slow 1000000 -sloow 1"
grep -q '<type>BAD_OPTION</type>' "$scratch/files/syncscope.$process.log" || fail "no word of the bad option"
! grep -q SLOW_SYNC "$scratch/files/syncscope.$process.log" || fail "a sync that took 1,000 seconds"

finish
