#!/usr/bin/env bash
# Builds and runs the benchmarks; prints one Markdown table on standard output (progress
# goes to standard error).
#
# bench_service starts the real service, which takes fixed ports (49999, and 5000 for the
# fake KIS terminal, 13189 and 5501 for the answer listeners) and stops at launch without a
# non-loopback interface: run it in a network namespace of its own (bench/README.md).
# Counts: BENCH_PAYMENTS, BENCH_SERIAL_ANSWERS, BENCH_ORDERS, BENCH_PRINTERS, BENCH_STARTS,
# BENCH_IDLE_SECONDS, BENCH_KIS_ANSWER_DELAY_MS; BENCH_CASES picks cases.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh build >/dev/null
build/bin/bench_service
# bench_gateway's rows under the same header: its own header is dropped and a notes cell
# added, since its tail column is p95. Its "RECV FIRED!!!:" lines are left out.
build/bin/bench_gateway | grep -E '^\| (kitchen|parse) ' |
    sed 's/ |$/ | in-process gateway (bench_gateway); the p99 column holds its p95 |/'
