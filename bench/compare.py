#!/usr/bin/env python3
"""Measures recording against its peers, all in one run on one machine, and prints a table.

Usage: bench/compare.py [--build DIR] [--minutes M] [--runs N] [--only WORD]

CPU figures are user plus system seconds of whole processes, the median of N runs taken in turn, so
that a machine whose speed drifts treats all alike. Instructions are counted with callgrind.
Needs ffmpeg and valgrind (scripts/setup --checks).
"""
import argparse
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]


def cpu_of(command):
    """CPU seconds of a command and its children, and what it printed."""
    before = os.times()
    done = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    after = os.times()
    if done.returncode != 0:
        sys.exit(f"{command} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return (after.children_user + after.children_system - before.children_user - before.children_system,
            done.stdout.decode())


def in_turn(runs, outputs, **commands):
    """Median CPU seconds of each command, and all outputs of each; runs are taken A B C, A B C, …

    The outputs of earlier runs are removed first: pages that a file gives back are cheaper to write
    than fresh ones.
    """
    seconds, output = {name: [] for name in commands}, {name: [] for name in commands}
    for _ in range(runs):
        for name, command in commands.items():
            for path in outputs:
                path.unlink(missing_ok=True)
            used, printed = cpu_of(command)
            seconds[name].append(used)
            output[name].append(printed)
    return {name: statistics.median(values) for name, values in seconds.items()}, output


def median_of(outputs, field):
    return statistics.median(json.loads(text)[field] for text in outputs)


class Table:
    def __init__(self):
        self.rows = []

    def add(self, what, goal, ours, peer, ratio):
        self.rows.append((what, goal, ours, peer, ratio))
        print(f"| {what} | {goal} | {ours} | {peer} | {ratio} |", flush=True)


def make_clip(folder, megabits):
    """A minute of 720p H.264 as a camera sends it, from the project's street footage."""
    clip = folder / f"street-{megabits}m.mov"
    source = next((ROOT / "media").glob("*.mov"))
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-stream_loop", "-1", "-i", source, "-t", "60", "-vf",
                    "scale=1280:720,noise=alls=18:allf=t", "-r", "30", "-an", "-c:v", "libx264", "-preset", "ultrafast",
                    "-tune", "zerolatency", "-bf", "0", "-g", "60", "-x264-params", "nal-hrd=cbr", "-b:v", f"{megabits}M",
                    "-minrate", f"{megabits}M", "-maxrate", f"{megabits}M", "-bufsize", "1M", clip], check=True)
    return clip


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--minutes", type=float, default=5)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--only", default="")
    options = parser.parse_args()
    bench = pathlib.Path(options.build) / "bench/record_bench"
    program = pathlib.Path(options.build) / "apps/vesk"
    minutes, runs = options.minutes, options.runs
    table = Table()
    print("| What | Goal | Vesk | Peer | Ratio |\n|---|---|---|---|---|")

    with tempfile.TemporaryDirectory(prefix="vesk-bench-", dir=os.environ.get("VESK_BENCH_FOLDER")) as name:
        folder = pathlib.Path(name)
        out, peer_out = folder / "ours.mov", folder / "peer.mov"

        def record(writer, movie, *arguments):
            return [bench, "--writer", writer, *arguments, movie]

        for megabits in (8, 2):
            if options.only and options.only not in f"h264 file four instructions memory {megabits}m":
                continue
            clip = make_clip(folder, megabits)
            long = folder / "long.mov"
            cpu_of(record("vesk", long, "--clip", clip, "--minutes", minutes))
            memory = ("--clip", clip, "--minutes", minutes)
            ffmpeg = ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", long, "-map", "0", "-c", "copy"]
            used, printed = in_turn(runs, (out, peer_out), ours=record("vesk", out, *memory), bare=record("avformat", peer_out, *memory),
                                    copy=[*ffmpeg, peer_out], read=[*ffmpeg, "-f", "null", "-"])
            hour = 60 / minutes
            ours, bare = (median_of(printed[who], "cpu_per_hour") for who in ("ours", "bare"))
            peer = (used["copy"] - used["read"]) * hour
            table.add(f"recording from memory, {megabits} Mbit/s, CPU s per hour", "≤ 0.40 of ffmpeg", f"{ours:.2f}",
                      f"{peer:.2f}", f"{ours / peer:.2f}")
            table.add(f"the same against libavformat with a queue", "≤ 1.25", f"{ours:.2f}", f"{bare:.2f}",
                      f"{ours / bare:.2f}")
            vesk = [program, "--capture", f"file:{long}", "--pace", "fast", "record", out]
            used, _ = in_turn(runs, (out, peer_out), ours=vesk, copy=[*ffmpeg, peer_out], cp=["cp", long, peer_out])
            table.add(f"recording through file:, {megabits} Mbit/s, whole process, CPU s", "≤ 0.65 of ffmpeg",
                      f"{used['ours']:.3f}", f"{used['copy']:.3f} (cp {used['cp']:.3f})",
                      f"{used['ours'] / used['copy']:.2f}")
            if megabits == 8:
                instructions(table, folder, bench, clip)
                growth(table, folder, bench, clip)
                four_at_once(table, folder, bench, program, clip, long)
            long.unlink()

        if not options.only or options.only in "preview latency meter":
            preview(table, folder, bench, runs)
        if not options.only or options.only in "raw":
            raw = ("--raw", "1280x720", "--minutes", 0.25)
            _, printed = in_turn(runs, (out, peer_out), ours=record("vesk", out, *raw), bare=record("avformat", peer_out, *raw))
            ours, bare = (median_of(printed[who], "cpu") for who in ("ours", "bare"))
            table.add("2vuy 720p recording, CPU s", "≤ 2.0 of libavformat", f"{ours:.2f}", f"{bare:.2f}", f"{ours / bare:.2f}")


def preview(table, folder, bench, runs):
    """What a preview adds to the decoding, and the level meter."""
    figures = json.loads(cpu_of([bench.with_name("latency_bench"), "20"])[1])
    table.add("frame in to image on the main thread beyond the decoding, ms, 99th percentile (median)", "≤ 1",
              f"{figures['added_p99_ms']:.2f} ({figures['added_ms']:.2f})", f"decoding {figures['decode_ms']:.2f}", "")
    sound = folder / "sound.s16"
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-f", "lavfi", "-i", "anoisesrc=r=48000:a=0.1:d=3600,aformat=s16:48000:stereo",
                    "-f", "s16le", sound], check=True)
    peer = ["ffmpeg", "-v", "error", "-nostdin", "-f", "s16le", "-ar", "48000", "-ac", "2", "-i", sound, "-af", "volumedetect",
            "-f", "null", "-"]
    used, _ = in_turn(runs, (), ours=[bench.with_name("meter_bench"), sound], peer=peer)
    table.add("level meter, an hour of stereo sound, CPU s", "≤ 0.5 of ffmpeg's volumedetect", f"{used['ours']:.3f}",
              f"{used['peer']:.3f}", f"{used['ours'] / used['peer']:.2f}")
    sound.unlink()


def instructions(table, folder, bench, clip):
    """Instructions a picture: the difference between a longer and a shorter run, so that starting costs nothing.

    The peers link libraries that valgrind cannot run on every processor; their figures stand in the goal.
    """
    frames = folder / "frames"
    subprocess.run([bench, "--dump", "--clip", clip, frames], check=True)

    def count(pictures):
        done = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/callgrind.out",
                               bench.with_name("count_bench"), frames, str(pictures), folder / "counted.mov"],
                              capture_output=True, text=True, check=True)
        return int(re.search(r"Collected : (\d+)", done.stderr).group(1))

    each = (count(1500) - count(300)) / 1200
    table.add("instructions a picture (33 kB), sound and the camera's own copy included",
              "≤ 35,000 (ffmpeg 308,000; libavformat with a queue 99,000)", f"{each:,.0f}", "", "")


def growth(table, folder, bench, clip):
    """Memory growth and finishing time of a four-hour recording of small pictures."""
    small = folder / "small.mov"
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", clip, "-t", "10", "-vf", "scale=64:48", "-an", "-c:v",
                    "libx264", "-tune", "zerolatency", "-bf", "0", "-g", "60", "-crf", "45", small], check=True)
    figures = {}
    for writer in ("vesk", "avformat"):
        done = subprocess.run([bench, "--writer", writer, "--clip", small, "--minutes", "240", folder / "four.mov"],
                              capture_output=True, text=True, check=True)
        figures[writer] = json.loads(done.stdout)
        (folder / "four.mov").unlink()
    ours, peer = figures["vesk"], figures["avformat"]
    table.add("memory growth while recording, MB per hour", "≤ 1.0", f"{ours['growth_mb_per_hour']:.2f}",
              f"libavformat {peer['growth_mb_per_hour']:.2f}", "")
    table.add("finishing a four-hour movie, ms", "≤ 50 and ≤ 2 × libavformat", f"{ours['finish_ms']:.1f}",
              f"{peer['finish_ms']:.1f}", f"{ours['finish_ms'] / peer['finish_ms']:.2f}")


def four_at_once(table, folder, bench, program, clip, long):
    """CPU of four recordings side by side in real time, twenty seconds each."""
    def together(commands):
        before = os.times()
        started = [subprocess.Popen(list(map(str, c)), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                    stdin=subprocess.DEVNULL) for c in commands]
        for process in started:
            process.wait()
        after = os.times()
        return after.children_user + after.children_system - before.children_user - before.children_system

    ours = together([[program, "--capture", f"file:{long}", "record", folder / f"o{i}.mov", "--duration", "20"]
                     for i in range(4)])
    peer = together([["ffmpeg", "-v", "error", "-nostdin", "-y", "-re", "-i", long, "-t", "20", "-c", "copy",
                      folder / f"p{i}.mov"] for i in range(4)])
    table.add("four recordings at once in real time, 20 s, CPU s", "≤ 0.5 of four ffmpegs", f"{ours:.2f}", f"{peer:.2f}",
              f"{ours / peer:.2f}")


if __name__ == "__main__":
    main()
