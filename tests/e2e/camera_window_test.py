"""The desktop program's window as a window manager treats it: minimized, full screen, narrow."""
import subprocess
import unittest

from desktop import DesktopTest, until


class Window(DesktopTest):
    def test_a_hidden_window_lets_the_camera_go_but_never_while_it_films(self):
        self.desktop.manage_windows()
        app = self.start(settings={"camera-off-after": "uint32 1"})
        window = app.xdotool("search", "--sync", "--all", "--pid", app.process.pid, "--name", "^Camera$")[0]
        with self.film(app):
            app.xdotool("windowminimize", window)
            app.grows(3_000_000)  # for longer than the second
        app.find("Camera: Camera is off")
        until(lambda: "Dealloc AVDevice Simulated Camera" in app.text_of_log(), "the device is let go")
        app.xdotool("windowactivate", window)
        app.find("Camera: Simulated Camera")
        with self.film(app, stop=lambda app: app.key("ctrl+r")):
            pass


class Wayland(DesktopTest):
    def test_a_film_is_recorded_on_wayland(self):
        weston = subprocess.Popen(["weston", "--backend=headless-backend.so", "--socket=vesk-test", "--idle-time=0"],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(weston.wait)
        self.addCleanup(weston.terminate)
        until((self.desktop.folder / "vesk-test").exists, "the compositor")
        app = self.start(environment={"WAYLAND_DISPLAY": "vesk-test", "GDK_BACKEND": "wayland"})
        with self.film(app):
            app.click("Take a photo")
            until(app.photos, "the photo")
        self.assertNotIn("CRITICAL", app.text_of_log())


if __name__ == "__main__":
    unittest.main()
