#!/usr/bin/env bash
# Installs what is needed, builds, and starts the service in the background.
# Log: build/teranocounter.log. Stop: kill "$(cat build/teranocounter.pid)".
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh build

pidfile=build/teranocounter.pid
if [[ -f $pidfile ]] && kill -0 "$(cat "$pidfile")" 2>/dev/null; then
    echo "Stopping the service started earlier (pid $(cat "$pidfile"))"
    kill "$(cat "$pidfile")"
    while kill -0 "$(cat "$pidfile")" 2>/dev/null; do sleep 0.1; done
fi
nohup build/bin/teranocounter >>build/teranocounter.log 2>&1 </dev/null &
echo $! >"$pidfile"

for _ in $(seq 1 100); do
    if (exec 3<>/dev/tcp/127.0.0.1/49999) 2>/dev/null; then
        echo "Terano Counter is running (pid $(cat "$pidfile")): POS WebSocket at ws://127.0.0.1:49999/"
        echo "Log: build/teranocounter.log   Stop: kill \$(cat $pidfile)"
        exit 0
    fi
    kill -0 "$(cat "$pidfile")" 2>/dev/null || break
    sleep 0.1
done
echo "The service did not open port 49999; see build/teranocounter.log:" >&2
tail -n 5 build/teranocounter.log >&2
exit 1
