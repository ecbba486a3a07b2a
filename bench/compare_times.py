#!/usr/bin/env python3
"""Shows how true to the camera's time a movie's pictures stand, and what players make of it.

Usage: bench/compare_times.py [--build DIR] [--seconds S] [--logs FILE…]

Records pictures whose stamps come at many rates, with jitter, with lost pictures, and with a rate that
changes, and prints for each movie how far its pictures lie from the stamps, what ffprobe takes its rate
to be, how many of its durations differ from the others, and how many lines of warning ffmpeg, GStreamer
and mpv write while they decode it. With logs, these only: a log holds a camera's own stamps, one in each
line, in microseconds (such as ffmpeg -f v4l2 -ts abs … -c copy -copyts -f framecrc tells).
Needs a release build, ffmpeg, GStreamer's gst-launch-1.0 and mpv.
"""
import argparse
import collections
import json
import pathlib
import random
import re
import subprocess
import tempfile
from fractions import Fraction

from compare import ROOT

RATES = {"15": Fraction(15), "24": Fraction(24), "25": Fraction(25), "29.97": Fraction(30000, 1001), "30": Fraction(30),
         "50": Fraction(50), "59.94": Fraction(60000, 1001), "60": Fraction(60), "120": Fraction(120)}
FIRST = 100_000  # microseconds after the sound's beginning


def camera(rate, seconds, jitter=0, lost=0.0, later=None):
    """The stamps of a camera whose jitter is so many milliseconds to either side, and the true times."""
    dice = random.Random(f"{rate} {jitter} {lost}")
    time, stamps, times = Fraction(FIRST), [], []
    for number in range(int(rate * seconds)):
        if number == 0 or dice.random() >= lost:
            stamp = round(time + Fraction(dice.uniform(-jitter * 1000, jitter * 1000)))
            stamps.append(max(stamp, stamps[-1] if stamps else 0))
            times.append(float(time))
        time += 1_000_000 / (later if later and number >= rate * seconds / 2 else rate)
    return stamps, times


def run(*command):
    done = subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    return done.stdout, done.stderr


def picture_times(movie):
    """Microseconds at which the pictures of a movie are shown."""
    out, _ = run("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=pts", "-of", "csv=p=0", movie)
    return [int(line.split(",")[0]) for line in out.split()]


def rates_of(movie):
    out, _ = run("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "stream=r_frame_rate,avg_frame_rate", "-of",
                 "json", movie)
    stream = json.loads(out)["streams"][0]
    return Fraction(stream["r_frame_rate"]), Fraction(stream["avg_frame_rate"])


def sentences(*texts):
    """Lines without times, addresses and figures."""
    return [re.sub(r"\d+", "N", re.sub(r"^\S+ +\d+ +0x\w+ |0x\w+", "", line)) for text in texts for line in text.splitlines()
            if line.strip()]


def said_by_gstreamer(movie):
    return run("env", "GST_DEBUG=2", "GST_DEBUG_NO_COLOR=1", "gst-launch-1.0", "-q", "filesrc", f"location={movie}", "!",
               "qtdemux", "name=d", "d.video_0", "!", "queue", "!", "decodebin", "!", "fakesink", "sync=false", "d.audio_0", "!",
               "queue", "!", "decodebin", "!", "fakesink", "sync=false")


def said_by_ffmpeg(movie):
    """ffmpeg is to keep the times: else its null output counts in pictures of the rate that it guessed, and warns
    of any that lies between two."""
    return run("ffmpeg", "-v", "warning", "-i", movie, "-fps_mode", "passthrough", "-enc_time_base", "-1", "-f", "null", "-")


def said_by_mpv(movie):
    return run("mpv", "--no-config", "--msg-level=all=warn", "--vo=null", "--ao=null", "--ao-null-untimed", "--untimed", movie)


def warnings(movie, peer):
    """Lines that players write about a movie which they decode to its end, and not about the same movie as
    ffmpeg copies it."""
    run("ffmpeg", "-v", "error", "-y", "-i", movie, "-c", "copy", peer)
    said = {"ffmpeg": said_by_ffmpeg, "GStreamer": said_by_gstreamer, "mpv": said_by_mpv}
    return {who: sorted(set(sentences(*ask(movie))) - set(sentences(*ask(peer)))) for who, ask in said.items()}


def near(rate):
    names = {value: name for name, value in RATES.items()}
    return names.get(rate, f"{float(rate):.3f}".rstrip("0").rstrip("."))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--clip", default=str(ROOT / "footage/street.mov"))
    parser.add_argument("--logs", nargs="*", default=[])
    parser.add_argument("--show", action="store_true", help="print what the players said")
    options = parser.parse_args()
    bench = pathlib.Path(options.build) / "bench/record_bench"

    rows = []
    for name, rate in ({} if options.logs else RATES).items():
        for jitter, lost in ((0, 0.0), (2, 0.0), (5, 0.0), (2, 0.01)):
            what = f"{name} a second, jitter {jitter} ms" + (", 1 % lost" if lost else "")
            rows.append((what, *camera(rate, options.seconds, jitter, lost)))
    if not options.logs:
        rows.append(("30, then 15, jitter 2 ms", *camera(Fraction(30), options.seconds, 2, later=Fraction(15))))
    for log in map(pathlib.Path, options.logs):
        stamps = [int(line) for line in log.read_text().split()]
        rows.append((log.stem, [stamp - stamps[0] + FIRST for stamp in stamps], None))

    print("| Stamps | pictures | from the stamp, ms: largest (99 %) | from the true time, ms: largest | other durations |"
          " r_frame_rate | avg_frame_rate | warnings |\n|---|---|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory(prefix="vesk-times-") as name:
        folder = pathlib.Path(name)
        for what, stamps, times in rows:
            movie, listed = folder / "movie.mov", folder / "stamps"
            movie.unlink(missing_ok=True)
            listed.write_text("\n".join(map(str, stamps)))
            subprocess.run([bench, "--capture", "--clip", options.clip, "--stamps", listed, movie], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            placed = picture_times(movie)
            assert len(placed) == len(stamps), f"{what}: {len(placed)} pictures of {len(stamps)}"
            errors = sorted(abs(place - stamp) / 1000 for place, stamp in zip(placed, stamps))
            true = max(abs(place - time) / 1000 for place, time in zip(placed, times)) if times else None
            durations = collections.Counter(b - a for a, b in zip(placed, placed[1:]))
            usual = durations.most_common(1)[0][0]
            others = sum(count for duration, count in durations.items() if abs(duration - usual) > 1)
            guessed, average = rates_of(movie)
            said = warnings(movie, folder / "peer.mov")
            spoken = ", ".join(f"{who} {len(lines)}" for who, lines in said.items() if lines) or "none"
            print(f"| {what} | {len(placed)} | {errors[-1]:.2f} ({errors[len(errors) * 99 // 100]:.2f}) |"
                  f" {'' if true is None else f'{true:.2f}'} | {others} | {near(guessed)} | {near(average)} | {spoken} |", flush=True)
            if options.show:
                for who, lines in said.items():
                    print(*(f"    {who}: {line}" for line in lines[:5]), sep="\n")


if __name__ == "__main__":
    main()
