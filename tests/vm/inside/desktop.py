"""The desktop program with a USB camera, used by clicks."""
import os
import pathlib
import shutil
import sys
import tempfile

from guest import OUT, plug, step, unplug, wait_until

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "e2e"))
import desktop  # noqa: E402  (needs the path)

desktop.TIMEOUT = 200  # emulation is slow
NAME = "Emulated Camera"
GROWTH = 100_000  # bytes


class Stage:
    """What the helpers want of a test."""

    def __init__(self):
        self.desktop = desktop.Desktop()
        self.folder = pathlib.Path(tempfile.mkdtemp())

    def addCleanup(self, *_):
        pass

    def assertEqual(self, first, second, said=""):
        if first != second:
            raise AssertionError(f"{first} is not {second}: {said}")


def is_held():
    """Whether any program has a camera's node open."""
    for link in pathlib.Path("/proc").glob("[0-9]*/fd/*"):
        try:
            if os.readlink(link).startswith("/dev/video"):
                return True
        except OSError:  # it has ended, or closed it
            pass
    return False


@step
def filmed():
    """A film that its camera leaves, the next one when it is back, a photo, and the end of the program."""
    app = desktop.CameraProgram(Stage(), environment={"VESK_CAPTURE": "linux"})
    app.find(f"Camera: {NAME}")
    app.click("Record")
    app.find("Stop recording")
    app.grows(GROWTH)
    unplug()
    app.find(f"“{NAME}” was unplugged.")
    desktop.until(app.films, "the first film")
    plug()
    app.gone(f"“{NAME}” was unplugged.")
    app.grows(GROWTH)
    app.click("Take a photo")
    desktop.until(app.photos, "a photo")
    app.click("Stop recording")
    desktop.until(lambda: len(app.films()) == 2, "both films")
    app.find("Record")
    app.test.desktop.photograph(OUT / "window.png")
    app.key("ctrl+q")
    app.end()
    wait_until(lambda: not is_held(), "the camera to be let go")
    for number, film in enumerate(app.films(), 1):
        shutil.copy(film, OUT / f"film{number}.mov")
    shutil.copy(app.photos()[0], OUT / "photo.jpeg")
    return app.text_of_log()
