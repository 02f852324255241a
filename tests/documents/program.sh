# shellcheck shell=bash
# To be sourced: what documents quote.

# program_in DOCUMENT: its blocks of C++, in order, with an empty line between them.
program_in() {
  awk '
    /^```cpp$/ { if (blocks++) print ""; inside = 1; next }
    /^```/ { inside = 0 }
    inside
  ' "$1"
}
