#!/bin/sh
# setup.sh GROUP...
# Installs the Debian 12 packages that the groups (build, test, demo, check) need and this machine lacks.
set -eu

wanted=
for group in "$@"; do
  case $group in
    build) wanted="$wanted cmake ninja-build g++ libssl-dev libcurl4-openssl-dev" ;;
    test) wanted="$wanted binutils iproute2 libgmock-dev libgtest-dev openssl util-linux" ;;
    demo) wanted="$wanted iproute2 openssl util-linux" ;;
    check)
      wanted="$wanted clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev cppcheck shellcheck"
      ;;
    *)
      echo "setup.sh: no group '$group' (build, test, demo, check)" >&2
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
