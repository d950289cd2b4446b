#!/bin/sh
# test.sh: from a checkout to the results of the whole suite.
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh build test
cmake --preset dev
cmake --build --preset dev
ctest --preset dev --output-on-failure -j2
