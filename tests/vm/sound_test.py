"""Sound of a camera's microphone and of a loopback card, by the drivers and by a sound server."""
import math
import statistics
import struct

from machine import MachineTest, numbers_of, program

QUIET, LOUD = 3277, 26000  # amplitudes of the emulated tone, the latter while the picture is white
MOST_OFFSET = 0.040


def windows(movie):
    """Amplitude and frequency of each tenth of a second of the first channel."""
    facts = program.probe(movie)["audio"]
    rate, channels = int(facts["sample_rate"]), facts["channels"]
    data = program.sound_bytes(movie)
    samples = struct.unpack(f"<{len(data) // 2}h", data)[::channels]
    length = rate // 10
    for start in range(0, len(samples) - length, length):
        part = samples[start:start + length]
        rises = sum(1 for one, next_one in zip(part, part[1:]) if one < 0 <= next_one)
        yield math.sqrt(2 * statistics.fmean(sample * sample for sample in part)), rises * 10


class Sound(MachineTest):
    script = "sound"
    options = ("--uvc", "--aloop")

    def assert_tone(self, movie):
        """1 kHz at -20 dBFS for most of the time, whatever gaps the emulation tore."""
        found = list(windows(movie))
        steady = [frequency for amplitude, frequency in found if abs(20 * math.log10(max(amplitude, 1) / QUIET)) < 0.5]
        self.assertGreater(len(steady), len(found) // 2, found)
        self.assertAlmostEqual(statistics.median(steady), 1000, delta=10)

    def assert_flash_and_beep_together(self, movie):
        flashes, beeps = program.flash_times(movie), program.beep_times(movie, loud=LOUD // 2)
        sound = program.probe(movie)["audio"]
        end = float(sound["start_time"]) + float(sound["duration"])  # the picture may go on for a little longer
        inner = [flash for flash in flashes if 0.5 < flash < end - 0.1]
        self.assertGreaterEqual(len(inner), 1, (flashes, beeps))
        offsets = [min((beep - flash for beep in beeps), key=abs, default=math.inf) for flash in inner]
        self.assertLess(max(map(abs, offsets)), MOST_OFFSET, (offsets, flashes, beeps))

    def skip_if_starved(self, answer):
        """On a host that is busy the emulated microphone sends its sound late, and then leaves some out: by its own
        account, or by what was missing. Then there is nothing to compare."""
        sound = answer["movies"][0]["sound"]
        if answer["late"] or sound["silence"] > sound["packets"] // 10:
            self.skipTest(f"the host is too busy: {answer['late']}, {sound['silence']} packets of silence, {sound['packets']} of sound")

    def assert_picture_and_sound(self, answer, name):
        self.assertEqual(answer["status"], 0)
        movie = self.assert_movie(name, answer["movies"][0]["video"]["frames"])
        self.assert_numbers(numbers_of(movie), answer)
        facts = program.probe(movie)
        self.assertEqual((facts["audio"]["codec_name"], int(facts["audio"]["sample_rate"])), ("pcm_s16le", 48000))
        return movie

    def assert_ends_together(self, movie):
        facts = program.probe(movie)
        ends = [float(facts[kind]["start_time"]) + float(facts[kind]["duration"]) for kind in ("video", "audio")]
        self.assertAlmostEqual(*ends, delta=0.6)  # the last picture is shown as long as the one before

    def test_lists_what_the_drivers_have(self):
        listed = self.result("listed")
        names = [one["name"] for one in listed["microphones"]]
        self.assertTrue(any("Emulated Camera" in name for name in names) and any("Loopback" in name for name in names), names)
        self.assertIn((48000, 2), {(one["sampleRate"], one["channels"]) for one in listed["sound"]})

    def test_records_a_camera_with_its_own_microphone(self):
        movie = self.assert_picture_and_sound(self.result("recorded"), "camera")
        self.assertEqual(program.probe(movie)["audio"]["channels"], 1)
        self.skip_if_starved(self.result("recorded"))
        self.assert_ends_together(movie)
        self.assert_tone(movie)
        self.assert_flash_and_beep_together(movie)

    def test_records_a_loopback_card(self):
        answer = self.result("looped")
        movie = self.assert_picture_and_sound(answer, "looped")
        self.assertEqual(program.probe(movie)["audio"]["channels"], 2)
        self.assert_ends_together(movie)
        self.assert_tone(movie)

    def test_tells_which_program_has_the_camera(self):
        answer = self.result("busy")
        self.assertEqual(answer["record"]["status"], 4)
        self.assertIn(f"(vesk, pid {answer['first']['pid']})", answer["record"]["err"])
        self.assertEqual(answer["meter"]["status"], 4)
        self.assertEqual(answer["first"]["status"], 0)

    def test_meters_the_level(self):
        quiet = [level for level in self.result("metered") if level is not None and level < -15]
        # The mean power of a sine of -20 dBFS.
        self.assertAlmostEqual(statistics.median(quiet), -23, delta=1)

    def test_sets_volume_and_mute_of_the_microphone(self):
        settings = self.result("settings")
        for asked, found in zip((0, 128, 255, 1, 0), settings["found"]):
            self.assertAlmostEqual(asked, found, delta=6)  # the microphone has 48 steps
        self.assertTrue(any("selector=1" in line and "data=01" in line for line in settings["asked"]), settings["asked"])
        volumes = [line.split("data=")[1] for line in settings["asked"] if "selector=2" in line]
        # The kernel sends the old value once more whenever it wakes the camera.
        self.assertIn("00 D0", volumes)
        self.assertEqual(volumes[-1], "00 00")

    def test_works_with_a_sound_server(self):
        served = self.result("served")
        names = [one["name"] for one in served["devices"]["microphones"]]
        self.assertFalse(any("onitor" in name for name in names), names)
        quiet = [level for level in served["levels"] if level is not None and level < -15]
        self.assertAlmostEqual(statistics.median(quiet), -23, delta=1)
        volume, mute = served["settings"]
        self.assertAlmostEqual(volume, 128, delta=2)
        self.assertEqual(mute, 1)
        self.assertIn("Mute: yes", served["told"])

    def test_records_from_a_sound_server(self):
        answer = self.result("served")["recorded"]
        movie = self.assert_picture_and_sound(answer, "served")
        self.skip_if_starved(answer)
        self.assert_ends_together(movie)
        self.assert_tone(movie)
        self.assert_flash_and_beep_together(movie)
