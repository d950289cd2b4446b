#!/bin/bash
# openssl-1.0.2.sh: compiles the TLS sources with the declarations of OpenSSL 1.0.2 alone, so that a call that a later
# release brought fails outside a version guard.
set -euo pipefail
cd "$(dirname "$0")/.."
headers=$(mktemp -d)
trap 'rm -r "$headers"' EXIT
mkdir "$headers/openssl"
for name in bio crypto err evp pem ssl x509; do
  ln -s "$PWD/cmake/openssl-1.0.2.h" "$headers/openssl/$name.h"
done

mapfile -t sources < <(grep -lE 'openssl/|OpenSsl' src/util/*.cpp src/util/internal/*.cpp)
for source in "${sources[@]}"; do
  ${CXX:-g++} -std=c++17 -fsyntax-only -Wall -Wextra -Werror -Iinclude -Isrc -I"$headers" -MD -MF "$headers/used" "$source"
  if tr ' ' '\n' <"$headers/used" | grep '/openssl/' | grep -vF "$headers"; then
    echo "openssl-1.0.2.sh: $source includes the above; cmake/openssl-1.0.2.h does not know of it" >&2
    exit 1
  fi
done
echo "OpenSSL 1.0.2 is enough for ${sources[*]}"
