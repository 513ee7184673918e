#!/usr/bin/env bash
# Builds the libFuzzer target for what card terminals on the network send (listener cut,
# KIS answers, SMARTRO replies) with clang and runs it.
#
#   bash tests/tcp/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Writes under <builddir>/tcp-fuzz. Exits non-zero if the build fails or the fuzzer finds a
# crash, a leak or a broken property. Needs clang++ and the Qt 6 Core headers.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: $0 <builddir> [seconds]" >&2; exit 2; }
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../../.." && pwd)"
source "$root/tests/support/libfuzzer.sh"

run_libfuzzer "$1" tcp-fuzz "${2:-30}" "$here/seeds" "" \
    -I"$root/src" \
    "$root/src/terminal_tcp/terminalanswers.cpp" "$root/src/common/cp949.cpp" \
    "$here/terminalanswers_fuzz.cpp"
