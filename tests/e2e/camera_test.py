"""The desktop program, used as a person does: through its accessibility tree and keys, on a display of its own."""
import os
import signal
import subprocess
import unittest

from accessibility import findings
from desktop import CAMERA_PROGRAM, ROOT, DesktopTest, Widget, until
from program import CAMERA, MICROPHONE, PLAIN, least_likeness, picture_numbers, probe, vesk, warnings_of_ffmpeg

LIKENESS = 28  # dB; encoded twice a picture has 35, beside another one 6


class Films(DesktopTest):
    def test_a_film_is_what_the_camera_sent(self):
        app = self.start()
        with self.film(app) as films:
            app.click("Take a photo")
            until(app.photos, "a photo while a film is recorded")
            app.grows()
        app.find("Record")
        film, = films
        self.assertRegex(film.name, r"^Film \d{4}-\d\d-\d\d \d\d\.\d\d\.\d\d\.mov$")
        self.assert_plays_everywhere(film)
        self.assertEqual(int(probe(app.photos()[0])["video"]["width"]), probe(film)["video"]["width"])

        # The camera's pictures are the same in each run; the film holds some of them, one after the other. They are
        # not encoded alike, since the film begins with a key frame of its own.
        reference = self.folder / "reference.mov"
        video = probe(film)["video"]
        vesk("--capture", "simulated", "--pace", "fast", "record", reference, "--duration", 60, "--no-audio",
             "--format", f"avc1:{video['width']}x{video['height']}")
        sent, kept = picture_numbers(reference), picture_numbers(film)
        self.assertGreater(len(kept), 20)
        begin = sent.index(kept[0])
        self.assertEqual(kept, sent[begin:begin + len(kept)])
        self.assertEqual(kept, list(range(kept[0], kept[0] + len(kept))))
        self.assertGreater(least_likeness(film, reference, begin), LIKENESS)
        app.key("ctrl+q")
        app.end()

    def test_a_camera_that_goes_and_returns_goes_on_in_the_next_film(self):
        app = self.start()
        app.find("Record")
        app.key("ctrl+r")
        app.grows()
        app.command(f"out {MICROPHONE}", f"out {CAMERA}")  # as with one that is in the camera
        app.find("“Simulated Camera” was unplugged.")
        until(app.films, "the first film")
        app.command(f"in {MICROPHONE}", f"in {CAMERA}")
        app.gone("“Simulated Camera” was unplugged.")
        app.gone("“Simulated Microphone” was unplugged.")
        app.grows()
        app.click("Stop recording")
        until(lambda: len(app.films()) == 2, "both films")
        for film in app.films():
            self.assertEqual(warnings_of_ffmpeg(film), "")
        self.film_a_little(app)  # the camera is shown again, and can be filmed

    def test_what_a_crash_interrupted_is_offered_and_kept(self):
        app = self.start()
        app.click("Record")
        app.grows(2_000_000)
        app.process.send_signal(signal.SIGKILL)
        app.process.wait()
        self.assertEqual(app.films(), [])
        again = self.start()
        again.find("A film was interrupted; it is complete but for its last second")
        again.click("Keep")
        until(again.films, "the film")
        self.assertEqual(warnings_of_ffmpeg(again.films()[0]), "")
        self.assertEqual([file.name for file in (self.folder / "Videos").iterdir()], [again.films()[0].name])

    def test_closing_asks_while_recording(self):
        app = self.start()
        with self.film(app, stop=lambda app: app.end()):
            app.key("ctrl+q")
            app.click("Go On Recording")
            app.grows()
            app.key("ctrl+q")
            app.click("Stop and Close")
        self.assertNotIn("=0\n", (app.home / ".config/glib-2.0/settings/keyfile").read_text(), "a size of the window")

    @unittest.skipIf(os.geteuid() != 0, "only root makes a file system")
    def test_a_full_disk_ends_the_film_whole(self):
        videos = self.folder / "Videos"
        videos.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6M", "none", str(videos)], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", str(videos)])
        app = self.start()
        app.click("Record")
        until(lambda: app.films() and app.has("Record"), "the end of the film", 120)
        self.assertTrue(any(name.endswith("is full. Make room on it, or record to another disk.") for name in app.names()),
                        app.names())
        self.assertEqual(warnings_of_ffmpeg(app.films()[0]), "")
        self.assertGreater(float(probe(app.films()[0])["format"]["duration"]), 5)

    def test_the_timer_is_taken_back_or_ends_in_a_film(self):
        app = self.start()
        app.find("Camera: Simulated Camera")
        app.click("Timer")
        app.click("After 3 seconds")
        for take_back in (lambda: app.key("Escape"), lambda: app.click("Record")):
            app.click("Record")
            app.find("Timer: 2")
            take_back()
            app.gone("Timer: ")
        self.film_a_little(app)  # had one of them gone on, this would take it back
        self.assertEqual(len(app.films()), 1)


class Messages(DesktopTest):
    def test_what_keeps_a_camera_from_working_is_said_and_mends_itself(self):
        app = self.start(setup=f"busy {CAMERA}")
        app.find("Try Again")
        self.assertTrue(any("in use" in name for name in app.names()), app.names())
        app.command(f"well {CAMERA}")
        app.gone("Try Again")
        app.find("Camera: Simulated Camera")
        app.command(f"silent {CAMERA}")
        app.find("The picture is frozen")
        app.command(f"well {CAMERA}")
        app.gone("The picture is frozen")
        app.command(f"out {CAMERA}", f"out {PLAIN}")
        app.find("There is no camera. Plug one in.")
        app.command(f"in {PLAIN}")
        app.gone("There is no camera")
        app.key("F1")
        app.find("What works")

    def test_in_german_too_an_error_names_what_it_is_about_and_findings_have_words(self):
        app = self.start(setup=f"busy {CAMERA}", environment={"LANGUAGE": "de"})
        app.find("„Simulated Camera“: Ein anderes Programm benutzt das Gerät (viewer). Schließen Sie dieses Programm.")
        app.command(f"well {CAMERA}")
        app.find("Kamera: Simulated Camera")
        app.key("F1")
        app.find("Was geht")
        app.find("Es gibt einen Bildschirm")
        words = " ".join(app.names())
        self.assertRegex(words, "sind frei in .*Videos")
        self.assertNotRegex(words, "can be encoded|There is|are free in|was found|server answers")

    def test_a_muted_microphone_is_said(self):
        app = self.start()
        app.find("Microphone: Simulated Microphone")
        app.key("ctrl+u")
        app.find("The microphone is muted")
        app.click("Unmute")
        app.gone("The microphone is muted")


class Hosts(DesktopTest):
    def test_a_second_start_raises_the_first(self):
        app = self.start()
        app.find("Camera: Simulated Camera")
        second = subprocess.run([CAMERA_PROGRAM, "--camera", "plain"], env=app.environment, timeout=60, cwd=self.folder)
        self.assertEqual(second.returncode, 0)
        app.find("Camera: Simulated Plain")
        self.assertEqual([widget.name for widget in app.all() if widget.parent == ROOT], ["Camera"])

    def test_everything_has_a_name_a_role_and_a_state_and_is_reached_by_keys(self):
        app = self.start()
        app.find("Camera: Simulated Camera")
        app.key("F9")
        app.find("Brightness")
        found = findings(app)
        app.key("F1")
        app.find("What works")
        found += findings(app)
        # GTK's own: the lists that a choice opens, and what they hold.
        self.assertEqual([one for one in found if one[:3] not in (("no name", "list", "GtkListView"), ("no name", "list item", ""))],
                         [])

    def test_what_is_switched_on_says_so(self):
        app = self.start()
        app.find("Camera: Simulated Camera")
        app.key("F9")
        app.find("Brightness")
        for name, role in (("Show as in a mirror", "button"), ("Automatic tint", "switch")):
            def widget():
                return next(one for one in app.all() if one.name == name and one.has(Widget.FOCUSABLE) and one.role() == role)

            before = widget().states
            widget().click()
            until(lambda: widget().states != before, f"another state of “{name}”")


if __name__ == "__main__":
    unittest.main()
