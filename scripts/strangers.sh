#!/bin/bash
# strangers.sh [--build DIR] [GROUP...]
# Other people's programs and bad weather against the library: auditors (testssl.sh and sslscan), clients and servers
# (openssl, GnuTLS, Node, Python, curl), half-close, crowds (silent, dripping and resetting peers, no descriptors),
# signals, log (a syslogd that stops reading), settings (full media, processes, SIGKILLs), http (servers that
# misbehave). A row each, with the figure that it must keep and the one that it had. Exits 0 only where all rows hold.
# Two minutes for all groups. --build takes the program of DIR, configured already. Everything happens in namespaces
# of its own.
set -euo pipefail
cd "$(dirname "$0")/.."

# A /dev of our own, for a /dev/log of our own.
private_dev() {
  local name
  mkdir /tmp/dev
  mount -t tmpfs -o mode=755 dev /tmp/dev
  for name in null zero full random urandom tty; do
    : >"/tmp/dev/$name"
    mount --bind "/dev/$name" "/tmp/dev/$name"
  done
  mkdir /tmp/dev/shm
  ln -s /proc/self/fd /tmp/dev/fd
  : >/tmp/dev/kmsg # and this machine's kernel hears nothing of it
  mount --rbind /tmp/dev /dev
}

if [ "${1-}" = --inside ]; then
  mount -t proc proc /proc
  private_dev
  echo "10000 65000" >/proc/sys/net/ipv4/ip_local_port_range # many connections; ports below are the servers'
  exec /usr/bin/python3 -B soak/strangers "${@:2}"
fi

build=build/strangers
if [ "${1-}" = --build ]; then
  build=$2
  shift 2
fi
scripts/setup.sh build test strangers
[ -e "$build/CMakeCache.txt" ] || cmake --preset release -B "$build" -DHUTIL_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j2 --target target >"$build/build.txt" || { cat "$build/build.txt"; exit 1; }
enter=(unshare --pid --fork --kill-child)
[ "$(id -u)" = 0 ] || enter+=(--user --map-root-user)
exec setpriv --pdeathsig KILL "${enter[@]}" scripts/isolate.sh scripts/strangers.sh --inside "$build" "$@"
