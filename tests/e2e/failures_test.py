"""How failures are told: one line for a person, a cause for scripts, the same with --verbose."""
import json
import re
import unittest

from program import CAMERA, CATALOGUE, MICROPHONE, PLAIN, MovieTest, vesk



class FailuresTest(MovieTest):
    def run_in(self, name, options, arguments, setup):
        """Runs the command in a folder of its own."""
        folder = self.folder / name
        folder.mkdir()
        environment = {"VESK_SIMULATED_SETUP": setup}
        arguments = [str(folder / each[1:]) if each.startswith("@") else each for each in arguments]
        return vesk("--capture", "simulated", *options, *arguments, check=False, environment=environment)

    def test_verbose_changes_nothing_but_the_lines_on_standard_error(self):
        record = ("record", "@movie.mov", "--format", "h264:320x240", "--duration", "1")
        commands = [("devices",), ("formats",), record, ("snapshot", "@photo.jpeg", "--delay", "0"),
                    ("meter", "--duration", "0.3"), ("controls", "list"), ("controls", "get", "brightness"),
                    ("controls", "set", "brightness", "7"), ("controls", "reset"), ("controls", "save", "@look.json"),
                    ("controls", "load", "@none.json"), ("controls", "get", "nonsense"), ("nudge", "left"),
                    ("nudge", "left", "--camera", "Plain"), ("info",), ("recover", "@none.mov"), ("doctor",),
                    ("resolutions", str(CATALOGUE), "--product", "7B27"), ("preview", "--record", "@movie.txt")]
        cases = [(command, "") for command in commands]
        cases += [(command, setup) for command in (record, ("meter",), ("snapshot", "@photo.jpeg"), ("controls", "list"))
                  for setup in (f"busy {CAMERA};busy {MICROPHONE}", f"no-permission {CAMERA};no-permission {MICROPHONE}")]
        for number, (command, setup) in enumerate(cases):
            with self.subTest(command=command, setup=setup):
                plain = self.run_in(f"{number}", ["--pace", "fast"], command, setup)
                verbose = self.run_in(f"{number}-v", ["--pace", "fast", "--verbose"], command, setup)
                self.assertEqual(verbose.returncode, plain.returncode, verbose.stderr)

                def without_folder(text, name):
                    text = text.replace(str(self.folder / name), "FOLDER")
                    # Which frame a photo takes, and which packet of sound is a film's last, is of the moment.
                    return re.sub(r", \d+ kB\b", ", SIZE", text)
                ours = without_folder(plain.stderr, f"{number}").splitlines()
                theirs = without_folder(verbose.stderr, f"{number}-v").splitlines()
                self.assertEqual([line for line in ours if line not in theirs], [])
                if command[0] not in ("meter", "doctor"):  # whose figures are of the moment
                    self.assertEqual(without_folder(verbose.stdout, f"{number}-v"), without_folder(plain.stdout, f"{number}"))

    def test_a_failure_is_one_line_with_its_cause_for_scripts(self):
        record = ("record", "@movie.mov", "--format", "h264:320x240")
        for setup, command, status, cause, *hint in (
                (f"busy {CAMERA}", record, 4, "busy", "Close other programs"),
                (f"busy {CAMERA}", (*record, "--wait"), 4, "busy", "Close other programs"),
                (f"busy {MICROPHONE}", record, 4, "busy", "--no-audio"),
                (f"out {CAMERA};out {PLAIN}", record, 3, "no-device", "Plug one in"),
                (f"busy {MICROPHONE}", ("meter",), 4, "busy"),
                (f"busy {CAMERA}", ("snapshot", "@photo.jpeg"), 4, "busy"),
                (f"no-permission {CAMERA}", record, 4, "no-permission"),
                (f"no-permission {CAMERA}", ("formats",), 4, "no-permission"),
                (f"no-bandwidth {CAMERA}", record, 4, "no-bandwidth"),
                (f"not-answering {CAMERA}", ("controls", "list"), 1, "not-answering"),
                (f"not-answering {CAMERA}", ("controls", "get", "brightness"), 1, "not-answering"),
                ("", ("snapshot", "@photo.jpeg", "--format", "123x45"), 1, "no-format"),
                ("", ("snapshot", "@photo.jpeg", "--format", "h264@17"), 2, "no-format"),
                ("", ("snapshot", "@photo.jpeg", "--camera", "nobody"), 3, "no-device"),
                ("", ("recover", "@none.mov"), 1, "other")):
            with self.subTest(setup=setup, command=command):
                done = self.run_in(str(len(list(self.folder.iterdir()))), ["--json"], command, setup)
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
                error = json.loads(done.stdout)["error"]
                self.assertEqual((error["status"], error["cause"]), (status, cause))
                self.assertTrue(done.stderr.startswith(f"vesk: {error['what']}"), done.stderr)
                self.assertEqual(set(error), {"what", "status", "hint", "cause"})
                self.assertIn("".join(hint), done.stderr)
                self.assertEqual([each for each in self.folder.rglob("*") if each.is_file()], [], "nothing is left")


if __name__ == "__main__":
    unittest.main()
