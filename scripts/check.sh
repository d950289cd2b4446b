#!/bin/bash
# check.sh: what the suite alone does not show. Static analysis and the documentation first, then other machines and
# inputs, then the suite under each sanitizer and as Clang builds it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build test check

title() { printf '\n== %s\n' "$*"; }

build() { # PRESET [TARGET]
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" ${2:+--target "$2"}
}

mapfile -t sources < <(find . -path ./build -prune -o -name '*.h' -print -o -name '*.cpp' -print)

title shellcheck
shellcheck scripts/*.sh scripts/demo/*.sh examples/*.sh .ci/run

title clang-format
clang-format-14 --dry-run -Werror "${sources[@]}"

title "clang (build)"
build clang

title clang-tidy
run-clang-tidy-14 -quiet -j2 -p build/clang "^$PWD/src/" 2>/dev/null | sed '/^clang-tidy-14 /d; /^$/d'

title cppcheck # strings by value belong to the interface
cppcheck --quiet --std=c++17 --enable=warning,performance,portability --inline-suppr -j2 \
  --error-exitcode=1 --suppress=missingIncludeSystem --suppress=passedByValue \
  -Iinclude -Isrc src include

title "OpenSSL 1.0.2"
scripts/openssl-1.0.2.sh

title "size of the stripped library"
build release hutil
strip -o build/release/stripped build/release/src/libhutil.so.0.1.0
printf '%-8s %8d bytes\n' "$(uname -m)" "$(stat -c %s build/release/stripped)"

title "manual"
scripts/docs.sh

title "binary interface"
scripts/abi.sh check

title "packages"
scripts/package.sh --no-try "$(dpkg --print-architecture)"

title "32-bit ARM"
scripts/armhf.sh

title "fuzz targets, ten seconds each"
scripts/fuzz.sh 10

title "benchmarks, a moment of each"
scripts/bench.sh --moment >build/bench-moment.txt || { cat build/bench-moment.txt; exit 1; }
tail -n 1 build/bench-moment.txt

for preset in asan tsan clang; do
  title "suite: $preset"
  build "$preset"
  ctest --preset "$preset" -j2
done
