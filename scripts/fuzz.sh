#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds the libFuzzer targets of tests/fuzz (clang, ASan + UBSan; only the parsers' libraries) and runs
# each for SECONDS (20 by default), starting from its seed corpus in tests/fuzz/corpus/<target>/.
# Fails on any crash, leak, time-out or failed check; the reproducer is left in BUILD_DIR/fuzz-artifacts/.
#   scripts/fuzz.sh [SECONDS] [TARGET...]     BUILD_DIR (default build-fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:-20}
shift || true
build=${BUILD_DIR:-build-fuzz}
jobs=$(nproc 2>/dev/null || echo 2)

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ "${launcher[@]}" -DQUILLVOX_FUZZ=ON -DQUILLVOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target quillvox_fuzz -j "$jobs"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for dir in tests/fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
for target in "${targets[@]}"; do
    corpus=$build/fuzz-corpus/$target
    artifacts=$build/fuzz-artifacts/$target/
    log=$build/fuzz-logs/$target.log
    mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
    asan=$ASAN_OPTIONS
    # Qt's QDataStream (dates in the settings file) allocates whatever length a stored value claims and
    # copes when the allocation fails, as it does natively; ASan would report it as out of memory.
    [ "$target" = fuzz_settings_reads ] && asan=$asan:allocator_may_return_null=1
    # New inputs go to the build tree's corpus; the seeds in the repository stay as they are.
    if ASAN_OPTIONS=$asan "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$artifacts" "$corpus" "tests/fuzz/corpus/$target" \
        >"$log" 2>&1 </dev/null; then
        printf 'fuzz: %-24s ok    %s\n' "$target" "$(grep -E '^#[0-9]+' "$log" | tail -n 1)"
    else
        printf 'fuzz: %-24s FAILED (log: %s)\n' "$target" "$log"
        grep -E 'ERROR|SUMMARY|check failed|Test unit written' "$log" | head -n 8 | sed 's/^/    /'
        failed+=("$target")
    fi
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: ${#failed[@]} target(s) failed: ${failed[*]}" >&2
    exit 1
fi
