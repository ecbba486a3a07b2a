#!/usr/bin/env python3
"""Measures what encoding a camera's pictures to H.264 costs, beside ffmpeg doing the same.

Usage: bench/compare_encoding.py [--build DIR] [--pictures N] [--runs N] [--presets NAME,NAME]

Both turn the same 720p pictures, Motion JPEG and packed 4:2:2, into H.264 of the same bit rate with
the same settings of the encoder, on one thread. CPU figures are those of whole processes, reading the
clip included, the medians of runs taken in turn. Needs ffmpeg.
"""
import argparse
import json
import pathlib
import statistics
import subprocess
import tempfile

from compare import ROOT, cpu_of

WIDTH, HEIGHT, RATE, BITS = 1280, 720, 30, 2048000
ENCODER = ["-c:v", "libx264", "-tune", "zerolatency", "-profile:v", "main", "-threads", "1", "-b:v", BITS,
           "-maxrate", BITS, "-bufsize", BITS, "-g", 2 * RATE, "-x264-params", "scenecut=0"]


def make_clips(folder, pictures):
    """The project's street footage as cameras would send it."""
    source = next((ROOT / "footage").glob("*.mov"))
    clips = {"Motion JPEG": (folder / "clip.avi", ["-c:v", "mjpeg", "-q:v", 4, "-pix_fmt", "yuvj422p"]),
             "packed 4:2:2": (folder / "clip.uyvy", ["-f", "rawvideo", "-pix_fmt", "uyvy422"])}
    for path, form in clips.values():
        subprocess.run(list(map(str, ["ffmpeg", "-v", "error", "-nostdin", "-y", "-stream_loop", -1, "-i", source, "-an", "-vf",
                                      f"scale={WIDTH}:{HEIGHT},noise=alls=6:allf=t", "-r", RATE, "-frames:v", pictures,
                                      *form, path])), check=True)
    return {name: path for name, (path, _) in clips.items()}


def reading(path):
    raw = ["-f", "rawvideo", "-pix_fmt", "uyvy422", "-s", f"{WIDTH}x{HEIGHT}", "-r", RATE] if path.suffix == ".uyvy" else []
    return ["ffmpeg", "-v", "error", "-nostdin", "-y", "-threads", 1, *raw, "-i", path]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--pictures", type=int, default=150)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--presets", default="superfast", help="of ffmpeg's encoder; the first is the peer")
    options = parser.parse_args()
    bench = pathlib.Path(options.build) / "bench/encode_bench"
    presets = options.presets.split(",")
    print("| What | Vesk, CPU ms a picture (s for each of footage) | ffmpeg | Ratio |\n|---|---|---|---|")
    with tempfile.TemporaryDirectory(prefix="vesk-bench-") as name:
        for what, path in make_clips(pathlib.Path(name), options.pictures).items():
            ours, peers = [], {preset: [] for preset in presets}
            for _ in range(options.runs):
                used, printed = cpu_of([bench, path, WIDTH, HEIGHT])
                assert json.loads(printed)["pictures"] == options.pictures, printed
                ours.append(used)
                for preset in presets:
                    used, _ = cpu_of([*reading(path), "-vf", "scale=out_range=tv,format=yuv420p", *ENCODER, "-preset", preset,
                                      "-f", "null", "-"])
                    peers[preset].append(used)
            mine = statistics.median(ours) / options.pictures * 1000
            for preset, used in peers.items():
                peer = statistics.median(used) / options.pictures * 1000
                print(f"| 720p {what} to H.264, {preset} | {mine:.2f} ({mine * RATE / 1000:.2f}) | {peer:.2f} | {mine / peer:.2f} |")


if __name__ == "__main__":
    main()
