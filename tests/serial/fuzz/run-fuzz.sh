#!/usr/bin/env bash
# Builds the libFuzzer target for the serial answer framing with clang and runs it.
#
#   bash tests/serial/fuzz/run-fuzz.sh <builddir> [seconds]
#
# Writes under <builddir>/serial-fuzz. Exits non-zero if the build fails or the fuzzer
# finds a crash, a leak or a broken property. Needs clang++ and the Qt 6 Core headers.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: $0 <builddir> [seconds]" >&2; exit 2; }
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../../.." && pwd)"
source "$root/tests/support/libfuzzer.sh"
common="$root/src/common"

run_libfuzzer "$1" serial-fuzz "${2:-30}" "$here/seeds" "" \
    -I"$root/src" \
    "$root/src/terminal_serial/serialanswerframing.cpp" \
    "$common/cp949.cpp" "$common/fatal.cpp" "$common/log.cpp" "$common/terminalchannel.cpp" \
    "$common/textform.cpp" "$common/userdefaults.cpp" "$common/settingnames.cpp" \
    "$here/serialanswerframing_fuzz.cpp"
