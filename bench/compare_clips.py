#!/usr/bin/env python3
"""Records every clip of a folder in both timings and looks whether the movies hold the same pictures.

Usage: bench/compare_clips.py [--build DIR] [--media FOLDER] [CLIP…]

The folder holds a MANIFEST.tsv; its well-formed clips with pictures are taken, or those named. A clip is
recorded as it stands (avc1 or 2vuy) where it can be, and decoded (2vuy) too:

  pictures  what ffmpeg decodes of the movie against what it decodes of the clip, by MD5, all of them; of
            raw pictures, what the movie holds against what the camera delivered
  times     each picture's time in the movie against the clip's own, largest difference in milliseconds
            (only in the camera's timing: the steady one moves pictures on purpose)
  sound     where the sound begins beside the picture, against the clip's

Ends with 1 when a clip's pictures differ or its times are off by more than 1 ms at a constant rate, 8 ms
(and a quarter of an interval) at a varying one.
"""
import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
RAW_RATE = 30  # of pictures without a container, as the file source plays them


def run(*command):
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with {done.returncode}: {done.stderr.strip()}")
    return done.stdout


def input_of(clip):
    """How ffmpeg opens the clip."""
    if clip.suffix == ".uyvy":
        size = clip.stem.rsplit("-", 1)[-1]
        return ["-f", "rawvideo", "-video_size", size, "-pixel_format", "uyvy422", "-framerate", RAW_RATE]
    return []


def pictures_of(path, options=(), copy=False):
    """MD5 of each picture, decoded, or of its bytes as they stand."""
    codec = ["-c", "copy"] if copy else []
    text = run("ffmpeg", "-v", "error", "-nostdin", *options, "-i", path, "-map", "0:v:0", *codec,
               "-fps_mode", "passthrough", "-f", "framemd5", "-")
    return [line.rsplit(",", 1)[1].strip() for line in text.splitlines() if line and not line.startswith("#")]


def complaints_about(path, options=()):
    # The track's own clock for the pictures that come out: a guessed frame rate is too coarse for uneven ones.
    command = ["ffmpeg", "-v", "warning", "-nostdin", *map(str, options), "-i", str(path), "-map", "0", "-fps_mode",
               "passthrough", "-enc_time_base", "-1", "-f", "null", "-"]
    return subprocess.run(command, capture_output=True, text=True).stderr.strip()


def probe(path, kind, options=()):
    """Presentation times in seconds, in their order; ffprobe takes edit lists into account."""
    text = run("ffprobe", "-v", "error", *options, "-select_streams", f"{kind}:0", "-show_entries",
               "packet=pts_time,flags", "-of", "csv=p=0", path)
    times = []
    for line in text.splitlines():
        fields = line.strip(",").split(",")
        if fields[0] in ("", "N/A") or "D" in fields[1]:
            continue
        times.append(float(fields[0]))
    return sorted(times)


def source_times(clip, delivered):
    """The clip's own times from its start; of streams without times, those of their rate."""
    options = input_of(clip)
    times = probe(clip, "v", options)
    if clip.suffix in (".264", ".h264", ".mjpeg", ".uyvy") or not times:
        rate = run("ffprobe", "-v", "error", *options, "-select_streams", "v:0", "-show_entries", "stream=r_frame_rate",
                   "-of", "csv=p=0", clip).strip().strip(",")
        numerator, denominator = map(int, rate.split("/"))
        return [number * denominator / numerator for number in range(len(delivered))], None
    sound = probe(clip, "a", options)
    start = min([times[0], *[max(sound[0], 0.0)]]) if sound else times[0]
    return [time - start for time in times], (sound[0] - times[0] if sound else None)


def largest_difference(one, other):
    return max((abs(a - b) for a, b in zip(one, other)), default=0.0) * 1e3


def compare(bench, clip, codec, folder):
    """One row of the table, and what is wrong."""
    cells, faults = [], []
    options = input_of(clip)
    wanted = None
    for timing in ("steady", "capture"):
        movie = folder / f"{timing}.mov"
        figures = json.loads(run(bench, timing, codec, clip, movie).splitlines()[-1])
        if codec == "avc1":
            wanted, got = pictures_of(clip, options), pictures_of(movie)
        else:
            wanted, got = figures["md5"], pictures_of(movie, copy=True)
        same = wanted == got
        cells.append(f"{len(got)} of {len(wanted)}" + ("" if same else ", NOT the same"))
        if not same:
            faults.append(f"{clip.name} as {codec} in {timing}: pictures differ")
        complaints = complaints_about(movie)
        if complaints and not complaints_about(clip, options):
            faults.append(f"{clip.name} as {codec} in {timing}: ffmpeg says {complaints.splitlines()[0]}")
        if timing == "steady":
            continue
        times, sound = source_times(clip, figures["times"])
        kept = probe(movie, "v")
        first = min([kept[0], *probe(movie, "a")[:1]]) if kept else 0
        off = largest_difference([time - first for time in kept], times)
        intervals = [b - a for a, b in zip(times, times[1:])]
        middle = statistics.median(intervals) if intervals else 0
        constant = all(abs(interval - middle) < 0.0015 for interval in intervals)
        limit = 1.0 if constant else min(8.0, middle * 250) + 0.05
        cells.append(f"{off:.3f} ({'constant' if constant else 'varying'})")
        if off > limit or len(kept) != len(times):
            faults.append(f"{clip.name} as {codec}: times are off by {off:.2f} ms, {len(kept)} of {len(times)}")
        if sound is not None:
            heard = probe(movie, "a")
            cells.append(f"{(heard[0] - kept[0] - sound) * 1e3:+.2f}" if heard else "none")
        else:
            cells.append("")
    return cells, faults


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--media", default=os.environ.get("VESK_MEDIA", str(ROOT / "footage")))
    parser.add_argument("clips", nargs="*")
    options = parser.parse_args()
    bench = pathlib.Path(options.build) / "bench/clip_bench"
    media = pathlib.Path(options.media)
    manifest = media / "MANIFEST.tsv"
    clips = [pathlib.Path(name) for name in options.clips]
    if not clips and manifest.exists():
        rows = [line.split("\t") for line in manifest.read_text().splitlines()[1:]]
        clips = [media / row[0] for row in rows if row[1] in ("video", "clip") and row[2] == "well-formed"]
    clips = clips or sorted(path for path in media.iterdir() if path.suffix not in (".md", ".aac"))

    faults = []
    print("| Clip | As | Pictures, steady | Pictures, camera's timing | Times off, ms | Sound off, ms |\n|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory(prefix="vesk-clips-") as name:
        for clip in clips:
            for codec in ("avc1", "2vuy"):
                try:
                    cells, wrong = compare(bench, clip, codec, pathlib.Path(name))
                except RuntimeError as error:
                    if "no pictures of that codec" in str(error):
                        continue
                    cells, wrong = ["failed"], [f"{clip.name} as {codec}: {error}"]
                print(f"| {clip.name} | {codec} | {' | '.join(cells)} |", flush=True)
                faults += wrong
    for fault in faults:
        print(fault, file=sys.stderr)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
