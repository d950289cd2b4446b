#!/bin/bash
# abi.sh check|update [LIBRARY]
# Compares the binary interface of LIBRARY with the one kept in abi/ for its architecture, or keeps LIBRARY's from now
# on. Without LIBRARY, build/dev's is built and compared, or build/dev's and build/armhf's are both built and kept.
# LIBRARY is g++'s, with debug information: Clang describes the standard library's types in other words. Types that only
# our sources know are no part of the interface.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() { printf 'abi.sh: %s\n' "$@" >&2; exit 1; }

case ${1-} in check | update) ;; *) fail "usage: abi.sh check|update [LIBRARY]" ;; esac
scripts/setup.sh abi

build() { # PRESET
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" --target hutil >/dev/null
}

library=${2-}
if [ -z "$library" ]; then
  build dev
  library=build/dev/src/libhutil.so
  if [ "$1" = update ]; then
    scripts/sysroot-armhf.sh
    build armhf
    scripts/abi.sh update build/armhf/src/libhutil.so
  fi
fi
[ -r "$library" ] || fail "there is no $library"
case $(readelf -hW "$library") in
  *X86-64*) architecture=amd64 ;;
  *ARM*) architecture=armhf ;;
  *) fail "$library is of an architecture that nobody has thought of: name it here" ;;
esac
readelf -SW "$library" | grep -q debug_info || fail "$library has no debug information: build it with -g"
kept=abi/libhutil.$architecture.abi

dump() { # of one machine as of any other: no paths, no places, numbers of types by their names
  abidw --headers-dir include --drop-private-types --exported-interfaces-only --type-id-style hash --no-corpus-path \
    --no-comp-dir-path --no-show-locs --no-parameter-names --no-architecture --no-elf-needed "$library" |
    sed "s| path='[^']*/src/util/| path='src/util/|"
}

if [ "$1" = update ]; then
  dump >"$kept"
  echo "abi.sh: $kept is $library's now; commit it with what changed"
  exit 0
fi

new=$(mktemp)
trap 'rm -f "$new"' EXIT
dump >"$new"
abidiff --no-added-syms --no-corpus-path "$kept" "$new" ||
  fail "the interface differs from the kept one in the way shown above, and daemons built against it would break." \
    "Either keep what was there: add instead of change, reserve a name instead of removing it. Or, where the break is" \
    "meant, raise the major version in CMakeLists.txt, which makes a new SONAME, then: scripts/abi.sh update"
abidiff "$kept" "$new" ||
  fail "the interface has grown in the way shown above. Where that is meant: scripts/abi.sh update"
echo "abi.sh: $library has the interface that $kept holds"
