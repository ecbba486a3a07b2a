"""Recording, seen from outside: footage, simulated devices, what the results say, how failures end."""
import csv
import json
import os
import pathlib
import pty
import signal
import subprocess
import unittest

from program import (DATA, PROGRAM, MovieTest, beep_times, flash_times, luma_means, picture_hashes, probe, sound_bytes, start_vesk, tool, vesk, warnings_of_ffmpeg)

MOST_APART = 0.010  # seconds between a flash and its beep


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
                self.assertEqual(picture_hashes(movie), picture_hashes(clip, *reading_options(clip)))
                if result["sound"] and result["sound"]["codec"] == "pcm":
                    self.assertEqual(sound_bytes(movie), sound_bytes(clip))
                if not warnings_of_ffmpeg(clip, *reading_options(clip)):
                    self.assert_plays_everywhere(movie)
        self.nothing_left(but=[p.name for p in self.folder.glob("*.mov")])


    def test_a_camera_that_changes_its_parameter_sets_goes_on_in_the_next_movie(self):
        # Further on than the source looks for what no camera sends, so that this is delivered as a camera would.
        street, other = DATA / "street-640x480-slices.h264", DATA / "MIDR_MW_D.264"
        turns = (32 << 20) // street.stat().st_size + 2
        stream = self.folder / "joined.264"
        stream.write_bytes(street.read_bytes() * turns + other.read_bytes())
        capture = ["--capture", f"file:{stream}", "--pace", "fast"]
        done = vesk(*capture, "--json", "record", self.folder / "lesson.mov")
        first, second = map(json.loads, done.stdout.splitlines())
        self.assertEqual([pathlib.Path(movie["file"]).name for movie in (first, second)], ["lesson.mov", "lesson-2.mov"])
        self.assertEqual((first["video"]["width"], first["video"]["frames"]), (640, 90 * turns))
        self.assertEqual((second["video"]["width"], second["video"]["frames"]), (176, 100))
        self.assertIn("the recording goes on in", done.stderr)
        self.assertEqual(picture_hashes(second["file"]), picture_hashes(other))
        self.assertEqual(int(probe(first["file"])["video"]["nb_read_packets"]), 90 * turns)
        self.assertEqual(warnings_of_ffmpeg(first["file"]), "")
        self.assert_plays_everywhere(pathlib.Path(second["file"]))
        stream.unlink()
        self.nothing_left(but=["lesson.mov", "lesson-2.mov"])


class RecordSimulated(MovieTest):
    def record(self, seconds, *options):
        movie = self.folder / "movie.mov"
        vesk("--capture", "simulated", "--pace", "fast", "record", movie, "--duration", seconds, "--force", *options)
        return movie

    def test_flash_and_beep_coincide(self):
        for rate, sound in ((15, "pcm:48000:2"), (30, "pcm:44100"), (60, "aac"), (24, "pcm:16000")):
            with self.subTest(rate=rate, sound=sound):
                movie = self.record(5.5, "--format", f"avc1:320x240@{rate}", "--sound", sound)
                flashes, beeps = flash_times(movie), beep_times(movie)
                self.assertEqual(len(flashes), 6)
                self.assertEqual(len(beeps), 6)
                for flash, beep in zip(flashes, beeps):
                    self.assertLess(abs(flash - beep), MOST_APART)

    def test_stays_in_step_for_ten_minutes(self):
        movie = self.record(600.5, "--format", "avc1:320x240", "--sound", "pcm:44100:1")
        flashes, beeps = flash_times(movie), beep_times(movie)
        self.assertEqual(len(flashes), 601)
        self.assertEqual(len(beeps), 601)
        for flash, beep in (*zip(flashes[:5], beeps[:5]), *zip(flashes[-5:], beeps[-5:])):
            self.assertLess(abs(flash - beep), MOST_APART)

    def test_duration_format_and_rate_are_those_that_were_asked_for(self):
        for asked, codec, size, rate in (("2vuy:320x240", "rawvideo", (320, 240), 30), ("h264:1080p@30", "h264", (1920, 1080), 30),
                                         ("avc1:640x480@15", "h264", (640, 480), 15), ("@25", "h264", (1280, 720), 25),
                                         ("Raw:320x240@60", "rawvideo", (320, 240), 60), ("320x240", "h264", (320, 240), 30)):
            with self.subTest(asked):
                movie = self.record(4, "--format", asked)
                facts = probe(movie)
                video = facts["video"]
                self.assertEqual((video["codec_name"], (video["width"], video["height"])), (codec, size))
                self.assertAlmostEqual(float(facts["format"]["duration"]), 4, delta=0.1)
                self.assertEqual((video["r_frame_rate"], video["avg_frame_rate"]), (f"{rate}/1", f"{rate}/1"))
                self.assertEqual(int(video["nb_read_packets"]), 4 * rate)
                unit = int(video["time_base"].split("/")[1])
                times = [round(time * unit) for time, _ in luma_means(movie)]
                for time, following in zip(times, times[1:]):
                    self.assertLessEqual(abs(following - time - unit / rate), 1)
                self.assert_plays_everywhere(movie)

    def test_a_rate_that_is_not_there_is_refused_with_those_that_are(self):
        clip = next(p for p in clips() if p.suffix == ".264")
        for source, rate, rates in (("simulated", "@17", "its rates are 60, 50, 30, 25, 24, 20, 15, 10 and 7.5 pictures a second."),
                                    (f"file:{clip}", "h264@120", "its only rate is ")):
            with self.subTest(source=source):
                done = vesk("--capture", source, "record", self.folder / "movie.mov", "--format", rate, check=False)
                self.assertEqual(done.returncode, 2, done.stderr)
                self.assertIn(f"does not offer {rate}: {rates}", done.stderr)
                self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        self.nothing_left()

    def test_no_audio_gives_picture_only(self):
        self.assertNotIn("audio", probe(self.record(1, "--no-audio")))

    def test_ctrl_c_ends_a_recording_cleanly(self):
        movie = self.folder / "movie.mov"
        program = start_vesk("--capture", "simulated", "--json", "record", movie, "--format", "avc1:320x240")
        self.grows("movie.mov")  # in its hidden folder
        program.send_signal(signal.SIGINT)
        output, _ = program.communicate(timeout=60)
        self.assertEqual(program.returncode, 0)
        self.assertGreater(json.loads(output)["video"]["frames"], 0)
        self.assert_plays_everywhere(movie)
        self.nothing_left(but=["movie.mov"])


class WhileItRecords(MovieTest):
    def test_a_quiet_microphone_is_told(self):
        clip = next(p for p in clips() if p.suffix in (".mov", ".mp4") and probe(p)["video"]["codec_name"] == "h264")
        quiet, movie = self.folder / "quiet.mov", self.folder / "movie.mov"
        tool("ffmpeg", "-v", "error", "-nostdin", "-i", clip, "-f", "lavfi", "-i", "anullsrc=r=48000:cl=mono", "-map", "0:v",
             "-map", "1:a", "-c:v", "copy", "-c:a", "pcm_s16le", "-shortest", quiet)
        done = vesk("--capture", f"file:{quiet}", "--loop", "--pace", "fast", "record", movie, "--duration", "20m")
        self.assertEqual([line for line in done.stderr.splitlines() if "no sound above -60 dB for 10 s" in line],
                         done.stderr.splitlines())
        self.assertEqual(len(done.stderr.splitlines()), 1)
        self.assertIn("NOTHING ABOVE -60 dB", done.stdout)

    def test_gaps_are_counted_and_not_told_one_by_one(self):
        clip = next(p for p in clips() if p.suffix in (".mov", ".mp4") and "audio" in probe(p))
        done = vesk("--capture", f"file:{clip}", "--loop", "--pace", "fast", "record", self.folder / "movie.mov", "--duration", "1m")
        self.assertEqual(done.stderr, "")

    def test_a_terminal_shows_time_size_room_rate_and_level(self):
        state = r"\r\x1b\[K0:00:0\d  \d+ pictures  \d+(\.\d)? .B  \d+\.\d/s  \S+ left on disk  "
        self.assertRegex(self.shown("7s"), state + r"\[[# ]{10}\] *(-?[\d.]+ dB|silence)")
        self.assertRegex(self.shown("7s", "--sound", "aac"), state + r"level unknown \(aac\)")

    def shown(self, duration, *options):
        """What a terminal shows of a recording."""
        reading, terminal = pty.openpty()
        program = subprocess.Popen([PROGRAM, "--capture", "simulated", "record", self.folder / "movie.mov", "--duration", duration,
                                    "--force", *options],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=terminal)
        os.close(terminal)
        shown = b""
        try:
            while data := os.read(reading, 4096):
                shown += data
        except OSError:
            pass  # the other end is closed
        os.close(reading)
        program.communicate(timeout=60)
        self.assertEqual(program.returncode, 0)
        return shown.decode()


class Help(unittest.TestCase):
    COMMANDS = ("devices", "formats", "record", "snapshot", "preview", "meter", "recover", "controls", "controls list", "controls get",
                "controls set", "controls reset", "controls save", "controls load", "controls keep", "nudge", "info", "doctor", "resolutions")

    def test_the_program_alone_prints_its_help(self):
        self.assertEqual(vesk().stdout, vesk("--help").stdout)

    def test_every_command_ends_with_examples_of_its_own_and_describes_every_word(self):
        for command in self.COMMANDS:
            with self.subTest(command=command):
                text = vesk(*command.split(), "--help").stdout
                before, examples = text.split("Examples:\n")
                for line in examples.strip("\n").splitlines():
                    self.assertRegex(line, rf"^  vesk (--\w+ (simulated )?)?{command}\b", "an example of another command")
                entries = [line for part in before.split("\n\n") if part.startswith(("Positionals:", "Options:"))
                           for line in part.splitlines()[1:]]
                for line, following in zip(entries, [*entries[1:], ""]):
                    is_described = line.startswith("   ") or len(line[2:].split("  ", 1)) == 2 or following.startswith("   ")
                    self.assertTrue(is_described, line)

    def test_wrong_words_name_the_help_of_their_command(self):
        self.assertIn('"vesk record --help"', vesk("record", check=False).stderr)


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
                (2, (*simulated, "record", self.folder / "out.mp4")),
                (2, (*simulated, "record", self.folder / "out")),
                (2, (*simulated, "record", out, "--format", "mjpeg")),
                *((2, (*simulated, "record", out, f"--duration={time}")) for time in ("nan", "inf", "-1", "0", "1e3", "5d", "9999h")),
                (2, (*simulated, "snapshot", self.folder / "photo.jpeg", "--delay", "nan")),
                (2, (*simulated, "snapshot", self.folder / "photo.png")),
                (2, (*simulated, "preview", "--screenshot", self.folder / "window.jpeg")),
                (2, ("recover", self.folder)),
                (3, (*simulated, "record", out, "--camera", "no such camera")),
                (3, ("--capture", f"file:{self.folder}/none.mov", "record", out)),
                (1, (*simulated, "record", self.folder / "none" / "out.mov")),
                (1, (*simulated, "record", self.folder / "there.mov")),
                (1, (*simulated, "record", out, "--format", "avc1:123x45")),
                (2, (*simulated, "record", out, "--format", "h264@17")),
                (1, ("recover", self.folder / "none.mov")),
                (1, ("recover", self.folder / "there.mov"))):
            with self.subTest(arguments=arguments):
                self.fails(status, *arguments)
        self.assertEqual((self.folder / "there.mov").read_text(), "precious")
        self.nothing_left(but=["there.mov"])

    def test_a_camera_that_sends_nothing_leaves_no_empty_movie(self):
        movie = self.folder / "movie.mov"
        silent = {"environment": {"VESK_SIMULATED_SETUP": "silent simulated:camera"}}
        arguments = ("--capture", "simulated", "--pace", "fast", "record", movie, "--duration")
        self.assertIn("no picture came from", self.fails(1, *arguments, "2", **silent)["what"])
        self.nothing_left()
        # Somebody may have spoken for longer than that.
        self.assertIn("the movie has sound only", self.fails(1, *arguments, "6s", **silent)["what"])
        self.assertAlmostEqual(float(probe(movie)["format"]["duration"]), 6, delta=0.2)

    def test_a_failure_before_the_first_picture_leaves_what_was_there(self):
        movie = self.folder / "movie.mov"
        for is_there in (False, True):
            with self.subTest(is_there=is_there):
                if is_there:
                    movie.write_text("precious")
                done = subprocess.run(["bash", "-c", f"ulimit -f 8; exec {PROGRAM} --capture simulated --pace fast record {movie} "
                                       "--format 2vuy:320x240 --duration 5 --force"], capture_output=True, text=True, timeout=120)
                self.assertEqual(done.returncode, 1, done.stderr)
                self.assertIn("Nothing was recorded", done.stderr)
                self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
                self.nothing_left(but=["movie.mov"] if is_there else [])
        self.assertEqual(movie.read_text(), "precious")

    def test_force_replaces_only_at_the_end(self):
        movie = self.folder / "movie.mov"
        movie.write_text("old")
        vesk("--capture", "simulated", "--pace", "fast", "record", movie, "--duration", "1", "--force")
        self.assertEqual(probe(movie)["video"]["codec_name"], "h264")
        self.nothing_left(but=["movie.mov"])

    def test_a_name_taken_meanwhile_is_not_overwritten(self):
        movie = self.folder / "movie.mov"
        program = start_vesk("--capture", "simulated", "--json", "record", movie, "--format", "avc1:320x240")
        self.grows("movie.mov")
        movie.write_text("another's")
        program.send_signal(signal.SIGINT)
        output, errors = program.communicate(timeout=60)
        self.assertEqual(program.returncode, 1, errors)
        self.assertEqual(movie.read_text(), "another's")
        kept = [p for p in self.folder.rglob("movie.mov") if p != movie]
        self.assertEqual(len(kept), 1)
        self.assertIn(str(kept[0]), errors)
        self.assert_plays_everywhere(kept[0])

    def test_one_that_runs_out_of_room_says_so_and_leaves_a_movie_that_plays(self):
        movie = self.folder / "movie.mov"
        done = subprocess.run(["bash", "-c", f"ulimit -f 20000; exec {PROGRAM} --capture simulated --pace fast record {movie} "
                               "--format 2vuy:320x240 --duration 60"], capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn("full", done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1, "said once, and none of the library's own lines")
        self.assertFalse(movie.exists() and movie.stat().st_size == 0)
        kept = list(self.folder.rglob("movie.mov"))
        self.assertEqual(len(kept), 1, done.stderr)
        self.assertIn(str(kept[0]), done.stderr)
        self.assertGreater(int(probe(kept[0])["video"]["nb_read_packets"]), 30)


if __name__ == "__main__":
    unittest.main()
