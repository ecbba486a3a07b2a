#!/usr/bin/env python3
"""Measures vesk-camera with 720p at 30 a second: beside Cheese while a live picture is shown, and beside a pipeline of
GStreamer's that shows and records.

Usage: bench/compare_camera.py [--build DIR] [--live MINUTES] [--record MINUTES] [--keep FOLDER]

The two of a comparison run at the same time, each on an X server of its own with the software renderer, with pictures of
about 880 x 495 on the screen. vesk-camera shows its simulated camera of H.264: its own process also makes the pictures
and encodes them. Cheese gets finished 4:2:0 pictures of 1280 x 720 from another process through PipeWire. GStreamer makes
its pictures in its own process too, shows them with OpenGL and records them as H.264 of the same preset with PCM. (Films
that Cheese makes of this source have no picture in them.) On a busy machine, `chrt -r 1` before it gives all of these the
processors first.

Needs Xvfb, xdotool and ffprobe, and what nothing else here needs: Debian's cheese, pipewire, wireplumber,
gstreamer1.0-pipewire, gstreamer1.0-plugins-good, -bad and -ugly.
"""
import argparse
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

from compare_drawing import start_display
from desktop_session import DesktopSession

ROOT = pathlib.Path(__file__).resolve().parents[1]
TICK = os.sysconf("SC_CLK_TCK")
SOURCE = ("gst-launch-1.0 -q videotestsrc is-live=true pattern=ball ! video/x-raw,format=I420,width=1280,height=720,"
          "framerate=30/1 ! pipewiresink mode=provide stream-properties=props,media.class=Video/Source,"
          "media.role=Camera,node.name=camera,node.description=Camera").split()
PIPELINE = ("gst-launch-1.0 -e -q videotestsrc is-live=true ! video/x-raw,format=I420,width=1280,height=720,framerate=30/1 ! "
            "tee name=t t. ! queue ! glimagesink t. ! queue ! x264enc speed-preset=ultrafast tune=zerolatency bitrate=3600 "
            "key-int-max=60 threads=1 ! h264parse ! m. audiotestsrc is-live=true ! "
            "audio/x-raw,rate=48000,channels=2,format=S16LE ! queue ! qtmux name=m ! filesink").split()


class CameraSession(DesktopSession):
    """With PipeWire and a camera."""

    def __init__(self, folder):
        super().__init__(folder)
        self.pipewire = self.start("pipewire")
        self.wait((self.folder / "run/pipewire-0").exists, "PipeWire")
        self.start("wireplumber")
        time.sleep(2)
        self.source = self.start(*SOURCE)
        self.wait(lambda: "Video/Source" in self.run("pw-cli", "ls", "Node"), "camera")

    def start_cheese(self, display):
        """Cheese with a picture as large as ours; it does not always live to show it."""
        for _ in range(5):
            cheese = self.start("cheese", DISPLAY=display)
            time.sleep(8)
            self.run("xdotool", "search", "--onlyvisible", "--class", "cheese", "windowsize", "960", "705", DISPLAY=display)
            time.sleep(8)
            if cheese.poll() is None:
                return cheese
        raise SystemExit(f"Cheese ends with {cheese.returncode}")


def cpu_seconds(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def memory(process):
    """RSS and PSS in MB."""
    text = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text()
    return [int(re.search(rf"^{name}:\s+(\d+)", text, re.M)[1]) / 1024 for name in ("Rss", "Pss")]


def measure(title, minutes, processes):
    """Prints a row for each process: CPU seconds, for an hour too, and memory at the beginning, its largest, the end."""
    for name, process in processes.items():
        if process.poll() is not None:
            raise SystemExit(f"{name} has ended with {process.returncode}")
    begin, start = time.monotonic(), {name: cpu_seconds(process) for name, process in processes.items()}
    seen = {name: [memory(process)] for name, process in processes.items()}
    while (left := begin + minutes * 60 - time.monotonic()) > 0:
        time.sleep(min(left, 30))
        for name, process in processes.items():
            if process.poll() is not None:
                raise SystemExit(f"{name} has ended with {process.returncode}")
            seen[name].append(memory(process))
    took = (time.monotonic() - begin) / 3600
    for name, process in processes.items():
        cpu = cpu_seconds(process) - start[name]
        rss, pss = zip(*seen[name])
        print(f"| {title} | {name} | {cpu:.1f} | {cpu / took:.0f} | {rss[0]:.0f}, {max(rss):.0f}, {rss[-1]:.0f} | "
              f"{pss[0]:.0f}, {max(pss):.0f}, {pss[-1]:.0f} |", flush=True)


def frames(file):
    return subprocess.run(["ffprobe", "-v", "error", "-count_packets", "-select_streams", "v", "-show_entries",
                           "stream=codec_name,width,height,nb_read_packets:format=duration,size", "-of", "csv=p=0", str(file)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout.replace("\n", " ")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--live", type=float, default=60)
    parser.add_argument("--record", type=float, default=60)
    parser.add_argument("--keep", type=pathlib.Path, help="a folder for films, pictures of the windows and logs")
    options = parser.parse_args()
    folder = options.keep or pathlib.Path(tempfile.mkdtemp(prefix="vesk-camera-"))
    folder.mkdir(parents=True, exist_ok=True)
    servers = {name: start_display("1280x800") for name in ("vesk-camera", "peer")}
    display = {name: number for name, (_, number) in servers.items()}
    session = CameraSession(folder)
    try:
        ours = session.start(str(ROOT / options.build / "apps/bin/vesk-camera"), DISPLAY=display["vesk-camera"],
                             VESK_CAPTURE="simulated")
        time.sleep(5)
        session.run("xdotool", "search", "--onlyvisible", "--class", "vesk-camera", "windowsize", "960", "640",
                    DISPLAY=display["vesk-camera"])
        theirs = session.start_cheese(display["peer"])

        def photograph(when):
            for name, number in display.items():
                session.run("ffmpeg", "-v", "error", "-y", "-f", "x11grab", "-i", number, "-frames:v", "1",
                            str(folder / f"{name}-{when}.png"))

        print("| | Process | CPU s | CPU s an hour | RSS, MB: begin, largest, end | PSS |\n|---|---|---|---|---|---|")
        photograph("live")
        measure("live picture", options.live,
                {"vesk-camera": ours, "Cheese": theirs, "X server of vesk-camera": servers["vesk-camera"][0],
                 "X server of Cheese": servers["peer"][0], "maker of Cheese's pictures": session.source,
                 "PipeWire": session.pipewire})
        photograph("live-end")
        for process in (theirs, session.source):
            process.terminate()
            process.wait()
        theirs = session.start(*PIPELINE, f"location={folder}/home/gstreamer.mov", DISPLAY=display["peer"])
        session.run("xdotool", "key", "--clearmodifiers", "ctrl+r", DISPLAY=display["vesk-camera"])
        time.sleep(5)
        session.run("xdotool", "search", "--onlyvisible", "--name", ".", "windowsize", "880", "495", DISPLAY=display["peer"])
        time.sleep(5)
        photograph("recording")
        measure("recording", options.record,
                {"vesk-camera": ours, "GStreamer": theirs, "X server of vesk-camera": servers["vesk-camera"][0],
                 "X server of GStreamer": servers["peer"][0]})
        session.run("xdotool", "key", "--clearmodifiers", "ctrl+r", DISPLAY=display["vesk-camera"])
        theirs.send_signal(signal.SIGINT)
        time.sleep(5)
        for film in sorted((folder / "home").rglob("*.mov")):
            print(f"{film.name}: {frames(film)}", flush=True)
    finally:
        session.end()
        for server, _ in servers.values():
            server.terminate()
            server.wait()


if __name__ == "__main__":
    main()
