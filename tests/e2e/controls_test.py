"""Controls, heads, information and resolutions, seen from outside."""
import json
import os
import plistlib
import unittest

from program import CATALOGUE, MovieTest, tool, vesk

WIDTH, HEIGHT = 320, 240


class ControlsTest(MovieTest):
    """Simulated cameras that keep their settings from one run of the program to the next."""

    def setUp(self):
        super().setUp()
        self.state = {"VESK_SIMULATED_STATE": str(self.folder / "state")}

    def run_vesk(self, *arguments, check=True):
        return vesk("--capture", "simulated", *arguments, check=check, environment=self.state)

    def controls(self, *arguments):
        found = json.loads(self.run_vesk("--json", "controls", *arguments).stdout)["controls"]
        return {control["name"]: control for control in found}

    def current(self, name):
        return self.controls("get", name)[name]["current"]

    def fails(self, status, *arguments):
        """What the program says when it ends with this status, by person and by script."""
        done = self.run_vesk(*arguments, check=False)
        self.assertEqual(done.returncode, status, done.stderr)
        as_json = json.loads(self.run_vesk("--json", *arguments, check=False).stdout)
        self.assertEqual(as_json["error"]["status"], status)
        return done.stderr


class Settings(ControlsTest):
    def test_list_tells_range_default_and_automatic_modes(self):
        found = self.controls()
        self.assertEqual({key: found["brightness"][key] for key in ("min", "max", "current", "default", "auto")},
                         {"min": -64, "max": 64, "current": 0, "default": 0, "auto": None})
        self.assertEqual(found["exposure"]["unit"], "100 µs")
        self.assertIs(found["exposure"]["auto"], True)
        self.assertNotIn("relativePan", found)
        plain = self.controls("list", "--camera", "plain")
        self.assertTrue({"mirror", "pan", "zoom"}.isdisjoint(plain))
        self.assertIn("relativePan", plain)
        table = self.run_vesk("controls").stdout.splitlines()
        self.assertEqual(len(table), len(found) + 1)
        self.assertEqual(len({line.find("to ") for line in table if line.startswith(("brightness", "contrast"))}), 2)

    def test_set_checks_before_it_sends(self):
        self.run_vesk("controls", "set", "brightness", "-20")
        self.assertEqual(self.current("brightness"), -20)
        self.assertIn("-64 to 64", self.fails(2, "controls", "set", "brightness", "65"))
        self.fails(2, "controls", "set", "brightness", "light")
        self.assertIn("sharpness", self.fails(2, "controls", "set", "loudness", "1"))
        self.fails(2, "controls", "set", "autoFocus", "2")
        self.fails(1, "controls", "set", "mirror", "1", "--camera", "plain")
        self.fails(3, "controls", "get", "hue", "--camera", "missing")
        self.fails(2, "controls", "loosen")
        self.assertEqual(self.current("brightness"), -20)
        self.run_vesk("controls", "set", "brightness", "default")
        self.assertEqual(self.current("brightness"), 0)

    def test_automatic_modes_rule_their_controls(self):
        self.assertIn("autoExposure", self.fails(4, "controls", "set", "exposure", "100"))
        self.run_vesk("controls", "set", "autoExposure", "off")
        self.run_vesk("controls", "set", "exposure", "100")
        self.assertEqual(self.current("exposure"), 100)
        self.run_vesk("controls", "set", "exposure", "auto")
        self.assertIs(self.controls("get", "exposure")["exposure"]["auto"], True)

    def test_settings_are_kept_and_come_back_in_both_kinds_of_file(self):
        wanted = {"brightness": 9, "autoWhiteBalance": 0, "whiteBalance": 3000, "pan": 3600, "tilt": -7200, "zoom": 150}
        for name, value in wanted.items():
            self.run_vesk("controls", "set", name, {"autoWhiteBalance": "off"}.get(name, value))
        for file in ("kept.json", "kept.plist"):
            self.run_vesk("controls", "save", self.folder / file)
        self.assertIn("--force", self.fails(1, "controls", "save", self.folder / "kept.json"))
        saved = self.run_vesk("controls", "save", self.folder / "kept.json", "--force").stdout
        self.assertIn("left to automatic modes: ", saved)
        self.assertNotIn("whiteBalance", saved)
        listed = plistlib.loads((self.folder / "kept.plist").read_bytes())
        self.assertEqual(listed, json.loads((self.folder / "kept.json").read_text()))
        self.assertEqual({name: listed["controls"][name] for name in wanted}, wanted)
        for file in ("kept.json", "kept.plist"):
            self.run_vesk("controls", "reset")
            self.assertEqual(self.current("pan"), 0)
            self.assertEqual(self.current("whiteBalance"), 4600)
            loaded = self.run_vesk("controls", "load", self.folder / file).stdout
            self.assertEqual(loaded.split("left to")[1], saved.split("left to")[1])
            self.assertEqual({name: self.current(name) for name in wanted}, wanted)

    def test_settings_find_their_camera(self):
        file = self.folder / "kept.json"
        self.run_vesk("controls", "set", "brightness", "5", "--camera", "plain")
        self.run_vesk("controls", "save", file, "--camera", "plain")
        self.run_vesk("controls", "reset", "--camera", "plain")
        document = json.loads(file.read_text())
        document["camera"]["path"] = "elsewhere"  # plugged in again at another place
        file.write_text(json.dumps(document))
        self.run_vesk("controls", "load", file)
        self.assertEqual(self.controls("get", "brightness", "--camera", "plain")["brightness"]["current"], 5)
        self.assertEqual(self.current("brightness"), 0)
        document["camera"]["productID"] = 7
        file.write_text(json.dumps(document))
        self.fails(3, "controls", "load", file)

    def test_what_cannot_be_applied_is_said_and_the_rest_is(self):
        file = self.folder / "kept.json"
        self.run_vesk("controls", "save", file)
        document = json.loads(file.read_text())
        document["controls"] = {"brightness": 3, "contrast": 1000, "exposure": 50, "loudness": 1, "relativeZoom": 5}
        file.write_text(json.dumps(document))
        done = self.run_vesk("--json", "controls", "load", file, check=False)
        self.assertEqual(done.returncode, 1)
        answer = json.loads(done.stdout)
        self.assertEqual(answer["applied"], ["brightness"])
        self.assertEqual({each["name"] for each in answer["notApplied"]},
                         {"contrast", "exposure", "loudness", "relativeZoom"})
        self.assertEqual(self.current("brightness"), 3)


class Effects(ControlsTest):
    """What controls do to recorded pictures."""

    def luma(self, codec, camera="0"):
        """The luma of the recorded picture at 0.4 s, when no flash is on, row by row."""
        movie = self.folder / "movie.mov"
        self.run_vesk("--pace", "fast", "record", movie, "--camera", camera, "--no-audio", "--format", f"{codec}:320x240",
                      "--duration", "0.6", "--force")
        grey = tool("ffmpeg", "-v", "error", "-nostdin", "-ss", "0.4", "-i", movie, "-frames:v", "1", "-vf",
                    "extractplanes=y", "-f", "rawvideo", "-", binary=True)
        return [grey[y * WIDTH:(y + 1) * WIDTH] for y in range(HEIGHT)]

    def assert_like(self, picture, other, place):
        """Most pixels of a row are near those of the other picture at the given places."""
        fitting = sum(abs(picture[120][x] - other[120][place(x) % WIDTH]) < 14 for x in range(WIDTH))
        self.assertGreater(fitting / WIDTH, 0.94)

    def test_nudges_move_the_head(self):
        plain = self.luma("2vuy", "plain")
        self.run_vesk("nudge", "left", "--times", "2")  # 4 of 64 degrees each; the camera with a head is found
        self.assert_like(self.luma("2vuy", "plain"), plain, lambda x: x + 40)
        self.run_vesk("nudge", "right", "--camera", "plain")
        self.assert_like(self.luma("2vuy", "plain"), plain, lambda x: x + 20)
        self.assertEqual(json.loads(self.run_vesk("--json", "nudge", "reset").stdout)["direction"], "reset")
        self.assert_like(self.luma("2vuy", "plain"), plain, lambda x: x)
        self.assertIn("position", self.fails(1, "nudge", "left", "--camera", "0"))
        self.fails(2, "nudge", "sideways")


class Information(ControlsTest):
    def test_info_tells_what_the_camera_says(self):
        first = json.loads(self.run_vesk("--json", "info").stdout)
        self.assertEqual((first["vendorID"], first["productID"], first["path"]), (0xFFF0, 1, "simulated:camera"))
        self.assertEqual(first["firmware"], {"major": 2, "minor": 5, "build": 4660})
        self.assertEqual(first["sensor"], {"technology": 2, "type": 9})
        plain = json.loads(self.run_vesk("--json", "info", "--camera", "plain").stdout)
        self.assertEqual(plain["eeprom"], {"major": 2, "minor": 1})
        self.assertIn("2.5, build 4660", self.run_vesk("info").stdout)

    def test_resolutions_are_looked_up(self):
        answer = json.loads(vesk("--json", "resolutions", CATALOGUE, "--product", "7B27", "--codec", "dmb1").stdout)
        self.assertEqual(answer["product"], 0x7B27)
        self.assertEqual(answer["resolutions"][-1],
                         {"codec": "dmb1", "width": 1920, "height": 1080, "frameRate": 30, "interpolated": True})
        self.assertEqual(len(answer["resolutions"]), 7)
        self.fails(1, "resolutions", CATALOGUE, "--product", "1")
        self.fails(1, "resolutions", self.folder, "--product", "1")
        self.fails(2, "resolutions", CATALOGUE, "--product", "camera")
        os.mkfifo(self.folder / "pipe.xml")
        self.fails(1, "resolutions", self.folder / "pipe.xml", "--product", "1")
        damaged = self.folder / "damaged.xml"
        damaged.write_text("<Resolutions>\n<Camera>")
        self.assertIn("line 2", self.fails(1, "resolutions", damaged, "--product", "1"))


if __name__ == "__main__":
    unittest.main()
