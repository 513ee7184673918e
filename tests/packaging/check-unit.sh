#!/usr/bin/env bash
# Checks the systemd user unit: it runs the headless service, restarts it after a failure
# (a deliberate fatal stop exits non-zero), and systemd itself accepts the file.
#   check-unit.sh <unit file> <teranocounter binary>
set -euo pipefail
unit="$1"
binary="$2"

grep -qx 'Restart=on-failure' "$unit" || { echo "unit does not restart on failure"; exit 1; }
# systemd must never give up on a crash loop: no start limit, in the [Unit] section where
# systemd reads it, and a delay between starts that keeps such a loop cheap.
unit_section="$(sed -n '/^\[Unit\]/,/^\[/p' "$unit")"
grep -qx 'StartLimitIntervalSec=0' <<<"$unit_section" || { echo "unit keeps systemd's start limit"; exit 1; }
delay="$(sed -n 's/^RestartSec=//p' "$unit")"
[[ "$delay" =~ ^[0-9]+$ ]] && ((delay >= 1 && delay <= 5)) || { echo "RestartSec=$delay: want 1 to 5 s"; exit 1; }
exec_line="$(grep '^ExecStart=' "$unit")"
[[ "$exec_line" == *"/teranocounter --headless" ]] || { echo "unexpected $exec_line"; exit 1; }

if ! command -v systemd-analyze >/dev/null; then
    echo "systemd-analyze not installed; syntax not checked"
    exit 77
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -m 700 "$work/runtime"
# The same unit, pointed at the freshly built binary so that verify can check the command.
sed "s|^ExecStart=[^ ]*|ExecStart=$binary|" "$unit" >"$work/teranocounter.service"
out="$(XDG_RUNTIME_DIR="$work/runtime" systemd-analyze verify --user "$work/teranocounter.service" 2>&1 || true)"
if [[ -n "$out" ]]; then
    echo "$out"
    exit 1
fi
echo "unit ok"
