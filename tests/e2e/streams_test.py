"""How the program ends: on signals, at closed and full streams, and without what it needs."""
import errno
import json
import os
import signal
import subprocess
import time
import unittest

from program import DATA, PROGRAM, MovieTest, Running, probe, vesk

ALL = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
MISSING = "could not be written to standard output"
SOURCE = ("--capture", "simulated")


def full_pipe():
    """Both ends of a pipe that has no room left."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while True:
            os.write(writer, b"x" * 4096)
    except BlockingIOError:
        os.set_blocking(writer, True)
        return reader, writer


class StreamsTest(MovieTest):
    def start(self, *arguments, source=SOURCE, **options):
        return self.started(*source, *arguments, cwd=self.folder, **options)

    def line_with(self, stream, words):
        """Reads on to the line that holds the words."""
        for line in stream:
            if words in line:
                return line
        raise AssertionError(f"no line with {words!r}")


class Signals(StreamsTest):
    def test_the_nudge_under_way_gets_its_stop_and_the_others_are_dropped(self):
        for number in ALL:
            with self.subTest(number=number):
                state = self.folder / f"state-{number}"
                program = self.start("--verbose", "nudge", "left", "--times", 1000,
                                     env={**os.environ, "VESK_SIMULATED_STATE": str(state)})
                for _ in range(2):
                    self.line_with(program.stderr, "panRelativeLeft")
                program.send_signal(number)
                out, errors = program.communicate(timeout=60)
                self.assertEqual((program.returncode, out), (130, ""), errors)
                self.assertRegex(errors, r"stopped after \d+ of 1000 nudges")
                done = vesk(*SOURCE, "--json", "controls", "get", "relativePan", "--camera", "plain",
                            environment={"VESK_SIMULATED_STATE": str(state)})
                self.assertEqual(json.loads(done.stdout)["controls"][0]["current"], 0)

    def test_a_command_that_hangs_ends_at_once(self):
        pipe = self.folder / "settings"
        os.mkfifo(pipe)
        for command, signals in (("load", 1), ("keep", 2)):  # the second keeps order, so that one more is needed
            for number in ALL:
                with self.subTest(command=command, number=number):
                    program = self.start("controls", command, pipe)
                    writer = self.opened_with(program, pipe)  # it reads now, and nothing comes
                    program.send_signal(number)
                    if signals == 2:
                        self.wait_until_taken(program, number)
                        self.assertIsNone(program.poll())
                        program.send_signal(signal.SIGTERM)
                    self.assertEqual(program.wait(60), 130)
                    os.close(writer)

    def opened_with(self, program, pipe):
        """The writing end of the pipe, once the program has opened the reading one."""
        while True:
            try:
                return os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
            except OSError as error:
                self.assertEqual(error.errno, errno.ENXIO)
                self.assertIsNone(program.poll())
                time.sleep(0.02)

    def wait_until_taken(self, program, number):
        """Until the signal is not pending any more: two of a kind would be one."""
        pending = 1
        while pending:
            with open(f"/proc/{program.pid}/status") as status:
                masks = [int(line.split()[1], 16) for line in status if line.startswith(("ShdPnd", "SigPnd"))]
            pending = sum(masks) >> (number - 1) & 1

    def test_what_nohup_started_survives_a_hang_up(self):
        # Through sh, as Python restores what it ignores.
        running = Running(self, "devices", "--watch", prefix=("sh", "-c", 'trap "" HUP; exec "$@"', "sh"))
        running.next()
        running.program.send_signal(signal.SIGHUP)
        running.command("out simulated:camera")
        running.next(event="removed")
        running.end(0)


class Results(StreamsTest):
    def test_what_shows_changes_ends_when_its_reader_leaves(self):
        kept = self.folder / "kept.json"
        vesk(*SOURCE, "controls", "save", kept)
        for arguments in (("--json", "meter"), ("meter",), ("--json", "devices", "--watch"), ("devices", "--watch"),
                          ("--json", "controls", "keep", kept)):
            with self.subTest(arguments=arguments):
                program = self.start(*arguments)
                self.assertNotEqual(program.stdout.readline(), "")
                program.stdout.close()
                self.assertEqual(program.wait(60), 0)
                self.assertEqual(program.stderr.read(), "")

    def test_a_full_disk_below_the_results_is_a_failure(self):
        movie, photo = self.folder / "movie.mov", self.folder / "photo.jpeg"
        with open("/dev/full", "w") as full:
            for arguments in (("--help",), ("record", "--help"), ("devices",), ("--json", "devices"), ("formats",),
                              ("controls",), ("info",), ("doctor",), ("meter",), ("--json", "meter"), ("snapshot", photo),
                              ("record", movie, "--duration", 0.5), ("--json", "recover", movie)):
                with self.subTest(arguments=arguments):
                    program = self.start(*arguments, stdout=full)
                    _, errors = program.communicate(timeout=60)
                    self.assertEqual(program.returncode, 1, errors)
                    self.assertIn(MISSING, errors)
                    self.assertEqual(len(errors.splitlines()), 1, errors)
        self.assert_plays_everywhere(movie)
        self.nothing_left(but=["movie.mov", "photo.jpeg"])

    def test_a_reader_that_does_not_read_holds_up_no_end(self):
        reader, writer = full_pipe()
        self.addCleanup(os.close, reader)
        program = self.start("--json", "--verbose", "meter", stdout=writer)
        os.close(writer)
        self.line_with(program.stderr, "IsRunning YES")
        program.send_signal(signal.SIGTERM)
        self.assertEqual(program.wait(60), 1)
        self.assertIn(MISSING, program.stderr.read())


class Diagnostics(StreamsTest):
    def record(self, **options):
        movie = self.folder / "movie.mov"
        movie.unlink(missing_ok=True)
        return movie, self.start("--verbose", "--json", "record", movie, "--format", "avc1:320x240", "--sound", "aac", **options)

    def assert_whole(self, movie, program):
        out = program.stdout.read()
        self.assertEqual(program.wait(60), 0)
        self.assertEqual(int(probe(movie)["video"]["nb_read_packets"]), json.loads(out)["video"]["frames"])
        self.assert_plays_everywhere(movie)
        self.nothing_left(but=["movie.mov"])

    def test_a_terminal_that_is_closed_costs_no_film(self):
        movie, program = self.record()
        self.line_with(program.stderr, "Starting writing")
        program.stderr.close()
        self.grows("movie.mov")
        program.send_signal(signal.SIGHUP)
        self.assert_whole(movie, program)

    def test_nor_does_one_that_takes_nothing(self):
        reader, writer = full_pipe()
        self.addCleanup(os.close, reader)
        with open("/dev/full", "w") as full:
            for stream in (full, writer):
                movie, program = self.record(stderr=stream)
                self.grows("movie.mov")
                program.send_signal(signal.SIGINT)
                self.assert_whole(movie, program)
        os.close(writer)

    def test_streams_that_were_never_open_are_not_confused_with_files(self):
        movie = self.folder / "movie.mov"
        for closed in ((1,), (2,), (0, 1, 2)):
            with self.subTest(closed=closed):
                movie.unlink(missing_ok=True)
                redirections = " ".join(f"{stream}>&-" for stream in closed)
                done = subprocess.run(["sh", "-c", f'"$@" {redirections}', "sh", PROGRAM, *SOURCE, "--verbose", "record", movie,
                                       "--duration", "0.5", "--format", "avc1:320x240"],
                                      capture_output=True, text=True, timeout=60)
                self.assertEqual(done.returncode, 1 if 1 in closed else 0, done.stderr)
                self.assertEqual(MISSING in done.stderr, closed == (1,))
                self.assert_plays_everywhere(movie)

    def test_names_do_not_command_the_terminal(self):
        evil = self.folder / "a\033[2J\nvesk: all is well\u202e.mov"
        evil.write_bytes((DATA / "town-h264-aac.mp4").read_bytes())
        source = ("--capture", f"file:{evil}")
        for arguments in (("devices",), ("formats",), ("controls",), ("record", self.folder / "x.mov", "--force"), ("info",),
                          ("snapshot", evil), ("nudge", "left"), ("--capture", f"file:{evil}.missing", "devices")):
            with self.subTest(arguments=arguments):
                done = vesk(*source, *arguments, check=False)
                text = done.stdout + done.stderr
                self.assertFalse({"\033", "\u202e"} & set(text), text)
                self.assertFalse([line for line in text.splitlines() if line.startswith("vesk: all is well")], text)
        cameras = json.loads(vesk(*source, "--json", "devices").stdout)["cameras"]
        self.assertEqual(cameras[0]["name"], evil.name)


class Surroundings(StreamsTest):
    def test_without_a_camera_nothing_is_filmed(self):
        environment = {name: value for name, value in os.environ.items() if name != "VESK_CAPTURE"}
        devices = subprocess.run([PROGRAM, "--json", "devices"], capture_output=True, text=True, env=environment, timeout=60)
        found = json.loads(devices.stdout)
        self.assertFalse([each for kind in found.values() for each in kind if each["path"].startswith("simulated")])
        if found["cameras"]:
            self.skipTest("this machine has a camera")
        for arguments in (("record", "lesson.mov"), ("snapshot", "photo.jpeg"), ("preview",), ("controls",), ("info",),
                          ("nudge", "left")):
            with self.subTest(arguments=arguments):
                program = self.start(*arguments, source=(), env=environment)
                _, errors = program.communicate(timeout=60)
                self.assertEqual(program.returncode, 3, errors)
                self.assertRegex(errors, r"\Avesk: no camera was found\. .*--capture simulated.*\n\Z")
        self.nothing_left()

    def test_a_place_that_cannot_be_written_is_said_in_one_line(self):
        self.folder.chmod(0o555)
        # Root may write anywhere. Another user might not even be let into the folder of the program.
        plain = ("setpriv", "--bounding-set=-dac_override") if os.geteuid() == 0 else ()
        for *command, name in (("record", "movie.mov"), ("snapshot", "photo.jpeg"), ("controls", "save", "kept.json")):
            with self.subTest(command=command):
                done = vesk(*SOURCE, *command, self.folder / name, check=False, prefix=plain)
                self.assertEqual((done.returncode, done.stdout, len(done.stderr.splitlines())), (1, "", 1), done.stderr)
                self.assertRegex(done.stderr, r"Choose (another|a) place")


if __name__ == "__main__":
    unittest.main()
