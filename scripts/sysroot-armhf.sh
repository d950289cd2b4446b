#!/bin/sh
# sysroot-armhf.sh [FOLDER]
# Puts the libraries and headers that a 32-bit ARM build needs into FOLDER (build/sysroot-armhf), extracted from the
# packages of this Debian release, from wherever this machine's apt gets its own. Root is not needed.
set -eu
cd "$(dirname "$0")/.."
sysroot=${1:-build/sysroot-armhf}
packages=libc6-dev,libstdc++-12-dev,libssl-dev,libcurl4-openssl-dev,libgtest-dev,libgmock-dev
if [ "$(cat "$sysroot/complete" 2>/dev/null)" = "$packages" ]; then exit 0; fi
scripts/setup.sh build test armhf # with what configuring asks for

# shellcheck source=/dev/null
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
# shellcheck disable=SC2016  # apt fills these in
sources=$(apt-get indextargets --format 'deb [arch=armhf] $(REPO_URI) $(RELEASE) $(COMPONENT)' \
  'Origin: Debian' "Codename: $codename" 'Created-By: Packages' | sort -u)
[ -n "$sources" ] || { echo "sysroot-armhf.sh: apt knows no source of Debian $codename; apt-get update?" >&2; exit 1; }

echo "sysroot-armhf.sh: making $sysroot"
making=$sysroot.making
rm -rf "$sysroot" "$making"
mkdir -p "$making"
echo "$sources" | mmdebstrap --variant=extract --architectures=armhf --include="$packages" --format=tar \
  --aptopt='Acquire::Retries "3"' '' "$making/all.tar" - 2>"$making/log" || { cat "$making/log" >&2; exit 1; }
# Only what builds need: an emulator takes every other path from the machine itself.
tar -C "$making" --no-same-owner -xf "$making/all.tar" ./lib ./usr/lib ./usr/include
rm "$making/all.tar" "$making/log"
find "$making" -type l -lname '/*' | while read -r link; do
  ln -sf --relative "$making$(readlink "$link")" "$link"
done
echo "$packages" >"$making/complete"
mv "$making" "$sysroot"
