#!/usr/bin/env bash
# check_symbols.sh LIB LIST [--update]
#
# The list holds the library's own symbols: the C exports and everything in namespace
# tessarel (functions, variables, type information, virtual tables), demangled, sorted.
# Instances of standard-library templates that the compiler happens to emit with default
# visibility (even over our own types) vary with the compiler and its optimisation, so they
# are not part of it: a name counts when its first qualifier is tessarel.
set -euo pipefail
lib="$1"
list="$2"
now=$(nm -D --defined-only --demangle "$lib" |
  sed -n -E 's/^[0-9a-f]+ [A-Za-z] //p' |
  grep -E '^[^:]*tessarel::|^[A-Za-z][A-Za-z0-9]*$' | LC_ALL=C sort -u)
if [ "${3:-}" = "--update" ]; then
  printf '%s\n' "$now" > "$list"
  exit 0
fi
if ! diff -u "$list" <(printf '%s\n' "$now"); then
  echo "The exported symbols differ from $list (- committed, + now)." >&2
  echo "If the change is intended: tests/abi/check_symbols.sh LIB $list --update" >&2
  exit 1
fi
