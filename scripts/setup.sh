#!/bin/sh
# setup.sh GROUP...
# Installs the Debian 12 packages that the groups (see the case below) need and this machine lacks.
set -eu

wanted=
for group in "$@"; do
  case $group in
    build) wanted="$wanted cmake ninja-build g++ libssl-dev libcurl4-openssl-dev pkg-config" ;;
    test)
      # The end-to-end test is the demo.
      wanted="$wanted binutils busybox dnsmasq-base iproute2 libgmock-dev libgtest-dev openssl pkg-config python3 udhcpc"
      wanted="$wanted util-linux"
      ;;
    demo) wanted="$wanted busybox dnsmasq-base iproute2 libgmock-dev libgtest-dev openssl udhcpc util-linux" ;;
    check)
      wanted="$wanted clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev cppcheck shellcheck"
      ;;
    armhf) wanted="$wanted abigail-tools clang-14 g++-arm-linux-gnueabihf mmdebstrap qemu-user-static" ;;
    machine) wanted="$wanted busybox kmod mmdebstrap qemu-system-arm zstd" ;;
    abi) wanted="$wanted abigail-tools binutils" ;;
    package) wanted="$wanted dpkg-dev file lintian mmdebstrap" ;;
    coverage) wanted="$wanted gcovr" ;;
    openssl-1.0.2) wanted="$wanted gcc make perl" ;;
    docs) wanted="$wanted doxygen" ;;
    strangers)
      wanted="$wanted curl gnutls-bin iproute2 nodejs openssl procps python3 sslscan testssl.sh util-linux"
      ;;
    mutants) wanted="$wanted git patch python3-clang-14 rsync util-linux" ;;
    fuzz) wanted="$wanted clang-14 iproute2 libclang-rt-14-dev openssl util-linux" ;;
    bench)
      wanted="$wanted iproute2 libasio-dev libevent-dev libmnl-dev libsqlite3-dev libuv1-dev openssl pkg-config procps"
      wanted="$wanted python3 sysvinit-utils util-linux"
      ;;
    *)
      echo "setup.sh: no group '$group' (build, test, demo, check, armhf, machine, abi, package, coverage, docs," \
        "bench, fuzz, mutants, openssl-1.0.2, strangers)" >&2
      exit 2
      ;;
  esac
done

if ! command -v dpkg-query >/dev/null; then
  echo "setup.sh: this is no Debian; install what matches:$wanted" >&2
  exit 1
fi
# shellcheck disable=SC2086  # a list of names
have=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $wanted 2>/dev/null || :)
missing=
for package in $wanted; do
  printf '%s\n' "$have" | grep -qx "installed $package" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

as_root=
if [ "$(id -u)" != 0 ]; then
  as_root=sudo
  if ! command -v sudo >/dev/null; then
    echo "setup.sh: neither root nor sudo; have an administrator install:$missing" >&2
    exit 1
  fi
fi
echo "setup.sh: installing$missing"
$as_root apt-get update -qq
# shellcheck disable=SC2086
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends $missing
