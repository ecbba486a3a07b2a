"""The desktop program's window as a window manager treats it: minimized, full screen, narrow."""
import shutil
import subprocess
import unittest

from desktop import ROOT, DesktopTest, until
from program import warnings_of_ffmpeg

CAMERA = "simulated:camera"
PLAIN = "simulated:camera:plain"


class Window(DesktopTest):
    def setUp(self):
        super().setUp()
        self.desktop.manage_windows()

    def xdotool(self, *words):
        window = subprocess.run(["xdotool", "search", "--sync", "--all", "--pid", str(self.app.process.pid), "--name", "^Camera$"],
                                check=True, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60).stdout.split()[0]
        subprocess.run(["xdotool", words[0], window, *map(str, words[1:])], check=True, stdin=subprocess.DEVNULL, timeout=60)

    def settings(self, **values):
        folder = self.folder / ".config/glib-2.0/settings"
        folder.mkdir(parents=True)
        lines = "".join(f"{key.replace('_', '-')}={value}\n" for key, value in values.items())
        (folder / "keyfile").write_text("[org/vesk/Camera]\n" + lines)

    def test_a_hidden_window_lets_the_camera_go_but_never_while_it_films(self):
        self.settings(camera_off_after="uint32 1")
        self.app = app = self.start()
        app.click("Record")
        app.grows()
        self.xdotool("windowminimize")
        app.grows(3_000_000)  # for longer than the second
        app.click("Stop recording")
        until(app.films, "the film")
        app.find("Camera: Camera is off")
        until(lambda: "Dealloc AVDevice Simulated Camera" in app.text_of_log(), "the device is let go")
        self.assertEqual(warnings_of_ffmpeg(app.films()[0]), "")
        self.xdotool("windowactivate")
        app.find("Camera: Simulated Camera")
        app.click("Record")
        app.grows()
        app.key("ctrl+r")
        until(lambda: len(app.films()) == 2, "the second film")


class Wayland(DesktopTest):
    @unittest.skipUnless(shutil.which("weston"), "weston is not installed")
    def test_a_film_is_recorded_on_wayland(self):
        weston = subprocess.Popen(["weston", "--backend=headless-backend.so", "--socket=vesk-test", "--idle-time=0"],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(weston.wait)
        self.addCleanup(weston.terminate)
        until((self.desktop.folder / "vesk-test").exists, "the compositor")
        app = self.start(environment={"WAYLAND_DISPLAY": "vesk-test", "GDK_BACKEND": "wayland"})
        app.click("Record")
        app.grows()
        app.click("Take a photo")
        until(app.photos, "the photo")
        app.click("Stop recording")
        film, = until(app.films, "the film")
        self.assertEqual(warnings_of_ffmpeg(film), "")
        self.assertNotIn("CRITICAL", app.text_of_log())


if __name__ == "__main__":
    unittest.main()
