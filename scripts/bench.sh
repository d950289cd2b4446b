#!/bin/bash
# bench.sh [--moment] [--keep] [--rounds N] [--seconds S] [--only ROW]
# Measures the library beside what a daemon's author would pick instead, all of it built here with the same flags: a
# good twenty minutes of a machine with nothing else to do. One table on the terminal; results.json, results.md,
# ratios.svg and growth.svg in build/bench. --keep puts the figures into docs/performance.md too. --moment only shows
# that everything runs. All happens on a loopback of its own and ends by itself.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1-}" = --inside ]; then
  shift
  if [ -e /dev/kmsg ]; then # this machine's kernel log hears nothing of it
    : >/tmp/kmsg
    mount --bind /tmp/kmsg /dev/kmsg
  fi
  echo "1024 65000" >/proc/sys/net/ipv4/ip_local_port_range # many short connections
  echo reno >/proc/sys/net/ipv4/tcp_congestion_control      # always there, and paces nothing
  exec python3 bench/run.py "$@"
fi

scripts/setup.sh build bench
cmake -S bench -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O2 >/dev/null
cmake --build build/bench -j2 >build/bench/build.txt || { cat build/bench/build.txt; exit 1; }
commit=$(git describe --always --dirty 2>/dev/null || echo unknown)
exec scripts/isolate.sh scripts/bench.sh --inside --build build/bench --commit "$commit" "$@"
