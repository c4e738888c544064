#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What Quillvox costs while it reads aloud and while it waits, against what playing the sound costs.

One run, side by side, each in a fresh profile in own-key mode against quillvox-devserver (espeak voice,
streamed at real time), through the rig's PulseAudio:
  1. Quillvox with the widget hidden: idle wake-ups, idle RSS, a ~30 s narration, then Settings opened
     and closed again. The profile's last update check was an hour ago, as on most starts (a check
     that is due runs 10 s after the start and costs about ten wake-ups once).
  2. `pacat` playing the very PCM that narration stored in the history, to the same PulseAudio.
  3. Quillvox with the widget shown ("showWidgetWithOwnKey"): the same.

  idle wake-ups   context switches (voluntary and not) of all the app's threads, read from /proc every
                  0.25 s (threads that end count up to their last reading), over --idle-seconds from
                  3 s after the app was started, nothing loaded, no window open but the widget
  playing CPU     on-CPU time of all threads (/proc/<pid>/task/*/schedstat) over the same --window
                  seconds of playback, from 3 s after the sound started, in % of one core; nothing
                  asks the app anything during the window
  RSS             after the idle window; with Settings open; 3 s after Settings was closed

Run inside the headless rig (Xvfb with openbox, D-Bus, keyring, PulseAudio), software renderer (the
app's default):
    scripts/rig.sh -- bench/playback_cost.py [--build build] [--window 24] [--idle-seconds 30]
Goals: Quillvox hidden / pacat at most 2.0; the widget adds at most 1.5 % of one core; idle wake-ups at
most 0.2/s; idle RSS under 45 MB, after Settings under 60 MB. Not part of CI; tests never assert timings.
"""

import argparse
import datetime
import glob
import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

TEXT = " ".join([
    "Quillvox reads the selected text aloud while the rest of it is still arriving from the server.",
    "A narration is often minutes long, and it is often heard on a laptop running on its battery.",
    "While it plays, the reader should cost about what any other player costs, and nothing at rest.",
] * 2)
POLL_S = 0.25


class ThreadCounters:
    """Sums a per-thread counter over all threads of a process, counting threads that come and go."""

    def __init__(self, pid, read):
        self.pid, self.read = pid, read
        self.base, self.last = {}, {}
        self.started = False

    def sample(self):
        for path in glob.glob(f"/proc/{self.pid}/task/*"):
            tid = path.rsplit("/", 1)[1]
            try:
                value = self.read(path)
            except (FileNotFoundError, ProcessLookupError):
                continue  # ended meanwhile
            if tid not in self.base:
                self.base[tid] = value if not self.started else 0
            self.last[tid] = value
        self.started = True

    def total(self):
        return sum(self.last[tid] - self.base[tid] for tid in self.last)

    def watch(self, seconds):
        self.sample()
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(min(POLL_S, max(0.0, end - time.monotonic())))
            self.sample()
        return self.total()


def context_switches(task):
    total = 0
    for line in open(f"{task}/status"):
        if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
            total += int(line.split()[1])
    return total


def cpu_ns(task):
    return int(open(f"{task}/schedstat").read().split()[0])


def per_thread_switches(pid):
    rows = []
    for path in glob.glob(f"/proc/{pid}/task/*"):
        try:
            name = open(f"{path}/comm").read().strip()
            rows.append((f"{name} ({path.rsplit('/', 1)[1]})", context_switches(path)))
        except FileNotFoundError:
            pass
    return rows


def rss_mb(pid):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS"):
            return int(line.split()[1]) / 1024
    return 0.0


def wait_for(predicate, timeout, step=0.2):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if predicate():
            return True
        time.sleep(step)
    return False


def visible_window(name):
    return subprocess.run(["xdotool", "search", "--onlyvisible", "--name", f"^{name}$"],
                          capture_output=True, text=True).stdout.strip()


def settings_date(when):
    """A UTC date as QSettings writes it: QDataStream of a QVariant holding a QDateTime."""
    midnight = when.replace(hour=0, minute=0, second=0, microsecond=0)
    msecs = int((when - midnight).total_seconds() * 1000)
    data = struct.pack(">IBqIb", 16, 0, when.toordinal() + 1721425, msecs, 1)
    return "@DateTime(" + "".join(f"\\x{b:02x}" for b in data) + ")"


class App:
    def __init__(self, exe, origin, shown, label):
        self.exe, self.shown = exe, shown
        self.profile = tempfile.mkdtemp(prefix=f"qv-cost-{label}-")
        self.env = dict(os.environ,
                        XDG_CONFIG_HOME=f"{self.profile}/config", XDG_DATA_HOME=f"{self.profile}/data",
                        XDG_CACHE_HOME=f"{self.profile}/cache",
                        QUILLVOX_KEYCHAIN_SERVICE=f"com.vantor.quillvox.bench.cost.{label}",
                        QUILLVOX_OPENAI_ORIGIN=origin, QUILLVOX_SERVICE_ORIGIN=origin,
                        QUILLVOX_AUTH_ORIGIN=origin, QUILLVOX_APPCAST_URL=f"{origin}/appcast.xml",
                        QUILLVOX_AUDIO_OUTPUT="pulse")
        self.env.pop("QT_QUICK_BACKEND", None)
        os.makedirs(f"{self.profile}/config/Quillvox")
        with open(f"{self.profile}/config/Quillvox/Quillvox.conf", "w") as f:
            f.write("[General]\nhasCompletedOnboarding=true\n"
                    f"showWidgetWithOwnKey={'true' if shown else 'false'}\n"
                    f"lastUpdateCheck={settings_date(datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(hours=1))}\n")
        subprocess.run([exe, "--set-api-key"], input="local\n", env=self.env, text=True, check=True,
                       capture_output=True)
        self.started = time.monotonic()
        self.proc = subprocess.Popen([exe], env=self.env, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)

    def run(self, *args, timeout=20):
        return subprocess.run([self.exe, *args], env=self.env, capture_output=True, text=True,
                              timeout=timeout)

    def status(self):
        try:
            answer = json.loads(self.run("--status").stdout)
        except (json.JSONDecodeError, subprocess.TimeoutExpired):
            return {}
        return answer.get("status", answer)

    def close(self):
        self.proc.terminate()
        self.proc.wait(10)
        shutil.rmtree(self.profile, ignore_errors=True)


def measure_app(exe, origin, shown, args, keep_pcm=None):
    app = App(exe, origin, shown, "shown" if shown else "hidden")
    pid = app.proc.pid
    result = {}
    try:
        # Idle: from 3 s after the start, asking the app nothing.
        time.sleep(max(0.0, app.started + 3 - time.monotonic()))
        switches = ThreadCounters(pid, context_switches)
        before = dict(per_thread_switches(pid)) if args.threads else {}
        result["idle_wakeups_per_s"] = switches.watch(args.idle_seconds) / args.idle_seconds
        if args.threads:
            for name, count in per_thread_switches(pid):
                if count != before.get(name, count):
                    print(f"  {'shown' if shown else 'hidden'} idle: {name} {count - before.get(name, 0)}",
                          file=sys.stderr)
        result["rss_idle_mb"] = rss_mb(pid)
        if not app.status():
            sys.exit("the app did not answer --status")
        if bool(visible_window("Quillvox")) != shown:
            sys.exit(f"widget visible={not shown}, expected {shown}")

        # Playing: a window of the narration, asking the app nothing meanwhile.
        app.run("--speak", TEXT)
        if not wait_for(lambda: app.status().get("isPlaying"), 30):
            sys.exit("the narration did not start")
        time.sleep(3)
        cpu = ThreadCounters(pid, cpu_ns)
        before = per_thread_switches(pid) if args.threads else []
        ns = cpu.watch(args.window)
        result["playing_cpu_pct"] = 100 * ns / 1e9 / args.window
        if args.threads:
            label = "shown" if shown else "hidden"
            start = dict(before)
            for name, end in per_thread_switches(pid):
                if end != start.get(name, 0):
                    print(f"  {label} playing: {name} {(end - start.get(name, 0)) / args.window:.1f}/s",
                          file=sys.stderr)
        state = app.status()
        if not state.get("isPlaying"):
            sys.exit(f"the narration ended inside the window: {state}")
        wait_for(lambda: not app.status().get("isPlaying"), 120, step=0.5)
        result["narration_s"] = app.status().get("totalTime", 0)
        if keep_pcm:
            pcms = glob.glob(f"{app.profile}/data/Quillvox/History/*.pcm")
            if not pcms:
                sys.exit("the narration left no audio in the history")
            shutil.copy(pcms[0], keep_pcm)

        # Settings: opened by a second start, closed by the window manager (Alt+F4).
        app.run()
        if not wait_for(lambda: visible_window("Settings"), 20):
            sys.exit("Settings did not open")
        time.sleep(2)
        result["rss_settings_open_mb"] = rss_mb(pid)
        subprocess.run(["xdotool", "windowactivate", "--sync", visible_window("Settings").split()[0]],
                       capture_output=True)
        subprocess.run(["xdotool", "key", "alt+F4"], check=True)
        if not wait_for(lambda: not visible_window("Settings"), 10):
            sys.exit("Settings did not close")
        time.sleep(3)
        result["rss_settings_closed_mb"] = rss_mb(pid)
        return result
    finally:
        app.close()


def measure_pacat(pcm, args):
    with open(pcm, "rb") as source:
        started = time.monotonic()
        player = subprocess.Popen(["pacat", "--playback", "--raw", "--format=s16le", "--rate=24000",
                                   "--channels=1", "--client-name=bench-pacat"], stdin=source)
        try:
            time.sleep(3)
            ns = ThreadCounters(player.pid, cpu_ns).watch(args.window)
            if player.poll() is not None:
                sys.exit("pacat ended inside the window")
            player.wait(120)
        finally:
            if player.poll() is None:
                player.kill()
    return {"playing_cpu_pct": 100 * ns / 1e9 / args.window, "narration_s": time.monotonic() - started}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build")
    parser.add_argument("--window", type=float, default=24, help="seconds of playback measured")
    parser.add_argument("--idle-seconds", type=float, default=30)
    parser.add_argument("--threads", action="store_true", help="name the threads that woke while idle, and their wake-ups/s while playing")
    args = parser.parse_args()
    exe = os.path.abspath(f"{args.build}/src/quillvox")
    server = subprocess.Popen([f"{args.build}/tools/devserver/quillvox-devserver", "--port", "0",
                               "--pace", "1"], stdout=subprocess.PIPE, text=True)
    pcm = tempfile.mktemp(suffix=".pcm")
    try:
        origin = server.stdout.readline().strip().removeprefix("listening on ")
        hidden = measure_app(exe, origin, False, args, keep_pcm=pcm)
        pacat = measure_pacat(pcm, args)
        shown = measure_app(exe, origin, True, args)
    finally:
        server.terminate()
        server.wait(10)
        if os.path.exists(pcm):
            os.unlink(pcm)

    print(f"{'':24}{'hidden':>10}{'shown':>10}{'pacat':>10}")
    for key in hidden:
        cells = "".join(f"{row[key]:10.2f}" if key in row else f"{'':>10}" for row in (hidden, shown, pacat))
        print(f"{key:24}{cells}")
    ratio = hidden["playing_cpu_pct"] / pacat["playing_cpu_pct"] if pacat["playing_cpu_pct"] else float("inf")
    print(f"playing: Quillvox hidden / pacat = {ratio:.2f} (goal: at most 2.0); the widget adds "
          f"{shown['playing_cpu_pct'] - hidden['playing_cpu_pct']:.2f} % of one core (goal: at most 1.5)")
    print(f"idle: {hidden['idle_wakeups_per_s']:.2f} wake-ups/s (goal: at most 0.2), RSS "
          f"{hidden['rss_idle_mb']:.1f} MB (goal: under 45), after Settings {hidden['rss_settings_closed_mb']:.1f} MB "
          f"(goal: under 60)")


if __name__ == "__main__":
    main()
