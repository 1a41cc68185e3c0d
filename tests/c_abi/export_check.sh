#!/bin/sh
# libvsk.so exports exactly the names of its public headers and platform interfaces:
# no C++ (mangled) symbol, nothing unexpected, nothing declared and missing.
# Usage: export_check.sh LIBRARY NAMES_FILE
set -eu
lib=$1
names=$2
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
nm -D --defined-only "$lib" | awk '{print $NF}' | sort -u >"$actual"
status=0
if grep '^_Z' "$actual"; then
  echo "C++ symbols exported by $lib (above)" >&2
  status=1
fi
extra=$(sort -u "$names" | comm -13 - "$actual")
if [ -n "$extra" ]; then
  printf 'exported but not declared in a public header:\n%s\n' "$extra" >&2
  status=1
fi
missing=$(sort -u "$names" | comm -23 - "$actual")
if [ -n "$missing" ]; then
  printf 'declared but not exported:\n%s\n' "$missing" >&2
  status=1
fi
[ "$status" -eq 0 ] && echo "$(wc -l <"$actual") names exported, all declared"
exit "$status"
