#!/bin/bash
# fuzz.sh SECONDS [TARGET...]
# Runs each fuzz target (see fuzz/) for that many seconds, FUZZ_JOBS (2) at a time, each in namespaces of its own, and
# says how much it tried and what it found. Fails where it found anything; 77 means that this machine refuses namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/fuzz

usage() { echo "usage: fuzz.sh SECONDS [TARGET...]" >&2; exit 2; }

stat_of() { # NAME LOG
  sed -n "s/^stat::$1: *//p" "$2"
}

run() { # SECONDS TARGET
  local seconds=$1 target=$2 log=$build/log/$2.txt status=0
  local seeds=fuzz/corpus/$target
  [ "$target" != CertTypeFuzz ] || seeds=$build/certs
  mkdir -p "$build/corpus/$target" "$build/findings" "$build/log"
  scripts/isolate.sh "$build/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -timeout=20 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$build/corpus/$target" "$seeds" >"$log" 2>&1 </dev/null || status=$?
  printf '%-15s %12s executions, %7s a second, %s edges covered, %s\n' "$target" \
    "$(stat_of number_of_executed_units "$log")" "$(stat_of average_exec_per_sec "$log")" \
    "$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' "$log" | tail -n 1)" \
    "$([ $status = 0 ] && echo "no finding" || echo "A FINDING")"
  [ $status != 0 ] || return 0
  grep -E 'not so:|ERROR|SUMMARY|runtime error|Test unit written' "$log" || tail -n 20 "$log"
  echo "fuzz.sh: the whole report is $log; again: scripts/isolate.sh $build/fuzz/$target FILE"
  return 1
}

[[ ${1-} =~ ^[1-9][0-9]*$ ]] || usage
if [ "${2-}" = --alone ]; then
  run "$1" "$3"
  exit
fi
for target in "${@:2}"; do
  [ -f "fuzz/$target.cpp" ] || usage
done
scripts/setup.sh build fuzz
scripts/isolate.sh true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2 >"$build/build.txt" || { cat "$build/build.txt"; exit 1; }
scripts/make-certs.sh "$build/certs"
if [ $# = 1 ]; then
  for source in fuzz/*Fuzz.cpp; do set -- "$@" "$(basename "$source" .cpp)"; done
fi
printf '%s\n' "${@:2}" | xargs -P "${FUZZ_JOBS:-2}" -n 1 scripts/fuzz.sh "$1" --alone
