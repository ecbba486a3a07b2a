"""A desktop without a screen for tests of the desktop program: an X server, a session bus, and the accessibility tree,
through which widgets are found and used."""
import contextlib
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import time
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib

import program

CAMERA_PROGRAM = str(pathlib.Path(program.PROGRAM).parent / "bin" / "vesk-camera")
TIMEOUT = 60
ROOT = "/org/a11y/atspi/accessible/root"


BUS_FLAGS = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION


def call(bus, owner, path, method, kinds=None, arguments=()):
    """Calls INTERFACE.METHOD, and answers what it did."""
    interface, _, name = method.rpartition(".")
    return bus.call_sync(owner, path, interface, name, GLib.Variant(kinds, arguments) if kinds else None, None, 0,
                         TIMEOUT * 1000, None).unpack()


class Desktop:
    """An X server and a session bus of their own. One for a process: the accessibility library knows one bus only."""

    def __init__(self, with_window_manager=False):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vesk-desktop-"))
        # A number that no server had just before: one that ends removes the socket of its number.
        self.server = program.XServer("1280x800", f":{random.randrange(1000, 30000)}", "-noreset")
        display = self.server.name
        self.bus = subprocess.Popen(["dbus-daemon", "--session", "--print-address=1", "--nofork", "--nopidfile",
                                     f"--address=unix:path={self.folder}/bus"],
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                    env={**os.environ, "DISPLAY": display, "XDG_RUNTIME_DIR": str(self.folder)})
        address = self.bus.stdout.readline().strip()
        os.environ.update(DISPLAY=display, DBUS_SESSION_BUS_ADDRESS=address, XDG_RUNTIME_DIR=str(self.folder),
                          LIBGL_ALWAYS_SOFTWARE="1")
        os.environ.pop("WAYLAND_DISPLAY", None)
        session = Gio.DBusConnection.new_for_address_sync(address, BUS_FLAGS, None, None)
        tree = call(session, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus.GetAddress")[0]
        self.tree = Gio.DBusConnection.new_for_address_sync(tree, BUS_FLAGS, None, None)
        self.processes = [self.bus, self.server.process]
        if with_window_manager:
            self.manage_windows()

    def manage_windows(self):
        """Windows can be minimized, resized and shown full screen from now on."""
        if len(self.processes) > 2:
            return
        self.processes.insert(0, subprocess.Popen(["openbox", "--sm-disable"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                                  stderr=subprocess.DEVNULL, env={**os.environ, "HOME": str(self.folder)}))
        until(lambda: subprocess.run(["xprop", "-root", "_NET_SUPPORTING_WM_CHECK"], stdin=subprocess.DEVNULL, capture_output=True,
                                     text=True).stdout.count("window id"), "a window manager")

    def close(self):
        self.tree.close_sync()
        for process in self.processes:
            process.terminate()
            process.wait()
        self.bus.stdout.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def photograph(self, file):
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", "-f", "x11grab", "-i", os.environ["DISPLAY"], "-frames:v", "1",
                        str(file)], check=True, stdin=subprocess.DEVNULL)


def until(condition, what, timeout=None):
    """Waits until condition answers something, for TIMEOUT unless another is given, and answers that."""
    timeout = timeout or TIMEOUT
    end = time.monotonic() + timeout
    while True:
        try:
            if answer := condition():
                return answer
        except GLib.Error:  # a widget that went while it was looked at
            pass
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what() if callable(what) else what}")
        time.sleep(0.03)


class Widget:
    """A widget as the accessibility tree has it: see org.a11y.atspi.Cache.GetItems."""

    SENSITIVE, FOCUSABLE, VISIBLE = 24, 11, 30

    def __init__(self, tree, item):
        (self.owner, self.path), _, (_, self.parent), self.index, self.children, self.interfaces, self.name, _, _, states = item
        self.states = states[0] | states[1] << 32
        self.tree = tree

    def has(self, state):
        return bool(self.states >> state & 1)

    def call(self, method, *arguments):
        return call(self.tree, self.owner, self.path, "org.a11y.atspi." + method, *arguments)

    def role(self):
        return self.call("Accessible.GetRoleName")[0]

    def is_button(self):
        return "org.a11y.atspi.Action" in self.interfaces

    def click(self):
        self.call("Action.DoAction", "(i)", (0,))


class CameraProgram:
    """vesk-camera at work, with a home of its own and simulated devices that heed commands."""

    def __init__(self, test, *arguments, setup="", environment=None, prefix=(), settings=None):
        self.test = test
        self.home = test.folder
        self.pipe = self.home / "commands"
        if not self.pipe.exists():
            os.mkfifo(self.pipe)
        for name in ("Videos", "Pictures", ".config"):
            (self.home / name).mkdir(exist_ok=True)
        (self.home / ".config/user-dirs.dirs").write_text('XDG_VIDEOS_DIR="$HOME/Videos"\nXDG_PICTURES_DIR="$HOME/Pictures"\n')
        if settings:
            folder = self.home / ".config/glib-2.0/settings"
            folder.mkdir(parents=True, exist_ok=True)
            lines = [f"{key}={value}\n" for key, value in settings.items()]
            (folder / "keyfile").write_text("[org/vesk/Camera]\n" + "".join(lines))
        self.log = open(self.home / "log", "a+")
        self.environment = {**os.environ, "HOME": str(self.home), "XDG_CONFIG_HOME": str(self.home / ".config"),
                            "XDG_DATA_HOME": str(self.home / ".data"), "XDG_CACHE_HOME": str(self.home / ".cache"),
                            "GSETTINGS_BACKEND": "keyfile", "VESK_CAPTURE": "simulated",
                            "VESK_SIMULATED_COMMANDS": str(self.pipe), "VESK_SIMULATED_SETUP": setup,
                            "LC_ALL": "C.UTF-8", **(environment or {})}
        self.begun = time.monotonic()
        self.process = subprocess.Popen([*prefix, CAMERA_PROGRAM, *arguments], stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log, env=self.environment, cwd=self.home)
        test.addCleanup(self.close)
        self.owner = until(self.find_owner, lambda: f"the window; {self.text_of_log()}")
        if self.environment.get("GDK_BACKEND") == "wayland":
            return  # no keys can be sent there
        # Keys go to the window under the pointer, once it is on the screen.
        self.xdotool("search", "--sync", "--onlyvisible", "--pid", self.process.pid)

    def find_owner(self):
        """The program's name on the bus of the accessibility tree."""
        if self.process.poll() is not None:
            raise AssertionError(f"ended with {self.process.returncode}: {self.text_of_log()}")
        tree = self.test.desktop.tree
        for owner, _ in call(tree, "org.a11y.atspi.Registry", ROOT, "org.a11y.atspi.Accessible.GetChildren")[0]:
            pid = call(tree, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus.GetConnectionUnixProcessID", "(s)", (owner,))[0]
            if pid == self.process.pid:
                return owner
        return None

    def text_of_log(self):
        return pathlib.Path(self.log.name).read_text()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.log.close()

    def end(self, status=0):
        """Waits for the end of the program, which must have this status."""
        self.test.assertEqual(self.process.wait(TIMEOUT), status, self.text_of_log())

    def command(self, *lines):
        """Tells it to the simulated devices; nothing once the program has ended."""
        def opened():
            try:
                return os.open(self.pipe, os.O_WRONLY | os.O_NONBLOCK)
            except OSError:  # nobody reads
                return self.process.poll() is not None and -1

        pipe = until(opened, lambda: f"a program that heeds commands; {self.text_of_log()}")
        if pipe >= 0:
            os.write(pipe, "".join(line + "\n" for line in lines).encode())
            os.close(pipe)

    def all(self, hidden=False):
        """The widgets that are not hidden, from the outermost in. All come at once, once each has been asked for.
        With hidden the others too, in any order."""
        tree = self.test.desktop.tree
        asked = set()
        while True:
            items = call(tree, self.owner, "/org/a11y/atspi/cache", "org.a11y.atspi.Cache.GetItems")[0]
            found = [Widget(tree, item) for item in items]
            below = {}
            for widget in found:
                if widget.path != ROOT:
                    below.setdefault(widget.parent, []).append(widget)
            unknown = [widget for widget in found
                       if len(below.get(widget.path, [])) < widget.children and (widget.path, widget.children) not in asked]
            if not unknown:
                break
            for widget in unknown:
                asked.add((widget.path, widget.children))
                widget.call("Accessible.GetChildren")

        if hidden:
            return found

        def visible(path):
            for widget in sorted(below.get(path, []), key=lambda one: one.index):
                if widget.has(Widget.VISIBLE):
                    yield widget
                    yield from visible(widget.path)

        return list(visible(ROOT))

    def names(self):
        return [widget.name for widget in self.all() if widget.name]

    def has(self, name):
        return any(widget.name.startswith(name) for widget in self.all())

    def find(self, name):
        """The first widget whose name begins so."""
        return until(lambda: next((widget for widget in self.all() if widget.name.startswith(name)), None),
                     lambda: f"“{name}” among {self.names()}; {self.text_of_log()}")

    def gone(self, name):
        until(lambda: not self.has(name), lambda: f"“{name}” still there; {self.text_of_log()}")

    def click(self, name):
        """Does what a click on the button with this in its name does, once that is possible."""
        until(lambda: next((widget for widget in self.all() if name in widget.name and widget.is_button()
                            and widget.has(Widget.FOCUSABLE) and widget.has(Widget.SENSITIVE)), None),
              lambda: f"a button “{name}” among {self.names()}; {self.text_of_log()}").click()

    def xdotool(self, *words, check=True):
        """The words that it answers."""
        return subprocess.run(["xdotool", *map(str, words)], check=check, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              text=True, timeout=TIMEOUT).stdout.split()

    def key(self, *keys):
        self.xdotool("key", "--clearmodifiers", *keys)

    def films(self):
        return sorted((self.home / "Videos").glob("*.mov"))

    def photos(self):
        return sorted((self.home / "Pictures").glob("*.jpeg"))

    def grows(self, more=1_000_000):
        """Waits until the film under way has become larger by so much."""
        def size():
            return program.bytes_in(self.home / "Videos", "*.mov")

        least = size() + more
        until(lambda: size() > least, f"the film grows; {self.text_of_log()}")


class DesktopTest(program.MovieTest):
    """A test on the module's desktop, with a folder of its own."""

    desktop = None

    @classmethod
    def setUpClass(cls):
        if DesktopTest.desktop is None:
            DesktopTest.desktop = Desktop()
            unittest.addModuleCleanup(DesktopTest.desktop.close)

    def start(self, *arguments, **options):
        return CameraProgram(self, *arguments, **options)

    @contextlib.contextmanager
    def film(self, app, stop=lambda app: app.click("Stop recording")):
        """Records for as long as the block takes. What is yielded becomes a list of the film, which must be whole."""
        before, films = app.films(), []
        app.click("Record")
        app.grows()
        yield films
        stop(app)
        films += until(lambda: [film for film in app.films() if film not in before], "the film")
        for film in films:
            self.assertEqual(program.warnings_of_ffmpeg(film), "")

    def film_a_little(self, app):
        with self.film(app):
            pass
