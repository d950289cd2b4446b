#!/bin/bash
# demo.sh [--stay] [--no-build BUILD_DIR]
# Builds gatewayd and shows it at work: a gateway, two LAN hosts and a web server beyond the uplink, each with a network
# of its own, real programs for DHCP, DNS, HTTP and TLS. Exits 0 only when every answer was as it should be, and 77
# where this machine refuses namespaces. Everything lives in one process namespace, which goes with this script.
# --stay ends in a shell on the gateway. --no-build takes the programs of BUILD_DIR as they are. DEMO_RUNNER holds words
# to run those programs through, DEMO_PATIENCE the seconds that gatewayd waits for a peer (2). The chapters are in
# demo/story.sh, hosts and helpers in demo/stage.sh.
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
root=$(cd "$(dirname "$0")/.." && pwd)
enter=(unshare --pid --fork --kill-child)
[ "$(id -u)" = 0 ] || enter+=(--user --map-root-user)

check_namespaces() {
  local words
  words=$("${enter[@]}" --net --mount true 2>&1) && return
  echo "demo.sh: skipped, this machine refuses namespaces: $words"
  exit 77
}

build() {
  local log=build/demo.txt
  cd "$root"
  mkdir -p build
  echo "demo.sh: installing what is missing and building gatewayd, a minute or two the first time ($log)"
  {
    scripts/setup.sh build demo &&
      cmake --preset dev &&
      cmake --build --preset dev --target gatewayd lanclient
  } >$log 2>&1 || { tail -n 40 $log >&2; exit 1; }
}

need() {
  local program
  for program in "$@"; do
    command -v "$program" >/dev/null || { echo "demo.sh: $program is missing, see scripts/setup.sh" >&2; exit 1; }
  done
}

step_inside() { # BUILD_DIR [--stay]
  local child status=0
  cd "$1"
  setpriv --pdeathsig KILL "${enter[@]}" "$root/scripts/isolate.sh" "$root/scripts/demo/story.sh" "$@" <&0 &
  child=$!
  trap 'kill -KILL "$child"; exit 130' INT TERM HUP
  wait "$child" || status=$?
  exit "$status"
}

stay=
build_dir=
while [ $# -gt 0 ]; do
  case $1 in
    --stay) stay=--stay ;;
    --no-build) build_dir=$(cd "${2-}" && pwd) && shift ;;
    *) echo "usage: demo.sh [--stay] [--no-build BUILD_DIR]" >&2; exit 2 ;;
  esac
  shift
done
check_namespaces
[ -n "$build_dir" ] || { build; build_dir=$root/build/dev; }
need busybox dnsmasq ip openssl setpriv tc udhcpc unshare
step_inside "$build_dir" $stay
