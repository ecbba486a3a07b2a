#!/usr/bin/env python3
"""Measures how long vesk-camera takes from its start to a live picture, and how long it keeps its main thread busy.

Usage: bench/main_thread.py [--build DIR] [--starts N] [--renderer gl|cairo] [--long MS]

On simulated capture, under Xvfb with the software renderer, with a home of its own. GTK draws the widgets with what the
program chooses, unless --renderer says otherwise. The first start, which finds no compiled shaders there, is told apart.
Then the program is used by keys, the second time of two, and each turn of its main loop that took long is counted: the
time between two polls, and how much of that the main thread ran itself (the rest it waited, for the renderer's threads or
a busy machine). On a busy machine `chrt -r 5` before it gives the program the processors first.
Needs Xvfb, dbus-daemon and xdotool.
"""
import argparse
import pathlib
import statistics
import tempfile
import time

from compare_drawing import start_display
from compare_latency import Screen
from desktop_session import DesktopSession

ROOT = pathlib.Path(__file__).resolve().parents[1]
BAR = (80, 300)  # lies in the grey bar of the camera's picture, and before in the black around it
# What is done, by which keys, and the seconds that follow belong to it.
STEPS = (("nothing", "", 3), ("open the picture settings", "F9", 3), ("close them", "F9", 2), ("open them again", "F9", 3),
         ("and close them", "F9", 2), ("photo", "ctrl+p", 2), ("record", "ctrl+r", 4), ("stop", "ctrl+r", 3),
         ("choose a camera", "ctrl+k", 2), ("and do not", "Escape", 1), ("full screen", "F11", 3),
         ("leave it", "F11", 2), ("doctor", "F1", 4), ("close it", "Escape", 1),
         ("window of shortcuts", "ctrl+question", 3), ("close it", "Escape", 1))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--starts", type=int, default=10)
    parser.add_argument("--renderer", choices=("gl", "cairo"))
    parser.add_argument("--long", type=float, default=50)
    parser.add_argument("--shim", help="the preloaded library (default: libturns.so of the build)")
    options = parser.parse_args()
    build = ROOT / options.build
    server, display = start_display("1280x800")
    screen = Screen(display)  # held: the server forgets all when its last client goes
    with tempfile.TemporaryDirectory() as folder:
        session = DesktopSession(folder)
        log = pathlib.Path(folder) / "turns"
        log.touch()

        def start():
            """The program, once its picture is on the screen, and after how many ms it was."""
            begin = time.monotonic()
            choice = {"GSK_RENDERER": options.renderer} if options.renderer else {}
            camera = session.start(str(build / "apps/bin/vesk-camera"), DISPLAY=display, VESK_CAPTURE="simulated",
                                   VESK_TURNS=str(log), VESK_TURNS_LONG="1",
                                   LD_PRELOAD=str(options.shim or build / "bench/libturns.so"), **choice)
            session.wait(lambda: screen.is_white(*BAR), "picture", pause=0.002)
            return camera, (time.monotonic() - begin) * 1000

        def turns(begin, end):
            lines = [[float(word) for word in line.split()] for line in log.read_text().splitlines()]
            return sorted(((took, ran) for at, took, ran in lines if begin <= at < end and took >= options.long), reverse=True)

        try:
            taken = []
            for _ in range(options.starts + 1):
                begin = time.monotonic() * 1000
                camera, ms = start()
                taken.append(ms)
                time.sleep(1)
                started = turns(begin, time.monotonic() * 1000)
                camera.terminate()
                camera.wait()
                session.wait(lambda: not screen.is_white(*BAR), "end of the picture")
            first, later = taken[0], taken[1:]
            print(f"From start to picture: median {statistics.median(later):.0f} ms ({min(later):.0f} to {max(later):.0f}, "
                  f"{len(later)} starts), without compiled shaders {first:.0f} ms\n")

            def use(tell):
                camera, _ = start()
                time.sleep(2)
                for what, keys, seconds in STEPS:
                    begin = time.monotonic() * 1000
                    if keys:
                        session.run("xdotool", "key", "--clearmodifiers", keys, DISPLAY=display)
                    time.sleep(seconds)
                    tell(what, turns(begin, time.monotonic() * 1000))
                camera.terminate()
                camera.wait()

            use(lambda *_: None)  # compiles the shaders for all of it
            print(f"| What | Turns of {options.long:.0f} ms or more | The longest, ms (of which the main thread ran) |\n|---|---|---|")

            def row(what, found):
                longest = ", ".join(f"{took:.0f} ({ran:.0f})" for took, ran in found[:4])
                print(f"| {what} | {len(found)} | {longest} |", flush=True)

            row("start, to a second after the picture", started)
            use(row)
        finally:
            session.end()
            server.terminate()
            server.wait()


if __name__ == "__main__":
    main()
