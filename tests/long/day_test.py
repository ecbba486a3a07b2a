"""A day of recording with a camera that is unplugged and plugged in again every hour, as fast as it goes.

Each hour is a movie of its own, which is looked at and removed while the next is recorded: it decodes from random
places on, and flash and beep lie together at its beginning and its end. The program's memory must not grow. Run by
scripts/test-long; $VESK_LONG_HOURS says how many hours.
"""
import math
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(ROOT / "tests/e2e"), str(ROOT / "bench")]
import lip_sync
from program import MovieTest, Running, probe, vesk

HOURS = int(os.environ.get("VESK_LONG_HOURS", "24"))
PLACES = 100  # in all movies together
HOUR = int(os.environ.get("VESK_LONG_SECONDS", "3600"))
CAMERA, MICROPHONE = "simulated:camera", "simulated:microphone"
FORMAT = ("--format", "h264:320x240@15", "--sound", "pcm:16000:1")
FARTHEST = 0.010  # seconds between flash and beep
MOST_GROWTH = 12 << 20  # bytes: what the allocator keeps differs from hour to hour
# From the second third of the day to the last: by then every size of block that is kept for reuse has been needed.
MOST_LATE_GROWTH = 2 << 20


def resident(process):
    """Bytes of memory that a process has; 0 when it has ended."""
    try:
        return int(pathlib.Path(f"/proc/{process.pid}/statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
    except (FileNotFoundError, ProcessLookupError, IndexError):
        return 0


class Day(MovieTest):
    def test_a_day_with_a_replug_every_hour(self):
        chance = random.Random(1)
        bytes_an_hour = self.bytes_a_minute() * HOUR // 60
        self.running = Running(self, "--pace", "fast", "record", "day.mov", "--wait", *FORMAT)
        self.memory = []  # the largest of each hour
        self.finished = pathlib.Path(tempfile.mkdtemp(prefix="vesk-day-"))
        self.addCleanup(shutil.rmtree, self.finished, ignore_errors=True)
        looking, failures, looked = [], [], []

        def look(movie, told):
            try:
                looked.append(self.look_at(movie, told, math.ceil(PLACES / HOURS), chance))
            except BaseException as failure:  # told by the test's own thread
                failures.append(failure)
            movie.unlink()

        for _ in range(HOURS):
            name = self.tells("recording")["file"]
            self.memory.append(0)
            is_last = len(self.memory) == HOURS
            self.wait_until_recorded(name, bytes_an_hour)
            if is_last:
                self.running.program.send_signal(signal.SIGINT)
            else:
                self.running.command(f"out {MICROPHONE}", f"out {CAMERA}")
            told = self.tells(None)
            print(f"{told['file']}: {told['duration']:.0f} s, {self.memory[-1] / 1e6:.1f} MB of memory", file=sys.stderr, flush=True)
            movie = (self.folder / told["file"]).rename(self.finished / f"{len(self.memory)}.mov")  # its name is free again
            looking.append(threading.Thread(target=look, args=(movie, told)))
            looking[-1].start()
            if not is_last:
                self.tells("waiting")
                self.running.command(f"in {MICROPHONE}", f"in {CAMERA}")
        self.assertEqual(self.running.program.wait(60), 0, self.running.errors)
        for thread in looking:
            thread.join()
        if failures:
            raise failures[0]
        print(f"{len(looked)} movies, {sum(looked)} places, memory by the hour, MB: "
              + " ".join(f"{bytes_ / 1e6:.1f}" for bytes_ in self.memory), file=sys.stderr, flush=True)
        self.assertGreaterEqual(sum(looked), PLACES)
        if HOURS > 3:
            early, late = max(self.memory[1:3]), max(self.memory[-3:])
            self.assertLess(late, early + MOST_GROWTH, self.memory)
        if HOURS >= 24:
            middle, late = max(self.memory[HOURS // 3:-HOURS // 3]), max(self.memory[-HOURS // 3:])
            self.assertLess(late, middle + MOST_LATE_GROWTH, self.memory)

    def bytes_a_minute(self):
        vesk("--capture", "simulated", "--pace", "fast", "record", self.folder / "minute.mov", "--duration", 60, *FORMAT)
        size = (self.folder / "minute.mov").stat().st_size
        (self.folder / "minute.mov").unlink()
        return size

    def tells(self, event):
        """The next document for this event; None: for a finished movie. Others are passed over."""
        while True:
            try:
                document = self.running.documents.get(timeout=60)
            except queue.Empty:
                raise AssertionError(f"nothing more came; {self.running.errors}") from None
            if (event is None and "duration" in document) or (event is not None and document.get("event") == event):
                return document

    def wait_until_recorded(self, name, size):
        """Waits for the growing movie to have so many bytes, and samples memory."""
        while self.running.program.poll() is None:
            self.memory[-1] = max(self.memory[-1], resident(self.running.program))
            for path in self.folder.rglob(name):
                try:
                    if path.stat().st_size >= size:
                        return
                except FileNotFoundError:
                    pass
            time.sleep(0.05)

    def look_at(self, movie, told, places, chance):
        """Returns from how many places it was decoded."""
        facts = probe(movie)
        # The one is unplugged a moment before the other, which is some seconds of theirs.
        seconds = min(float(facts[kind]["duration"]) for kind in ("video", "audio"))
        self.assertLess(float(facts["format"]["duration"]) - seconds, 30)
        self.assertEqual(int(facts["video"]["nb_read_packets"]), told["video"]["frames"])
        self.assertEqual(told["video"]["dropped"], 0)
        for _ in range(places):
            at = chance.uniform(0, seconds - 2)
            played = subprocess.run(["ffmpeg", "-v", "warning", "-nostdin", "-ss", f"{at:.3f}", "-i", movie, "-t", "1", "-f", "null",
                                     "-stats", "-"], capture_output=True, text=True)
            frames = re.findall(r"frame=\s*(\d+)", played.stderr)
            self.assertEqual(played.returncode, 0, f"{movie} at {at}: {played.stderr}")
            self.assertNotIn("error", played.stderr.lower(), f"{movie} at {at}")
            self.assertGreaterEqual(int(frames[-1]) if frames else 0, 10, f"{movie} at {at}: {played.stderr}")
        begins = (0.5, seconds - lip_sync.WINDOW - 0.5) if seconds > 12 else ()
        for begin, offset in zip(begins, lip_sync.offsets(movie, begins) if begins else ()):
            self.assertLess(abs(offset), FARTHEST, f"{movie}: sound and picture after {begin:.0f} s")
        return places


if __name__ == "__main__":
    unittest.main(verbosity=2)
