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

# The dev server speaks the OpenAI-compatible protocol and accepts the key "local"; it also plays the
# account service and its sign-in, so that the demo never reaches the real ones.
log="$profile/devserver.log"
coproc DEVSERVER { exec build/tools/devserver/quillvox-devserver --port 0 --pace 1; }
trap 'kill "$DEVSERVER_PID" 2>/dev/null || true' EXIT
read -r line <&"${DEVSERVER[0]}"
origin=${line#listening on }
echo "Dev server: $origin"
export QUILLVOX_OPENAI_ORIGIN="$origin" QUILLVOX_SERVICE_ORIGIN="$origin" QUILLVOX_AUTH_ORIGIN="$origin"
export QUILLVOX_AUTH_ANON_KEY=quillvox-dev-anon-key

if printf 'local\n' | build/src/quillvox --set-api-key; then
    echo "Own-key mode: the key \"local\" is in the demo keyring item ($QUILLVOX_KEYCHAIN_SERVICE)."
else
    echo "No keyring: own-key mode needs a Secret Service (GNOME Keyring, KWallet or KeePassXC)." >&2
fi

cat <<MSG

Narrate any text through the local voice in this profile:

  XDG_CONFIG_HOME=$XDG_CONFIG_HOME XDG_DATA_HOME=$XDG_DATA_HOME \\
  QUILLVOX_KEYCHAIN_SERVICE=$QUILLVOX_KEYCHAIN_SERVICE QUILLVOX_OPENAI_ORIGIN=$origin \\
  build/src/quillvox --speak "Any text you like." --voice cedar --style Calm --speed 1.25

MSG

build/src/quillvox --speak "Welcome to Quillvox. Select text anywhere and press Control, Alt and S to hear it." \
    || echo "(The welcome could not be played; see the message above.)" >&2

# quillvox:// callback URLs (browser sign-in) come back to the application of this profile.
mkdir -p "$XDG_DATA_HOME/applications"
profile_env="XDG_CONFIG_HOME=$XDG_CONFIG_HOME XDG_DATA_HOME=$XDG_DATA_HOME XDG_CACHE_HOME=$XDG_CACHE_HOME"
profile_env+=" QUILLVOX_KEYCHAIN_SERVICE=$QUILLVOX_KEYCHAIN_SERVICE QUILLVOX_OPENAI_ORIGIN=$origin"
profile_env+=" QUILLVOX_SERVICE_ORIGIN=$origin QUILLVOX_AUTH_ORIGIN=$origin QUILLVOX_AUTH_ANON_KEY=$QUILLVOX_AUTH_ANON_KEY"
sed "s|^Exec=quillvox|Exec=env $profile_env $root/build/src/quillvox|" resources/quillvox.desktop \
    >"$XDG_DATA_HOME/applications/quillvox.desktop"
xdg-mime default quillvox.desktop x-scheme-handler/quillvox 2>/dev/null || true

echo "Quillvox is running (Ctrl+C quits). Select text anywhere and press Ctrl+Alt+S; or from another"
echo "terminal with the variables above: build/src/quillvox --narrate-selection | --toggle | --stop | --status"
build/src/quillvox
