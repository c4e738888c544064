#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Draws every window of Quillvox in each of its states to build/screenshots/, at scale 1 and 2, and the
# tray icon as a panel that draws pixmaps shows it, on a dark (#353535) and a light (#f6f5f4) panel at
# 16, 22 and 32 px (tray-icon-<colour scheme>.png).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >/dev/null
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target quillvox-screenshots
rm -rf build/screenshots
export QT_QPA_PLATFORM=offscreen QUILLVOX_AUDIO_OUTPUT=null
build/tools/screenshots/quillvox-screenshots build/screenshots
QT_SCALE_FACTOR=2 build/tools/screenshots/quillvox-screenshots build/screenshots @2x
