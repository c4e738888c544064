#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# A headless KDE Plasma session of our own: kwin_wayland --virtual with XWayland on a session bus of its
# own (run this under dbus-run-session), its desktop portal, an unlocked keyring, an editor window holding
# a selection, and Quillvox started as a user's session would start it, its widget shown. Prints what KWin
# says of each window ("window <caption> | x .. y .. | above .. | active .."), then presses the narration
# shortcut's command once and prints what the clipboard holds afterwards, between "clipboard<" and ">".
#   kwin-session.sh <work dir> <quillvox> <editor> <selected text> <clipboard text>
set -euo pipefail
work=$1 app=$2 editor=$3 selected=$4 clipboard=$5
log() { printf '[kwin-session] %s\n' "$*" >&2; }

# kwin_wayland carries file capabilities that an unprivileged namespace refuses; a copy runs, and it must
# keep its name.
mkdir -p "$work/bin" "$work/runtime"
chmod 700 "$work/runtime"
cp /usr/bin/kwin_wayland "$work/bin/kwin_wayland"
mkdir -p /tmp/.X11-unix && chmod 1777 /tmp/.X11-unix
export XDG_RUNTIME_DIR=$work/runtime XDG_CURRENT_DESKTOP=KDE XDG_SESSION_TYPE=wayland WAYLAND_DISPLAY=qv-kwin
unset DISPLAY
dbus-update-activation-environment XDG_RUNTIME_DIR XDG_CURRENT_DESKTOP XDG_SESSION_TYPE WAYLAND_DISPLAY \
    QT_QPA_PLATFORM=wayland

printf '\n' | gnome-keyring-daemon --unlock --components=secrets >/dev/null
# What its scripts print goes to its log.
QT_LOGGING_RULES="kwin_scripting=true" "$work/bin/kwin_wayland" --virtual --xwayland --socket "$WAYLAND_DISPLAY" \
    --width 1280 --height 800 >"$work/kwin.log" 2>&1 &
kwin=$!
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -S "$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY" ] && break; sleep 0.1; done
[ -S "$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY" ] || { log "kwin_wayland did not start"; cat "$work/kwin.log" >&2; exit 1; }
kill -0 $kwin
# KWin picks a free display for its XWayland and names it on XWayland's command line; other X servers
# starting meanwhile (another test's) must not be mistaken for it. A loaded machine can take a while.
display=
for _ in $(seq 300); do
    display=$(pgrep -a -P $kwin Xwayland | grep -oE ' :[0-9]+' | head -1 | tr -d ' ' || true)
    [ -n "$display" ] && [ -S "/tmp/.X11-unix/X${display#:}" ] && break
    display=
    sleep 0.1
done
[ -n "$display" ] || { log "XWayland did not start"; cat "$work/kwin.log" >&2; exit 1; }
export DISPLAY=$display

wl-copy "$clipboard"
printf 'sk-kwin-1357' | "$app" --set-api-key
mkdir -p "$XDG_CONFIG_HOME/Quillvox"
printf '[General]\nhasCompletedOnboarding=true\nshowWidgetWithOwnKey=true\n' \
    >"$XDG_CONFIG_HOME/Quillvox/Quillvox.conf"

# The editor opens first and has the keyboard focus; the widget must leave it there.
QT_QPA_PLATFORM=wayland "$editor" "$selected" >"$work/editor.log" 2>&1 &
for _ in $(seq 100); do grep -q focused "$work/editor.log" && break; sleep 0.1; done
grep -q focused "$work/editor.log" || { log "the editor window got no focus"; exit 1; }
"$app" >"$work/app.log" 2>&1 &
for _ in $(seq 100); do "$app" --status >/dev/null 2>&1 && break; sleep 0.1; done
sleep 1

cat >"$work/probe.js" <<'JS'
for (const c of workspace.clientList()) {
    const g = c.frameGeometry;
    print("window " + c.caption + " | x " + g.x + " y " + g.y + " | above " + c.keepAbove + " | active " + c.active);
}
JS
qdbus=/usr/lib/qt6/bin/qdbus
$qdbus org.kde.KWin /Scripting org.kde.kwin.Scripting.loadScript "$work/probe.js" quillvox-probe >/dev/null
$qdbus org.kde.KWin /Scripting org.kde.kwin.Scripting.start
for _ in $(seq 50); do grep -q "js: window" "$work/kwin.log" && break; sleep 0.1; done
sed -n 's/^js: //p' "$work/kwin.log"

"$app" --narrate-selection
for _ in $(seq 50); do grep -q copied "$work/editor.log" && break; sleep 0.1; done
sleep 1
printf 'clipboard<%s>\n' "$(wl-paste --no-newline)"
