#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is needed, builds, checks formatting and runs every test: unit and component tests
# directly, desktop tests inside the headless rig, then unit and component tests again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and runs each fuzz target of tests/fuzz for 20 seconds.
#   QUILLVOX_SKIP_SANITIZERS=1  skip the sanitizer build (quicker local runs)
#   QUILLVOX_SKIP_FUZZ=1        skip the fuzz targets
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc 2>/dev/null || echo 2)

step() { printf '\n==> %s\n' "$*"; }

step "Installing dependencies"
scripts/install-deps.sh </dev/null

step "Building"
# Configured as the package is, so that the package is made from this very build.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DQUILLVOX_PACKAGING=ON
cmake --build build -j "$jobs"

step "Checking formatting"
cmake --build build --target check-format

step "Unit and component tests"
ctest --test-dir build -L 'unit|component' --output-on-failure -j "$jobs" </dev/null

step "Debian package"
BUILD_DIR=build scripts/package.sh </dev/null
debs=("$root"/build/quillvox_*_amd64.deb)

step "Desktop tests (headless rig)"
mkdir -p build/rig
# tst_package installs the package with apt-get (as root) and removes it again.
QUILLVOX_TEST_DEB=${debs[0]} RIG_DIR=$(mktemp -d "$root/build/rig/run.XXXXXX") \
    scripts/rig.sh -- ctest --test-dir build -L desktop --output-on-failure </dev/null

if [ "${QUILLVOX_SKIP_SANITIZERS:-0}" != 1 ]; then
    step "Unit and component tests under ASan + UBSan"
    cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUILLVOX_SANITIZE=ON
    cmake --build build-asan -j "$jobs"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build-asan -L 'unit|component' --output-on-failure -j "$jobs" </dev/null
fi

if [ "${QUILLVOX_SKIP_FUZZ:-0}" != 1 ]; then
    step "Fuzzing the parsers (20 s per target)"
    BUILD_DIR=build-fuzz scripts/fuzz.sh 20 </dev/null
fi

step "All tests passed"
