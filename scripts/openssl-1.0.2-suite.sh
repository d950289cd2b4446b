#!/bin/bash
# openssl-1.0.2-suite.sh [CTEST-ARGUMENT...]
# Builds OpenSSL 1.0.2 from the sources that an npm package happens to carry, then the library and its tests against it,
# and runs the suite, or what ctest's arguments choose of it. For x86-64. Only the first run takes minutes:
# build/openssl-1.0.2 keeps everything. Needs npm, which no group of setup.sh brings: Debian's does not go with
# a Node from elsewhere. scripts/strangers.sh --build build/openssl-1.0.2 shows the same build to others, and
# scripts/isolate.sh build/openssl-1.0.2/soak/soak SECONDS CERTIFICATE KEY to the storms.
set -eEuo pipefail
cd "$(dirname "$0")/.."
package=nodegit@0.22.2 # OpenSSL 1.0.2h
digest=b9fb888f48b5752d7c56f0efc797fc325e8edf1123c166545cb50c6be6ace61c
build=$PWD/build/openssl-1.0.2
sources=$build/sources
openssl=$build/openssl

fetch() {
  rm -rf "$sources"
  mkdir -p "$sources"
  (cd "$sources" && npm pack --silent "$package" >/dev/null)
  echo "$digest  $(echo "$sources"/*.tgz)" | sha256sum --check --quiet
  tar -xzf "$sources"/*.tgz -C "$sources" --strip-components=4 package/vendor/openssl/openssl
}

compile() {
  cd "$sources"
  perl Configure linux-x86_64 no-asm no-engine no-shared no-zlib no-dso -fPIC
  nice make -j2 build_crypto build_ssl
  cd - >/dev/null
}

# Libraries with versioned symbols: libcurl brings another OpenSSL into the same process.
link() { # NAME LIBRARY...
  local name=lib$1.so.1.0.2
  echo 'OPENSSL_1.0.2 { global: *; };' >"$sources/versions"
  cc -shared -o "$openssl/lib/$name" -Wl,-soname,"$name" -Wl,--version-script="$sources/versions" -Wl,--no-undefined \
    -Wl,--whole-archive "$sources/lib$1.a" -Wl,--no-whole-archive "${@:2}"
  ln -sf "$name" "$openssl/lib/lib$1.so"
}

install() {
  mkdir -p "$openssl/lib"
  cp -rL "$sources/include" "$openssl/"
  link crypto -ldl -lpthread
  link ssl -L"$openssl/lib" -lcrypto
}

scripts/setup.sh build test openssl-1.0.2
if [ ! -e "$openssl/lib/libssl.so" ]; then
  command -v npm >/dev/null || { echo "openssl-1.0.2-suite.sh: npm is missing" >&2; exit 1; }
  fetch
  trap 'tail "$build/openssl.txt" >&2' ERR
  { compile; install; } >"$build/openssl.txt" 2>&1
  trap - ERR
fi
cmake --preset dev -B "$build" -DOPENSSL_ROOT_DIR="$openssl" -DHUTIL_BUILD_EXAMPLES=OFF >/dev/null
nice cmake --build "$build" -j2
ldd "$build/src/libhutil.so" | grep -F libssl.so.1.0.2
# Not for 1.0.2: TLS 1.3, ephemeral curves of plain servers, sessions that an error ends. Nor a build with the system's.
not_for=Consumer.BuildsWith,Tls.ModernTlsIsTheNewest,Tls.OnlyTheVersionAskedFor,Tls.FailedTransferLeavesNoErrorBehind
exec ctest --test-dir "$build" -j2 --output-on-failure -E "${not_for//,/|}" "$@"
