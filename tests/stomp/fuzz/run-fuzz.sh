#!/usr/bin/env bash
# Builds the libFuzzer target for the STOMP frame parser with clang and runs it.
#
#   bash tests/stomp/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Writes under <builddir>/stomp-fuzz. Exits non-zero if the build fails or the fuzzer
# finds a crash, a leak or a broken property. Needs clang++ and the Qt 6 Core headers.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: $0 <builddir> [seconds]" >&2; exit 2; }
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../../.." && pwd)"
source "$root/tests/support/libfuzzer.sh"

run_libfuzzer "$1" stomp-fuzz "${2:-30}" "$here/seeds" "$here/stomp.dict" \
    -I"$root/src" "$root/src/stomp/stompframe.cpp" "$here/stompframe_fuzz.cpp"
