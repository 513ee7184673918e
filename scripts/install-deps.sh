#!/usr/bin/env bash
# Installs the Debian 12 packages the service needs to build and run (and, with --test,
# to run its tests; with --package, to build the Debian packages). Packages already present are
# not downloaded again.
set -euo pipefail

# fonts-nanum: the tray icon's pages and questions are in Korean. libxcb1-dev: the popover reads
# X11 focus events (the header only; nothing more is linked).
packages=(cmake ninja-build g++ pkg-config qt6-base-dev qt6-websockets-dev qt6-serialport-dev libqt6sql6-sqlite
    libsimdjson-dev fonts-nanum libxcb1-dev)
# scripts/package.sh: CPack's Debian generator computes the dependencies with dpkg-shlibdeps
# and finds the executables with file.
if [[ "${1:-}" == "--package" || "${1:-}" == "--test" ]]; then
    packages+=(dpkg-dev file)
fi
if [[ "${1:-}" == "--test" ]]; then
    # The package test: lintian, the desktop entry and AppStream checkers, man for the manual.
    packages+=(lintian desktop-file-utils appstream man-db)
    packages+=(clang libclang-rt-14-dev chromium iproute2)
    # tst_localnetworkaccess: a self-signed certificate for its HTTPS POS site.
    packages+=(openssl)
    # tst_desktop: its own X server, window manager and tray panel, driven from outside.
    packages+=(xvfb trayer openbox xdotool x11-utils imagemagick)
    # The JavaScript POS client's tests. A Node.js from elsewhere (NodeSource) is also called
    # nodejs and carries its own npm, which conflicts with Debian's npm package.
    packages+=(nodejs)
    command -v npm >/dev/null || packages+=(npm)
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    SUDO=""
    [[ $(id -u) -ne 0 ]] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
