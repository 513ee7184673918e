#!/usr/bin/env bash
# Installs the build into a fresh prefix and checks that everything a desktop needs lands
# where desktops look: the executable, its desktop entry, its icon, AppStream metadata, manual
# page and the systemd user unit (started from this prefix); and the device simulator and the
# STOMP test server beside the service.
#   check-install.sh <build dir>
set -euo pipefail
build="$1"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null

fail=0
for f in bin/teranocounter \
         bin/teranocounter-devsim \
         share/applications/teranocounter.desktop \
         share/icons/hicolor/scalable/apps/teranocounter.svg \
         share/icons/hicolor/256x256/apps/teranocounter.png \
         bin/stomp-test-server \
         share/metainfo/com.teranosoft.teranocounter.metainfo.xml \
         share/man/man1/teranocounter.1.gz \
         lib/systemd/user/teranocounter.service; do
    if [[ ! -s "$prefix/$f" ]]; then
        echo "missing after install: $f"
        fail=1
    fi
done
[[ -x "$prefix/bin/teranocounter" ]] || { echo "bin/teranocounter is not executable"; fail=1; }
usage="$("$prefix/bin/teranocounter" --help)" || true
[[ "$usage" == *--headless* ]] || { echo "the installed program does not run"; fail=1; }
simulator="$("$prefix/bin/teranocounter-devsim" --help)" || true
[[ "$simulator" == *"teranocounter-devsim printer"* ]] || { echo "the installed simulator does not run"; fail=1; }
unit="$prefix/lib/systemd/user/teranocounter.service"
grep -qx "ExecStart=$prefix/bin/teranocounter --headless" "$unit" ||
    { echo "the unit does not start the installed executable: $(grep ExecStart "$unit")"; fail=1; }
entry="$prefix/share/applications/teranocounter.desktop"
grep -qx 'Exec=teranocounter' "$entry" || { echo "desktop entry does not start teranocounter"; fail=1; }
grep -qx 'Icon=teranocounter' "$entry" || { echo "desktop entry does not name the icon"; fail=1; }
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$entry" || fail=1
fi
((fail == 0)) && echo "install ok"
exit "$fail"
