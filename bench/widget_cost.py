#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What the floating widget costs the running app: CPU during a narration, wake-ups while idle, memory.

Runs the app twice in own-key mode against quillvox-devserver, once with the widget hidden and once
shown ("showWidgetWithOwnKey"), each in a fresh profile, and measures in the same run:
  idle wake-ups   voluntary context switches of all the app's threads per second, nothing loaded
  narration CPU   user + system time of the app while a ~30 s narration plays, in % of one core
  RSS             resident memory after start-up (idle) and after the narration

Run inside the headless rig (Xvfb, D-Bus, keyring), on the software renderer (the app's default):
    scripts/rig.sh -- bench/widget_cost.py [--build build] [--idle-seconds 10]
Not part of CI; tests never assert timings.
"""

import argparse
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

TEXT = " ".join(["Quillvox reads the selected text aloud while the rest of it is still arriving."] * 6)
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime + stime, all threads


def wakeups(pid):
    total = 0
    for status in glob.glob(f"/proc/{pid}/task/*/status"):
        try:
            for line in open(status):
                if line.startswith("voluntary_ctxt_switches"):
                    total += int(line.split()[1])
        except FileNotFoundError:
            pass  # a thread that ended meanwhile
    return total


def rss_mb(pid):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS"):
            return int(line.split()[1]) / 1024
    return 0.0


def status(exe, env):
    out = subprocess.run([exe, "--status"], env=env, capture_output=True, text=True, timeout=10).stdout
    try:
        answer = json.loads(out)
    except json.JSONDecodeError:
        return {}
    return answer.get("status", answer)


def wait_for(predicate, timeout):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if predicate():
            return True
        time.sleep(0.05)
    return False


def measure(exe, origin, shown, idle_seconds):
    profile = tempfile.mkdtemp(prefix="qv-widget-bench-")
    env = dict(os.environ,
               XDG_CONFIG_HOME=f"{profile}/config", XDG_DATA_HOME=f"{profile}/data",
               XDG_CACHE_HOME=f"{profile}/cache",
               QUILLVOX_KEYCHAIN_SERVICE=f"com.vantor.quillvox.bench.widget.{int(shown)}",
               QUILLVOX_OPENAI_ORIGIN=origin, QUILLVOX_SERVICE_ORIGIN=origin, QUILLVOX_AUTH_ORIGIN=origin,
               QUILLVOX_AUDIO_OUTPUT="null")
    env.pop("QT_QUICK_BACKEND", None)
    os.makedirs(f"{profile}/config/Quillvox")
    with open(f"{profile}/config/Quillvox/Quillvox.conf", "w") as f:
        f.write(f"[General]\nhasCompletedOnboarding=true\nshowWidgetWithOwnKey={'true' if shown else 'false'}\n")
    subprocess.run([exe, "--set-api-key"], input="local\n", env=env, text=True, check=True,
                   capture_output=True)
    app = subprocess.Popen([exe], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        if not wait_for(lambda: bool(status(exe, env)), 20):
            sys.exit("the app did not answer --status")
        time.sleep(2)  # start-up work settles
        visible = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^Quillvox$"],
                                 capture_output=True, text=True).stdout.strip() != ""
        if visible != shown:
            sys.exit(f"widget visible={visible}, expected {shown}")
        rss_idle = rss_mb(app.pid)
        w0, t0 = wakeups(app.pid), time.monotonic()
        time.sleep(idle_seconds)
        idle_rate = (wakeups(app.pid) - w0) / (time.monotonic() - t0)

        c0, t0 = cpu_seconds(app.pid), time.monotonic()
        subprocess.run([exe, "--speak", TEXT], env=env, check=True, capture_output=True, timeout=20)
        if not wait_for(lambda: status(exe, env).get("isPlaying"), 20):
            sys.exit("the narration did not start")
        wait_for(lambda: not status(exe, env).get("isPlaying"), 120)
        wall = time.monotonic() - t0
        cpu = cpu_seconds(app.pid) - c0
        return {"idle_wakeups_per_s": idle_rate, "narration_s": wall, "cpu_pct_of_core": 100 * cpu / wall,
                "rss_idle_mb": rss_idle, "rss_after_mb": rss_mb(app.pid)}
    finally:
        app.terminate()
        app.wait(10)
        shutil.rmtree(profile, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build")
    parser.add_argument("--idle-seconds", type=float, default=10)
    args = parser.parse_args()
    exe = os.path.abspath(f"{args.build}/src/quillvox")
    server = subprocess.Popen([f"{args.build}/tools/devserver/quillvox-devserver", "--port", "0",
                               "--synth", "sine", "--pace", "1"], stdout=subprocess.PIPE, text=True)
    try:
        origin = server.stdout.readline().strip().removeprefix("listening on ")
        hidden = measure(exe, origin, False, args.idle_seconds)
        shown = measure(exe, origin, True, args.idle_seconds)
    finally:
        server.terminate()
        server.wait(10)
    print(f"{'':24}{'hidden':>10}{'shown':>10}")
    for key in hidden:
        print(f"{key:24}{hidden[key]:10.2f}{shown[key]:10.2f}")
    print(f"widget adds {shown['cpu_pct_of_core'] - hidden['cpu_pct_of_core']:.2f}% of one core while playing "
          f"(goal: at most 3); idle wake-ups {shown['idle_wakeups_per_s']:.2f}/s shown against "
          f"{hidden['idle_wakeups_per_s']:.2f}/s hidden (goal: no more); RSS shown {shown['rss_after_mb']:.0f} MB "
          f"(goal: under 100)")


if __name__ == "__main__":
    main()
