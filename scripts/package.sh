#!/bin/bash
# package.sh [--no-try] [ARCHITECTURE...]
# Makes the Debian packages libhutil0 and libhutil-dev in build/packages, for each ARCHITECTURE (this machine's, and
# armhf through the cross compiler; both where none is given), and has lintian look at them. Then, for this machine's,
# builds examples/consumer in a bare Debian root that has nothing of ours but the two packages, and runs it in another
# that has libhutil0 only. --no-try leaves that out.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build package
# shellcheck source=/dev/null
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
native=$(dpkg --print-architecture)
packages=build/packages

fail() { printf 'package.sh: %s\n' "$@" >&2; exit 1; }

make_packages() { # ARCHITECTURE
  local build=build/package-$1 preset=release
  if [ "$1" != "$native" ]; then
    preset=$1
    scripts/sysroot-armhf.sh
  fi
  cmake --preset "$preset" -B "$build" -DHUTIL_BUILD_TESTS=OFF -DHUTIL_BUILD_EXAMPLES=OFF \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -a"$1" -qDEB_HOST_MULTIARCH)" >/dev/null
  cmake --build "$build" >/dev/null
  (cd "$build" && cpack -B "$OLDPWD/$packages" >cpack.log 2>&1) || { cat "$build/cpack.log" >&2; exit 1; }
  rm -rf "$packages/_CPack_Packages"
}

inspect() { # ARCHITECTURE
  # No upload to Debian is closed by a bug number there; CPack calls ldconfig in scripts beside the trigger.
  lintian --allow-root --fail-on error,warning \
    --suppress-tags initial-upload-closes-no-bugs,maintscript-calls-ldconfig "$packages"/libhutil*_"$1".deb
}

depends() { # ARCHITECTURE: names of the packages that libhutil0 needs
  dpkg-deb -f "$packages"/libhutil0_*_"$1".deb Depends | tr ',' '\n' | awk '{ print $1 }' | sort
}

bare_root() { # MMDEBSTRAP_OPTION...: made, used by its hooks, and gone
  # shellcheck disable=SC2016  # apt fills these in
  apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Origin: Debian' "Codename: $codename" 'Created-By: Packages' | sort -u |
    mmdebstrap --variant=apt --format=null --aptopt='Acquire::Retries "3"' \
      --hook-dir=/usr/share/mmdebstrap/hooks/eatmydata \
      --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount "$@" '' /dev/null - 2>build/bare-root.log ||
    { tail -n 40 build/bare-root.log >&2; exit 1; }
}

try_packages() {
  local runtime dev
  runtime=$(realpath "$packages"/libhutil0_*_"$native".deb)
  dev=$(realpath "$packages"/libhutil-dev_*_"$native".deb)
  # shellcheck disable=SC2016  # $1 is the root, for the hooks
  bare_root --include="$runtime" --include="$dev" --include=g++,cmake,make,pkg-config \
    --customize-hook='mkdir -p "$1/try/examples" && cp -r scripts "$1/try" && cp -r examples/consumer "$1/try/examples"' \
    --customize-hook='chroot "$1" /try/scripts/consumer.sh /try/work >&2' \
    --customize-hook="cp \"\$1/try/work/consumer\" $packages/consumer"
  grep '^consumer.sh:' build/bare-root.log
  # shellcheck disable=SC2016
  bare_root --include="$runtime" \
    --customize-hook="cp $packages/consumer \"\$1/tmp\"" \
    --customize-hook='chroot "$1" /tmp/consumer && echo "package.sh: serves where libhutil0 alone is installed" >&2'
  grep '^package.sh:' build/bare-root.log
  rm "$packages/consumer" build/bare-root.log
}

try=yes
[ "${1-}" != --no-try ] || { try=; shift; }
[ $# -gt 0 ] || set -- "$native" armhf

rm -rf "$packages"
mkdir -p "$packages"
for architecture in "$@"; do
  echo "package.sh: $architecture"
  make_packages "$architecture"
  inspect "$architecture"
done
if [ -e "$(echo "$packages"/libhutil0_*_"$native".deb)" ]; then
  for architecture in "$@"; do
    diff <(depends "$native") <(depends "$architecture") ||
      fail "libhutil0 for $architecture needs other packages than dpkg-shlibdeps found for $native:" \
        "mend CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS in cmake/HutilPackage.cmake"
  done
  [ -z "$try" ] || { echo "package.sh: trying them in a bare root" && try_packages; }
fi
ls -l "$packages"
