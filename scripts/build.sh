#!/usr/bin/env bash
# Configures and builds into the given directory (default: build) with warnings as errors.
# Extra arguments go to cmake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build}"
shift || true
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTERANO_WERROR=ON "$@" >/dev/null
cmake --build "$dir"
