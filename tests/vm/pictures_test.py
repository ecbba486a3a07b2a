"""The pictures of one emulated camera on the kernel's own driver."""
import subprocess

from machine import MachineTest, numbers_of, program

JPEG = ("-f", "mjpeg")
RAW = ("-f", "rawvideo", "-s", "640x480", "-pix_fmt", "uyvy422")


def mean_colours(file):
    """Mean of Y, U and V over what is below the number, of each picture."""
    planes = program.tool("ffmpeg", "-v", "error", "-nostdin", "-i", file, "-fps_mode", "passthrough", "-vf",
                          "crop=640:416:0:64,scale=1:1:flags=area,format=yuv444p", "-f", "rawvideo", "-", binary=True)
    return [tuple(planes[start:start + 3]) for start in range(0, len(planes), 3)]


class Pictures(MachineTest):
    script = "pictures"
    options = ("--uvc",)

    def test_lists_one_camera_although_it_has_two_nodes(self):
        cameras = self.result("devices")["cameras"]
        self.assertEqual(len(cameras), 1)
        self.assertEqual((cameras[0]["name"], cameras[0]["vendorID"], cameras[0]["productID"], cameras[0]["revisionID"]),
                         ("Emulated Camera", 0x1234, 0x5678, 0x0102))

    def test_lists_its_microphone(self):
        microphones = self.result("devices")["microphones"]
        self.assertEqual([(one["vendorID"], one["productID"]) for one in microphones], [(0x1234, 0x5678)])
        self.assertIn("Emulated Camera", microphones[0]["name"])

    def test_lists_formats_with_sizes_and_intervals(self):
        formats = self.result("formats")
        for codec in ("dmb1", "2vuy"):
            sizes = {(one["width"], one["height"]): one["intervals"] for one in formats["video"] if one["codec"] == codec}
            self.assertEqual(sizes, {(640, 480): [333333, 666667], (1280, 720): [333333, 666667]}, codec)
        # The microphone delivers one channel at two rates.
        sound = {(one["sampleRate"], one["channels"]) for one in formats["sound"] if one["codec"] == "pcm"}
        self.assertEqual(sound, {(48000, 1), (16000, 1)})

    def test_delivers_each_frame_once_with_rising_stamps(self):
        frames = self.result("frames")
        for name, size, options, count in (("jpeg", (640, 480), JPEG, 32), ("hd", (1280, 720), JPEG, 4),
                                           ("raw", (640, 480), RAW, 32), ("slow", (640, 480), JPEG, 10)):
            with self.subTest(name):
                numbers = numbers_of(self.out / name, *size, options)
                self.assertEqual(len(numbers), count)
                self.assertEqual(numbers, sorted(set(numbers)))
                self.assertLessEqual(numbers[-1] - numbers[0], count * 5 // 4)  # a busy host loses some
                stamps = frames[name]["stamps"]
                self.assertTrue(all(earlier < later for earlier, later in zip(stamps, stamps[1:])), stamps)
                # On the monotonic clock: none from the future, none older than a loaded machine makes them.
                self.assertTrue(all(0 <= delay < 2_000_000 for delay in frames[name]["delays"]), frames[name]["delays"])

    def test_asks_the_camera_for_what_was_chosen(self):
        # Format, size and interval (bytes 2, 3 and 4 to 7): JPEG is 1 and UYVY 3, which needs no conversion.
        asked = [(fields[2], fields[3], fields[4:8]) for fields in map(str.split, self.result("frames")["asked"])]
        fast, slow = ["15", "16", "05", "00"], ["2A", "2C", "0A", "00"]
        self.assertEqual(asked, [("01", "01", fast), ("01", "02", fast), ("03", "01", fast), ("01", "01", slow)])

    def test_records_a_whole_movie(self):
        answer = self.result("recorded")
        self.assertEqual(answer["status"], 0)
        video = answer["movies"][0]["video"]
        self.assertGreaterEqual(video["frames"], 40)
        self.assertEqual(video["dropped"], 0)
        self.assert_numbers(numbers_of(self.assert_movie("recorded", video["frames"])), answer)
        self.assertEqual([line.split()[4:8] for line in answer["asked"]], [["2A", "2C", "0A", "00"]], "15 a second")
        self.assertEqual([line for line in answer["err"] if "pictures a second" in line], [])

    def test_encodes_what_the_camera_cannot(self):
        answer = self.result("encoded")
        self.assertEqual(answer["status"], 0)
        movie = self.assert_movie("encoded", answer["movies"][0]["video"]["frames"], codec="h264")
        self.assertGreaterEqual(answer["movies"][0]["video"]["frames"], 40)
        numbers = numbers_of(movie)
        # The encoder may be slower than the emulated camera, but makes no picture twice.
        self.assertEqual(numbers, sorted(set(numbers)))

    def test_converts_to_the_right_colours(self):
        answer = self.result("without_uyvy")
        self.assertEqual(answer["status"], 0)
        movie = self.assert_movie("converted", answer["movies"][0]["video"]["frames"])
        self.assert_numbers(numbers_of(movie), answer)
        grey = [(u, v) for y, u, v in mean_colours(movie) if y < 200]
        self.assertGreater(len(grey), 10)
        for u, v in grey:
            self.assertAlmostEqual(u, 110, delta=2)
            self.assertAlmostEqual(v, 150, delta=2)

    def test_leaves_out_damaged_pictures_and_tells_how_many(self):
        answer = self.result("damaged")
        self.assertEqual(answer["status"], 0)
        numbers = numbers_of(self.assert_movie("damaged", answer["movies"][0]["video"]["frames"]))
        self.assert_numbers(numbers, answer)
        self.assertFalse([number for number in numbers if number % 5 == 4])  # the driver keeps them to itself
        self.assertRegex(" ".join(answer["err"]), r"[1-9]\d* were lost on the way")

    def test_passes_cut_pictures_on_for_the_decoder(self):
        self.assertEqual(len(self.result("frames")["cut"]["sizes"]), 12)
        shown = subprocess.run(["ffmpeg", "-v", "quiet", "-nostdin", *JPEG, "-i", self.out / "cut", "-f", "framemd5", "-"],
                               capture_output=True, text=True).stdout
        self.assertGreaterEqual(len([line for line in shown.splitlines() if not line.startswith("#")]), 9)

    def test_takes_a_photo_of_a_camera_that_sends_no_tables(self):
        answer = self.result("photo_without_tables")
        self.assertEqual((answer["status"], answer["err"]), (0, ""))
        self.assertEqual(len(numbers_of(self.out / "photo.jpeg")), 1)
        luma, u, v = mean_colours(self.out / "photo.jpeg")[0]
        if luma < 200:  # not one of the white ones
            self.assertAlmostEqual(u, 110, delta=4)
            self.assertAlmostEqual(v, 150, delta=4)

    def test_starts_a_stalled_camera_once_and_then_says_so_loudly(self):
        answer = self.result("stalled")
        self.assertEqual(answer["status"], 0)
        lines = answer["err"]
        self.assertEqual(len([line for line in lines if "being started again" in line]), 1, lines)
        self.assertEqual(len([line for line in lines if "Plug it in again" in line]), 1, lines)
        # Pictures that the camera had begun when it was started again may be gone.
        numbers = numbers_of(self.assert_movie("stalled", answer["movies"][0]["video"]["frames"]))
        self.assertEqual(numbers, sorted(set(numbers)))
