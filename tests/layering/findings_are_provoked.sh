#!/bin/sh
# findings_are_provoked.sh HEADER TESTS: each finding in the header's list is expected by a test, under its name or
# its code, which is its place in the catalogue. Lists of findings alone do not count.
set -eu
header=$1 tests=$2 catalogue=$(dirname "$1")/../../src/FindingCatalogue.cpp
missing=
for name in $(sed -n '/^enum class FindingID/,/^};/s/^  \(k[A-Za-z0-9]*\),.*/\1/p' "$header"); do
  code=$(sed -n "s/^ *{$name, \"\(MT-[A-Z][0-9]*\)\".*/\1/p" "$catalogue")
  [ -n "$code" ] || { echo "$name has no code"; exit 1; }
  grep -qwE -e "$name|$code" $(find "$tests/host" "$tests/cli" -name '*Test.cpp' ! -name FindingTest.cpp) ||
    missing="$missing $name($code)"
done
[ -z "$missing" ] || { echo "No test provokes:$missing"; exit 1; }
# An empty list would be provoked by anything.
[ -n "$name" ]
