#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Regenerates resources/voices/<voice>.mp3: one short sample per voice name, each a distinct espeak-ng
# voice saying a sentence in that voice's name. The results are committed; run this only to change them.
# Needs: espeak-ng, lame.
set -euo pipefail
cd "$(dirname "$0")/../resources/voices"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

declare -A espeak=(
    [marin]="en-us+f3" [cedar]="en-gb+m3" [alloy]="en-us+m1" [echo]="en-gb-x-rp+m4"
    [fable]="en-gb-scotland+f2" [nova]="en-us+f4" [onyx]="en-us+m7" [shimmer]="en-029+f5"
)
for voice in marin cedar alloy echo fable nova onyx shimmer; do
    name="${voice^}"
    espeak-ng -v "${espeak[$voice]}" -s 165 -w "$tmp/$voice.wav" "Hi, I'm $name. This is how I sound when I read to you."
    lame --quiet -m m --resample 24 -b 48 "$tmp/$voice.wav" "$voice.mp3"
done
ls -l ./*.mp3
