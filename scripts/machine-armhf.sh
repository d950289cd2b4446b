#!/bin/bash
# machine-armhf.sh [CTEST_ARGUMENT...]
# Runs the whole suite and the demo on a 32-bit ARM kernel: builds them here with the cross compiler, boots Debian's
# kernel under qemu-system-arm, and has that machine's own ctest, tools and compiler run them there. Succeeds only when
# every test and the demo passed and none was skipped. With arguments, it runs what ctest chooses by them, and no demo.
# The build is in build/armhf-machine; all else, with the console's text, in build/machine-armhf.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/armhf-machine
made=build/machine-armhf
seconds=3600 # for all of it, however slow this machine is
passed_mark='machine-armhf.sh: all is well'

# The kernel and what runs on it at all; then what the tests, the examples and the demo call; then what builds there.
packages="linux-image-armmp,kmod,?essential,mawk\
,busybox,dnsmasq-base,iproute2,mount,openssl,procps,python3,udhcpc,util-linux\
,binutils,cmake,g++,libcurl4-openssl-dev,libgmock-dev,libgtest-dev,libssl-dev,ninja-build,pkg-config"

fail() { echo "machine-armhf.sh: $*" >&2; exit 1; }

archive() { # FOLDER FILE: as the kernel unpacks it over its first root
  (cd "$1" && find . -xdev -path './dev/*' -prune -o -print0 | busybox cpio -0 -o -H newc 2>/dev/null) |
    zstd -q -f -o "$2"
}

# ---- The host: the system's archive once, the build and its archive each time ----

extract_system() { # Packages are unpacked and not configured: ARM programs would have to run here for that.
  local codename sources
  # shellcheck source=/dev/null
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  # shellcheck disable=SC2016  # apt fills these in
  sources=$(apt-get indextargets --format 'deb [arch=armhf] $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Origin: Debian' "Codename: $codename" 'Created-By: Packages' | sort -u)
  [ -n "$sources" ] || fail "apt knows no source of Debian $codename; apt-get update?"
  echo "$sources" | mmdebstrap --variant=extract --architectures=armhf --include="$packages" --format=null \
    --aptopt='Acquire::Retries "3"' --extract-hook="$PWD/scripts/machine-armhf.sh --pack \"\$1\"" \
    '' /dev/null - 2>"$made/log" || { cat "$made/log" >&2; exit 1; }
}

pack_system() { # ROOT: what configuring would have made, without what nobody uses there
  local made=$PWD/$made version
  cd "$1"
  version=$(basename lib/modules/*)
  cp "boot/vmlinuz-$version" "$made/vmlinuz"
  rm -rf boot var/cache/apt/archives/*.deb usr/share/{doc,man,locale} "lib/modules/$version/kernel/sound"
  find "lib/modules/$version/kernel/drivers" -mindepth 1 -maxdepth 1 ! -name net -exec rm -r {} +
  find "lib/modules/$version/kernel/drivers/net" -mindepth 1 -maxdepth 1 -type d -exec rm -r {} +
  depmod -b . "$version"
  ln -s mawk usr/bin/awk
  cp usr/share/base-passwd/passwd.master etc/passwd
  cp usr/share/base-passwd/group.master etc/group
  cp usr/share/libc-bin/nsswitch.conf etc/nsswitch.conf
  printf '%s localhost\n' 127.0.0.1 ::1 >etc/hosts
  archive . "$made/system"
}

make_system() {
  [ "$(cat "$made/complete" 2>/dev/null)" != "$packages" ] || return 0
  echo "machine-armhf.sh: making $made/system"
  rm -rf "$made"
  mkdir -p "$made"
  extract_system
  echo "$packages" >"$made/complete"
}

make_tree() { # CTEST_ARGUMENT...: this checkout and its build, at the same place over there, and the first program
  local tree=$made/tree
  rm -rf "$tree"
  mkdir -p "$tree$PWD"
  tar -c --exclude=./build --exclude=./.git . | tar -x -C "$tree$PWD"
  tar -c --exclude='*.o' "$build" | tar -x -C "$tree$PWD"
  ln -s / "$tree$PWD/build/sysroot-armhf" # what is a folder here is the whole of it there
  printf '#!/bin/sh\nexec %q/scripts/machine-armhf.sh --inside' "$PWD" >"$tree/init"
  [ $# = 0 ] || printf ' %q' "$@" >>"$tree/init"
  chmod +x "$tree/init"
  archive "$tree" "$PWD/$made/archive"
  cat "$made/system" "$made/archive" >"$made/initramfs"
  rm -rf "$tree" "$made/archive"
}

boot() { # The kernel hands its first program STARTED as a variable.
  timeout --foreground --kill-after=10 "$seconds" qemu-system-arm -M virt,highmem=off -cpu cortex-a15 -smp 2 -m 2048 \
    -nic none -display none -monitor none -serial stdio -no-reboot -kernel "$made/vmlinuz" -initrd "$made/initramfs" \
    -append 'console=ttyAMA0 quiet panic=-1'" STARTED=$EPOCHSECONDS" </dev/null
}

# ---- The machine ----

mount_all() {
  mount -t proc proc /proc
  mount -t sysfs sysfs /sys
  mount -t devtmpfs devtmpfs /dev
  mkdir -p /dev/pts /dev/shm
  ln -s /proc/self/fd /dev/fd
  mount -t devpts devpts /dev/pts
  mount -t tmpfs tmpfs /dev/shm
  ip link set lo up
}

suite() { # CTEST_ARGUMENT...: fails unless every test ran and passed
  local results=/tmp/results outcome=0 total passed skipped
  ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --no-tests=error "$@" 2>&1 | tee "$results" || outcome=1
  total=$(grep -cE '^ *([0-9/]+ )?Test +#' "$results") || :
  passed=$(grep -cE '^ *([0-9/]+ )?Test +#.* Passed ' "$results") || :
  skipped=$(grep -cE '^ *([0-9/]+ )?Test +#.*\*\*\*Skipped ' "$results") || :
  echo "machine-armhf.sh: $passed passed, $((total - passed - skipped)) failed, $skipped skipped"
  [ "$outcome" = 0 ] && [ "$passed" = "$total" ] # to ctest a skipped test is a passed one
}

inside() { # CTEST_ARGUMENT...
  local outcome=0
  export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb
  trap 'busybox poweroff -f' EXIT
  mount_all
  stty -onlcr
  echo "machine-armhf.sh: $(uname -srm), booted in $((EPOCHSECONDS - STARTED)) s"
  export DEMO_PATIENCE=12 # for the suite's run of the demo too
  suite "$@" || outcome=1
  [ $# -gt 0 ] || timeout 600 scripts/demo.sh --no-build "$build" 2>&1 | cat || outcome=1
  [ "$outcome" = 0 ] && echo "$passed_mark"
}

case ${1-} in
  --pack) pack_system "$2"; exit ;;
  --inside) inside "${@:2}" </dev/console; exit ;;
esac

scripts/setup.sh build test armhf machine
scripts/sysroot-armhf.sh
cmake --preset armhf-machine >/dev/null
cmake --build --preset armhf-machine
make_system
make_tree "$@"
boot | tee "$made/console" || : # its text tells
grep -qx "$passed_mark" "$made/console" || fail "not all is well; $made/console"
echo "machine-armhf.sh: $SECONDS s in all"
