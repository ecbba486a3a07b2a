"""A recording that is killed keeps all but its last moments, and vesk recover finishes it."""
import json
import os
import pathlib
import random
import signal
import time
import unittest

from program import MovieTest, picture_hashes, probe, start_vesk, vesk, warnings_of_ffmpeg

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
        """Starts a recording, kills it at a random size or age, and answers what it left."""
        chance = random.Random(seed)
        movie = self.folder / name
        program = start_vesk("--capture", "simulated", "--pace", pace, "record", movie, "--format", picture, "--sound",
                             sound)
        started = time.monotonic()
        least = chance.uniform(*sizes)
        left = []
        while not left:
            self.assertIsNone(program.poll(), "the recording ended by itself")
            left = [p for p in self.folder.glob(f".{name}.*/{name}") if p.stat().st_size >= least]
        age = time.monotonic() - started
        program.send_signal(signal.SIGKILL)
        program.communicate()
        return left[0], age

    def test_what_a_killed_recording_leaves_plays_and_is_recovered(self):
        for kind, (pace, picture, sound, *sizes) in enumerate(KINDS):
            for point in range(POINTS):
                with self.subTest(pace=pace, picture=picture, sound=sound, point=point):
                    name = f"movie-{kind}-{point}.mov"
                    left, age = self.kill_somewhere(name, pace, picture, sound, sizes, seed=kind * 1000 + point)
                    before = picture_hashes(left)
                    self.assertGreater(len(before), 0)
                    if pace == "realtime":
                        # The first second goes by with starting; then at most two seconds may be missing.
                        self.assertGreater(float(probe(left)["video"]["duration"]), age - 1 - 2)
                    result = json.loads(vesk("--json", "recover", self.folder / name).stdout)
                    self.assertTrue(result["recovered"])
                    movie = self.folder / name
                    self.assertEqual(picture_hashes(movie)[:len(before)], before)
                    self.assertEqual(result["frames"], int(probe(movie)["video"]["nb_read_packets"]))
                    self.assert_plays_everywhere(movie)
                    again = json.loads(vesk("--json", "recover", movie).stdout)
                    self.assertFalse(again["recovered"])
                    movie.unlink()
        self.nothing_left()

    def test_a_live_recording_is_left_alone(self):
        program = start_vesk("--capture", "simulated", "record", self.folder / "movie.mov", "--format", "avc1:320x240")
        left = []
        while not left:
            self.assertIsNone(program.poll())
            left = [p for p in self.folder.rglob("movie.mov") if p.stat().st_size > 20_000]
        refused = vesk("recover", left[0], check=False)
        self.assertEqual(refused.returncode, 4, refused.stderr)
        program.send_signal(signal.SIGINT)
        program.communicate(timeout=60)
        self.assertEqual(program.returncode, 0)


if __name__ == "__main__":
    unittest.main()
