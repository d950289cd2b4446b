#!/bin/sh
# isolate.sh COMMAND [ARGUMENT...]
# Runs COMMAND in network and mount namespaces of its own: lo up, a veth pair hutil0 (10.77.0.1/24) - hutil1
# (10.77.0.2/24), empty private /data, /var/lib/misc, /run and /tmp, an /etc/hosts that knows localhost only, a /sys that
# shows these interfaces, everything else as it is. Nothing remains afterwards. COMMAND replaces the shell, so its exit status and signals are its own; 77 means
# that this machine refuses namespaces.
set -eu

refuse() {
  echo "isolate.sh: $1" >&2
  exit 77
}

if [ "${1-}" != --inside ]; then
  [ $# -gt 0 ] || { echo "usage: isolate.sh COMMAND [ARGUMENT...]" >&2; exit 2; }
  # A list of tests needs no isolation, and is wanted where there is none.
  case " $* " in *' --gtest_list_tests '*) exec "$@" ;; esac
  set -- --inside "$@"
  if [ "$(id -u)" = 0 ]; then set -- -nm "$0" "$@"; else set -- -nmr "$0" "$@"; fi
  words=$(unshare "$1" true 2>&1) || refuse "this machine refuses network and mount namespaces: $words"
  exec unshare "$@"
fi
shift

{ echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad; } 2>/dev/null || : # addresses serve at once
ip -batch - <<'LINKS' || refuse "cannot make the veth pair"
link set lo up
link add hutil0 type veth peer name hutil1
addr add 10.77.0.1/24 dev hutil0
addr add 10.77.0.2/24 dev hutil1
link set hutil0 up
link set hutil1 up
LINKS

# The new root is put together over /sys, which is mounted afresh anyway, from one table of mounts.
here=$PWD
root=/sys
mount -t tmpfs -o mode=755 hutil $root || refuse "cannot mount a private root"
folders="$root/sys $root/data $root/run $root/tmp"
links=
table="sysfs $root/sys sysfs defaults 0 0"
for entry in /*; do
  case $entry in
    /sys | /data | /run | /tmp | *[[:space:]]*) continue ;;
    /etc) [ -e /etc/hosts ] || continue ;; # made below, where it can be without touching this machine's
  esac
  if [ -L "$entry" ]; then
    links="$links $entry"
  elif [ -d "$entry" ]; then
    folders="$folders $root$entry"
    table="$table
$entry $root$entry none rbind 0 0"
  fi
done
misc=/var/lib/misc
[ -d $misc ] || misc=/var/lib # made below, where only this namespace sees it
table="$table
hutil $root$misc tmpfs mode=755 0 0"

# A checkout below /tmp stays in sight.
for path in "$here" "$1"; do
  case $path in
    /tmp/*)
      below=${path#/tmp/}
      top=/tmp/${below%%/*}
      [ -d "$top" ] || continue
      folders="$folders $root$top"
      table="$table
$top $root$top none rbind 0 0"
      ;;
  esac
done

# shellcheck disable=SC2086  # lists of names without blanks
mkdir -p $folders
chmod 1777 $root/tmp
# shellcheck disable=SC2086
[ -z "$links" ] || cp -P $links $root
[ -e /etc/hosts ] || cp -a /etc $root 2>/dev/null || : # as far as it can be read
printf '127.0.0.1 localhost\n::1 localhost\n' >$root/hosts
: >>$root/etc/hosts
echo "$table
$root/hosts $root/etc/hosts none bind 0 0" >$root/mounts
mount -a -T $root/mounts || refuse "cannot mount the private root"
rm $root/mounts
mkdir -p $root/var/lib/misc
exec chroot $root env -C "$here" "$@"
