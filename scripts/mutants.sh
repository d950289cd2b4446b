#!/bin/sh
# mutants.sh [--sample N] [--seed N] [--files GLOB...] [--diff REV] [--only ID] [--patches] [--list] [--jobs N] ...
# Puts faults into src/util, one at a time and in a scratch copy, and counts by room how many of them the tests find.
# A fault is a small edit that Clang's syntax tree allows for, or with --patches one made by hand (scripts/mutants.d/).
# Fails where a room's score or that of all is too low. Survivors are shown at the end and kept in
# build/mutants/results.json; those that change nothing belong into scripts/mutants.equivalent. --help says the rest.
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh build test mutants
exec /usr/bin/python3 -B scripts/mutants.py "$@"
