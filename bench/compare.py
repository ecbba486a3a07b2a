#!/usr/bin/env python3
"""Measures recording against its peers, all in one run on one machine, and prints a table.

Usage: bench/compare.py [--build DIR] [--minutes M] [--runs N] [--only WORD]

CPU figures are user plus system seconds of whole processes, the median of N runs taken in turn, so
that a machine whose speed drifts treats all alike. Instructions are counted with callgrind.
Needs ffmpeg and valgrind (scripts/setup --checks).

WORD is one of memory, file, instructions, growth, four, preview, raw, cache, extents, waits; the last three run
only when they are named, since they write 9, 17 and some 30 GB to the disk of VESK_BENCH_FOLDER.
"""
import argparse
import json
import os
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

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
    source = next((ROOT / "footage").glob("*.mov"))
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
    wants = lambda *words: not options.only or options.only in words
    print("| What | Goal | Vesk | Peer | Ratio |\n|---|---|---|---|---|")

    with tempfile.TemporaryDirectory(prefix="vesk-bench-", dir=os.environ.get("VESK_BENCH_FOLDER")) as name:
        folder = pathlib.Path(name)
        if wants("memory", "file", "instructions", "growth", "four") or options.only in ("cache", "extents", "waits"):
            clip = make_clip(folder, 8)
        if wants("memory", "file", "four"):
            for megabits in (8, 2):
                source = clip if megabits == 8 else make_clip(folder, megabits)
                long = folder / "long.mov"
                cpu_of([bench, "--writer", "vesk", "--clip", source, "--minutes", minutes, long])
                if wants("memory"):
                    from_memory(table, folder, bench, source, long, megabits, minutes, runs)
                if wants("file"):
                    from_file(table, folder, program, long, megabits, runs)
                if wants("four") and megabits == 8:
                    four_at_once(table, folder, program, long, runs)
                long.unlink()
        if wants("instructions"):
            instructions(table, folder, bench, clip)
        if wants("growth"):
            growth(table, folder, bench, clip, runs)
        if wants("preview", "latency", "meter"):
            preview(table, folder, bench, runs)
        if wants("raw"):
            raw(table, folder, bench, runs)
        if options.only == "cache":
            page_cache(table, folder, bench, clip)
        if options.only == "extents":
            extents(table, folder, bench, clip)
        if options.only == "waits":
            waits(table, folder, bench, clip, runs)


def from_memory(table, folder, bench, clip, long, megabits, minutes, runs):
    """What recording costs beside the same written by ffmpeg, each less what it costs to come by the frames."""
    out, peer_out = folder / "ours.mov", folder / "peer.mov"
    record = lambda writer, movie: [bench, "--writer", writer, "--clip", clip, "--minutes", minutes, movie]
    ffmpeg = ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", long, "-map", "0", "-c", "copy"]
    used, printed = in_turn(runs, (out, peer_out), ours=record("vesk", out), bare=record("avformat", peer_out),
                            none=record("none", peer_out), copy=[*ffmpeg, peer_out], read=[*ffmpeg, "-f", "null", "-"])
    made = median_of(printed["none"], "cpu_per_hour")
    ours, bare = (median_of(printed[who], "cpu_per_hour") - made for who in ("ours", "bare"))
    peer = (used["copy"] - used["read"]) * 60 / minutes
    goal = {8: "≤ 0.35", 2: "≤ 0.60"}[megabits]
    table.add(f"from memory, {megabits} Mbit/s, CPU s per hour (making the frames, which is left out: {made:.2f})",
              f"{goal} of ffmpeg", f"{ours:.2f}", f"{peer:.2f}", f"{ours / peer:.2f}")
    table.add("the same against libavformat with a queue", "≤ 1.25", f"{ours:.2f}", f"{bare:.2f}", f"{ours / bare:.2f}")


def from_file(table, folder, program, long, megabits, runs):
    out, peer_out = folder / "ours.mov", folder / "peer.mov"
    used, _ = in_turn(runs, (out, peer_out),
                      ours=[program, "--capture", f"file:{long}", "--pace", "fast", "record", out],
                      copy=["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", long, "-map", "0", "-c", "copy", peer_out],
                      cp=["cp", long, peer_out])
    table.add(f"through `file:`, {megabits} Mbit/s, whole process, CPU s", "≤ 0.65 of ffmpeg", f"{used['ours']:.3f}",
              f"{used['copy']:.3f} (cp {used['cp']:.3f})", f"{used['ours'] / used['copy']:.2f}")


def raw(table, folder, bench, runs):
    out, peer_out = folder / "ours.mov", folder / "peer.mov"
    for height, size in ((720, "1280x720"), (1080, "1920x1080")):
        record = lambda writer, movie: [bench, "--writer", writer, "--raw", size, "--minutes", 0.25, movie]
        _, printed = in_turn(runs, (out, peer_out), ours=record("vesk", out), bare=record("avformat", peer_out),
                             none=record("none", peer_out))
        made = median_of(printed["none"], "cpu")
        ours, bare = (median_of(printed[who], "cpu") - made for who in ("ours", "bare"))
        table.add(f"2vuy {height}p, 15 s, CPU s (making the pictures, which is left out: {made:.2f})", "≤ 0.5 of libavformat", f"{ours:.2f}", f"{bare:.2f}", f"{ours / bare:.2f}")


def page_cache(table, folder, bench, clip):
    """How much of an hour's movie stays in the page cache."""
    held = {}
    for writer in ("vesk", "avformat"):
        movie = folder / "hour.mov"
        cpu_of([bench, "--writer", writer, "--clip", clip, "--minutes", 60, movie])
        held[writer] = int(cpu_of(["fincore", "--bytes", "--noheadings", "--output", "RES", movie])[1]) / (1 << 20)
        size = movie.stat().st_size / (1 << 20)
        movie.unlink()
    table.add(f"page cache held by an hour of 8 Mbit/s ({size:.0f} MiB), MiB", "≤ 16", f"{held['vesk']:.1f}",
              f"libavformat {held['avformat']:.1f}", f"{held['vesk'] / held['avformat']:.3f}")


def extents(table, folder, bench, clip):
    """In how many pieces four hours of film lie on the disk, and how long it takes to finish them."""
    movie = folder / "four.mov"
    figures = json.loads(cpu_of([bench, "--writer", "vesk", "--clip", clip, "--minutes", 240, movie])[1])
    pieces = int(re.search(r"(\d+) extents?", cpu_of(["filefrag", movie])[1]).group(1))
    table.add("four hours of 8 Mbit/s: extents of the file", "≤ 100", pieces, "", "")
    table.add("finishing them, ms", "", f"{figures['finish_ms']:.1f}", "", "")


def fill_page_cache():
    """Waits until so much is to be written that the system holds back whoever writes into the page cache."""
    for _ in range(180):
        time.sleep(1)
        pages = dict(line.split() for line in pathlib.Path("/proc/vmstat").read_text().splitlines())
        # The limit of all is where the slowest writers stop; half-way to it from the background's, all are slowed.
        full = (int(pages["nr_dirty_threshold"]) + int(pages["nr_dirty_background_threshold"])) / 2
        if int(pages["nr_dirty"]) + int(pages["nr_writeback"]) > full:
            return
    print("the page cache does not fill: the disk is as fast as the writer", flush=True)


def waits(table, folder, bench, clip, runs):
    """How long pictures wait in the queue while one program reads as fast as it can and one writes, which fills the page
    cache until the system holds back whoever writes into it. The recording goes before others to the processors, so that
    only the disk is waited for."""
    read, written = folder / "read", folder / "written"
    cpu_of(["dd", "if=/dev/zero", f"of={read}", "bs=4M", "count=1024", "conv=fsync", "status=none"])
    beside = [f"while dd if={read} of=/dev/null bs=4M iflag=direct status=none; do :; done",
              f"while dd if=/dev/zero of={written} bs=4M count=1500 conv=notrunc status=none; do :; done"]
    loops = [subprocess.Popen(["sh", "-c", line], stdin=subprocess.DEVNULL, start_new_session=True) for line in beside]
    try:
        fill_page_cache()
        for what, frames in (("8 Mbit/s", ["--clip", clip]), ("2vuy 720p", ["--raw", "1280x720"])):
            found = {"direct": [], "buffered": []}
            for _ in range(runs):
                for way, figures in found.items():
                    movie = folder / "ours.mov"
                    done = subprocess.run(["chrt", "-r", "1", bench, "--writer", "vesk", *frames, "--minutes", "0.5", "--real-time",
                                           "--waits", movie], capture_output=True, text=True, check=True,
                                          env={**os.environ, "VESK_WRITE": way})
                    figures.append(json.loads(done.stdout)["wait_p999_ms"])
                    movie.unlink()
            direct, buffered = map(statistics.median, found.values())
            all_of = lambda way: ", ".join(f"{each:.0f}" for each in sorted(found[way]))
            table.add(f"wait in the queue beside a reader and a writer, {what}, ms, 99.9th percentile", "≤ 0.5 of the buffered way's",
                      f"direct {direct:.0f} ({all_of('direct')})", f"buffered {buffered:.0f} ({all_of('buffered')})",
                      f"{direct / buffered:.2f}")
    finally:
        for loop in loops:
            os.killpg(loop.pid, signal.SIGKILL)
            loop.wait()


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


def growth(table, folder, bench, clip, runs):
    """Memory growth and finishing time of a four-hour recording of small pictures."""
    small = folder / "small.mov"
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", clip, "-t", "10", "-vf", "scale=64:48", "-an", "-c:v",
                    "libx264", "-tune", "zerolatency", "-bf", "0", "-g", "60", "-crf", "45", small], check=True)
    movie = folder / "four.mov"
    record = lambda writer, *options: [bench, "--writer", writer, "--clip", small, "--minutes", "240", *options, movie]
    _, printed = in_turn(runs, (movie,), vesk=record("vesk"), avformat=record("avformat"), unsynced=record("vesk", "--no-syncs"))
    movie.unlink()
    figure = lambda writer, field: median_of(printed[writer], field)
    table.add("memory growth while recording, MB per hour", "≤ 1.0", f"{figure('vesk', 'growth_mb_per_hour'):.2f}",
              f"libavformat {figure('avformat', 'growth_mb_per_hour'):.2f}", "")
    ours, peer = figure("vesk", "finish_ms"), figure("avformat", "finish_ms")
    table.add("finishing a four-hour movie, ms", "≤ 0.5 of libavformat", f"{ours:.1f}", f"{peer:.1f}", f"{ours / peer:.2f}")
    table.add("the same without syncs, ms", "≤ 50", f"{figure('unsynced', 'finish_ms'):.1f}", "", "")


def four_at_once(table, folder, program, long, runs):
    """CPU of four recordings side by side in real time, twenty seconds each."""
    def together(commands):
        before = os.times()
        started = [subprocess.Popen(list(map(str, c)), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                    stdin=subprocess.DEVNULL) for c in commands]
        for process in started:
            process.wait()
        after = os.times()
        return after.children_user + after.children_system - before.children_user - before.children_system

    ours, peer = [], []
    for run in range(runs):
        ours.append(together([[program, "--capture", f"file:{long}", "record", "--force", folder / f"o{i}.mov", "--duration", "20"]
                              for i in range(4)]))
        peer.append(together([["ffmpeg", "-v", "error", "-nostdin", "-y", "-re", "-i", long, "-t", "20", "-c", "copy",
                               folder / f"p{i}.mov"] for i in range(4)]))
    ours, peer = statistics.median(ours), statistics.median(peer)
    table.add("four recordings at once in real time, 20 s, CPU s", "≤ 0.7 of four ffmpegs", f"{ours:.2f}", f"{peer:.2f}",
              f"{ours / peer:.2f}")


if __name__ == "__main__":
    main()
