"""The half of the tests that stays outside the emulated machine: starts it, and looks at what it made."""
import contextlib
import fcntl
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))
import program  # noqa: E402  (the helpers of the other tests of the finished program)

COLUMNS = 16  # squares that show a picture's number


@contextlib.contextmanager
def turn():
    """Waits until no other machine runs: those that run side by side starve each other."""
    with open(pathlib.Path(tempfile.gettempdir()) / "vm.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def start_machine(out, options, command, limit):
    """Starts a machine whose results go to the folder OUT, and which runs the command."""
    return subprocess.Popen(list(map(str, [HERE / "vmrun", *options, "--timeout", limit, "--", *command])),
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            errors="replace", env={**os.environ, "VM_OUT": str(out)})


def steps(script, capture="linux", **environment):
    """The command that runs the steps of inside/SCRIPT."""
    environment |= {"PYTHONDONTWRITEBYTECODE": "1", "VESK_CAPTURE": capture, "VESK_PROGRAM": program.PROGRAM}
    return ["env", *(f"{name}={value}" for name, value in environment.items()), sys.executable, HERE / "inside" / f"{script}.py"]


class MachineTest(unittest.TestCase):
    """One machine whose devices are OPTIONS runs the steps of inside/SCRIPT; each test looks at some of them."""

    script = None
    options = ()
    limit = 600  # seconds; some 100 on an idle host

    @classmethod
    def setUpClass(cls):
        keep = os.environ.get("VESK_VM_KEEP")
        cls.out = pathlib.Path(keep) / cls.script if keep else pathlib.Path(tempfile.mkdtemp(prefix="vesk-vm-"))
        cls.out.mkdir(parents=True, exist_ok=True)
        if not keep:
            cls.addClassCleanup(shutil.rmtree, cls.out, ignore_errors=True)
        with turn():
            machine = start_machine(cls.out, cls.options, steps(cls.script), cls.limit)
            out, err = machine.communicate()
        results = cls.out / "results.json"
        cls.results = json.loads(results.read_text()) if results.exists() else {}
        cls.ending = f"exit status {machine.returncode}\n{out[-2000:]}{err[-2000:]}"

    def result(self, name):
        """The answer of a step inside."""
        self.assertIn(name, self.results, f"the step was not reached: {self.ending}")
        self.assertNotIn("error", self.results[name], self.results[name].get("error"))
        return self.results[name]["is"]

    def assert_numbers(self, numbers, answer):
        """Each picture is there once and in order, but for as many as the program said it had lost: a machine
        whose host is busy loses some."""
        self.assertGreater(len(numbers), 1)
        self.assertEqual(numbers, sorted(set(numbers)))
        told = re.search(r"(\d+) were lost on the way, (\d+) came too fast", " ".join(answer["err"]))
        lost = sum(map(int, told.groups())) if told else 0
        self.assertLessEqual(numbers[-1] - numbers[0] + 1 - len(numbers), lost, numbers)

    def assert_movie(self, name, pictures, codec="rawvideo", width=640, height=480):
        """A whole movie of so many pictures, each there once and in order. Returns its path."""
        movie = self.out / f"{name}.mov"
        self.assertEqual(program.warnings_of_ffmpeg(movie), "")
        facts = program.probe(movie)["video"]
        self.assertEqual((facts["codec_name"], facts["width"], facts["height"], int(facts["nb_read_packets"])),
                         (codec, width, height, pictures))
        self.assertEqual(len(numbers_of(movie, width, height)), pictures)
        return movie


def numbers_of(file, width=640, height=480, options=()):
    """The numbers that the pictures of the emulated camera show."""
    squares = program.tool("ffmpeg", "-v", "error", "-nostdin", *options, "-i", file, "-map", "0:v:0", "-fps_mode", "passthrough",
                           "-vf", f"crop={width}:{height // 10}:0:0,scale={COLUMNS}:1:flags=area,format=gray",
                           "-f", "rawvideo", "-", binary=True)
    return [sum(1 << (COLUMNS - 1 - column) for column in range(COLUMNS) if squares[start + column] > 128)
            for start in range(0, len(squares), COLUMNS)]
