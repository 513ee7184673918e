#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the normal build, then the same
# fuzzers, then the same tests in an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
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

echo "== build"
bash scripts/build.sh build
echo "== tests"
(cd build && ctest --output-on-failure -j "$jobs")

for fuzz in tests/*/fuzz/run-fuzz.sh; do
    [[ -f $fuzz ]] || continue
    echo "== fuzz: $fuzz"
    bash "$fuzz" build
done

echo "== build with AddressSanitizer and UndefinedBehaviorSanitizer"
# -O1 -g1: what the sanitizers want, and it builds in little more than half the time.
bash scripts/build.sh build-asan -DTERANO_SANITIZE=ON -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1"
echo "== tests with sanitizers"
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# A sanitized process is several times slower and larger: as many at once as there are
# processors. Three times that many on two processors made waits for a held answer and for a
# serial unplug run out.
(cd build-asan && ctest --output-on-failure -j "${TEST_JOBS:-$(nproc)}")

