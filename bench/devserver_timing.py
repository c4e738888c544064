#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""How faithfully quillvox-devserver keeps the timing it is asked for.

Starts the server with --ttfb-ms N --pace X, sends the same sentence a few times and prints, per run
and as medians:
  head      time from sending the request to the response head
  first     time to the first body byte (should be about N ms)
  stream    time from the first to the last body byte
  audio     duration of the audio received (bytes / 48000 s)
  stream/audio  should be about 1/X, a little less: the first 50 ms piece leaves with the head

Not part of CI; tests never assert timings.
    bench/devserver_timing.py [--server PATH] [--ttfb-ms 300] [--pace 1] [--runs 5] [--text "..."]
"""

import argparse
import glob
import http.client
import json
import os
import signal
import statistics
import subprocess
import sys
import time

BYTES_PER_SECOND = 48000  # 24 kHz, 16-bit mono
DEFAULT_TEXT = ("Quillvox reads the selected text aloud, and the audio starts playing while the rest "
                "of the sentence is still on its way.")


def find_server(repo):
    env = os.environ.get("QUILLVOX_DEVSERVER")
    if env:
        return env
    candidates = sorted(glob.glob(os.path.join(repo, "build*", "tools", "devserver", "quillvox-devserver")),
                        key=os.path.getmtime, reverse=True)
    if not candidates:
        sys.exit("quillvox-devserver not found; build it or pass --server")
    return candidates[0]


def start(server, arguments):
    process = subprocess.Popen([server, "--port", "0", *arguments], stdout=subprocess.PIPE, text=True)
    line = process.stdout.readline().strip()
    prefix = "listening on http://127.0.0.1:"
    if not line.startswith(prefix):
        process.kill()
        sys.exit(f"unexpected first line from {server}: {line!r}")
    return process, int(line[len(prefix):])


def measure(port, text, voice):
    body = json.dumps({"model": "gpt-4o-mini-tts", "input": text, "voice": voice, "response_format": "pcm",
                       "instructions": "Speak plainly."})
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)
    connection.connect()
    sent = time.perf_counter()
    connection.request("POST", "/api/tts/stream", body=body,
                       headers={"Authorization": "Bearer bench", "Content-Type": "application/json"})
    response = connection.getresponse()
    head = time.perf_counter()
    if response.status != 200:
        sys.exit(f"status {response.status}: {response.read()!r}")
    first = last = None
    received = 0
    while True:
        piece = response.read1(65536)
        if not piece:
            break
        now = time.perf_counter()
        first = first or now
        last = now
        received += len(piece)
    connection.close()
    return {
        "head": head - sent,
        "first": first - sent,
        "stream": last - first,
        "audio": received / BYTES_PER_SECOND,
    }


def main():
    repo = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--server", default=None)
    parser.add_argument("--ttfb-ms", type=int, default=300)
    parser.add_argument("--pace", type=float, default=1.0)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--voice", default="marin")
    parser.add_argument("--text", default=DEFAULT_TEXT)
    options = parser.parse_args()

    server = options.server or find_server(repo)
    process, port = start(server, ["--ttfb-ms", str(options.ttfb_ms), "--pace", str(options.pace)])
    try:
        measure(port, "Warm up.", options.voice)  # the engine starts on first use
        runs = [measure(port, options.text, options.voice) for _ in range(options.runs)]
    finally:
        process.send_signal(signal.SIGTERM)
        code = process.wait(timeout=10)

    print(f"server     {server}")
    print(f"settings   --ttfb-ms {options.ttfb_ms} --pace {options.pace}, {options.runs} runs, "
          f"{len(options.text)} characters, voice {options.voice}")
    print(f"{'run':>4} {'head ms':>9} {'first ms':>9} {'first/ttfb':>10} {'stream s':>9} {'audio s':>8} "
          f"{'stream/audio':>12}")

    def row(label, r):
        ttfb_ratio = r["first"] * 1000 / options.ttfb_ms if options.ttfb_ms else float("nan")
        print(f"{label:>4} {r['head'] * 1000:9.1f} {r['first'] * 1000:9.1f} {ttfb_ratio:10.3f} "
              f"{r['stream']:9.3f} {r['audio']:8.3f} {r['stream'] / r['audio']:12.3f}")

    for index, r in enumerate(runs, 1):
        row(str(index), r)
    row("med", {key: statistics.median(r[key] for r in runs) for key in runs[0]})
    print(f"expected   first ~ {options.ttfb_ms} ms; stream/audio ~ "
          f"{(1 / options.pace) if options.pace else 0:.3f} (minus one 50 ms piece)")
    print(f"server exit code on SIGTERM: {code}")


if __name__ == "__main__":
    main()
