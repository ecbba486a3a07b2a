"""Recording, seen from outside: footage, simulated devices, what the results say, how failures end."""
import csv
import json
import os
import pathlib
import signal
import subprocess
import time
import unittest

from program import (DATA, MovieTest, beep_times, flash_times, picture_hashes, probe, sound_bytes, start_vesk, vesk, warnings_of_ffmpeg)

# Clips whose parameter sets change in the middle: only the first ones are kept, so damage is expected.
CHANGING_PARAMETER_SETS = {"MPS_MW_A.264"}


def clips():
    """Footage in the project, and in the folder that VESK_MEDIA names."""
    found = sorted(p for p in DATA.iterdir() if p.suffix in (".mov", ".mp4", ".264", ".h264", ".uyvy"))
    more = os.environ.get("VESK_MEDIA")
    if more:
        with open(pathlib.Path(more) / "MANIFEST.tsv", newline="") as file:
            found += [pathlib.Path(more) / row["file"] for row in csv.DictReader(file, delimiter="\t")
                      if row["kind"] in ("video", "clip") and row["state"] == "well-formed"
                      and row["codec"].split("+")[0] in ("h264", "uyvy422", "rawvideo")]
    return found


def reading_options(clip):
    """What ffmpeg must be told to read a clip that says nothing of itself."""
    if clip.suffix == ".uyvy":
        return ["-f", "rawvideo", "-pixel_format", "uyvy422", "-video_size", clip.stem.split("-")[-1], "-framerate", "30"]
    return []


class RecordFootage(MovieTest):
    def test_pictures_and_sound_are_those_of_the_footage(self):
        for number, clip in enumerate(clips()):
            with self.subTest(clip=clip.name):
                movie = self.folder / f"{number}.mov"
                result = json.loads(vesk("--capture", f"file:{clip}", "--pace", "fast", "--json", "record", movie).stdout)
                facts = probe(movie)
                self.assertEqual(result["video"]["dropped"], 0)
                self.assertEqual(int(facts["video"]["nb_read_packets"]), result["video"]["frames"])
                if result["video"]["codec"] == "2vuy" and clip.suffix not in (".uyvy",) and "uyvy" not in clip.name:
                    continue  # reordered pictures, offered decoded
                if clip.name in CHANGING_PARAMETER_SETS:
                    continue
                self.assertEqual(picture_hashes(movie), picture_hashes(clip, *reading_options(clip)))
                if result["sound"] and result["sound"]["codec"] == "pcm":
                    self.assertEqual(sound_bytes(movie), sound_bytes(clip))
                if not warnings_of_ffmpeg(clip, *reading_options(clip)):
                    self.assert_plays_everywhere(movie)
        self.nothing_left(but=[p.name for p in self.folder.glob("*.mov")])


class RecordSimulated(MovieTest):
    def record(self, seconds, *options):
        movie = self.folder / "movie.mov"
        vesk("--capture", "simulated", "--pace", "fast", "record", movie, "--duration", seconds, "--force", *options)
        return movie

    def test_flash_and_beep_coincide(self):
        for options in (["--sound", "pcm:48000:2"], ["--sound", "pcm:44100"], ["--sound", "aac"]):
            with self.subTest(options=options):
                movie = self.record(5.5, "--format", "avc1:320x240", *options)
                flashes, beeps = flash_times(movie), beep_times(movie)
                self.assertEqual(len(flashes), 6)
                self.assertEqual(len(beeps), 6)
                for flash, beep in zip(flashes, beeps):
                    self.assertLess(abs(flash - beep), 0.060)

    def test_stays_in_step_for_ten_minutes(self):
        movie = self.record(600.5, "--format", "avc1:320x240", "--sound", "pcm:44100:1")
        flashes, beeps = flash_times(movie), beep_times(movie)
        self.assertEqual(len(flashes), 601)
        self.assertEqual(len(beeps), 601)
        for flash, beep in (*zip(flashes[:5], beeps[:5]), *zip(flashes[-5:], beeps[-5:])):
            self.assertLess(abs(flash - beep), 0.060)

    def test_duration_and_formats_are_heeded(self):
        for options, codec, size in ((["--format", "2vuy:320x240"], "rawvideo", (320, 240)),
                                     (["--format", "avc1:640x480"], "h264", (640, 480))):
            with self.subTest(options=options):
                movie = self.record(3, *options)
                facts = probe(movie)
                self.assertEqual(facts["video"]["codec_name"], codec)
                self.assertEqual((facts["video"]["width"], facts["video"]["height"]), size)
                self.assertAlmostEqual(float(facts["format"]["duration"]), 3, delta=0.1)
                self.assert_plays_everywhere(movie)

    def test_no_audio_gives_picture_only(self):
        self.assertNotIn("audio", probe(self.record(1, "--no-audio")))

    def test_ctrl_c_ends_a_recording_cleanly(self):
        movie = self.folder / "movie.mov"
        program = start_vesk("--capture", "simulated", "--json", "record", movie, "--format", "avc1:320x240")
        # Wait until the movie has grown in its hidden folder, then ask for the end.
        while not [p for p in self.folder.rglob("movie.mov") if p.stat().st_size > 20_000]:
            self.assertIsNone(program.poll())
            time.sleep(0.05)
        program.send_signal(signal.SIGINT)
        output, _ = program.communicate(timeout=60)
        self.assertEqual(program.returncode, 0)
        self.assertGreater(json.loads(output)["video"]["frames"], 0)
        self.assert_plays_everywhere(movie)
        self.nothing_left(but=["movie.mov"])


class Failures(MovieTest):
    def fails(self, status, *arguments, **options):
        done = vesk("--json", *arguments, check=False, **options)
        self.assertEqual(done.returncode, status, done.stderr)
        error = json.loads(done.stdout.splitlines()[-1])["error"]
        self.assertEqual(error["status"], status)
        self.assertTrue(error["what"] and error["hint"])
        self.assertEqual(len([line for line in done.stderr.splitlines() if line.startswith("vesk: ")]), 1, done.stderr)
        return error

    def test_every_failure_has_its_status_and_a_remedy(self):
        (self.folder / "there.mov").write_text("precious")
        out = self.folder / "out.mov"
        simulated = ("--capture", "simulated")
        for status, arguments in (
                (2, ("recrod",)),
                (2, ("record",)),
                (2, (*simulated, "record", out, "--format", "mp3")),
                (2, (*simulated, "record", out, "--sound", "pcm:x")),
                (2, (*simulated, "record", self.folder)),
                (3, (*simulated, "record", out, "--camera", "no such camera")),
                (3, ("--capture", f"file:{self.folder}/none.mov", "record", out)),
                (1, (*simulated, "record", self.folder / "none" / "out.mov")),
                (1, (*simulated, "record", self.folder / "there.mov")),
                (1, (*simulated, "record", out, "--format", "avc1:123x45")),
                (1, ("recover", self.folder / "none.mov")),
                (1, ("recover", self.folder / "there.mov"))):
            with self.subTest(arguments=arguments):
                self.fails(status, *arguments)
        self.assertEqual((self.folder / "there.mov").read_text(), "precious")
        self.nothing_left(but=["there.mov"])

    def test_force_replaces_only_at_the_end(self):
        movie = self.folder / "movie.mov"
        movie.write_text("old")
        vesk("--capture", "simulated", "--pace", "fast", "record", movie, "--duration", "1", "--force")
        self.assertEqual(probe(movie)["video"]["codec_name"], "h264")
        self.nothing_left(but=["movie.mov"])

    def test_a_name_taken_meanwhile_is_not_overwritten(self):
        movie = self.folder / "movie.mov"
        program = start_vesk("--capture", "simulated", "--json", "record", movie, "--format", "avc1:320x240")
        while not [p for p in self.folder.rglob("movie.mov") if p.stat().st_size > 20_000]:
            self.assertIsNone(program.poll())
            time.sleep(0.05)
        movie.write_text("another's")
        program.send_signal(signal.SIGINT)
        output, errors = program.communicate(timeout=60)
        self.assertEqual(program.returncode, 1, errors)
        self.assertEqual(movie.read_text(), "another's")
        kept = [p for p in self.folder.rglob("movie.mov") if p != movie]
        self.assertEqual(len(kept), 1)
        self.assertIn(str(kept[0]), errors)
        self.assert_plays_everywhere(kept[0])

    def full(self, movie, command):
        """A recording that runs out of room says so and leaves a movie that plays where it says."""
        done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn("full", done.stderr)
        self.assertFalse(movie.exists() and movie.stat().st_size == 0)
        kept = list(self.folder.rglob("movie.mov"))
        self.assertEqual(len(kept), 1, done.stderr)
        self.assertIn(str(kept[0]), done.stderr)
        self.assertGreater(int(probe(kept[0])["video"]["nb_read_packets"]), 30)

    def test_a_file_size_limit_is_a_full_disk(self):
        movie = self.folder / "movie.mov"
        from program import PROGRAM
        self.full(movie, f"ulimit -f 20000; exec {PROGRAM} --capture simulated --pace fast record {movie} "
                         "--format 2vuy:320x240 --duration 60")

    @unittest.skipUnless(os.geteuid() == 0 and os.path.exists("/usr/bin/unshare"), "mounting needs root")
    def test_a_full_disk(self):
        from program import PROGRAM
        mounted = self.folder / "small"
        mounted.mkdir()
        movie = mounted / "movie.mov"
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "tmpfs", mounted], capture_output=True).returncode != 0:
            self.skipTest("no file system can be mounted here")
        try:
            self.full(movie, f"exec {PROGRAM} --capture simulated --pace fast record {movie} "
                             "--format 2vuy:320x240 --duration 60")
        finally:
            subprocess.run(["umount", mounted], check=True)


if __name__ == "__main__":
    unittest.main()
