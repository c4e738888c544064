#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Headless desktop for the desktop tests (Debian 12, runs fine as root, no systemd/logind needed).
# Starts: Xvfb (+ optional openbox WM / xcompmgr compositor), a private D-Bus session bus,
# gnome-keyring (Secret Service, login keyring unlocked with an EMPTY password) and a
# PulseAudio daemon with a null sink "qv" (+ its monitor "qv.monitor").
#
#   usage 1:  bash rig.sh [--] cmd args...      # run cmd inside the rig, tear down, exit with cmd's rc
#   usage 2:  source rig.sh; rig_up || exit 1; ...; rig_down
#
# knobs: RIG_DIR (state dir, default mktemp), RIG_WM=openbox|none (default openbox),
#        RIG_COMPOSITOR=1 (start xcompmgr: needed for *visible* ARGB transparency in screenshots),
#        RIG_SCREEN=1920x1080x24, RIG_PA_RECORD=1 (record qv.monitor to $RIG_DIR/sink.wav, keeps
#        the null sink awake -> ~5 ms instead of up-to-2 s first-sound latency; default 1)
# needs:   xvfb x11-utils xdotool dbus-daemon gnome-keyring libsecret-tools pulseaudio pulseaudio-utils
#          (+ openbox, xcompmgr if used)

_rig_log() { echo "[rig] $*" >&2; }

_rig_wait() { # _rig_wait <tries*0.1s> <cmd...>
    local n=$1; shift
    for ((i = 0; i < n; i++)); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    return 1
}

rig_up() {
    export RIG_DIR=${RIG_DIR:-$(mktemp -d -t rig-state.XXXXXX)}
    mkdir -p "$RIG_DIR" && chmod 700 "$RIG_DIR"
    RIG_PIDS=()                       # started processes, in start order (torn down in reverse)

    # --- hermetic per-run environment (keyrings, pulse cookie, dconf ... all inside RIG_DIR)
    export XDG_RUNTIME_DIR="$RIG_DIR/run" XDG_CONFIG_HOME="$RIG_DIR/config" \
           XDG_DATA_HOME="$RIG_DIR/data" XDG_CACHE_HOME="$RIG_DIR/cache"
    mkdir -p -m 700 "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
    export NO_AT_BRIDGE=1             # GTK apps: don't spawn at-spi-bus-launcher on our bus
    export GSETTINGS_BACKEND=memory   # GTK apps: no dconf-service activation
    export QT_QPA_PLATFORM=xcb
    unset WAYLAND_DISPLAY SESSION_MANAGER

    # --- 1. D-Bus session bus FIRST: otherwise the first X11 client (Qt, GTK) with no
    #        DBUS_SESSION_BUS_ADDRESS autolaunches a stray `dbus-launch --autolaunch` daemon.
    dbus-daemon --session --nofork --nopidfile --address="unix:path=$RIG_DIR/bus" \
        --print-address=1 >"$RIG_DIR/dbus.addr" 2>"$RIG_DIR/dbus.log" &
    RIG_PIDS+=($!)
    _rig_wait 50 test -s "$RIG_DIR/dbus.addr" || { _rig_log "dbus-daemon failed"; cat "$RIG_DIR/dbus.log" >&2; return 1; }
    export DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$RIG_DIR/dbus.addr")

    # --- 2. Xvfb: -displayfd picks a free display and reports it only once it accepts clients;
    #        -noreset: don't reset server state (root bg, atoms) when the last client disconnects.
    Xvfb -displayfd 3 -screen 0 "${RIG_SCREEN:-1920x1080x24}" -nolisten tcp -noreset \
        3>"$RIG_DIR/display" >"$RIG_DIR/xvfb.log" 2>&1 &
    RIG_PIDS+=($!)
    _rig_wait 100 test -s "$RIG_DIR/display" || { _rig_log "Xvfb failed"; cat "$RIG_DIR/xvfb.log" >&2; return 1; }
    export DISPLAY=":$(head -n1 "$RIG_DIR/display")"
    xsetroot -solid '#306030' 2>/dev/null || true

    if [ "${RIG_WM:-openbox}" = openbox ]; then   # a WM gives realistic focus/activation (_NET_ACTIVE_WINDOW)
        openbox --sm-disable >"$RIG_DIR/openbox.log" 2>&1 &
        RIG_PIDS+=($!)
        _rig_wait 50 sh -c 'xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"' \
            || { _rig_log "openbox failed"; return 1; }
    fi
    if [ "${RIG_COMPOSITOR:-0}" = 1 ]; then
        xcompmgr >"$RIG_DIR/xcompmgr.log" 2>&1 &
        RIG_PIDS+=($!)
        sleep 0.3
    fi

    # --- 3. gnome-keyring: password on stdin must be a *newline* (= empty password).
    #        `echo -n "" |` or </dev/null does NOT create/unlock the login keyring, and then every
    #        store blocks on a gcr-prompter dialog (on our Xvfb!) -> secret clients fail with
    #        "Object does not exist at path /org/freedesktop/secrets/collection/login".
    printf '\n' >"$RIG_DIR/kr.pw"
    gnome-keyring-daemon --foreground --unlock --components=secrets \
        <"$RIG_DIR/kr.pw" >"$RIG_DIR/keyring.out" 2>"$RIG_DIR/keyring.log" &
    RIG_PIDS+=($!)
    # ask the bus whether the name is owned: a call to org.freedesktop.secrets itself would make the bus
    # activate a second daemon while ours is still starting ("another secret service is running")
    _rig_wait 100 sh -c 'dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets | grep -q "boolean true"' \
        || { _rig_log "gnome-keyring failed"; cat "$RIG_DIR/keyring.log" >&2; return 1; }
    _rig_wait 100 sh -c 'dbus-send --session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets \
        org.freedesktop.Secret.Service.ReadAlias string:default | grep -q "collection/login"' \
        || { _rig_log "gnome-keyring failed"; cat "$RIG_DIR/keyring.log" >&2; return 1; }

    # --- 4. PulseAudio as root: -n = no default.pa (no udev/alsa/bluetooth/x11 modules);
    #        warns "not intended to be run as root" but works. Anonymous auth on our own socket.
    export PULSE_SERVER="unix:$RIG_DIR/pulse.sock"   # also disables client autospawn
    pulseaudio --daemonize=no -n --exit-idle-time=-1 --log-target=stderr \
        --load="module-null-sink sink_name=qv sink_properties=device.description=qv" \
        --load="module-native-protocol-unix auth-anonymous=1 socket=$RIG_DIR/pulse.sock" \
        >"$RIG_DIR/pulse.log" 2>&1 &
    RIG_PIDS+=($!)
    _rig_wait 100 pactl info || { _rig_log "pulseaudio failed"; cat "$RIG_DIR/pulse.log" >&2; return 1; }
    pactl set-default-sink qv
    if [ "${RIG_PA_RECORD:-1}" = 1 ]; then
        # records everything played (assert on it later) and keeps the null sink on short blocks
        parec -d qv.monitor --rate=24000 --channels=1 --format=s16le --latency-msec=10 \
            --file-format=wav "$RIG_DIR/sink.wav" 2>"$RIG_DIR/parec.log" &
        RIG_PIDS+=($!)
        RIG_PAREC_PID=$!
        sleep 2.2   # null sink sleeps up to 2 s before it adopts the short latency
    fi
    # --- 5. Wayland tests start their own headless sway, which refuses to run as root: they run it as
    #        this unprivileged user (RIG_WAYLAND_USER), made once per machine.
    if [ "$(id -u)" -eq 0 ] && command -v sway >/dev/null; then
        id quillvox-rig >/dev/null 2>&1 \
            || useradd --system --no-create-home --shell /usr/sbin/nologin quillvox-rig
        export RIG_WAYLAND_USER=quillvox-rig
    fi
    export RIG_PIDS_STR="${RIG_PIDS[*]}"
    _rig_log "up: DISPLAY=$DISPLAY DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS PULSE_SERVER=$PULSE_SERVER pids=${RIG_PIDS[*]}"
}

rig_down() {
    local pids=(${RIG_PIDS_STR:-${RIG_PIDS[*]}}) i p
    # children that our dbus-daemon activated (gcr-prompter, at-spi...) are ours too: by PID only
    local busd=${pids[0]}
    [ -n "$busd" ] && for p in $(ps -o pid= --ppid "$busd" 2>/dev/null); do kill "$p" 2>/dev/null || true; done
    # ...and the bus daemons at-spi's launchers started (the rig's bus's or a test's own), which outlive
    # their launcher: every one of them listens under the rig's directory
    pkill -f -- "--address=unix:path=$RIG_DIR/" 2>/dev/null || true
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        p=${pids[i]}
        kill "$p" 2>/dev/null || continue
        for _ in $(seq 30); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$p" 2>/dev/null || true
        wait "$p" 2>/dev/null || true   # reap (PID 1 in containers often doesn't)
    done
    _rig_log "down (state kept in $RIG_DIR)"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then    # executed, not sourced
    [ "$1" = "--" ] && shift
    rig_up || { rig_down; exit 1; }
    trap 'rig_down' EXIT
    trap 'exit 130' INT TERM
    "${@:-true}"
    exit $?
fi
