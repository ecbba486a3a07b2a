"""What a person runs into with the desktop program: places that cannot be written to, devices that go and look alike."""
import os
import shutil
import subprocess
import time
import unittest

from desktop import DesktopTest, Widget, until
from program import CAMERA, DATA, MICROPHONE, PLAIN, probe


class Edges(DesktopTest):
    @unittest.skipIf(os.geteuid() != 0, "only root mounts")
    def test_where_nothing_can_be_written_another_folder_is_offered(self):
        videos, pictures = self.folder / "Videos", self.folder / "Pictures"
        for place in (videos, pictures):
            place.mkdir()
            subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "none", str(place)], check=True)
            self.addCleanup(subprocess.run, ["umount", "-l", str(place)], stderr=subprocess.DEVNULL)
        app = self.start()
        app.click("Record")
        app.find(f'Cannot write in "{videos}"')
        app.click("Take a photo")
        until(lambda: sum(name == "Choose Folder" for name in app.names()) >= 2, "a choice for both")
        app.find("Record")
        subprocess.run(["umount", str(videos)], check=True)
        self.film_a_little(app)
        app.gone(f'Cannot write in "{videos}"')

    def test_a_folder_that_was_deleted_is_made_again(self):
        app = self.start(settings={"film-folder": "'no whole path'", "photo-folder": "'~/Photos'"})
        app.find("Camera: Simulated Camera")
        for name in ("Videos", "Pictures"):
            shutil.rmtree(self.folder / name)
        app.key("F1")
        app.find("What works")
        self.assertFalse(app.has("Films cannot be written"), app.names())
        app.key("Escape")
        app.gone("What works")
        app.click("Take a photo")
        until(app.photos, "the photo")
        self.film_a_little(app)

    def test_a_microphone_that_goes_while_a_film_is_recorded_is_said(self):
        app = self.start()
        with self.film(app) as films:
            app.command(f"out {MICROPHONE}")
            app.find("“Simulated Microphone” was unplugged. The film goes on without sound.")
            app.grows()
            app.command(f"in {MICROPHONE}")
            app.gone("“Simulated Microphone” was unplugged.")
            app.grows()
        found = probe(films[0])
        self.assertAlmostEqual(float(found["audio"]["duration"]), float(found["video"]["duration"]), delta=1.0)

    def test_a_camera_that_is_back_is_live_when_the_film_does_not_go_on(self):
        app = self.start(setup=f"out {PLAIN}")
        app.click("Record")
        app.grows()
        app.command(f"out {MICROPHONE}", f"out {CAMERA}")
        until(app.films, "the film")
        app.command(f"in {CAMERA}")
        time.sleep(0.5)  # nothing tells of it: its microphone is waited for
        app.click("Stop recording")
        app.gone("“Simulated Camera” was unplugged.")
        app.gone("● waiting for the camera")

        def moves():
            app.click("Take a photo")
            return len({photo.read_bytes() for photo in app.photos()}) > 1

        until(moves, "the picture moves")

    def test_camera_and_format_are_not_changed_while_a_film_is_recorded(self):
        def choice():
            return until(lambda: next((widget for widget in app.all() if widget.name == "Size" and widget.has(Widget.FOCUSABLE)), None),
                         lambda: f"the choice among {app.names()}")

        app = self.start()
        app.key("F9")
        until(lambda: choice().has(Widget.SENSITIVE), "it can be chosen")
        with self.film(app) as films:
            app.find("The format stays as it is while a film is recorded.")
            until(lambda: not choice().has(Widget.SENSITIVE), "it cannot be chosen any more")
            app.click("Camera: Simulated Camera")
            item = app.find("Simulated Plain Camera")
            self.assertFalse(item.has(item.SENSITIVE))
            app.key("Escape", "F5")  # a format that was chosen just before, and comes now, waits for the end
            app.grows()
        self.assertEqual(app.films(), films, "and the camera is not started anew")
        until(lambda: choice().has(Widget.SENSITIVE), "it can be chosen again")
        app.gone("The format stays as it is")

    def test_long_names_are_cut_on_the_screen_and_whole_for_screen_readers(self):
        name = "Camera_of_a_maker_" * 11 + ".mov"
        self.assertGreater(len(name), 200)
        footage = self.folder / name
        shutil.copy(DATA / "street.mov", footage)
        app = self.start(environment={"VESK_CAPTURE": f"file:{footage}"}, settings={"film-folder": f"'{footage}/no-folder'"})
        app.find(f"Camera: {name}")
        app.find(f"Microphone: {name}")

        def width():
            """Of the widest window; menus come and go."""
            shapes = [app.xdotool("getwindowgeometry", "--shell", window, check=False)
                      for window in app.xdotool("search", "--onlyvisible", "--pid", app.process.pid)]
            return max(int(word.split("=")[1]) for shape in shapes for word in shape if word.startswith("WIDTH="))

        self.assertLessEqual(width(), 1280, "the screen's")
        for button in ("Camera: ", "Microphone: "):  # and their menus, which have the names as well
            app.click(button)
            until(lambda: len([one for one in app.names() if one == name]) > 1, lambda: f"the menu in {app.names()}")
            self.assertLessEqual(width(), 1280)
            app.key("Escape")
        app.click("Record")
        app.find(f"The folder {footage}/no-folder cannot be made")
        (left, _, wide, _), = app.find("Dismiss").call("Component.GetExtents", "(u)", (1,))
        self.assertLessEqual(left + wide, width(), "the button is in the window")

    def test_full_screen_without_a_camera_and_back(self):
        self.desktop.manage_windows()
        app = self.start(setup=f"out {CAMERA};out {PLAIN}")
        app.find("There is no camera. Plug one in.")
        app.key("F11")
        app.command(f"in {PLAIN}")
        app.find("Camera: Simulated Plain")
        app.gone("There is no camera")
        app.command(f"out {PLAIN}")
        app.find("There is no camera. Plug one in.")
        app.key("Escape")
        app.command(f"in {CAMERA}")
        app.find("Camera: Simulated Camera")
        self.film_a_little(app)


if __name__ == "__main__":
    unittest.main()
