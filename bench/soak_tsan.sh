#!/bin/sh
# SPDX-License-Identifier: GPL-3.0-or-later
# The soak under ThreadSanitizer. Starting a child process with QProcess leaves ThreadSanitizer's view
# of the parent's locks broken (every access they guard then reads as a race), so the dev servers are
# started here and soak_bench gets their addresses.
#     bench/soak_tsan.sh build-soak-tsan [soak_bench options]
set -eu
build=$1
shift
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
export TSAN_OPTIONS="suppressions=$top/tests/sanitizers/tsan.supp${TSAN_OPTIONS:+ $TSAN_OPTIONS}"
pids=""
urls=""
i=0
for extra in "" "--cut-after 30001" "" "--drop-before-head" "--ttfb-ms 1500"; do
    # shellcheck disable=SC2086
    "$build/tools/devserver/quillvox-devserver" --port 0 --log "$work/log$i.jsonl" --synth sine --pace 20 \
        $extra >"$work/out$i.txt" 2>"$work/err$i.txt" &
    pids="$pids $!"
    tries=0
    until grep -q "listening on" "$work/out$i.txt" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -le 200 ] || { echo "dev server $i did not start" >&2; kill $pids; exit 1; }
        sleep 0.05
    done
    urls="$urls${urls:+,}$(sed -n 's/^listening on //p' "$work/out$i.txt")"
    i=$((i + 1))
done
status=0
"$build/bench/soak_bench" --servers "$urls" "$@" || status=$?
# shellcheck disable=SC2086
kill -TERM $pids
for pid in $pids; do
    wait "$pid" || { echo "dev server $pid: bad exit" >&2; status=1; }
done
reports=$(cat "$work"/err*.txt | grep -c "WARNING: ThreadSanitizer" || true)
echo "Dev server ThreadSanitizer reports: $reports"
[ "$reports" -eq 0 ] || { cat "$work"/err*.txt >&2; status=1; }
rm -rf "$work"
exit $status
