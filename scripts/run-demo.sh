#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds Quillvox and runs it in a demo profile: the local dev server is the voice, and settings,
# history and secrets live in a profile of their own, never the user's real ones.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target quillvox quillvox-devserver

profile="$root/build/demo-profile"
mkdir -p "$profile"/{config,data,cache}
export XDG_CONFIG_HOME="$profile/config" XDG_DATA_HOME="$profile/data" XDG_CACHE_HOME="$profile/cache"
export QUILLVOX_KEYCHAIN_SERVICE=com.vantor.quillvox.demo

# The dev server speaks the OpenAI-compatible protocol and accepts the key "local".
log="$profile/devserver.log"
coproc DEVSERVER { exec build/tools/devserver/quillvox-devserver --port 0 --pace 1; }
trap 'kill "$DEVSERVER_PID" 2>/dev/null || true' EXIT
read -r line <&"${DEVSERVER[0]}"
origin=${line#listening on }
echo "Dev server: $origin"
export QUILLVOX_OPENAI_ORIGIN="$origin"

if printf 'local\n' | build/src/quillvox --set-api-key; then
    echo "Own-key mode: the key \"local\" is in the demo keyring item ($QUILLVOX_KEYCHAIN_SERVICE)."
else
    echo "No keyring: own-key mode needs a Secret Service (GNOME Keyring, KWallet or KeePassXC)." >&2
fi

cat <<MSG

Ask the local voice for speech (raw 16-bit mono PCM at 24 kHz):

  curl -sN $origin/v1/audio/speech -H 'Authorization: Bearer local' -H 'Content-Type: application/json' \\
    -d '{"model":"gpt-4o-mini-tts-2025-12-15","input":"Hello from Quillvox.","voice":"marin","response_format":"pcm"}' \\
    | paplay --raw --rate=24000 --channels=1 --format=s16le

MSG

if command -v paplay >/dev/null && pactl info >/dev/null 2>&1; then
    echo "Playing a welcome through the dev server..."
    curl -sN "$origin/v1/audio/speech" -H 'Authorization: Bearer local' -H 'Content-Type: application/json' \
        -d '{"model":"gpt-4o-mini-tts-2025-12-15","input":"Welcome to Quillvox. Select text anywhere and press Control, Alt and S to hear it.","voice":"marin","response_format":"pcm"}' \
        | paplay --raw --rate=24000 --channels=1 --format=s16le || true
fi

echo "The dev server keeps running until you press Ctrl+C."
wait "$DEVSERVER_PID"
