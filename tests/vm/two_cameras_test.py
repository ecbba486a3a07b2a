"""Two cameras of the same make, on the kernel's own drivers."""
from machine import MachineTest, numbers_of, program


class TwoCameras(MachineTest):
    script = "two_cameras"
    options = ("--uvc", "--uvc")

    def test_tells_them_apart_wherever_they_came_first(self):
        first, again = self.result("listed"), self.result("plugged_the_other_way_round")
        for kind in ("cameras", "microphones"):
            with self.subTest(kind):
                paths = {one["path"] for one in first[kind]}
                self.assertEqual(len(paths), 2)
                self.assertEqual({one["path"] for one in again[kind]}, paths)

    def test_records_the_one_that_was_named_with_its_own_microphone(self):
        answer = self.result("second_recorded")
        self.assertEqual(answer["status"], 0)
        for (first_before, second_before), (first, second) in zip(*answer["asked"]):
            self.assertEqual(first, first_before)
            self.assertGreater(second, second_before)
        movie = self.assert_movie("second", answer["movies"][0]["video"]["frames"])
        self.assertEqual(int(program.probe(movie)["audio"]["sample_rate"]), 48000)

    def test_records_both_at_once(self):
        answers = self.result("both_recorded")
        for name in ("one", "two"):
            with self.subTest(name):
                self.assertEqual(answers[name]["status"], 0)
                movie = self.assert_movie(name, answers[name]["movies"][0]["video"]["frames"])
                self.assert_numbers(numbers_of(movie), answers[name])
