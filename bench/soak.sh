#!/usr/bin/env bash
# Builds and runs the soak: the real service for some minutes (default 10) under mixed
# kitchen, KIS payment and serial traffic; prints resident memory at launch, after the
# warm-up and at the end, and exits non-zero when the end is more than 10 % away from the
# warm-up figure or anything was lost. Not part of the tests.
#
#   bash bench/soak.sh [minutes] [warm-up seconds]
#
# It uses the service's fixed ports (49999, 5000, 5501, 13189) and needs a network interface
# other than loopback that is up. On a machine where those ports are busy, run it in a
# network namespace of its own (as root):
#
#   ip netns add soak
#   ip netns exec soak ip link set lo up
#   ip netns exec soak ip link add s0 type veth peer name s1
#   ip netns exec soak ip addr add 10.97.0.1/24 dev s0
#   ip netns exec soak ip link set s0 up; ip netns exec soak ip link set s1 up
#   ip netns exec soak bash bench/soak.sh 10
#   ip netns del soak
set -euo pipefail
cd "$(dirname "$0")/.."
minutes="${1:-10}"
warmup="${2:-60}"
bash scripts/build.sh build >/dev/null
exec build/bin/bench_soak --minutes "$minutes" --warmup-seconds "$warmup"
