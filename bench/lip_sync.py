#!/usr/bin/env python3
"""Measures how far flash and beep of the simulated camera and microphone lie apart in a finished movie.

Usage: bench/lip_sync.py [--build DIR] [--rates 15,30,60] [--minutes 240] [--sound pcm:16000:1]
       bench/lip_sync.py MOVIE

Records the simulated source in its smallest size as fast as it goes, at each rate, and looks at the start, after ten
minutes and at the end. With a movie, looks at that one. Needs ffmpeg; four hours take up to 5 GB in the temporary
folder and some minutes for each rate.
"""
import argparse
import array
import json
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BRIGHT = 190  # of a flash, mean luma
LOUD = 2000
WINDOW = 4.0  # seconds that are looked at


def run(*arguments):
    return subprocess.run(list(map(str, arguments)), check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout


def flashes(movie, begin):
    """When the picture turns white, seconds of the movie."""
    lines = run("ffmpeg", "-v", "error", "-nostdin", "-copyts", "-ss", begin, "-i", movie, "-to", begin + WINDOW, "-an", "-vf",
                "signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=-", "-fps_mode", "passthrough", "-f", "null", "-").decode()
    found, was_bright = [], True  # a flash that has begun before does not count
    for time, luma in re.findall(r"pts_time:(\S+)\s+lavfi\.signalstats\.YAVG=(\S+)", lines):
        is_bright = float(luma) > BRIGHT
        if is_bright and not was_bright:
            found.append(float(time))
        was_bright = is_bright
    return found


def beeps(movie, begins):
    """When it gets loud, seconds of the movie, after each of `begins`. The track is counted from its first frame on."""
    stream = json.loads(run("ffprobe", "-v", "error", "-select_streams", "a", "-show_streams", "-of", "json", movie))["streams"][0]
    rate, start = int(stream["sample_rate"]), float(stream["start_time"])
    decoder = subprocess.Popen(["ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-vn", "-ac", "1", "-f", "s16le", "-"],
                               stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
    found, frame = [], 0
    for begin in begins:
        first = max(round((begin - start) * rate), 0)
        while frame < first:
            frame += len(decoder.stdout.read(min(first - frame, 1 << 20) * 2)) // 2
        samples = array.array("h", decoder.stdout.read(round(WINDOW * rate) * 2))
        frame += len(samples)
        here, quiet = [], 0
        for index, sample in enumerate(samples):
            if abs(sample) > LOUD:
                if quiet > rate // 10:
                    here.append(start + (first + index) / rate)
                quiet = 0
            else:
                quiet += 1
        found.append(here)
    decoder.stdout.close()
    decoder.wait()
    return found


def offsets(movie, begins):
    """For each place the largest distance from a flash to its beep, seconds: positive when the beep comes late."""
    result = []
    for begin, heard in zip(begins, beeps(movie, begins)):
        seen = flashes(movie, begin)
        pairs = [min((beep - flash for beep in heard), key=abs) for flash in seen if heard and flash < heard[-1] + 0.5]
        if not pairs:
            raise SystemExit(f"{movie}: no flash with its beep after {begin} s")
        result.append(max(pairs, key=abs))
    return result


def record(program, movie, rate, sound, seconds):
    run(program, "--capture", "simulated", "--pace", "fast", "record", movie, "--duration", seconds, "--force", "--format",
        f"h264:320x240@{rate}", "--sound", sound)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("movie", nargs="?", type=pathlib.Path)
    parser.add_argument("--build", default=ROOT / "build/release", type=pathlib.Path)
    parser.add_argument("--rates", default="15,30,60")
    parser.add_argument("--minutes", default=240, type=float)
    parser.add_argument("--sound", default="pcm:16000:1")
    chosen = parser.parse_args()
    if chosen.movie:
        seconds = float(json.loads(run("ffprobe", "-v", "error", "-show_format", "-of", "json", chosen.movie))["format"]["duration"])
    else:
        seconds = chosen.minutes * 60
    places = {"start": 0.5}
    if seconds > 620:
        places["10 minutes"] = 599.5
    places[f"{seconds / 60:.0f} minutes"] = seconds - WINDOW - 0.5
    if chosen.movie:
        for place, offset in zip(places, offsets(chosen.movie, places.values())):
            print(f"{place}: {offset * 1000:+.1f} ms")
        return 0
    print(f"| pictures a second | {' | '.join(places)} |")
    print("|---" * (len(places) + 1) + "|")
    with tempfile.TemporaryDirectory(prefix="vesk-lip-sync-") as folder:
        for rate in chosen.rates.split(","):
            movie = pathlib.Path(folder) / "movie.mov"
            record(chosen.build / "apps/vesk", movie, rate, chosen.sound, seconds)
            found = offsets(movie, places.values())
            movie.unlink()
            print(f"| {rate} | {' | '.join(f'{offset * 1000:+.1f} ms' for offset in found)} |", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
