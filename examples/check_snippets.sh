#!/bin/sh
# check_snippets.sh: whether all code that the documentation shows is compiled too: that in the public headers' comments
# (indented by four blanks more than text) in snippets.cpp, the guide's in any example. The same lines in the same order,
# however they are broken; "..." is for anything.
set -eu
cd "$(dirname "$0")"

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

of_guide() { # FILE
  awk '/^ *```cpp$/ { inside = 1; next }
       inside && /^ *```$/ { print ""; inside = 0 }
       inside { gsub(/[ \t]/, ""); printf $0 == "..." ? "\n" : "%s", $0 }' "$1"
}

check() { # FILE, its snippets on standard input, what is compiled in $compiled
  count=0
  while read -r snippet; do
    [ -n "$snippet" ] || continue
    count=$((count + 1))
    case $compiled in
      *"$snippet"*) ;;
      *) printf 'check_snippets.sh: %s shows what no example compiles: %s\n' "$1" "$snippet" >&2; exit 1 ;;
    esac
  done
  echo "$count"
}

shown=0
compiled=$(tr -d '[:space:]' <snippets.cpp)
for header in ../include/util/*.h; do
  found=$(of_header "$header" | check "$header")
  shown=$((shown + found))
done
compiled=$(cat ./*.cpp gatewayd/* | tr -d '[:space:]')
told=$(of_guide ../docs/guide.md | check docs/guide.md)
if [ "$shown" = 0 ] || [ "$told" = 0 ]; then
  echo "check_snippets.sh: $shown snippets of headers and $told of the guide: has their form changed?" >&2
  exit 1
fi
echo "check_snippets.sh: $shown snippets of headers and $told of the guide are compiled"
