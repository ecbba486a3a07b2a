"""Devices that come, go and refuse while programs use them: simulated ones, that heed the tests' commands."""
import json
import signal
import unittest

from program import CAMERA, MICROPHONE, PLAIN, MovieTest, Running, probe, vesk


class HotplugTest(MovieTest):
    def commands_left(self, *files):
        self.nothing_left(but=["commands", *files])


class Recordings(HotplugTest):
    def test_a_camera_that_goes_leaves_a_whole_movie(self):
        running = Running(self, "record", "movie.mov", "--format", "avc1:320x240")
        self.grows("movie.mov")
        running.command(f"out {MICROPHONE}", f"out {CAMERA}")  # as the two of one USB device go
        running.next(event="removed", kind="microphone")
        running.next(event="removed", kind="camera", path=CAMERA)
        movie = running.next(file="movie.mov")
        self.assertGreater(movie["video"]["frames"], 0)
        error = running.next()["error"]
        running.end(1, ask=False)
        self.assertIn("unplugged", error["what"])
        self.assertIn("movie.mov", error["hint"])
        self.assertEqual(len([line for line in running.errors if line.startswith("vesk: ")]), 1, running.errors)
        self.assert_plays_everywhere(self.folder / "movie.mov")
        self.commands_left("movie.mov")

    def test_waiting_goes_on_in_a_new_movie_each_time(self):
        (self.folder / "movie-2.mov").write_text("precious")
        (self.folder / "movie.mov").write_text("old")
        running = Running(self, "record", "movie.mov", "--force", "--wait", "--camera", "plain", "--format", "320x240",
                          setup=f"out {PLAIN}")
        running.next(event="waiting", kind="camera")
        for name in ("movie.mov", "movie-3.mov"):
            running.command(f"in {PLAIN}")
            running.next(event="recording", file=name)
            self.grows(name)
            running.command(f"out {CAMERA}", f"in {CAMERA}")  # another camera is none of its business
            running.command(f"out {PLAIN}")
            running.next(event="removed", path=PLAIN)
            self.assertIsNotNone(running.next(file=name)["sound"])
            running.next(event="waiting", path=PLAIN)
        running.end(0)
        for name in ("movie.mov", "movie-3.mov"):
            self.assert_plays_everywhere(self.folder / name)
        self.assertEqual((self.folder / "movie-2.mov").read_text(), "precious")
        self.commands_left("movie.mov", "movie-2.mov", "movie-3.mov")

    def test_the_duration_is_that_of_all_movies(self):
        for pace, duration in (("realtime", 3), ("fast", 600)):
            with self.subTest(pace=pace):
                running = Running(self, "--pace", pace, "record", "movie.mov", "--wait", "--duration", duration,
                                  "--format", "avc1:320x240")
                running.next(event="recording", file="movie.mov")
                self.grows("movie.mov")
                running.command(f"out {CAMERA}")
                running.next(event="removed")
                first = running.next(file="movie.mov")
                # The microphone, however fast, does not run on without the camera.
                self.assertAlmostEqual(first["duration"], first["video"]["frames"] / 30, delta=0.3)
                running.next(event="waiting")
                running.command(f"in {CAMERA}")
                running.next(event="recording", file="movie-2.mov")
                second = running.next(file="movie-2.mov")
                running.end(0, ask=False)
                self.assertAlmostEqual(first["duration"] + second["duration"], duration, delta=0.3)
                for name in ("movie.mov", "movie-2.mov"):
                    (self.folder / name).unlink()

    def test_a_microphone_that_goes_and_comes_back_leaves_a_gap(self):
        running = Running(self, "record", "movie.mov", "--format", "avc1:320x240")
        self.grows("movie.mov")
        running.command(f"out {MICROPHONE}")
        running.next(event="removed", kind="microphone", path=MICROPHONE)
        self.grows("movie.mov", more=200_000)  # of pictures alone
        running.command(f"in {MICROPHONE}")
        running.next(event="added", kind="microphone", path=MICROPHONE)
        self.grows("movie.mov", more=200_000)
        running.program.send_signal(signal.SIGINT)
        movie = running.next(file="movie.mov")
        running.end(0, ask=False)
        self.assertGreater(movie["sound"]["silence"], 0)
        self.assertTrue(any("without sound" in line for line in running.errors), running.errors)
        facts = probe(self.folder / "movie.mov")
        self.assertAlmostEqual(float(facts["audio"]["duration"]), float(facts["video"]["duration"]), delta=0.3)
        self.assert_plays_everywhere(self.folder / "movie.mov")

    def test_waiting_that_is_ended_says_so_and_leaves_nothing(self):
        running = Running(self, "record", "movie.mov", "--wait", setup=f"out {CAMERA};out {PLAIN}")
        running.next(event="waiting")
        running.program.send_signal(signal.SIGTERM)
        self.assertIn("did not come", running.next()["error"]["what"])
        running.end(3, ask=False)
        self.commands_left()


class Doctor(HotplugTest):
    def test_tells_findings_with_remedies_and_whether_there_are_problems(self):
        done = vesk("--json", "doctor", check=False)
        report = json.loads(done.stdout)
        problems = [finding for finding in report["findings"] if finding["mark"] == "problem"]
        self.assertEqual((report["problems"], done.returncode), (len(problems), 1 if problems else 0))
        self.assertTrue(all(problem["remedy"] for problem in problems))
        self.assertTrue({"camera", "microphone", "encoder", "display", "disk"} <= {finding["subject"] for finding in report["findings"]})
        lines = vesk("doctor", check=False).stdout.splitlines()
        self.assertEqual(len([line for line in lines if line.split()[0] in ("ok", "note", "problem")]), len(report["findings"]))


class KeptControls(HotplugTest):
    def test_are_applied_each_time_the_camera_comes(self):
        state = {"VESK_SIMULATED_STATE": str(self.folder / "state")}
        for name, value in (("brightness", 21), ("autoExposure", "off"), ("exposure", 150)):
            vesk("--capture", "simulated", "controls", "set", name, value, environment=state)
        vesk("--capture", "simulated", "controls", "save", self.folder / "kept.json", environment=state)
        (self.folder / "state").unlink()
        running = Running(self, "controls", "keep", "kept.json", setup=f"out {CAMERA}", environment=state)
        running.next(event="waiting", kind="camera")
        settings = len(json.loads((self.folder / "kept.json").read_text())["controls"])
        for _ in range(2):
            # Close together, as from a hub: the camera, and another whose settings they are not.
            running.command(f"out {PLAIN}", f"in {CAMERA}", f"in {PLAIN}")
            applied = running.next(event="applied", path=CAMERA, notApplied=[])["applied"]
            self.assertGreaterEqual(len(applied), settings - 2)  # what an automatic mode rules is left to it
            self.assertLess(applied.index("autoExposure"), applied.index("exposure"))
            found = json.loads(vesk("--capture", "simulated", "--json", "controls", environment=state).stdout)["controls"]
            current = {control["name"]: control["current"] for control in found}
            self.assertEqual((current["brightness"], current["autoExposure"], current["exposure"]), (21, 0, 150))
            (self.folder / "state").unlink()
            running.command(f"out {CAMERA}")
        running.end(0)
        self.assertFalse((self.folder / "state.plain").exists())

    def test_that_do_not_fit_are_named(self):
        file = self.folder / "kept.json"
        file.write_text(json.dumps({"camera": {"name": "Other", "path": "else", "vendorID": 1, "productID": 2},
                                    "controls": {"brightness": 5, "mirror": 1, "contrast": 9999}}))
        running = Running(self, "controls", "keep", "kept.json", "--camera", "plain")
        applied = running.next(event="applied", path=PLAIN)
        self.assertEqual(applied["applied"], ["brightness"])
        self.assertEqual({each["name"] for each in applied["notApplied"]}, {"mirror", "contrast"})
        running.end(0)
        self.assertEqual(len(running.errors), 2, running.errors)
        file.write_text("{}")
        refused = vesk("--capture", "simulated", "controls", "keep", file, check=False)
        self.assertEqual((refused.returncode, len(refused.stderr.splitlines())), (1, 1))


if __name__ == "__main__":
    unittest.main()
