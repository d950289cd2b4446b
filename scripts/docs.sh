#!/bin/bash
# docs.sh: makes the manual (build/docs/html/index.html) from the headers and pages; a warning of Doxygen's and a link
# that leads nowhere are errors.
set -euo pipefail
cd "$(dirname "$0")/.."
html=build/docs/html
scripts/setup.sh docs
rm -rf build/docs
mkdir -p build
doxygen Doxyfile

# In the repository a class's name leads to its header; here it leads to its page, and the examples come along.
cp -r examples $html
sed -i -E 's|href="include/util/(\w+)\.h"|href="classhvn_1_1util_1_1\1.html"|g; s|href="\.\./examples/|href="examples/|g' \
  $html/*.html

dead=$(grep -ohE '(href|src)="[^"#:]+["#]' $html/*.html | sed 's/^[^"]*"//; s/["#]$//' | sort -u |
  while read -r target; do [ -e "$html/$target" ] || echo "$target"; done)
[ -z "$dead" ] || { printf 'docs.sh: links lead nowhere:\n%s\n' "$dead" >&2; exit 1; }
echo "docs.sh: $html/index.html"
