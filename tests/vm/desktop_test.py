"""The desktop program on the kernel's own drivers."""
import pathlib
import unittest

from machine import MachineTest, numbers_of, program

CAMERA_PROGRAM = pathlib.Path(program.PROGRAM).parent / "bin" / "vesk-camera"


@unittest.skipUnless(CAMERA_PROGRAM.exists(), "this build is without the desktop program")
class Desktop(MachineTest):
    script = "desktop"
    options = ("--uvc",)

    def test_films_by_clicks_are_whole_though_the_camera_goes(self):
        self.result("filmed")
        for name in ("film1", "film2"):
            with self.subTest(name):
                movie = self.out / f"{name}.mov"
                self.assertEqual(program.warnings_of_ffmpeg(movie), "")
                numbers = numbers_of(movie, 1280, 720)
                self.assertGreater(len(numbers), 1)
                self.assertEqual(numbers, sorted(set(numbers)))
        self.assertEqual(program.probe(self.out / "photo.jpeg")["video"]["codec_name"], "mjpeg")
