#!/bin/bash
# armhf.sh: the library as 32-bit ARM has it. Both compilers build it, its interface is the same with 32 and with 64 bits
# of time_t and however daemons are told to size their enumerations, and the whole suite passes under emulation, but for
# what scripts/emulate.sh lists.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build test armhf
scripts/sysroot-armhf.sh

build() { # PRESET [TARGET]
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" ${2:+--target "$2"}
}

build armhf
build armhf-time64 hutil
build armhf-clang hutil

arm-linux-gnueabihf-strip -o build/armhf/stripped build/armhf/src/libhutil.so.0
printf '%-8s %8d bytes\n' armhf "$(stat -c %s build/armhf/stripped)"

scripts/abi.sh check build/armhf/src/libhutil.so
# The names of calls that glibc widens tell that the two builds do differ.
arm-linux-gnueabihf-nm -D build/armhf-time64/src/libhutil.so.0 | grep __select64 >/dev/null
abidiff --headers-dir1 include --headers-dir2 include build/{armhf,armhf-time64}/src/libhutil.so.0
echo 'the interface is the same with 32 and with 64 bits of time_t'

for short in '' -fshort-enums; do
  arm-linux-gnueabihf-g++ $short -std=c++11 -Iinclude -fsyntax-only -x c++ - <<'SIZES'
#include "util/EventDic.h"
#include "util/FdMonitor.h"
#include "util/HttpRequest.h"
#include "util/Result.h"
#include "util/Socket.h"
#include "util/SslWrapper.h"
using namespace hvn::util;
static_assert(sizeof(Socket::Protocol) == 1 && sizeof(Socket::Domain) == 1, "one byte");
static_assert(sizeof(hvn::Result) == 4 && sizeof(FdType) == 4 && sizeof(EventDic::EventType) == 4 &&
              sizeof(EventDic::Param) == 4 && sizeof(HttpRequest::Method) == 4 &&
              sizeof(SslWrapper::Method) == 4 && sizeof(SslWrapper::FileType) == 4, "four bytes");
SIZES
done

ctest --preset armhf -j2 | tee build/armhf/results
scripts/emulate.sh --skips | while IFS=: read -r name reason; do
  grep -q "$name .*Skipped" build/armhf/results || { echo "emulate.sh: $name is no test, or ran" >&2; exit 1; }
  echo "skipped: $name:$reason"
done
