#!/usr/bin/env bash
# Builds the libFuzzer target for the serial answer framing with clang and runs it.
#
#   bash tests/serial/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Everything it writes goes under <builddir>/serial-fuzz (binary, working corpus, crash
# files). Exits non-zero if the build fails or the fuzzer finds a crash, a leak or a
# broken property. Needs clang++ (with its libFuzzer runtime) and the Qt 6 Core headers.
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: $0 <builddir> [seconds]" >&2
    exit 2
fi

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_root="$(cd "$here/../../.." && pwd)"
mkdir -p "$1"
out="$(cd "$1" && pwd)/serial-fuzz"
seconds="${2:-30}"
cxx="${CXX_FUZZ:-clang++}"

mkdir -p "$out/corpus" "$out/artifacts"

qt_flags="$(pkg-config --cflags Qt6Core)"
qt_libs="$(pkg-config --libs Qt6Core)"
common="$source_root/src/common"

# -fPIC: Debian's Qt is built so that code using its headers must be position independent.
# shellcheck disable=SC2086
"$cxx" -std=c++20 -g -O1 -fPIC -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$source_root/src/terminal_serial" -I"$common" $qt_flags \
    "$source_root/src/terminal_serial/serialanswerframing.cpp" \
    "$common/cp949.cpp" "$common/fatal.cpp" "$common/log.cpp" "$common/notificationcenter.cpp" \
    "$common/textform.cpp" "$common/userdefaults.cpp" \
    "$here/serialanswerframing_fuzz.cpp" \
    $qt_libs -o "$out/serialanswerframing_fuzz"

echo "running $out/serialanswerframing_fuzz for ${seconds}s"
# The working corpus grows in the build tree; the committed seeds are only read.
"$out/serialanswerframing_fuzz" \
    -max_total_time="$seconds" \
    -artifact_prefix="$out/artifacts/" \
    -print_final_stats=1 \
    "$out/corpus" "$here/seeds"
