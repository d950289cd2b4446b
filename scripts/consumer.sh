#!/bin/sh
# consumer.sh WORK_DIR [BUILD_DIR]
# Builds examples/consumer in WORK_DIR against the installed library, through the CMake package and through pkg-config, and
# runs what comes of it. With BUILD_DIR, what that build installs, moved away from where it was installed; without, what
# this system has installed. CXX, CXXFLAGS and CMAKE_TOOLCHAIN_FILE choose the compiler, CONSUMER_RUNNER holds words to
# run a program through.
set -eu
source=$(cd "$(dirname "$0")/../examples/consumer" && pwd)
work=$1
cxx=${CXX:-c++}
rm -rf "$work"
mkdir -p "$work"

library_dir=
if [ $# -gt 1 ]; then
  cmake --install "$2" --prefix "$work/staged" >"$work/log"
  mv "$work/staged" "$work/prefix"
  library_dir=$(dirname "$(find "$work/prefix" -name libhutil.so.0)")
  export PKG_CONFIG_PATH="$library_dir/pkgconfig"
  unset PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR
  ! grep -rIl "$work/staged" "$work/prefix" || { echo "consumer.sh: these hold absolute paths" >&2; exit 1; }
fi

# CMake's own choice is make, which builds nothing else here.
if command -v ninja >/dev/null; then export CMAKE_GENERATOR=Ninja; fi

run() { # BUILT_BY PROGRAM
  # shellcheck disable=SC2086  # words
  env ${library_dir:+LD_LIBRARY_PATH=$library_dir} ${CONSUMER_RUNNER-} "$2"
  echo "consumer.sh: built through $1, and serves"
}

{
  cmake -S "$source" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_FIND_ROOT_PATH="$work/prefix" &&
    cmake --build "$work/cmake"
} >"$work/log" || { cat "$work/log" >&2; exit 1; }
run "the CMake package" "$work/cmake/consumer"

# shellcheck disable=SC2046,SC2086  # words
$cxx ${CXXFLAGS-} -std=c++11 -o "$work/consumer" "$source/consumer.cpp" $(pkg-config --cflags --libs hutil)
run "pkg-config" "$work/consumer"
