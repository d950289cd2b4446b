#!/bin/sh
# emulate.sh --skips | PROGRAM [ARGUMENT...]
# Runs a program that was built for 32-bit ARM on this machine's kernel, the libraries coming from
# scripts/sysroot-armhf.sh's folder; --skips lists what user emulation cannot run.
set -eu

# Each test that asks for what the emulator lacks, and why.
skips='
KernelEvents.TellOfRulesAndQueues: qemu 7.2 refuses netlink messages about rules and queues
'

if [ "$1" = --skips ]; then
  printf '%s' "${skips#?}"
  exit 0
fi
line_end='
'
for argument in "$@"; do
  reason=${skips#*"$line_end${argument#--gtest_filter=}: "}
  [ "$reason" = "$skips" ] || { echo "skipped under emulation: ${reason%%"$line_end"*}"; exit 77; }
done
exec qemu-arm-static -L "$(dirname "$0")/../build/sysroot-armhf" "$@"
