"""A camera that comes and goes, on the kernel's own drivers."""
import json

from machine import MachineTest, numbers_of


class Hotplug(MachineTest):
    script = "hotplug"
    options = ("--uvc",)

    def test_tells_each_arrival_and_departure_once(self):
        answer = self.result("watched")
        self.assertEqual((answer["status"], answer["err"]), (0, []))
        first, *events = map(json.loads, answer["out"].splitlines())
        for kind, devices in (("camera", first["cameras"]), ("microphone", first["microphones"])):
            told = [event for event in events if event["kind"] == kind]
            self.assertEqual([event["event"] for event in told], ["removed", "added"] * 4, kind)
            self.assertEqual({event["path"] for event in told}, {devices[0]["path"]})  # the same after each replug

    def test_holds_nothing_of_devices_that_went(self):
        before, after = self.result("watched")["held"]
        self.assertLessEqual(after, before + 1)

    def test_finishes_the_movie_of_a_camera_that_goes(self):
        answer = self.result("gone")
        self.assertEqual(answer["status"], 1)
        failure = answer["json"][-1]["error"]
        self.assertIn("was unplugged", failure["what"])
        self.assert_numbers(numbers_of(self.assert_movie("gone", answer["movies"][0]["video"]["frames"])), answer)

    def test_says_that_there_is_no_camera(self):
        answer = self.result("refused")
        self.assertEqual((answer["status"], answer["left"]), (3, []))

    def test_goes_on_in_a_new_movie_when_the_camera_is_back(self):
        answer = self.result("waited")
        self.assertEqual(answer["status"], 0)
        self.assertEqual([movie["file"] for movie in answer["movies"]], ["waited.mov", "waited-2.mov"])
        for movie in answer["movies"]:
            with self.subTest(movie["file"]):
                self.assertEqual(movie["sound"]["codec"], "pcm")
                self.assert_numbers(numbers_of(self.assert_movie(movie["file"][:-4], movie["video"]["frames"])), answer)
