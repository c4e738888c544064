#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Builds Quillvox and runs it in a demo profile: the local dev server is the voice, and settings,
# history and secrets live in a profile of their own, never the user's real ones.
# BUILD_DIR (default build) is where it builds; QUILLVOX_DEMO_PREBUILT=1 uses what is built there as it
# is, and DEMO_PROFILE (default BUILD_DIR/demo-profile) moves the profile.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$(realpath -m "${BUILD_DIR:-build}")

if [ -z "${QUILLVOX_DEMO_PREBUILT:-}" ]; then
    scripts/install-deps.sh
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" --target quillvox quillvox-devserver
fi
app="$build/src/quillvox"

profile=$(realpath -m "${DEMO_PROFILE:-$build/demo-profile}")
mkdir -p "$profile"/{config,data,cache}
export XDG_CONFIG_HOME="$profile/config" XDG_DATA_HOME="$profile/data" XDG_CACHE_HOME="$profile/cache"
export QUILLVOX_KEYCHAIN_SERVICE=com.vantor.quillvox.demo

# The dev server speaks the OpenAI-compatible protocol and accepts the key "local"; it also plays the
# account service and its sign-in, so that the demo never reaches the real ones.
log="$profile/devserver.log"
coproc DEVSERVER { exec "$build/tools/devserver/quillvox-devserver" --port 0 --pace 1 --log "$log"; }
trap 'kill "$DEVSERVER_PID" 2>/dev/null || true' EXIT
read -r line <&"${DEVSERVER[0]}"
origin=${line#listening on }
echo "Dev server: $origin"
export QUILLVOX_OPENAI_ORIGIN="$origin" QUILLVOX_SERVICE_ORIGIN="$origin" QUILLVOX_AUTH_ORIGIN="$origin"
export QUILLVOX_AUTH_ANON_KEY=quillvox-dev-anon-key QUILLVOX_APPCAST_URL="$origin/appcast.xml"

if printf 'local\n' | "$app" --set-api-key; then
    echo "Own-key mode: the key \"local\" is in the demo keyring item ($QUILLVOX_KEYCHAIN_SERVICE)."
else
    echo "No keyring: own-key mode needs a Secret Service (GNOME Keyring, KWallet or KeePassXC)." >&2
fi

# A signed-in dev-server account, as its sign-in page hands it out, so that the widget, the balance and
# narrations through the service show from the start. secret-tool stores its input byte for byte: the
# tokens go in without a line end.
callback=$(curl -s -o /dev/null -w '%{redirect_url}' "$origin/auth/v1/consent?redirect_to=quillvox://auth/callback")
fragment_item() { tr '&' '\n' <<<"${callback#*#}" | sed -n "s/^$1=//p"; }
store_token() {
    local value
    value=$(fragment_item "$1")
    [ -n "$value" ] && printf '%s' "$value" | secret-tool store --label="Quillvox demo $2" \
        service "$QUILLVOX_KEYCHAIN_SERVICE" account "$2" 2>/dev/null
}
if store_token access_token access-token && store_token refresh_token refresh-token; then
    echo "Signed in to the dev server's account (its balance: 20 minutes)."
else
    echo "Not signed in: the dev server's sign-in or the keyring did not answer." >&2
fi
conf="$XDG_CONFIG_HOME/Quillvox/Quillvox.conf"
if ! grep -qs '^hasCompletedOnboarding=' "$conf"; then
    mkdir -p "$(dirname "$conf")"
    grep -qs '^\[General\]' "$conf" || echo '[General]' >>"$conf"
    sed -i 's/^\[General\]$/[General]\nhasCompletedOnboarding=true/' "$conf"
fi

cat <<MSG

Narrate any text through the local voice in this profile:

  XDG_CONFIG_HOME=$XDG_CONFIG_HOME XDG_DATA_HOME=$XDG_DATA_HOME \\
  QUILLVOX_KEYCHAIN_SERVICE=$QUILLVOX_KEYCHAIN_SERVICE QUILLVOX_OPENAI_ORIGIN=$origin \\
  $app --speak "Any text you like." --voice cedar --style Calm --speed 1.25

MSG

"$app" --speak "Welcome to Quillvox. Select text anywhere and press Control, Alt and S to hear it." \
    || echo "(The welcome could not be played; see the message above.)" >&2

# quillvox:// callback URLs (browser sign-in) come back to the application of this profile.
mkdir -p "$XDG_DATA_HOME/applications"
profile_env="XDG_CONFIG_HOME=$XDG_CONFIG_HOME XDG_DATA_HOME=$XDG_DATA_HOME XDG_CACHE_HOME=$XDG_CACHE_HOME"
profile_env+=" QUILLVOX_KEYCHAIN_SERVICE=$QUILLVOX_KEYCHAIN_SERVICE QUILLVOX_OPENAI_ORIGIN=$origin"
profile_env+=" QUILLVOX_SERVICE_ORIGIN=$origin QUILLVOX_AUTH_ORIGIN=$origin QUILLVOX_AUTH_ANON_KEY=$QUILLVOX_AUTH_ANON_KEY"
profile_env+=" QUILLVOX_APPCAST_URL=$QUILLVOX_APPCAST_URL"
# The profile's instance owns a bus name of its own (the first ten hex digits of its configuration
# folder's SHA-1), and a D-Bus-activatable entry must be named after it.
name="com.vantor.Quillvox.Profile_$(printf '%s' "$XDG_CONFIG_HOME" | sha1sum | cut -c1-10)"
sed "s|^Exec=quillvox|Exec=env $profile_env $app|" resources/com.vantor.Quillvox.desktop \
    >"$XDG_DATA_HOME/applications/$name.desktop"
xdg-mime default "$name.desktop" x-scheme-handler/quillvox 2>/dev/null || true

echo "Quillvox is running (Ctrl+C quits). Select text anywhere and press Ctrl+Alt+S; or from another"
echo "terminal with the variables above: $app --narrate-selection | --toggle | --stop | --status"
"$app"
