#!/usr/bin/env python3
"""Measures how long a frame takes to the screen: the preview's widget of GTK 4 beside GStreamer's windows and ffplay.

Usage: bench/compare_latency.py [--build DIR] [--flashes N] [--runs N]

Each program reads the same planes of 640 x 480 from a pipe, 30 frames a second, in a window under Xvfb with the software
renderer. Now and then a black frame follows white ones, or the other way round: the time counts from the moment when
the frame is written to the pipe until the X server shows it in the middle of the screen. Nobody waits for a frame's own
time. Needs Xvfb, GStreamer and ffplay.
"""
import argparse
import ctypes
import fcntl
import os
import pathlib
import random
import statistics
import subprocess
import sys
import time

from compare_drawing import start_display

ROOT = pathlib.Path(__file__).resolve().parents[1]
WIDTH, HEIGHT = 640, 480
FRAMES = {level: bytes([235 if level else 16]) * (WIDTH * HEIGHT) + bytes([128]) * (WIDTH * HEIGHT // 2)
          for level in (0, 1)}
PATIENCE = 30  # seconds


class Screen:
    """The pixel in the middle of the screen."""

    def __init__(self, display):
        self.x11 = ctypes.CDLL("libX11.so.6")
        for name in ("XOpenDisplay", "XDefaultRootWindow", "XGetImage", "XGetPixel"):
            getattr(self.x11, name).restype = ctypes.c_void_p
        self.x11.XGetPixel.restype = ctypes.c_ulong
        self.display = ctypes.c_void_p(self.x11.XOpenDisplay(display.encode()))
        self.root = ctypes.c_ulong(self.x11.XDefaultRootWindow(self.display))

    def is_white(self, x, y):
        image = ctypes.c_void_p(self.x11.XGetImage(self.display, self.root, x, y, 1, 1, ctypes.c_ulong(~0), 2))
        white = self.x11.XGetPixel(image, 0, 0) & 0xFF > 128
        self.x11.XDestroyImage(image)
        return white


def latencies_of(command, display, flashes):
    """Milliseconds of each change."""
    screen = Screen(display)
    program = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env={**os.environ, "DISPLAY": display, "SDL_AUDIODRIVER": "dummy"})
    fcntl.fcntl(program.stdin, fcntl.F_SETPIPE_SZ, 1 << 20)  # a frame goes in at once
    pipe = program.stdin.fileno()
    taken, level = [], 1

    def send():
        frame, done = FRAMES[level], 0
        while done < len(frame):
            try:
                done += os.write(pipe, frame[done:])
            except BrokenPipeError:
                sys.exit(f"{command[0]} ended with {program.wait()}")

    def wait_for_it():
        start = time.monotonic()
        while screen.is_white(WIDTH // 2, HEIGHT // 2) != bool(level):
            if time.monotonic() - start > PATIENCE:
                sys.exit(f"{command[0]} shows nothing")
        return time.monotonic()

    try:
        end = time.monotonic() + PATIENCE
        while not screen.is_white(WIDTH // 2, HEIGHT // 2):  # until it has started
            if time.monotonic() > end:
                sys.exit(f"{command[0]} does not start")
            send()
            time.sleep(1 / 30)
        for _ in range(flashes):
            for _ in range(3):
                send()
                time.sleep(1 / 30)
            time.sleep(random.random() / 30)  # at any time of a refresh
            level = 1 - level
            start = time.monotonic()
            send()
            taken.append((wait_for_it() - start) * 1000)
    finally:
        program.kill()
        program.wait()
        program.stdin.close()
    return taken


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--flashes", type=int, default=60)
    parser.add_argument("--runs", type=int, default=3)
    options = parser.parse_args()
    gstreamer = ["gst-launch-1.0", "-q", "fdsrc", "fd=0", f"blocksize={len(FRAMES[0])}", "!", "rawvideoparse",
                 f"width={WIDTH}", f"height={HEIGHT}", "format=i420", "framerate=30/1", "!", "videoconvert", "!"]
    programs = {
        "Vesk": [str(ROOT / options.build / "bench/show_bench")],
        "glimagesink": [*gstreamer, "glimagesink", "sync=false"],
        "ximagesink": [*gstreamer, "ximagesink", "sync=false"],
        "ffplay": ["ffplay", "-v", "quiet", "-fflags", "nobuffer", "-flags", "low_delay", "-probesize", "32", "-sync", "ext",
                   "-framedrop", "-f", "rawvideo", "-pixel_format", "yuv420p", "-video_size", f"{WIDTH}x{HEIGHT}",
                   "-framerate", "30", "-an", "-i", "pipe:0"],
    }
    server, display = start_display(f"{WIDTH}x{HEIGHT}")
    taken = {name: [] for name in programs}
    try:
        for _ in range(options.runs):
            for name, command in programs.items():
                taken[name] += latencies_of(command, display, options.flashes)
    finally:
        server.terminate()
        server.wait()
    ours = statistics.median(taken["Vesk"])
    print("| Frame to screen, ms | median | 95th percentile | Vesk / it |\n|---|---|---|---|")
    for name, times in taken.items():
        middle = statistics.median(times)
        print(f"| {name} | {middle:.1f} | {statistics.quantiles(times, n=20)[-1]:.1f} | {ours / middle:.2f} |")


if __name__ == "__main__":
    main()
