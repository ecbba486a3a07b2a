"""The kernel's own test driver: a camera on no bus, with sizes of its own."""
from machine import MachineTest, program

BARS = 8


class TestDriver(MachineTest):
    script = "test_driver"
    options = ("--vivid",)

    def test_lists_a_camera_that_is_on_no_bus(self):
        listed = self.result("listed")
        self.assertEqual(len(listed["devices"]["cameras"]), 1)
        camera = listed["devices"]["cameras"][0]
        self.assertEqual((camera["name"], camera["vendorID"]), ("vivid", 0))
        self.assertTrue(camera["path"])
        sizes = {(one["width"], one["height"]) for one in listed["video"] if one["codec"] == "2vuy"}
        self.assertTrue({(320, 180), (640, 360), (1280, 720), (1920, 1080)} <= sizes, sizes)
        self.assertIn("brightness", {one["name"] for one in listed["controls"]})

    def test_records_its_colours(self):
        answer = self.result("recorded")
        self.assertEqual(answer["status"], 0)
        movie = self.assert_movie("bars", answer["movies"][0]["video"]["frames"], width=640, height=360)
        # A line near the lower edge, where the driver writes nothing on the bars: 75 % or 100 % colours.
        line = program.tool("ffmpeg", "-v", "error", "-nostdin", "-i", movie, "-frames:v", "1", "-vf",
                            f"format=rgb24,crop=640:20:0:300,scale={BARS}:1:flags=area", "-f", "rawvideo", "-", binary=True)
        names = ["".join(letter if value > 120 else "-" for letter, value in zip("RGB", line[at:at + 3]))
                 for at in range(0, 3 * BARS, 3)]
        self.assertEqual(names, ["RGB", "RG-", "-GB", "-G-", "R-B", "R--", "--B", "---"])

    def test_takes_the_rate_as_it_lists_it(self):
        """A fraction that is cut off would be the next faster rate to this driver, which the log would tell."""
        self.assertEqual([line for line in self.result("recorded")["err"] if "pictures a second" in line], [])

    def test_stamps_rise(self):
        kept = self.result("stamped")
        self.assertEqual(kept["stamps"], sorted(set(kept["stamps"])))
        self.assertEqual(set(kept["sizes"]), {320 * 180 * 2})
