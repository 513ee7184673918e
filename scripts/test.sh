#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the normal build, the fuzzers, then the
# same tests in an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
# Each step says when it began, so a slow CI run shows which step grew.
phase() { echo "== $1 (at ${SECONDS} s)"; }
bash scripts/install-deps.sh --test

# The system tests start the real service on its fixed ports; a quick-start instance
# would be in their way.
pidfile=build/teranocounter.pid
if [[ -f $pidfile ]] && kill -0 "$(cat "$pidfile")" 2>/dev/null; then
    echo "Stopping the quick-start service (pid $(cat "$pidfile")) for the tests"
    kill "$(cat "$pidfile")"
    while kill -0 "$(cat "$pidfile")" 2>/dev/null; do sleep 0.1; done
fi

# Tests side by side: most of a system test's time is spent waiting on the service, the
# terminals and the clock, not on a processor. Each system test has a network namespace of its
# own where the machine lets us make one (tests/CMakeLists.txt), so the fixed ports are no
# obstacle; ctest starts the longest first. TEST_JOBS overrides.
jobs="${TEST_JOBS:-$(($(nproc) * 3))}"

phase "build"
bash scripts/build.sh build

# While the normal build's tests run, the sanitized tree builds beside them. The tests spend
# most of their time waiting on the clock and on their devices; the build gets only the
# processor time they leave (SCHED_IDLE, and nice for good measure), so a test that wakes runs
# at once. Its output goes to a log, shown if it fails.
asan_log=build/sanitized-build.log
phase "tests, with the sanitized build at idle priority beside them (its log: $asan_log)"
# -O1 -g1: what the sanitizers want, and it builds in little more than half the time. Without
# the benchmarks, which nothing runs sanitized (about 25 s of a processor). With clang, which
# the fuzzers need anyway: it built this tree with 293 s of processor time where GCC took 480,
# and the code is checked by a second compiler's warnings and sanitizers.
setsid chrt --idle 0 nice -n 19 bash scripts/build.sh build-asan -DTERANO_SANITIZE=ON -DTERANO_BENCH=OFF \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" >"$asan_log" 2>&1 &
asan_build=$!
if ! (cd build && ctest --output-on-failure -j "$jobs"); then
    kill -- -"$asan_build" 2>/dev/null || true
    exit 1
fi
phase "waiting for the sanitized build"
if ! wait "$asan_build"; then
    cat "$asan_log"
    echo "the sanitized build failed" >&2
    exit 1
fi
tail -n 1 "$asan_log"

# The sanitized tests spend most of their time waiting on the clock and their devices and
# leave most of the processors unused; the fuzzers, which only compute, run beside them at idle
# priority (as the sanitized build did beside the normal tests), so a test that wakes runs at
# once. They start before the sanitizer options below are set: they keep their own.
fuzz_log=build/fuzz.log
phase "tests with sanitizers, with the fuzzers at idle priority beside them (their log: $fuzz_log)"
setsid chrt --idle 0 nice -n 19 bash scripts/fuzz.sh >"$fuzz_log" 2>&1 &
fuzzers=$!

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
if ! (cd build-asan && ctest --output-on-failure -j "$jobs"); then
    kill -- -"$fuzzers" 2>/dev/null || true
    exit 1
fi
phase "waiting for the fuzzers"
if ! wait "$fuzzers"; then
    cat "$fuzz_log"
    echo "a fuzzer failed" >&2
    exit 1
fi
cat "$fuzz_log"
phase "all passed"
