#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the normal build's, then the same tests
# in an AddressSanitizer + UndefinedBehaviorSanitizer build with the fuzzers beside them.
set -euo pipefail
cd "$(dirname "$0")/.."
# Each step says when it began, so a slow CI run shows which step grew.
phase() { echo "== $1 (at ${SECONDS} s)"; }

# Starts a command at idle priority, in a process group of its own, its output in a log: it
# gets only the processor time the tests leave, so a test that wakes runs at once. Sets $beside.
start_beside() {
    local log=$1
    shift
    setsid chrt --idle 0 nice -n 19 "$@" >"$log" 2>&1 &
    beside=$!
}

# Runs a tree's tests; if one fails, stops what runs beside them and ends here.
run_tests() {
    local tree=$1 pid=$2
    if ! (cd "$tree" && ctest --output-on-failure -j "$jobs"); then
        kill -- -"$pid" 2>/dev/null || true
        exit 1
    fi
}

# Waits for what ran beside the tests; if it failed, shows its log and ends here.
wait_beside() {
    local pid=$1 log=$2 what=$3
    if ! wait "$pid"; then
        cat "$log"
        echo "$what failed" >&2
        exit 1
    fi
}

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

# While the normal build's tests run, the sanitized tree builds beside them: the tests spend
# most of their time waiting on the clock and on their devices. Its log is shown if it fails.
asan_log=build/sanitized-build.log
phase "tests, with the sanitized build at idle priority beside them (its log: $asan_log)"
# -O1 -g1: what the sanitizers want, and it builds in little more than half the time. Without
# the benchmarks, which nothing runs sanitized (about 25 s of a processor). With clang, which
# the fuzzers need anyway: it built this tree with 293 s of processor time where GCC took 480,
# and the code is checked by a second compiler's warnings and sanitizers.
start_beside "$asan_log" bash scripts/build.sh build-asan -DTERANO_SANITIZE=ON -DTERANO_BENCH=OFF \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1"
asan_build=$beside
run_tests build "$asan_build"
phase "waiting for the sanitized build"
wait_beside "$asan_build" "$asan_log" "the sanitized build"
tail -n 1 "$asan_log"

# The sanitized tests spend most of their time waiting on the clock and their devices and
# leave most of the processors unused; the fuzzers, which only compute, run beside them (as the
# sanitized build did beside the normal tests). They start before the sanitizer options below
# are set: they keep their own.
fuzz_log=build/fuzz.log
phase "tests with sanitizers, with the fuzzers at idle priority beside them (their log: $fuzz_log)"
start_beside "$fuzz_log" bash scripts/fuzz.sh
fuzzers=$beside

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_tests build-asan "$fuzzers"
phase "waiting for the fuzzers"
wait_beside "$fuzzers" "$fuzz_log" "a fuzzer"
cat "$fuzz_log"
phase "all passed"
