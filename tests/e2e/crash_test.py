"""A recording that is killed keeps all but its last moments, and vesk recover finishes it."""
import json
import os
import random
import signal
import time
import unittest

from program import MovieTest, picture_hashes, probe, start_vesk, vesk

POINTS = int(os.environ.get("VESK_KILLS", "6"))  # for each kind of recording
# Pace, picture, sound, and the sizes between which the recording is killed: always past its first
# second, of which nothing need be left.
KINDS = (
    ("realtime", "avc1:320x240", "pcm", 400_000, 1_000_000),
    ("fast", "avc1:320x240", "aac", 200_000, 5_000_000),
    ("fast", "2vuy:320x240", "pcm", 10_000_000, 60_000_000),
)


class Killed(MovieTest):
    def kill_somewhere(self, name, pace, picture, sound, sizes, seed):
        """Starts a recording, kills it at a random size, and answers what it left and the time since that was there."""
        chance = random.Random(seed)
        movie = self.folder / name
        program = start_vesk("--capture", "simulated", "--pace", pace, "record", movie, "--format", picture, "--sound",
                             sound)
        least = chance.uniform(*sizes)
        started, left = None, []
        while not left:
            self.assertIsNone(program.poll(), "the recording ended by itself")
            found = list(self.folder.glob(f".{name[:200]}*/{name}"))
            if found and started is None:
                started = time.monotonic()
            left = [p for p in found if p.stat().st_size >= least and self.has_a_fragment(p)]
        age = time.monotonic() - started
        program.send_signal(signal.SIGKILL)
        program.communicate()
        return left[0], age

    @staticmethod
    def has_a_fragment(movie):
        """Whether one is valid: it is some time after its bytes are there."""
        with open(movie, "rb") as file:
            return b"moof" in file.read(8 << 20)

    def test_what_a_killed_recording_leaves_plays_and_is_recovered(self):
        for kind, (pace, picture, sound, *sizes) in enumerate(KINDS):
            for point in range(POINTS):
                with self.subTest(pace=pace, picture=picture, sound=sound, point=point):
                    name = f"movie-{kind}-{point}.mov"
                    left, age = self.kill_somewhere(name, pace, picture, sound, sizes, seed=kind * 1000 + point)
                    before = picture_hashes(left)
                    self.assertGreater(len(before), 0)
                    result = json.loads(vesk("--json", "recover", self.folder / name).stdout)
                    self.assertTrue(result["recovered"])
                    movie = self.folder / name
                    if pace == "realtime":
                        # At most two seconds may be missing, starting included.
                        self.assertGreater(float(probe(movie)["video"]["duration"]), age - 2)
                    self.assertEqual(picture_hashes(movie)[:len(before)], before)
                    self.assertEqual(result["frames"], int(probe(movie)["video"]["nb_read_packets"]))
                    self.assert_plays_everywhere(movie)
                    again = json.loads(vesk("--json", "recover", movie).stdout)
                    self.assertFalse(again["recovered"])
                    movie.unlink()
        self.nothing_left()

    def test_a_name_that_is_being_recorded_is_refused_and_left_alone(self):
        movie = self.folder / "movie.mov"
        program = start_vesk("--capture", "simulated", "record", movie, "--format", "avc1:320x240")
        while not list(self.folder.glob(".movie.mov.recording-*")):
            self.assertIsNone(program.poll())
        for options in ([], ["--force"]):
            refused = vesk("--capture", "simulated", "record", movie, "--duration", "1", *options, check=False)
            self.assertEqual(refused.returncode, 4, refused.stderr)
            self.assertIn("is being recorded by another program", refused.stderr)
        self.grows("movie.mov")
        growing, = self.folder.rglob("movie.mov")
        for name in (growing, movie):
            self.assertEqual(vesk("recover", name, check=False).returncode, 4)
        program.send_signal(signal.SIGINT)
        program.communicate(timeout=60)
        self.assertEqual(program.returncode, 0)
        self.assert_plays_everywhere(movie)
        self.nothing_left(but=["movie.mov"])

    def test_each_leftover_is_finished_for_itself(self):
        movie = self.folder / "movie.mov"
        left, _ = self.kill_somewhere("movie.mov", "fast", "avc1:320x240", "aac", (200_000, 300_000), seed=1)
        pictures = len(picture_hashes(left))
        # Before and after it in any order: without a movie, with an empty one, unreadable, and a link to elsewhere.
        for number, content in enumerate((None, b"", b"", b"no movie at all")):
            folder = self.folder / f".movie.mov.recording-{number}AAAA{number}"
            folder.mkdir()
            (folder / ".movie.mov.lock").touch()
            if content is not None:
                (folder / "movie.mov").write_bytes(content)
        elsewhere = self.folder / "elsewhere"
        elsewhere.mkdir()
        (elsewhere / "movie.mov").write_bytes(left.read_bytes())
        (self.folder / ".movie.mov.recording-linked").symlink_to(elsewhere)
        done = vesk("recover", movie)
        self.assertIn("not a movie", done.stderr)
        self.assertEqual(done.stderr.count("held no picture"), 2)
        self.assertGreaterEqual(len(picture_hashes(movie)), pictures)
        self.assert_plays_everywhere(movie)
        mask = os.umask(0)
        os.umask(mask)
        self.assertEqual(movie.stat().st_mode & 0o777, 0o666 & ~mask, "as new files are")
        self.nothing_left(but=["movie.mov", "elsewhere", ".movie.mov.recording-3AAAA3", ".movie.mov.recording-linked"])
        self.assertEqual(vesk("recover", movie, check=False).returncode, 1, "none could be finished")

    def test_a_name_as_long_as_a_name_may_be(self):
        name = "x" * 236 + ".mov"
        left, _ = self.kill_somewhere(name, "fast", "avc1:320x240", "aac", (200_000, 300_000), seed=2)
        self.assertTrue(json.loads(vesk("--json", "recover", self.folder / name).stdout)["recovered"])
        self.nothing_left(but=[name])

    def test_a_folder_that_is_renamed_takes_its_movie_along(self):
        (self.folder / "lessons").mkdir()
        program = start_vesk("--capture", "simulated", "record", self.folder / "lessons" / "movie.mov", "--format",
                             "avc1:320x240")
        self.grows("movie.mov")
        (self.folder / "lessons").rename(self.folder / "renamed")
        program.send_signal(signal.SIGINT)
        _, said = program.communicate(timeout=60)
        self.assertEqual(program.returncode, 1)
        left, = (self.folder / "renamed").rglob("movie.mov")
        self.assertIn(str(left), said)
        self.assert_plays_everywhere(left)
        vesk("recover", self.folder / "renamed" / "movie.mov")
        self.assertEqual([p.name for p in (self.folder / "renamed").iterdir()], ["movie.mov"])


if __name__ == "__main__":
    unittest.main()
