#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds the Debian package, quillvox_<version>_amd64.deb in the build folder, and checks what it installs
# with desktop-file-validate, appstreamcli and lintian (errors fail; warnings are printed).
# BUILD_DIR (default build-deb) is the build folder, JOBS (default 2) the parallel compile jobs; a compiler
# launcher such as ccache comes from the CMAKE_CXX_COMPILER_LAUNCHER environment variable.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-deb}

scripts/install-deps.sh
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DQUILLVOX_PACKAGING=ON
cmake --build "$BUILD_DIR" -j "${JOBS:-2}" --target quillvox quillvox_package_docs quillvox_gnome_extension
rm -f "$BUILD_DIR"/quillvox_*.deb
(cd "$BUILD_DIR" && cpack -G DEB)
debs=("$BUILD_DIR"/quillvox_*_amd64.deb)
deb=${debs[0]}

# The files as they are installed, not their sources: that is what desktops and software centres read.
contents=$(mktemp -d)
trap 'rm -rf "$contents"' EXIT
dpkg-deb -x "$deb" "$contents"
desktop-file-validate "$contents/usr/share/applications/com.vantor.Quillvox.desktop"
appstreamcli validate --no-net "$contents/usr/share/metainfo/com.vantor.Quillvox.metainfo.xml"
# GNOME Shell finds system extensions by folder name, which must be the uuid its metadata names.
extension="$contents/usr/share/gnome-shell/extensions/quillvox@vantor.com"
grep -q '"uuid": "quillvox@vantor.com"' "$extension/metadata.json"
lintian --fail-on error "$deb"
echo "package.sh: $deb"
dpkg-deb -f "$deb" Depends
