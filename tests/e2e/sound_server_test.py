"""Microphones of a real sound server, which the test starts for itself: one that sounds a tone of 1 kHz."""
import array
import cmath
import json
import math
import os
import signal
import subprocess
import unittest

from program import TIMEOUT, MovieTest, probe, sound_bytes, vesk, warnings_of_ffmpeg

SOURCE = ("--capture", "simulated+linux")
RATE = 48000


def amplitude(samples, frequency):
    """Of one frequency among the samples: 1 is full scale."""
    total = sum(sample * cmath.exp(-2j * math.pi * frequency * at / RATE) for at, sample in enumerate(samples))
    return 2 * abs(total) / len(samples) / 32768


class SoundServerTest(MovieTest):
    def setUp(self):
        super().setUp()
        folder = str(self.folder)
        self.environment = {**os.environ, "HOME": folder, "XDG_RUNTIME_DIR": folder, "XDG_CONFIG_HOME": folder,
                            "PULSE_SERVER": f"unix:{folder}/native"}
        self.server = None
        self.start_server()
        self.addCleanup(self.stop_server)

    def start_server(self):
        """Returns once the server answers."""
        self.server = subprocess.Popen(
            ["pulseaudio", "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1", "--log-target=stderr",
             f"--load=module-native-protocol-unix socket={self.folder}/native auth-anonymous=1",
             "--load=module-null-sink sink_name=hall rate=48000 channels=1",
             "--load=module-sine sink=hall frequency=1000",
             "--load=module-remap-source master=hall.monitor source_name=tone source_properties=device.description=Tone"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.environment)
        for _ in range(TIMEOUT * 10):
            self.assertIsNone(self.server.poll(), "the sound server could not be started")
            if "tone" in self.pactl("list", "short", "sources"):
                return
        self.fail("the sound server does not answer")

    def pactl(self, *arguments):
        return subprocess.run(["pactl", *arguments], capture_output=True, text=True, env=self.environment,
                              timeout=TIMEOUT).stdout

    def listen(self):
        """Listens until the test's end: with nobody who wants it soon, the tone is made up to two seconds ahead
        and a recording waits as long for its first."""
        listener = subprocess.Popen(["parec", "--device=tone", "--latency-msec=10", "--raw"], stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=self.environment)
        self.addCleanup(listener.wait, TIMEOUT)
        self.addCleanup(listener.kill)
        self.addCleanup(listener.stdout.close)
        self.assertTrue(listener.stdout.read(RATE))

    def has_sound(self, movie):
        """Whether there is sound already in a movie that is being recorded."""
        for unfinished in self.folder.glob(f".{movie.name}.recording-*/{movie.name}"):
            found = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", "a", "-count_packets", "-show_entries",
                                    "stream=nb_read_packets", "-of", "csv=p=0", unfinished], capture_output=True, text=True,
                                   timeout=TIMEOUT)
            if found.stdout.strip(",\n") not in ("", "0", "N/A"):
                return True
        return False

    def stop_server(self):
        if self.server:
            self.server.send_signal(signal.SIGTERM)
            self.server.wait(TIMEOUT)
            self.server = None

    def test_records_what_the_server_hears(self):
        devices = json.loads(vesk(*SOURCE, "--json", "devices", environment=self.environment).stdout)
        tone = [one for one in devices["microphones"] if one["path"] == "tone"]
        self.assertEqual(len(tone), 1)
        self.assertEqual(tone[0]["name"], "Tone")
        self.listen()
        movie = self.folder / "tone.mov"
        done = vesk(*SOURCE, "record", movie, "--mic", "tone", "--sound", "pcm:48000:1", "--format", "avc1:320x240",
                    "--duration", "2", environment=self.environment)
        self.assertEqual(done.stderr, "")
        self.assertEqual(warnings_of_ffmpeg(movie), "")
        found = probe(movie)
        self.assertEqual((found["audio"]["sample_rate"], found["audio"]["channels"]), ("48000", 1))
        samples = array.array("h", sound_bytes(movie))
        self.assertGreater(len(samples), 1.5 * RATE)
        # Short stretches: the tone's pitch may move by a thousandth until the two clocks are known to each other.
        stretch = RATE // 50
        for start in range(0, len(samples) - stretch, stretch):
            self.assertAlmostEqual(amplitude(samples[start:start + stretch], 1000), 0.5, delta=0.02)

    def test_tells_when_no_sound_came(self):
        self.pactl("suspend-source", "tone", "1")
        movie = self.folder / "silent.mov"
        done = vesk(*SOURCE, "record", movie, "--mic", "tone", "--format", "avc1:320x240", "--duration", "0.5", check=False,
                    environment=self.environment)
        self.assertEqual(done.returncode, 1)
        self.assertIn("no sound came from \"Tone\"; the movie has pictures only.", done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1)
        self.assertIn(", no sound", done.stdout)
        self.assertNotIn("audio", probe(movie))

    def test_leaves_a_server_alone_that_hangs(self):
        self.listen()
        self.addCleanup(self.server.send_signal, signal.SIGCONT)
        movie = self.folder / "hung.mov"
        recording = self.started(*SOURCE, "record", movie, "--mic", "tone", "--format", "avc1:320x240", env=self.environment)
        while not self.has_sound(movie):
            self.assertIsNone(recording.poll())
        self.server.send_signal(signal.SIGSTOP)
        recording.send_signal(signal.SIGINT)
        recording.communicate(timeout=TIMEOUT)  # the movie ends: its microphone is not waited for
        self.assertEqual(recording.returncode, 0)
        self.assertEqual(probe(movie)["audio"]["channels"], 1)
        done = vesk(*SOURCE, "record", self.folder / "none.mov", "--mic", "tone", check=False, environment=self.environment)
        self.assertEqual(done.returncode, 3)
        self.assertEqual(done.stderr.count("The sound server does not answer"), 1)

    def test_tells_of_a_server_that_goes_and_comes_back(self):
        program = self.started(*SOURCE, "--json", "devices", "--watch", env=self.environment)
        events = (json.loads(line) for line in program.stdout)
        next(events)  # what is there at first
        self.stop_server()
        went = next(events)
        self.assertEqual((went["kind"], went["path"]), ("microphone", "tone"))
        self.start_server()
        came = next(events)
        self.assertEqual((came["kind"], came["path"]), ("microphone", "tone"))
        self.assertNotEqual(came["event"], went["event"])
        # Faster than changes are gathered, most often: whoever records from it must know all the same.
        self.server.kill()
        self.server.wait(TIMEOUT)
        (self.folder / "native").unlink()
        self.start_server()
        self.assertEqual([next(events)["event"] for _ in range(2)], ["removed", "added"])
        module = next(line.split()[0] for line in self.pactl("list", "short", "modules").splitlines() if "remap" in line)
        self.pactl("unload-module", module)
        self.pactl("load-module", "module-remap-source", "master=hall.monitor", "source_name=tone")
        self.assertEqual([next(events)["event"] for _ in range(2)], ["removed", "added"])


if __name__ == "__main__":
    unittest.main()
