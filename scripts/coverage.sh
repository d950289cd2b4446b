#!/bin/bash
# coverage.sh: which lines of src/ the suite never runs, each with its text, and the share of those that it runs; fails
# below 95 %.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build test coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -j2

# One tag a line: <file path="...">, then <lineToCover lineNumber="..." covered="true|false" ...> for each of its lines.
lines=build/coverage/lines.xml
gcovr --root . --filter src/ --sonarqube - build/coverage/src | sed 's/></>\n</g' >"$lines"
file=
while IFS='"' read -r tag value _ covered _; do
  case $tag$covered in
    '<file path='*) file=$value ;;
    *false) printf '%s:%d:%s\n' "$file" "$value" "$(sed -n "${value}p" "$file")" ;;
  esac
done <"$lines"
awk '/covered="/ { ++all } /covered="true"/ { ++run }
  END { printf "%d of %d lines of src/ run: %.1f %%\n", run, all, 100 * run / all; exit run < 0.95 * all }' "$lines"
