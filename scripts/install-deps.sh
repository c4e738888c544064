#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs every Debian package that building, running and testing Quillvox need.
# Non-interactive; works as root or through sudo; does nothing slow when all is present.
set -euo pipefail

PACKAGES=(
    build-essential cmake ninja-build pkg-config clang-format clang libclang-rt-14-dev
    qt6-base-dev qt6-declarative-dev qt6-tools-dev qcoro-qt6-dev qt6-svg-dev libqt6svg6
    qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-window
    qml6-module-qtquick-layouts qml6-module-qtquick-templates qml6-module-qtqml-workerscript
    libpulse-dev libsoundtouch-dev libsndfile1-dev libsoxr-dev libmpg123-dev libsecret-1-dev
    libxtst-dev libx11-dev libxcb1-dev libxcb-keysyms1-dev libxcb-xtest0-dev libxcb-xfixes0-dev
    libespeak-ng-dev espeak-ng libcpp-httplib-dev libssl-dev openssl
    xvfb xauth x11-utils x11-xserver-utils xdotool xclip openbox
    dbus-daemon dbus-x11 gnome-keyring libsecret-tools pulseaudio pulseaudio-utils sox mousepad
    curl python3 xdg-utils desktop-file-utils
    qt6-svg-dev at-spi2-core python3-pyatspi xcompmgr imagemagick playerctl
    help2man lintian appstream dpkg-dev
    libwayland-dev qt6-wayland wl-clipboard sway
    gjs gnome-settings-daemon-common gnome-shell
    kwin-wayland xdg-desktop-portal xdg-desktop-portal-kde qtwayland5 qdbus-qt6
)

missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all ${#PACKAGES[@]} packages present"
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install-deps: need root or sudo" >&2; exit 1; }
    SUDO="sudo -n"
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq </dev/null
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "${missing[@]}" </dev/null
