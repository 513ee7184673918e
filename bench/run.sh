#!/usr/bin/env bash
# Builds and runs the benchmarks; prints a Markdown table. The gateway's own log lines
# ("RECV FIRED!!!:" per frame) are left out of the output.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh build >/dev/null
build/bin/bench_gateway | grep '^|'
