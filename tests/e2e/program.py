"""Runs vesk and looks at the movies it makes."""
import contextlib
import json
import os
import pathlib
import queue
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAM = os.environ.get("VESK_PROGRAM", str(ROOT / "build/dev/apps/vesk"))
DATA = ROOT / "footage"
CATALOGUE = ROOT / "tests/unit/catalogue/resolutions.xml"
CAMERA, PLAIN, MICROPHONE = "simulated:camera", "simulated:camera:plain", "simulated:microphone"
TIMEOUT = 300


def vesk(*arguments, check=True, environment=None, prefix=()):
    """Runs the program to its end. With check, its exit status must be 0."""
    done = subprocess.run([*prefix, PROGRAM, *map(str, arguments)], capture_output=True, text=True, timeout=TIMEOUT,
                          stdin=subprocess.DEVNULL, env={**os.environ, **(environment or {})})
    if check and done.returncode != 0:
        raise AssertionError(f"vesk {arguments} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done


def start_vesk(*arguments, prefix=(), **options):
    """Starts the program and leaves it running."""
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
    return subprocess.Popen([*prefix, PROGRAM, *map(str, arguments)], **{**streams, **options})


def tool(*arguments, binary=False):
    done = subprocess.run(list(map(str, arguments)), capture_output=True, timeout=TIMEOUT, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise AssertionError(f"{arguments} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return done.stdout if binary else done.stdout.decode(errors="replace")


def probe(movie):
    """What ffprobe tells of a movie, by kind: {"video": {...}, "audio": {...}, "format": {...}}."""
    facts = json.loads(tool("ffprobe", "-v", "error", "-count_packets", "-show_streams", "-show_format", "-of", "json", movie))
    found = {stream["codec_type"]: stream for stream in facts["streams"]}
    found["format"] = facts["format"]
    return found


def warnings_of_ffmpeg(movie, *options):
    """What ffmpeg has to say while it decodes the whole movie."""
    # The track's own clock for the pictures that come out: a guessed frame rate is too coarse for uneven ones.
    done = subprocess.run(["ffmpeg", "-v", "warning", "-nostdin", *options, "-i", str(movie), "-map", "0",
                           "-fps_mode", "passthrough", "-enc_time_base", "-1", "-f", "null", "-"],
                          capture_output=True, text=True, timeout=TIMEOUT)
    return done.stderr + ("" if done.returncode == 0 else f"exit status {done.returncode}")


def picture_hashes(movie, *options):
    """A hash of each decoded picture, in order."""
    text = tool("ffmpeg", "-v", "error", "-nostdin", *options, "-i", movie, "-map", "0:v:0", "-fps_mode", "passthrough",
                "-f", "framemd5", "-")
    return [line.split(",")[-1].strip() for line in text.splitlines() if line and not line.startswith("#")]


def picture_numbers(movie):
    """The number that the simulated camera stamped on each picture, in order; None where it cannot be read. It is
    written in the top left corner: two rows of 16 squares, white or black, 24 bits of number and 8 that check it."""
    side = max(int(probe(movie)["video"]["width"]) // 640, 1) * 16
    squares = tool("ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-map", "0:v:0", "-fps_mode", "passthrough",
                   "-vf", f"crop={16 * side}:{2 * side}:0:0,scale=16:2:flags=area", "-pix_fmt", "gray", "-f", "rawvideo",
                   "-", binary=True)
    numbers = []
    for first in range(0, len(squares), 32):
        bits = int("".join("01"[luma > 127] for luma in squares[first:first + 32]), 2)
        number = bits >> 8
        is_whole = bits & 0xFF == (number >> 16 ^ number >> 8 ^ number ^ 0xA5) & 0xFF
        numbers.append(number if is_whole else None)
    return numbers


def least_likeness(movie, reference, first):
    """The peak signal-to-noise ratio, in dB, of the picture that is least like that of the reference: the movie's first
    is beside the reference's picture of that index."""
    align = f"[1:v]trim=start_frame={first},setpts=N/30/TB[second];[0:v]setpts=N/30/TB[one]"
    stats = tool("ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-i", reference, "-lavfi",
                 f"{align};[one][second]psnr=stats_file=-:shortest=1", "-fps_mode", "passthrough", "-f", "null", "-")
    return min(float(line.split("psnr_avg:")[1].split()[0]) for line in stats.splitlines() if "psnr_avg:" in line)


def sound_bytes(movie):
    """The sound as 16-bit samples, nothing added and nothing resampled."""
    return tool("ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-map", "0:a:0", "-f", "s16le", "-", binary=True)


def luma_means(movie):
    """(time in seconds, mean brightness 0 to 255) of each picture."""
    times = [float(line.rstrip(",")) for line in tool("ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                                      "frame=pts_time", "-of", "csv=p=0", movie).split()]
    grey = tool("ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-map", "0:v:0", "-fps_mode", "passthrough", "-vf",
                "scale=8:8:flags=area,format=gray", "-f", "rawvideo", "-", binary=True)
    return [(time, sum(grey[64 * i:64 * i + 64]) / 64) for i, time in enumerate(times)]


def flash_times(movie):
    """When white flashes begin."""
    found, was_bright = [], False
    for time, mean in luma_means(movie):
        is_bright = mean > 190
        if is_bright and not was_bright:
            found.append(time)
        was_bright = is_bright
    return found


def beep_times(movie, loud=2000):
    """When beeps begin, on the movie's time line: what is louder than `loud`."""
    stream = probe(movie)["audio"]
    rate, channels = int(stream["sample_rate"]), stream["channels"]
    data = sound_bytes(movie)
    samples = struct.unpack(f"<{len(data) // 2}h", data)[::channels]
    start = float(stream["start_time"])
    found, quiet = [], rate
    for index, sample in enumerate(samples):
        if abs(sample) > loud:
            if quiet > rate // 10:
                found.append(start + index / rate)
            quiet = 0
        else:
            quiet += 1
    return found


def bytes_in(folder, pattern):
    """Of all files with such names in a folder and below it, hidden ones included; they may go meanwhile, or be met twice
    while they are renamed."""
    sizes = {}
    for path in folder.rglob(pattern):
        with contextlib.suppress(FileNotFoundError):
            status = path.stat()
            sizes[status.st_ino] = status.st_size
    return sum(sizes.values())


class XServer:
    """An X server without a screen."""

    def __init__(self, size, *options):
        reading, writing = os.pipe()
        self.process = subprocess.Popen(["Xvfb", *options, "-displayfd", str(writing), "-screen", "0", f"{size}x24", "-nolisten", "tcp"],
                                        pass_fds=[writing], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        os.close(writing)
        with os.fdopen(reading) as numbers:
            self.name = ":" + numbers.readline().strip()

    def close(self):
        self.process.terminate()
        self.process.wait()


class Running:
    """A program at work: what it tells scripts is read here, and its devices are plugged in and out."""

    def __init__(self, test, *arguments, setup="", environment=None, prefix=()):
        self.pipe = test.folder / "commands"
        if not self.pipe.exists():
            os.mkfifo(self.pipe)
        environment = {**os.environ, "VESK_SIMULATED_COMMANDS": str(self.pipe), "VESK_SIMULATED_SETUP": setup, **(environment or {})}
        self.program = start_vesk("--capture", "simulated", "--json", *arguments, prefix=prefix, env=environment, cwd=test.folder)
        self.documents = queue.Queue()
        self.errors = []
        self.readers = [threading.Thread(target=self.read_documents), threading.Thread(target=self.read_errors)]
        for reader in self.readers:
            reader.start()
        test.addCleanup(self.close)

    def read_documents(self):
        for line in self.program.stdout:
            self.documents.put(json.loads(line))

    def read_errors(self):
        for line in self.program.stderr:
            self.errors.append(line.strip())

    def close(self):
        self.program.kill()
        self.program.wait()
        for reader in self.readers:
            reader.join()
        self.program.stdout.close()
        self.program.stderr.close()

    def command(self, *lines):
        with open(self.pipe, "w") as pipe:
            pipe.write("".join(line + "\n" for line in lines))

    def next(self, **expected):
        """The next thing that it tells, which must have these fields."""
        try:
            document = self.documents.get(timeout=60)
        except queue.Empty:
            raise AssertionError(f"nothing more came; {self.errors}") from None
        got = {key: document.get(key) for key in expected}
        if got != expected:
            raise AssertionError(f"{document} came in place of {expected}; {self.errors}")
        return document

    def end(self, status, ask=True):
        """Asks for the end and waits for it. Everything it told must have been read."""
        if ask:
            self.program.send_signal(signal.SIGINT)
        if self.program.wait(60) != status:
            raise AssertionError(f"ended with {self.program.returncode}; {self.errors}")
        for reader in self.readers:
            reader.join()
        if not self.documents.empty():
            raise AssertionError(f"{self.documents.get()} was not expected")


class MovieTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vesk-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def assert_plays_everywhere(self, movie):
        """Every reader takes the movie without a word of warning, edit lists heeded or not."""
        self.assertEqual(warnings_of_ffmpeg(movie), "")
        self.assertEqual(warnings_of_ffmpeg(movie, "-ignore_editlist", "1"), "")
        self.assertNotIn("Truncated", tool("mediainfo", movie))
        played = subprocess.run(["gst-launch-1.0", "-q", "filesrc", f"location={movie}", "!", "qtdemux", "name=d",
                                 "d.", "!", "queue", "!", "fakesink"],
                                capture_output=True, text=True, timeout=TIMEOUT)
        self.assertEqual((played.returncode, played.stderr), (0, ""))

    def started(self, *arguments, **options):
        """The program, left running and ended with the test."""
        program = start_vesk(*arguments, **options)

        def end():
            program.kill()
            program.wait()
            for stream in (program.stdout, program.stderr):
                if stream:
                    stream.close()
        self.addCleanup(end)
        return program

    def grows(self, name, more=20_000):
        """Waits until the movie that is being recorded has become larger by so much."""
        until = bytes_in(self.folder, name) + more
        while bytes_in(self.folder, name) < until:
            time.sleep(0.02)

    def nothing_left(self, but=()):
        """Nothing lies in the test's folder but the files named, hidden folders included."""
        self.assertEqual(sorted(p.name for p in self.folder.iterdir()), sorted(but))
