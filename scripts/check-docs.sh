#!/bin/bash
# check-docs.sh: whether the documentation is true where a program can tell. All code that it shows is compiled: that in
# the public headers' comments (indented by four blanks more than text) and the README's in snippets.cpp, the guide's in
# any example; the same lines in the same order, however they are broken, "..." being for anything. The README's table
# holds each header, and links lead somewhere.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() { printf 'check-docs.sh: %s\n' "$@" >&2; exit 1; }

of_header() { # FILE: each snippet on one line, without blanks
  awk '/^ *\/\/\/     / {
         sub(/^ *\/\/\/ */, "")
         gsub(/[ \t]/, "")
         printf $0 == "..." ? "\n" : "%s", $0
         inside = 1
         next
       }
       inside { print ""; inside = 0 }' "$1"
}

of_page() { # FILE: the same, of its blocks; what they include stands at the top of what is compiled
  awk '/^ *```cpp$/ { inside = 1; next }
       inside && /^ *```$/ { print ""; inside = 0 }
       inside && !/^#include|^using namespace|^$/ { gsub(/[ \t]/, ""); printf $0 == "..." ? "\n" : "%s", $0 }' "$1"
}

shown=0
check_compiled() { # FILE READER; what is compiled in $compiled
  local snippet count=0
  while read -r snippet; do
    [ -n "$snippet" ] || continue
    [[ $compiled == *"$snippet"* ]] || fail "$1 shows what no example compiles: $snippet"
    count=$((count + 1))
  done < <("$2" "$1")
  shown=$((shown + count))
  [ "$2" = of_header ] || [ $count -gt 0 ] || fail "$1 shows no code: has its form changed?"
}

compiled=$(tr -d '[:space:]' <examples/snippets.cpp)
for header in include/util/*.h; do
  check_compiled "$header" of_header
done
[ $shown -gt 0 ] || fail "no header shows code: has their form changed?"
check_compiled README.md of_page
compiled=$(cat examples/*.cpp examples/gatewayd/* | tr -d '[:space:]')
check_compiled docs/guide.md of_page

for header in include/util/*.h; do
  name=$(basename "$header" .h)
  case $name in Export | Result | NetworkMonitor | TimerService) continue ;; esac # nobody starts from these
  grep -q "^|.*\`$name\`" README.md || fail "the README's table lacks $name"
done

for page in *.md docs/*.md; do
  while read -r target; do
    [ -e "$(dirname "$page")/$target" ] || fail "$page links to $target, which does not exist"
  done < <(grep -o ']([^)#: ]*\.[a-z]*)' "$page" | sed 's/^](//; s/)$//')
done

echo "check-docs.sh: $shown pieces of code are compiled"
