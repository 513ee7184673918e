#!/usr/bin/env bash
# Runs the client's tests against the service and the device simulator of one build.
# Usage: run.sh BIN_DIR (holding teranocounter and teranocounter-devsim)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export TERANOCOUNTER_BIN_DIR="${1:?usage: run.sh BIN_DIR}"

flags=()
# Node 20 has a WebSocket client behind this flag; later releases have it on by default.
if node --experimental-websocket -e '' 2>/dev/null; then
    flags+=(--experimental-websocket)
fi
if ! node "${flags[@]}" -e 'process.exit(typeof WebSocket === "function" ? 0 : 1)'; then
    echo "node $(node --version) has no WebSocket client: the tests give the module one of their own"
fi
cd "$here"
exec node "${flags[@]}" --test cp949.test.mjs frames.test.mjs service.test.mjs
