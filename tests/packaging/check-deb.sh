#!/usr/bin/env bash
# Builds the Debian packages from this build directory (scripts/package.sh, which reuses its
# binaries), checks them with lintian and by their contents, then installs the package on
# this machine with apt as a shop would, runs it, and purges it again: nothing of it may
# remain, and a user's settings, store and login item are left as they were.
#   check-deb.sh <build dir> <TERANO_SANITIZE value>
# Needs root (apt). Skipped (77) in a sanitized build and when a teranocounter package is
# already installed, which this test must not replace or remove.
set -euo pipefail
build="$(cd "$1" && pwd)"
sanitize="${2:-OFF}"
source_dir="$(cd "$(dirname "$0")/../.." && pwd)"

if [[ "${sanitize^^}" =~ ^(ON|TRUE|YES|Y|1)$ ]]; then
    echo "skipped: a sanitized build is not packaged (the normal build's run of this test packages)"
    exit 77
fi
if [[ $(id -u) -ne 0 ]]; then
    echo "skipped: installing a package with apt needs root"
    exit 77
fi
for package in teranocounter teranocounter-tools; do
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$\|config-files'; then
        echo "skipped: $package is already installed on this machine ($(dpkg-query -W -f='${Version}' "$package"));" \
             "this test would replace and then purge it. Remove it first (apt purge $package) to run the test."
        exit 77
    fi
done

work="$(mktemp -d)"
netns="tcdeb$$"
service_pid=""
cleanup() {
    [[ -n "$service_pid" ]] && kill "$service_pid" 2>/dev/null || true
    ip netns del "$netns" 2>/dev/null || true
    # Whatever happened, leave no package of this test behind.
    if dpkg-query -W -f='${Status}' teranocounter 2>/dev/null | grep -q 'installed\|config-files'; then
        DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq teranocounter >/dev/null 2>&1 || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail=0
problem() { echo "FAIL: $*"; fail=1; }

echo "== package"
start=$SECONDS
debs="$(bash "$source_dir/scripts/package.sh" "$build")"
echo "$debs"
echo "packaged in $((SECONDS - start)) s"
deb="$(grep '/teranocounter_' <<<"$debs")"
tools_deb="$(grep '/teranocounter-tools_' <<<"$debs")"
version="$("$build/bin/teranocounter" --version)"
version="${version#teranocounter }"
[[ "$(dpkg-deb -f "$deb" Version)" == "$version" ]] || problem "package version $(dpkg-deb -f "$deb" Version), program says $version"

echo "== dependencies"
depends="$(dpkg-deb -f "$deb" Depends)"
echo "Depends: $depends"
echo "Recommends: $(dpkg-deb -f "$deb" Recommends)"
# Computed from the binaries: the C library and each Qt library the program links.
for needed in libc6 libqt6core6 libqt6gui6 libqt6network6 libqt6sql6 libqt6websockets6 libqt6serialport6 \
              libqt6widgets6 libqt6sql6-sqlite fonts-nanum; do
    grep -qE "(^|, )$needed( |,|$)" <<<"$depends" || problem "Depends lacks $needed"
done

echo "== lintian"
# --fail-on error: warnings are printed, errors fail the test.
lintian_status=0
lintian --fail-on error --tag-display-limit 0 --display-info "$deb" "$tools_deb" >"$work/lintian.log" 2>&1 || lintian_status=$?
grep -v "^running with root privileges" "$work/lintian.log" || true
((lintian_status == 0)) || problem "lintian reports errors (status $lintian_status)"
grep -q '^W: ' "$work/lintian.log" && echo "(lintian warnings above: not errors, but worth a look)"

echo "== contents"
contents="$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|')"
for f in /usr/bin/teranocounter \
         /usr/lib/systemd/user/teranocounter.service \
         /usr/share/applications/teranocounter.desktop \
         /usr/share/icons/hicolor/scalable/apps/teranocounter.svg \
         /usr/share/icons/hicolor/256x256/apps/teranocounter.png \
         /usr/share/metainfo/com.teranosoft.teranocounter.metainfo.xml \
         /usr/share/man/man1/teranocounter.1.gz \
         /usr/share/doc/teranocounter/copyright \
         /usr/share/doc/teranocounter/changelog.gz; do
    grep -qx "$f" <<<"$contents" || problem "$(basename "$deb") lacks $f"
done
for f in /usr/bin/teranocounter-devsim /usr/bin/stomp-test-server; do
    grep -qx "$f" <<<"$contents" && problem "$f belongs in the tools package, not the shop's"
    dpkg-deb -c "$tools_deb" | awk '{print $6}' | grep -qx ".$f" || problem "$(basename "$tools_deb") lacks $f"
done
# No maintainer scripts: installing changes nothing but the package's own files.
scripts="$(dpkg-deb --ctrl-tarfile "$deb" | tar -t | sed 's|^\./||' | grep -vxE 'control|md5sums|' || true)"
[[ -z "$scripts" ]] || problem "maintainer files in the package: $scripts"
mkdir "$work/unpacked"
dpkg-deb -x "$deb" "$work/unpacked"
desktop-file-validate "$work/unpacked/usr/share/applications/teranocounter.desktop" || problem "desktop entry"
appstreamcli validate --no-net "$work/unpacked/usr/share/metainfo/com.teranosoft.teranocounter.metainfo.xml" ||
    problem "AppStream metadata"
grep -qx 'ExecStart=/usr/bin/teranocounter --headless' "$work/unpacked/usr/lib/systemd/user/teranocounter.service" ||
    problem "the unit does not start /usr/bin/teranocounter: $(grep ExecStart "$work/unpacked/usr/lib/systemd/user/teranocounter.service")"
((fail == 0)) || exit 1

echo "== a user's files before the install"
home="$work/home"
mkdir -p "$home/.config/teranocounter" "$home/.config/autostart" "$home/.local/state/teranocounter"
# HOLD_UNDELIVERED_ANSWERS: the service opens its store, so the user has one.
printf '[General]\nMAIN_INTERFACE=TCP\nTCP_DEVICE=KIS\nTCP_IP=10.93.0.9\nHOLD_UNDELIVERED_ANSWERS=true\n' >"$home/.config/teranocounter/teranocounter.conf"
printf '[Desktop Entry]\nType=Application\nName=Terano Counter\nExec=/usr/bin/teranocounter\n' \
    >"$home/.config/autostart/teranocounter.desktop"
user_files() { (cd "$home" && find . -type f -print0 | sort -z | xargs -0 sha256sum); }

echo "== apt install"
start=$SECONDS
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$deb" >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log"; problem "apt install"; exit 1; }
echo "installed in $((SECONDS - start)) s"
dpkg -L teranocounter | sort >"$work/listed"
[[ "$(command -v teranocounter)" == /usr/bin/teranocounter ]] || problem "teranocounter is $(command -v teranocounter)"
said="$(/usr/bin/teranocounter --version)" || problem "--version exit status $?"
[[ "$said" == "teranocounter $version" ]] || problem "--version says \"$said\""
echo "$said"
page="$(man -w teranocounter)" || problem "man -w teranocounter finds nothing"
[[ "$page" == /usr/share/man/man1/teranocounter.1.gz ]] || problem "man -w teranocounter: $page"
man teranocounter 2>/dev/null | grep -q -- '--browser-policy' || problem "man teranocounter does not show the options"
# The installed program reads the settings the user had before.
settings="$(HOME="$home" XDG_CONFIG_HOME="$home/.config" /usr/bin/teranocounter --settings)"
grep -qx 'TCP_IP=10.93.0.9' <<<"$settings" || problem "the installed program does not see the user's settings: $settings"

echo "== the installed service, headless, in a network namespace of its own"
ip netns add "$netns"
ip -n "$netns" link set lo up
ip -n "$netns" link add tcdeb0 type veth peer name tcdeb1
ip -n "$netns" addr add 10.93.0.1/24 dev tcdeb0
ip -n "$netns" link set tcdeb0 up
ip -n "$netns" link set tcdeb1 up
mkdir -m 700 "$work/runtime"
ip netns exec "$netns" env -i PATH=/usr/bin:/bin HOME="$home" XDG_RUNTIME_DIR="$work/runtime" \
    /usr/bin/teranocounter --headless >"$work/service.log" 2>&1 &
service_pid=$!
opened=0
for _ in $(seq 1 100); do
    if ip netns exec "$netns" bash -c 'exec 3<>/dev/tcp/127.0.0.1/49999' 2>/dev/null; then
        opened=1
        break
    fi
    kill -0 "$service_pid" 2>/dev/null || break
    sleep 0.1
done
if ((opened)); then
    echo "port 49999 open"
    # A WebSocket handshake on it is answered by the installed service.
    answer="$(ip netns exec "$netns" bash -c 'exec 3<>/dev/tcp/127.0.0.1/49999
        printf "GET / HTTP/1.1\r\nHost: 127.0.0.1:49999\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n" >&3
        timeout 5 head -n 1 <&3')"
    [[ "$answer" == "HTTP/1.1 101"* ]] || problem "the handshake was answered \"$answer\""
else
    problem "the installed service did not open port 49999"
fi
kill "$service_pid" 2>/dev/null || true
wait "$service_pid" 2>/dev/null || true
service_pid=""
echo "-- its output:"
cat "$work/service.log"
ip netns del "$netns"
user_files >"$work/user-before-upgrade"

echo "== upgrade"
# The same contents under a later version: dpkg's upgrade path (unpack the new, remove what
# the old had that the new lacks) must leave the user's files alone too.
dpkg-deb -R "$deb" "$work/next"
sed -i "s/^Version: .*/Version: ${version}+next/" "$work/next/DEBIAN/control"
dpkg-deb -b --root-owner-group "$work/next" "$work/teranocounter_next_amd64.deb" >/dev/null
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$work/teranocounter_next_amd64.deb" \
    >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; problem "apt install of the next version"; }
[[ "$(dpkg-query -W -f='${Version}' teranocounter)" == "${version}+next" ]] || problem "the upgrade did not happen"
user_files >"$work/user-before-purge"
diff "$work/user-before-upgrade" "$work/user-before-purge" || problem "the upgrade changed the user's files"

echo "== apt purge"
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq teranocounter >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log"; problem "apt purge"; }
if dpkg-query -W -f='${Status}' teranocounter 2>/dev/null | grep -q 'installed\|config-files'; then
    problem "dpkg still knows teranocounter after purge"
fi
left=0
while read -r path; do
    # Folders shared with other packages (/usr/share/man ...) stay; every file and folder of
    # this package's own goes.
    if [[ -e "$path" && ! -d "$path" ]]; then
        problem "left after purge: $path"
        left=1
    fi
done <"$work/listed"
for dir in /usr/share/doc/teranocounter; do
    [[ -e $dir ]] && problem "left after purge: $dir"
done
((left == 0)) && echo "none of the $(wc -l <"$work/listed") paths of dpkg -L remains as a file"
user_files >"$work/user-after-purge"
if ! diff "$work/user-before-purge" "$work/user-after-purge"; then
    problem "the purge changed the user's files"
else
    echo "the user's files are as they were:"
    sed 's/^[0-9a-f]* *//' "$work/user-after-purge"
fi
grep -q 'TCP_IP=10.93.0.9' "$home/.config/teranocounter/teranocounter.conf" || problem "the user's settings lost TCP_IP"
[[ -f "$home/.config/autostart/teranocounter.desktop" ]] || problem "the user's login item is gone"
[[ -f "$home/.local/state/teranocounter/pending.sqlite" ]] || problem "the user's store is gone (or was never made)"

((fail == 0)) && echo "package ok"
exit "$fail"
