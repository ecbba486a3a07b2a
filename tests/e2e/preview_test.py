"""Previews, photos and levels, seen from outside: windows on a display of their own."""
import itertools
import json
import math
import os
import signal
import struct
import subprocess
import threading
import time
import unittest
import wave

from program import (CAMERA, DATA, MICROPHONE, MovieTest, Running, XServer, picture_hashes, probe, tool, vesk, warnings_of_ffmpeg)


def pixels(picture, width, height):
    """The picture's pixels at width x height as a function of (x, y), each (red, green, blue)."""
    data = tool("ffmpeg", "-v", "error", "-nostdin", "-i", picture, "-vf", f"scale={width}:{height}:flags=area",
                "-pix_fmt", "rgb24", "-f", "rawvideo", "-", binary=True)
    return lambda x, y: tuple(data[3 * (y * width + x):3 * (y * width + x) + 3])


def is_flash(pixel):
    """Whether a picture of the simulated camera, at 64x36, is one of those on a whole second: white all over."""
    return all(min(pixel(x, 20)) > 230 for x in range(4, 64, 8))


def at_a_good_moment(take):
    """What `take` answers once it does. It is given more and more seconds to add to its time: which picture is on
    show at a moment, and how many have been, is up to the machine."""
    for attempt in range(20):
        if answer := take(attempt / 2):
            return answer
    raise AssertionError("the moment was never good")


def size_of(picture):
    facts = probe(picture)["video"]
    return facts["width"], facts["height"]


class Photos(MovieTest):
    def test_photo_is_upright_full_size_and_of_the_camera(self):
        for size in ("1920x1080", "640x360", "320x240"):
            for codec in ("avc1", "dmb1", "2vuy"):
                with self.subTest(size=size, codec=codec):
                    photo = self.folder / f"{codec}-{size}.jpeg"

                    def take(more):
                        done = vesk("--capture", "simulated", "--json", "snapshot", photo, "--format", f"{codec}:{size}", "--delay",
                                    0.25 + more, "--force")
                        return None if is_flash(pixels(photo, 64, 36)) else json.loads(done.stdout)

                    result = at_a_good_moment(take)
                    self.assertEqual(result["file"], str(photo))
                    self.assertEqual(result["bytes"], photo.stat().st_size)
                    self.assertEqual(f"{result['width']}x{result['height']}", size)
                    self.assertEqual(size_of(photo), (result["width"], result["height"]))
                    self.assert_bars(pixels(photo, 64, 36))
        self.nothing_left(but=[p.name for p in self.folder.glob("*.jpeg")])

    def assert_bars(self, pixel):
        """Colour bars from left to right, at three quarters of full strength, the moving bar apart."""
        bars = [(191, 191, 191), (191, 191, 0), (0, 191, 191), (0, 191, 0), (191, 0, 191), (191, 0, 0), (0, 0, 191), (0, 0, 0)]
        fitting = sum(all(abs(a - b) < 24 for a, b in zip(pixel(8 * i + at, 20), bar))
                      for i, bar in enumerate(bars) for at in (2, 4, 6))
        self.assertGreaterEqual(fitting, 19, "of 24 places at most five lie under the moving bar")

    def test_other_endings_and_files_in_the_way(self):
        photo = self.folder / "photo.jpg"
        vesk("--capture", "simulated", "--pace", "fast", "snapshot", photo, "--delay", 0)
        before = photo.read_bytes()
        refused = vesk("--capture", "simulated", "snapshot", photo, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("exists already", refused.stderr)
        self.assertEqual(photo.read_bytes(), before)
        vesk("--capture", "simulated", "snapshot", photo, "--force", "--delay", 0.1)
        missing = vesk("--capture", "simulated", "snapshot", self.folder / "none/photo.jpeg", check=False)
        self.assertEqual((missing.returncode, len(missing.stderr.strip().splitlines())), (1, 1))
        self.nothing_left(but=["photo.jpg"])

    def test_footage_that_ends_before_the_delay_shows_its_last_picture(self):
        clip = next(p for p in sorted(DATA.iterdir()) if p.suffix in (".mov", ".mp4"))
        photo = self.folder / "photo.jpeg"
        vesk("--capture", f"file:{clip}", "--pace", "fast", "snapshot", photo, "--delay", 60)
        self.assertEqual(size_of(photo), size_of(clip))


class Levels(MovieTest):
    def sine(self, peak_db, seconds=3, channels=1, right_db=None):
        path = self.folder / f"sound{peak_db}-{channels}-{right_db}.wav"
        peaks = [peak_db] + [right_db if right_db is not None else peak_db] * (channels - 1)
        with wave.open(str(path), "wb") as out:
            out.setnchannels(channels)
            out.setsampwidth(2)
            out.setframerate(48000)
            out.writeframes(b"".join(
                struct.pack(f"<{channels}h", *(0 if peak is None else round(32767 * 10 ** (peak / 20) * math.sin(2 * math.pi * 1000 * i / 48000))
                                               for peak in peaks))
                for i in range(48000 * seconds)))
        return path

    def levels(self, path, is_silent=False):
        """About a second's, from the first packet's on, or of silence from the start."""
        program = self.started("--capture", f"file:{path}", "--loop", "--json", "meter")
        lines = (json.loads(line) for line in program.stdout)
        sounding = lines if is_silent else itertools.dropwhile(lambda line: line["level"] is None, lines)
        documents = list(itertools.islice(sounding, 30))
        program.send_signal(signal.SIGINT)
        rest = list(lines)
        times = [line["time"] for line in documents + rest]
        self.assertEqual(times, sorted(times))
        self.assertIsNone(rest[-1]["level"], "the meter's end")
        self.assertEqual(program.wait(60), 0)
        return [line["level"] for line in documents]

    def test_level_is_the_mean_power_averaged_over_the_channels(self):
        for path, expected in ((self.sine(-20), -23.01), (self.sine(-20, channels=2), -23.01),
                               (self.sine(-20, channels=2, right_db=-40), -33.01)):
            levels = self.levels(path)
            self.assertEqual(len(levels), 30)
            for level in levels[1:]:  # the first may be of part of a packet
                self.assertAlmostEqual(level, expected, delta=0.2)

    def test_silence_reads_as_silence(self):
        self.assertEqual(set(self.levels(self.sine(None), is_silent=True)), {None})


class Previews(MovieTest):
    @classmethod
    def setUpClass(cls):
        cls.display = XServer("1600x1000")
        cls.addClassCleanup(cls.display.close)
        cls.environment = {"DISPLAY": cls.display.name, "LIBGL_ALWAYS_SOFTWARE": "1"}

    def preview(self, *arguments, source="simulated", pace="realtime"):
        done = vesk("--capture", source, "--pace", pace, "--json", "preview", *arguments, environment=self.environment)
        return json.loads(done.stdout)

    def test_window_shows_the_picture_and_its_screenshot(self):
        shot = self.folder / "window.png"

        def take(more):
            result = self.preview("--duration", 1.5 + more, "--screenshot", shot, "--force", "--format", "640x360", "--no-audio")
            return result if result["shown"] > 5 and not is_flash(pixels(shot, 64, 36)) else None

        result = at_a_good_moment(take)
        self.assertEqual(result["screenshot"], str(shot))
        self.assertLessEqual(result["shown"], result["frames"])
        self.assertEqual(size_of(shot), (640, 360))
        Photos.assert_bars(self, pixels(shot, 64, 36))

    def test_a_recording_too_short_for_a_picture_is_said_once(self):
        done = vesk("--capture", "simulated", "preview", "--duration", 1, "--record", self.folder / "movie.mov", check=False,
                    environment={**self.environment, "VESK_SIMULATED_SETUP": "silent simulated:camera"})
        self.assertEqual(done.returncode, 1)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        self.assertIn("nothing was recorded", done.stderr)
        self.nothing_left()

    def test_small_pictures_stand_in_the_middle_on_black(self):
        shot = self.folder / "window.png"
        clip = self.folder / "small-160x120.uyvy"
        clip.write_bytes(bytes((128, 200)) * (160 * 120) * 30)
        self.preview("--duration", 1, "--screenshot", shot, source=f"file:{clip}")
        self.assertEqual(size_of(shot), (320, 240))
        pixel = pixels(shot, 320, 240)
        for x, y in ((82, 62), (160, 120), (237, 177)):
            self.assertGreater(min(pixel(x, y)), 200)
        for x, y in ((77, 120), (160, 57), (243, 120), (160, 183)):
            self.assertEqual(pixel(x, y), (0, 0, 0))

    def test_footage_is_recorded_while_it_is_shown(self):
        clip = next(p for p in sorted(DATA.iterdir()) if p.suffix in (".mov", ".mp4") and "h264" in probe(p)["video"]["codec_name"])
        movie, shot = self.folder / "movie.mov", self.folder / "window.png"
        result = self.preview("--record", movie, "--screenshot", shot, source=f"file:{clip}", pace="fast")
        self.assertEqual(len(result["recordings"]), 1)
        self.assertEqual(result["recordings"][0]["video"]["dropped"], 0)
        if result["recordings"][0]["video"]["codec"] == "avc1":
            self.assertEqual(picture_hashes(movie), picture_hashes(clip))
        self.assertEqual(warnings_of_ffmpeg(movie), "")
        pixel = pixels(shot, *size_of(shot))
        reds = sum(red > 150 and green < 90 and blue < 90 for red, green, blue in (pixel(x, y) for x in range(10, 100) for y in range(5, 35)))
        self.assertGreater(reds, 60, "the label is on while it records")

    def test_window_cannot_become_smaller_than_a_small_picture(self):
        environment = {**os.environ, **self.environment}
        for size, least in (("320x240", "320 by 240"), ("640x360", None)):
            running = Running(self, "preview", "--format", size, "--no-audio", environment=self.environment)
            window = tool_on(environment, "xdotool", "search", "--sync", "--onlyvisible", "--name", "Simulated Camera").split()[0]
            hints = tool_on(environment, "xprop", "-id", window, "WM_NORMAL_HINTS")
            if least:
                self.assertIn(f"minimum size: {least}", hints)
            else:
                self.assertNotIn("minimum size", hints)
            running.program.send_signal(signal.SIGTERM)
            running.next()
            running.end(0, ask=False)

    def wait_for_light(self, is_bright, running):
        """Waits until the desktop shows the colour bars' first, or nothing in their place."""
        shot = self.folder / "desktop.png"
        while True:
            self.assertIsNone(running.program.poll(), running.errors)
            tool("ffmpeg", "-v", "error", "-nostdin", "-y", "-f", "x11grab", "-video_size", "1600x1000",
                 "-i", self.display.name, "-frames:v", "1", shot)
            if (sum(pixels(shot, 1600, 1000)(40, 300)) > 400) == is_bright:
                return
            time.sleep(0.1)

    def test_outlives_its_camera(self):
        shot = self.folder / "window.png"
        running = Running(self, "preview", "--format", "avc1:640x360", "--record", "movie.mov", "--screenshot", shot,
                          environment=self.environment)
        self.grows("movie.mov")
        running.command(f"out {MICROPHONE}")
        running.next(event="removed", kind="microphone")
        running.command(f"in {MICROPHONE}")
        running.next(event="added", kind="microphone")
        self.grows("movie.mov")
        running.command(f"out {CAMERA}")
        running.next(event="removed", kind="camera")
        self.wait_for_light(False, running)
        running.command(f"in {CAMERA}")
        running.next(event="added", kind="camera")
        self.wait_for_light(True, running)
        running.program.send_signal(signal.SIGTERM)
        result = running.next(screenshot=str(shot))
        running.next()
        running.end(1, ask=False)
        self.assertEqual([each["file"] for each in result["recordings"]], ["movie.mov"])
        self.assertGreater(result["recordings"][0]["sound"]["packets"], 0)
        self.assertTrue(any("unplugged" in line for line in running.errors), running.errors)
        self.assert_plays_everywhere(self.folder / "movie.mov")
        pixel = pixels(shot, 64, 36)
        self.assertGreater(sum(pixel(4, 20)), 400, "the picture is on show again")

    def test_keys_take_photos_record_and_quit(self):
        environment = {**os.environ, **self.environment}
        running = self.started("--capture", "simulated", "--json", "--verbose", "preview", "--format", "640x360", cwd=self.folder,
                               env=environment)
        lines = []
        started, finished = threading.Event(), threading.Event()

        def read():
            for line in running.stderr:
                lines.append(line)
                if "Starting writing" in line:
                    started.set()
                if "Finished writing" in line:
                    finished.set()

        reader = threading.Thread(target=read)
        reader.start()
        self.addCleanup(reader.join)
        self.addCleanup(running.kill)
        window = tool_on(environment, "xdotool", "search", "--sync", "--onlyvisible", "--name", "Simulated Camera").split()[0]
        tool_on(environment, "xdotool", "windowfocus", "--sync", window)
        tool_on(environment, "xdotool", "key", "--window", window, "r")
        self.assertTrue(started.wait(60), lines)
        self.grows("vesk-*.mov", more=800_000)  # four seconds of sound: a key picture has come
        for key in ("m", "space", "r"):
            tool_on(environment, "xdotool", "key", "--window", window, key)
        self.assertTrue(finished.wait(60), lines)
        # The window may go between the key's press and its release, which xdotool takes for a failure;
        # whether the key was heeded, the program's end tells.
        subprocess.run(["xdotool", "key", "--window", window, "q"], env=environment, stdin=subprocess.DEVNULL,
                       capture_output=True, timeout=60)
        result = json.loads(running.stdout.read())
        self.assertEqual(running.wait(60), 0, lines)
        self.assertEqual([len(result["photos"]), len(result["recordings"])], [1, 1])
        photo, movie = self.folder / result["photos"][0], self.folder / result["recordings"][0]["file"]
        self.assertEqual(size_of(photo), (640, 360))
        self.assertEqual(warnings_of_ffmpeg(movie), "")
        self.nothing_left(but=[photo.name, movie.name])

    def test_no_display_is_said_with_what_to_do(self):
        done = vesk("--capture", "simulated", "preview", check=False, environment={"DISPLAY": "", "WAYLAND_DISPLAY": ""})
        self.assertEqual(done.returncode, 1)
        self.assertIn("no display", done.stderr)
        self.assertEqual(len(done.stderr.strip().splitlines()), 1)


def tool_on(environment, *arguments):
    return subprocess.run(arguments, capture_output=True, text=True, timeout=60, env=environment, check=True).stdout


if __name__ == "__main__":
    unittest.main()
