#!/usr/bin/env bash
# Builds and runs every fuzzer (tests/*/fuzz/run-fuzz.sh) into build/, each on one processor:
# as many at once as there are processors, each for its full time. A fuzzer's output is shown
# whole when it fails, its closing stats otherwise; the logs stay in build/fuzz-<name>.log.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build
# shellcheck disable=SC2016
printf '%s\n' tests/*/fuzz/run-fuzz.sh | xargs -P "$(nproc)" -I{} bash -c '
    log="build/fuzz-$(basename "$(dirname "$(dirname "$1")")").log"
    if bash "$1" build >"$log" 2>&1; then
        echo "-- $1 passed: $(grep "^Done " "$log")"
    else
        echo "-- $1 FAILED"; cat "$log"; exit 1
    fi' _ {}
