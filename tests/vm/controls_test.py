"""Controls and extension units, down to the bytes that the emulated camera was sent."""
from machine import MachineTest, program

NOT_SUPPORTED = 14


def steps_in(values, least=10):
    """The values without those that differ little from the one before."""
    found = []
    for value in values:
        if not found or abs(value - found[-1]) > least:
            found.append(value)
    return found


class Controls(MachineTest):
    script = "controls"
    options = ("--uvc",)

    def test_lists_ranges_and_automatic_modes(self):
        found = {one["name"]: (one["min"], one["max"], one["default"], one["auto"]) for one in self.result("listed")}
        for name, wanted in (("brightness", (0, 255, 128, None)), ("hue", (-180, 180, 0, None)), ("contrast", (0, 255, 32, None)),
                             ("saturation", (0, 255, 64, None)), ("sharpness", (0, 255, 24, None)),
                             ("exposure", (3, 2047, 250, True)), ("focus", (0, 250, 10, True)), ("zoom", (100, 500, 100, None)),
                             ("pan", (-36000, 36000, 0, None)), ("tilt", (-36000, 36000, 0, None)),
                             ("whiteBalance", (2800, 6500, 4000, True))):
            self.assertEqual(found.get(name), wanted, name)
        self.assertNotIn("mirror", found)

    def test_sends_what_was_set(self):
        """Status and bytes: the camera's own units throughout."""
        wanted = (
            (0, ["unit=2 selector=2 length=2 data=C8 00"]),
            (0, ["unit=2 selector=6 length=2 data=D3 FF"]),
            (4, []),  # ruled by the automatic mode
            (0, ["unit=1 selector=2 length=1 data=01", "unit=1 selector=3 length=1 data=00"]),
            (0, ["unit=1 selector=4 length=4 data=64 00 00 00"]),
            (0, ["unit=1 selector=8 length=1 data=00"]),
            (0, ["unit=1 selector=6 length=2 data=4D 00"]),
            (0, ["unit=1 selector=13 length=8 data=20 1C 00 00 00 00 00 00"]),
            (0, ["unit=1 selector=13 length=8 data=20 1C 00 00 F0 F1 FF FF"]),
            (0, ["unit=1 selector=11 length=2 data=FA 00"]),
            (0, ["unit=2 selector=5 length=1 data=01"]),
            (0, ["unit=2 selector=11 length=1 data=00"]),
            (0, ["unit=2 selector=10 length=2 data=88 13"]),
            (2, []))  # out of range
        for index, ((answer, lines), (status, data)) in enumerate(zip(self.result("set_one_by_one"), wanted)):
            with self.subTest(index):
                self.assertEqual(answer["status"], status, answer)
                self.assertEqual([line.removeprefix("SET_CUR ") for line in lines], data)

    def test_nudges_a_head_that_also_takes_positions(self):
        turn, go, stop = "unit=1 selector=14 length=4 data=", "unit=1 selector=13 length=8 data=", "00 00 00 00"
        wanted = ([turn + "01 08 00 00", turn + stop],
                  2 * [turn + "00 00 FF 08", turn + stop],
                  [go + "00 00 00 00 F0 F1 FF FF", go + "00 00 00 00 00 00 00 00"])  # pan, then tilt
        for (answer, lines), data in zip(self.result("nudged"), wanted):
            self.assertEqual(answer["status"], 0, answer)
            self.assertEqual([line.removeprefix("SET_CUR ") for line in lines], data)

    def test_saves_resets_and_loads(self):
        found = self.result("saved_reset_loaded")
        self.assertEqual([answer["status"] for answer in found["answers"]], [0, 0, 0], found["answers"])
        self.assertEqual((found["before"]["brightness"], found["before"]["exposure"], found["before"]["pan"]), (200, 100, 7200))
        self.assertEqual((found["initial"]["brightness"], found["initial"]["autoExposure"], found["initial"]["pan"]), (128, 1, 0))
        self.assertEqual(found["after"], found["before"])

    def test_shows_in_the_picture_at_once(self):
        answer = self.result("while_recording")
        self.assertEqual(answer["status"], 0)
        movie = self.assert_movie("brighter", answer["movies"][0]["video"]["frames"])
        dark = [mean for _, mean in program.luma_means(movie) if mean < 200]  # the white ones tell nothing
        steps = steps_in(dark)
        self.assertEqual(len(steps), 3, dark)
        self.assertEqual(steps, sorted(steps))

    def test_keeps_settings_over_replugs(self):
        found = self.result("kept_over_replugs")
        without_settings, *answers = found["answers"]
        self.assertIn("Assertion failed", without_settings)
        self.assertEqual(answers, ["", ""])
        self.assertEqual(found["shown"], ["ActiveState=inactive", "ExecMainStatus=0", "Result=success"])

    def test_reaches_an_extension_unit_by_its_identifier(self):
        found = self.result("through_the_interface")
        self.assertEqual({name: tuple(value) for name, value in found["read"].items()}, {
            "1/0": (0, "05023412"), "2/0": (0, "efbe"), "3/0": (0, "01030000"), "4/0": (0, "0702"), "4/1": (0, "0702"),
            "9/0": (NOT_SUPPORTED, "")})
        self.assertEqual(found["unknown"][0], NOT_SUPPORTED)
        self.assertEqual((found["set"], found["asked"]), (0, ["SET_CUR unit=3 selector=4 length=2 data=09 01"]))
        self.assertNotEqual(found["refused"], 0)

    def test_sees_what_other_programs_set(self):
        before, after = self.result("through_the_interface")["brightness"]
        self.assertNotEqual(before, after)
        self.assertEqual(after, [0, "2100"])

    def test_says_that_a_camera_hangs_and_keeps_its_settings(self):
        found = self.result("hung")
        refused = "it does not answer as it should. Plug it in again."
        for name, status, words in (("list", 1, refused), ("save", 1, refused), ("nudge", 1, refused), ("record", 4, refused),
                                    ("doctor", 1, "does not answer when asked for a picture format.")):
            with self.subTest(name):
                self.assertEqual(found[name]["status"], status, found[name])
                self.assertEqual(" ".join((found[name]["out"] + found[name]["err"]).split()).count(words), 1, found[name])
        self.assertTrue(found["kept"])
        self.assertEqual(found["later"], 0)
