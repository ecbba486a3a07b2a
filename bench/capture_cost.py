#!/usr/bin/env python3
"""Measures what recording from a camera costs against its peers, on the same devices in the same emulated machine.

Usage: bench/capture_cost.py [--build DIR] [--pictures N] [--runs N]

CPU milliseconds a picture, user plus system of the process: the difference between a longer and a shorter
recording, so that starting costs nothing, and the median of runs taken in turn. The machine's time is the
instructions that it runs (two nanoseconds each), so that the figures do not depend on what else this machine does;
only the ratios mean something. Movies go onto a disk with ext4, and onto a file system in memory. Needs what
scripts/setup --vm installs.
"""
import argparse
import json
import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
DISK = pathlib.Path("/media/disk")
DISK_BYTES = 2 << 30
RATE = 30

sys.path.insert(0, str(ROOT / "tests/vm"))
import lossy_disk


def cpu_of(command):
    """CPU seconds of a command, and what it printed."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    done = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode != 0:
        raise RuntimeError(f"{command} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    used = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return used, done.stdout.decode()


def pictures_in(movie):
    return int(subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-count_packets", "-show_entries",
                               "stream=nb_read_packets", "-of", "csv=p=0", movie], capture_output=True, text=True,
                              check=True).stdout)


def rows(node_of, movie):
    """What is compared: for each row, each recorder's command for about so many pictures."""
    raw, jpeg = node_of("vivid"), node_of("Emulated")

    def vesk(camera, picture):
        return lambda count: [os.environ["VESK_PROGRAM"], "--json", "record", movie, "--camera", camera, "--no-audio", "--format",
                              picture, "--duration", count / RATE]

    def ffmpeg(node, form, size, *codec):
        return lambda count: ["ffmpeg", "-v", "error", "-nostdin", "-f", "v4l2", "-input_format", form, "-video_size", size,
                              "-framerate", RATE, "-i", node, "-frames:v", count, *codec, movie]

    def gstreamer(node, caps):
        return lambda count: ["gst-launch-1.0", "-q", "v4l2src", f"device={node}", f"num-buffers={count}", "!", caps, "!",
                              "qtmux", "!", "filesink", f"location={movie}"]

    place = "onto a disk" if movie.is_relative_to(DISK) else "into memory"
    return {
        f"raw pictures, 640 × 360, {place}": {
            "Vesk": vesk("vivid", "2vuy:640x360"),
            "ffmpeg": ffmpeg(raw, "uyvy422", "640x360", "-c", "copy"),
            "GStreamer": gstreamer(raw, "video/x-raw,format=UYVY,width=640,height=360,framerate=30/1")},
        f"Motion JPEG to H.264, 640 × 480, {place}": {
            "Vesk": vesk("Emulated", "avc1:640x480"),
            "ffmpeg": ffmpeg(jpeg, "mjpeg", "640x480", "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "ultrafast", "-tune",
                             "zerolatency", "-threads", "2", "-b:v", "921600")}}


def measure(pictures, runs):
    """Runs inside the machine."""
    def node_of(name):
        for entry in sorted(pathlib.Path("/sys/class/video4linux").glob("video*")):
            if name in (entry / "name").read_text() and (entry / "index").read_text().strip() == "0":
                return f"/dev/{entry.name}"
        raise RuntimeError(f"there is no node of {name}")

    DISK.mkdir()
    subprocess.run(["mount", "-t", "ext4", "/dev/vda", DISK], check=True)
    found = {}
    for movie in (DISK / "cost.mov", pathlib.Path("/tmp/cost.mov")):
        for what, recorders in rows(node_of, movie).items():
            costs = {name: [] for name in recorders}
            for run in range(runs + 1):
                for name, command in recorders.items():
                    taken = []
                    for count in (pictures // 5, pictures) if run > 0 else (3,):  # the first is for the caches
                        movie.unlink(missing_ok=True)
                        used, _ = cpu_of(command(count))
                        taken.append((used, pictures_in(movie)))
                    if run == 0:
                        continue
                    (short, few), (long, many) = taken
                    costs[name].append(1000 * (long - short) / (many - few))
            movie.unlink(missing_ok=True)
            found[what] = {name: statistics.median(values) for name, values in costs.items()}
            (pathlib.Path(os.environ["VM_OUT"]) / "cost.json").write_text(json.dumps(found))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--pictures", type=int, default=200)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.inside:
        return measure(options.pictures, options.runs)
    program = pathlib.Path(options.build).resolve() / "apps/vesk"
    with tempfile.TemporaryDirectory(prefix="vesk-cost-") as folder:
        image = pathlib.Path(folder) / "disk.image"
        with image.open("wb") as file:
            file.truncate(DISK_BYTES)
        subprocess.run(["mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", image], check=True)
        disk = lossy_disk.LossyDisk(image)
        done = subprocess.run([ROOT / "tests/vm/vmrun", "--uvc", "--vivid", "--module", "ext4", "--disk", disk.path, "--steady",
                               "--timeout", "3600", "--", "env", f"VESK_PROGRAM={program}",
                               "VESK_CAPTURE=linux", sys.executable, __file__, "--inside", "--pictures", str(options.pictures),
                               "--runs", str(options.runs)], env={**os.environ, "VM_OUT": folder}, stdin=subprocess.DEVNULL)
        results = pathlib.Path(folder) / "cost.json"
        if done.returncode != 0 or not results.exists():
            sys.exit(done.returncode or 1)
        found = json.loads(results.read_text())
    print("| CPU ms a picture, emulated | Vesk | ffmpeg | ratio | GStreamer | ratio |\n|---|---|---|---|---|---|")
    for what, costs in found.items():
        ours = costs["Vesk"]
        cells = [f"{costs[peer]:.2f} | {ours / costs[peer]:.2f}" if peer in costs else "– | –" for peer in ("ffmpeg", "GStreamer")]
        print(f"| {what} | {ours:.2f} | {' | '.join(cells)} |")


if __name__ == "__main__":
    main()
