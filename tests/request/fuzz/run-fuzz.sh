#!/usr/bin/env bash
# Builds the libFuzzer target for the request frame reader with clang and runs it.
#
#   bash tests/request/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Writes under <builddir>/request-fuzz. Exits non-zero if the build fails or the fuzzer
# finds a crash, a leak or a broken property. Needs clang++, the Qt 6 Core headers and
# simdjson.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: $0 <builddir> [seconds]" >&2; exit 2; }
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../../.." && pwd)"
source "$root/tests/support/libfuzzer.sh"

# shellcheck disable=SC2046
run_libfuzzer "$1" request-fuzz "${2:-30}" "$here/seeds" "$here/request.dict" \
    -I"$root/src" $(pkg-config --cflags --libs simdjson) \
    "$root/src/gateway/jsonframe.cpp" "$root/src/gateway/request.cpp" "$root/src/common/textform.cpp" "$here/request_fuzz.cpp"
