#!/bin/sh
# The library's dynamic symbol table must hold exactly the interface: every
# name of expected_exports.txt, and nothing else.
#
# Usage: check_exports.sh <nm> <library> <expected-list>
set -eu
nm=$1 library=$2 expected=$3
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$nm" -D --defined-only "$library" | awk '{print $NF}' | LC_ALL=C sort -u >"$actual"
if LC_ALL=C sort -u "$expected" | diff -u - "$actual"; then
  echo "exports: $(wc -l <"$actual") symbols, exactly the interface"
else
  echo "exports differ from $expected ('-' missing, '+' not part of the interface)" >&2
  exit 1
fi
