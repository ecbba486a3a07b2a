#!/usr/bin/env python3
"""Measures the preview's window beside ffplay's: CPU of the process for each shown picture.

Usage: bench/compare_drawing.py [--build DIR] [--frames N] [--runs N]

Both play the same 1080p planes from a file, 30 a second, in a window of 1280 × 720 under Xvfb with
the software renderer. What starting up takes is left out: the difference of a long and a short run
counts, the median over the runs taken in turn. Needs ffmpeg, ffplay and Xvfb.
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
SHORT = 30


def start_display(size="1600x900"):
    """An X server with a number of its own choice; answers the process and the display."""
    reader, writer = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(writer), "-screen", "0", f"{size}x24"], pass_fds=[writer],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(writer)
    with os.fdopen(reader) as numbers:
        number = numbers.readline().strip()
    if not number:
        sys.exit("Xvfb did not start")
    return server, f":{number}"


def cpu_of(command, display):
    before = os.times()
    done = subprocess.run(command, env={**os.environ, "DISPLAY": display, "SDL_AUDIODRIVER": "dummy"},
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    after = os.times()
    if done.returncode != 0:
        sys.exit(f"{command} ended with {done.returncode}: {done.stderr.decode(errors='replace')[-2000:]}")
    return after.children_user + after.children_system - before.children_user - before.children_system


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--frames", type=int, default=150)
    parser.add_argument("--runs", type=int, default=3)
    options = parser.parse_args()
    bench = ROOT / options.build / "bench/draw_bench"
    server, display = start_display()
    try:
        with tempfile.TemporaryDirectory() as folder:
            clips = {}
            for frames in (SHORT, options.frames):
                clips[frames] = f"{folder}/{frames}.yuv"
                subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30",
                                "-frames:v", str(frames), "-pix_fmt", "yuv420p", "-f", "rawvideo", clips[frames]], check=True)
            programs = {
                "vesk": lambda frames: [str(bench), "--window", clips[frames], str(frames)],
                "ffplay": lambda frames: ["ffplay", "-v", "error", "-f", "rawvideo", "-pixel_format", "yuv420p",
                                          "-video_size", "1920x1080", "-framerate", "30", "-an", "-x", "1280", "-y", "720",
                                          "-noframedrop", "-autoexit", clips[frames]],
            }
            cost = {name: [] for name in programs}
            for _ in range(options.runs):
                for name, command in programs.items():
                    spent = cpu_of(command(options.frames), display) - cpu_of(command(SHORT), display)
                    cost[name].append(spent / (options.frames - SHORT) * 1000)
    finally:
        server.terminate()
        server.wait()
    ours, peer = (statistics.median(cost[name]) for name in ("vesk", "ffplay"))
    print("| What | Goal | Vesk | ffplay | Ratio |\n|---|---|---|---|---|")
    print(f"| 1080p planes in a 720p window, CPU ms a picture | ≤ 0.75 of ffplay | {ours:.2f} | {peer:.2f} | {ours / peer:.2f} |")


if __name__ == "__main__":
    main()
