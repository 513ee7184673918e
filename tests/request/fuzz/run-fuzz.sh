#!/usr/bin/env bash
# Builds the libFuzzer target for the request frame reader with clang and runs it.
#
#   bash tests/request/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Everything it writes goes under <builddir>/request-fuzz (binary, working corpus, crash
# files). Exits non-zero if the build fails or the fuzzer finds a crash, a leak or a
# broken property. Needs clang++ (with its libFuzzer runtime), the Qt 6 Core headers and
# simdjson.
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: $0 <builddir> [seconds]" >&2
    exit 2
fi

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_root="$(cd "$here/../../.." && pwd)"
mkdir -p "$1"
out="$(cd "$1" && pwd)/request-fuzz"
seconds="${2:-30}"
cxx="${CXX_FUZZ:-clang++}"

mkdir -p "$out/corpus" "$out/artifacts"

flags="$(pkg-config --cflags Qt6Core simdjson)"
libs="$(pkg-config --libs Qt6Core simdjson)"
gateway="$source_root/src/gateway"
common="$source_root/src/common"

# -fPIC: Debian's Qt is built so that code using its headers must be position independent.
# shellcheck disable=SC2086
"$cxx" -std=c++20 -g -O1 -fPIC -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$gateway" -I"$common" $flags \
    "$gateway/request.cpp" "$common/textform.cpp" "$here/request_fuzz.cpp" \
    $libs -o "$out/request_fuzz"

echo "running $out/request_fuzz for ${seconds}s"
# The working corpus grows in the build tree; the committed seeds are only read.
"$out/request_fuzz" \
    -max_total_time="$seconds" \
    -dict="$here/request.dict" \
    -artifact_prefix="$out/artifacts/" \
    -print_final_stats=1 \
    "$out/corpus" "$here/seeds"
