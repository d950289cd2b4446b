#!/bin/sh
# soak.sh MINUTES [PRESET]
# Keeps a clear and a TLS server under storms of clients for so long, after a short warm-up, with timers and settings
# at work beside them, all in namespaces of its own. Fails where a byte is lost, or where the daemon ends up with more
# descriptors, threads or memory than it had. PRESET is release where none is given; with asan or tsan the sanitizer
# watches memory instead.
set -eu
cd "$(dirname "$0")/.."

case ${1-} in
  '' | 0 | *[!0-9]*) echo "usage: soak.sh MINUTES [PRESET]" >&2; exit 2 ;;
esac
preset=${2:-release}
build=build/soak-$preset

scripts/setup.sh build test
cmake --preset "$preset" -B "$build" -DHUTIL_BUILD_TESTS=ON >/dev/null
cmake --build "$build" --target soak
set -- "$build/soak/soak" $(($1 * 60)) "$build/tests/certs/server.pem" "$build/tests/certs/server-key.pem"
# Thread sanitizer cannot place its shadow memory when the kernel randomises too many bits.
[ "$preset" != tsan ] || set -- setarch -R "$@"
export ASAN_OPTIONS=fast_unwind_on_malloc=0
export LSAN_OPTIONS="suppressions=$PWD/cmake/lsan.supp:print_suppressions=0"
exec scripts/isolate.sh "$@"
