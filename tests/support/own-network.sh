#!/usr/bin/env bash
# Runs a test command in a network namespace of its own: loopback, and one shop interface
# with a private address (the service takes answers on the first non-loopback interface).
# The system tests start the real service on its fixed ports; each in its own namespace,
# they can run side by side. Needs root, as CI has.
#
# It also gets pseudo-terminals of its own. The kernel hands out the lowest free number, so
# when a test closes /dev/pts/3, a test beside it that opens one gets /dev/pts/3 again: the
# same device number at the same path, and a port that should have gone looks as if it had
# stayed. A devpts instance per namespace keeps each test's numbers to itself.
# Usage: own-network.sh COMMAND [ARGUMENT...]
set -euo pipefail

if [[ ${TERANO_OWN_NETWORK:-} != entered ]]; then
    export TERANO_OWN_NETWORK=entered
    exec unshare --net --mount -- bash "$0" "$@"
fi
unset TERANO_OWN_NETWORK

mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts /dev/pts
mount --bind /dev/pts/ptmx /dev/ptmx

ip link set lo up
# A veth pair with both ends here: it has a carrier once both are up, as a cable does.
ip link add shopnet0 type veth peer name shopnet1
# Only shopnet0 carries an address, so it is the one interface a test finds.
echo 1 >/proc/sys/net/ipv6/conf/shopnet1/disable_ipv6
ip addr add 10.98.0.2/24 dev shopnet0
ip link set shopnet1 up
ip link set shopnet0 up
# /sys shows the namespace it was mounted in, so ask ip.
for _ in $(seq 100); do
    ip -o link show shopnet0 | grep -q 'LOWER_UP' && break
    sleep 0.05
done
ip -o link show shopnet0 | grep -q 'LOWER_UP' || {
    echo "own-network.sh: shopnet0 did not come up" >&2
    exit 1
}
exec "$@"
