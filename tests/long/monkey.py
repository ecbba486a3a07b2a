"""Uses the desktop program at random: buttons, menus, sliders, keys, clicks, sizes of the window, and devices that come
and go. One seed makes the same choices, as far as the program is as quick. Afterwards what it left must be whole."""
import argparse
import pathlib
import random
import re
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

import gi

gi.require_version("Gio", "2.0")
from gi.repository import GLib

from desktop import CAMERA_PROGRAM, ROOT, CameraProgram, Desktop, Widget, call, until

CAMERAS = ("simulated:camera", "simulated:camera:plain")
MICROPHONES = ("simulated:microphone",)
SHORTCUTS = ("ctrl+r", "ctrl+r", "ctrl+p", "ctrl+m", "ctrl+u", "ctrl+k", "ctrl+j", "F9", "F11", "Escape", "F5", "ctrl+o", "ctrl+d",
             "F1", "ctrl+question", "F10", "ctrl+q", "ctrl+Left", "ctrl+Up", "ctrl+plus", "ctrl+minus", "ctrl+Home")
PLAIN_KEYS = ("Tab", "Tab", "shift+Tab", "space", "Return", "Escape", "Up", "Down", "Left", "Right", "Home", "End", "Page_Down", "a",
              "Delete")
# Windows that could lead out of the test's folder are left at once.
FOREIGN = ("Folder of Films", "Folder of Photos")
FOREIGN_TITLE = "^Folder of"
SECONDS_TO_ANSWER = 20
GONE = "gone"
# What a toolkit says when a program misuses it, and what sanitizers say. The list of GTK's choice of a folder says some of it
# by itself, when it is sorted while it is empty.
FAULTS = re.compile(r"(-CRITICAL|-WARNING|-ERROR) \*\*(?!.*gtk_tree_sortable_)|Sanitizer|runtime error:|terminate called")


class Monkey:
    """One program at work, and what was done to it."""

    def __init__(self, test, seed, pace, kills):
        self.test = test
        self.choose = random.Random(seed)
        self.pace = pace
        self.kills = kills
        self.done = []
        self.begun = time.monotonic()
        self.slowest = 0
        self.starts = 0
        self.out = set()
        self.ill = set()
        self.start()

    def start(self):
        setup = ";".join(f"out {path}" for path in sorted(self.out))
        self.ill.clear()
        self.app = self.test.start(setup=setup, prefix=self.test.prefix)
        self.starts += 1

    def widgets(self):
        """What is on the screen: asked for each time, which shows that the program still answers."""
        begun = time.monotonic()
        widgets = until(lambda: [GONE] if self.app.process.poll() is not None else self.app.all(),
                        lambda: f"the program answers; {self.story()}", SECONDS_TO_ANSWER)
        self.slowest = max(self.slowest, time.monotonic() - begun)
        return [] if widgets == [GONE] else widgets

    def note(self, text):
        self.done.append(text)
        if self.test.arguments.verbose:
            print(f"{time.monotonic() - self.begun:7.1f} {text}", flush=True)

    def story(self):
        return "\n".join(self.done[-25:]) + "\n" + self.app.text_of_log()[-4000:]

    def run(self, actions, seconds):
        kinds = {self.click: 40, self.shortcut: 14, self.plain_key: 12, self.slide: 8, self.point: 8, self.resize: 4, self.hide: 2,
                 self.show: 5, self.plug: 6, self.mend: 4, self.fail: 3, self.write: 1, self.record: 6, self.close_dialog: 6}
        if self.kills:
            kinds[self.kill] = 0.3
        end = time.monotonic() + seconds
        count = 0
        while count < actions and time.monotonic() < end:
            began = time.monotonic()
            try:
                self.step(kinds)
            except GLib.Error as error:  # what was looked at has gone, or the whole program
                self.note(f"  … gone: {error.message}")
            count += 1
            self.restart_if_closed()
            time.sleep(max(0, self.pace - (time.monotonic() - began)))
        return count

    def step(self, kinds):
        widgets = self.widgets()
        # GTK keeps the dialog in the tree when it has gone.
        if any(widget.name.startswith(FOREIGN) for widget in widgets) and self.window("--onlyvisible", name=FOREIGN_TITLE):
            cancel = [widget for widget in widgets if widget.name.endswith("Cancel") and widget.is_button()]
            self.note("leave the choice of a folder")
            for button in cancel:
                button.click()
            return None if cancel else self.press("Escape")
        act = self.choose.choices(list(kinds), list(kinds.values()))[0]
        act(widgets)

    def restart_if_closed(self):
        """Closed by a key or a button, it must have ended well; then it is started again."""
        if self.app.process.poll() is None:
            return
        status = self.app.process.returncode
        if status not in (0, -signal.SIGKILL):
            raise AssertionError(f"the program ended with {status}; {self.story()}")
        self.note("started again")
        self.start()

    def press(self, key):
        self.note(f"key {key}")
        self.app.key(key)

    def shortcut(self, _):
        self.press(self.choose.choice(SHORTCUTS))

    def plain_key(self, _):
        self.press(self.choose.choice(PLAIN_KEYS))

    def click(self, widgets):
        buttons = [widget for widget in widgets if widget.is_button() and widget.has(Widget.SENSITIVE) and widget.has(Widget.FOCUSABLE)]
        if not buttons:
            return
        button = self.choose.choice(buttons)
        self.note(f"click “{button.name}”")
        button.click()

    def named(self, widgets, *names):
        """Clicks one of the buttons with these names, if there is any: what a person does most."""
        buttons = [widget for widget in widgets if widget.name in names and widget.is_button() and widget.has(Widget.SENSITIVE)]
        if buttons:
            self.note(f"click “{buttons[0].name}”")
            buttons[0].click()

    def record(self, widgets):
        self.named(widgets, "Record", "Stop recording")

    def close_dialog(self, widgets):
        if sum(widget.parent == ROOT for widget in widgets) > 1:
            self.press("Escape")

    def slide(self, widgets):
        sliders = [widget for widget in widgets if "org.a11y.atspi.Value" in widget.interfaces and widget.has(Widget.SENSITIVE)]
        if not sliders:
            return
        slider = self.choose.choice(sliders)
        place = self.choose.random()
        self.note(f"slide “{slider.name}” to {place:.2f}")
        call(slider.tree, slider.owner, slider.path, "org.freedesktop.DBus.Properties.Set", "(ssv)",
             ("org.a11y.atspi.Value", "CurrentValue", GLib.Variant("d", place)))

    def write(self, widgets):
        fields = [widget for widget in widgets if "org.a11y.atspi.EditableText" in widget.interfaces]
        if not fields:
            return
        text = self.choose.choice(["", "Stage", "Größe 😀", "a/b", "x" * 300])
        field = self.choose.choice(fields)
        self.note(f"write “{text[:20]}” into “{field.name}”")
        field.call("EditableText.SetTextContents", "(s)", (text,))

    def window(self, *which, name="^Camera$"):
        """One of the program's windows, minimized or not."""
        found = subprocess.run(["xdotool", "search", "--all", *which, "--pid", str(self.app.process.pid), "--name", name],
                               stdin=subprocess.DEVNULL, capture_output=True, text=True).stdout.split()
        return found[0] if found else None

    def xdotool(self, *words):
        self.note("xdotool " + " ".join(map(str, words)))
        # The window may have gone meanwhile.
        subprocess.run(["xdotool", *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       timeout=SECONDS_TO_ANSWER)

    def point(self, _):
        self.xdotool("mousemove", self.choose.randrange(1280), self.choose.randrange(800), "click", self.choose.choice((1, 1, 1, 3)))

    def resize(self, _):
        if window := self.window():
            self.xdotool("windowsize", window, self.choose.choice((360, 480, 700, 960, 1280)), self.choose.choice((300, 480, 640, 800)))

    def hide(self, _):
        if window := self.window():
            self.xdotool("windowminimize", window)

    def show(self, _):
        if window := self.window():
            self.xdotool("windowactivate", window)

    def command(self, line):
        self.note(line)
        self.app.command(line)

    def plug(self, _):
        path = self.choose.choice(CAMERAS + MICROPHONES)
        self.command(f"{'in' if path in self.out else 'out'} {path}")
        self.out ^= {path}

    def fail(self, _):
        path = self.choose.choice(CAMERAS + MICROPHONES)
        self.command(f"{self.choose.choice(('silent', 'busy', 'no-permission', 'not-answering'))} {path}")
        self.ill.add(path)

    def mend(self, _):
        for path in sorted(self.ill):
            self.command(f"well {path}")
        self.ill.clear()
        for path in sorted(self.out):
            self.command(f"in {path}")
        self.out.clear()

    def kill(self, _):
        self.note("killed")
        self.app.process.send_signal(signal.SIGKILL)
        self.app.process.wait()

    def close(self):
        """Ends the program as a person does, whatever it shows."""
        if window := self.window():
            self.xdotool("windowactivate", window)
        for _ in range(6):
            self.app.key("Escape")
        end = time.monotonic() + 60
        while self.app.process.poll() is None and time.monotonic() < end:
            try:
                stop = next((widget for widget in self.widgets() if "Stop and Close" in widget.name and widget.is_button()), None)
                if stop:
                    stop.click()
                else:
                    self.app.key("Escape", "ctrl+q")
            except (AssertionError, GLib.Error):
                pass
            time.sleep(0.3)
        self.app.end()


def faults_of(folder):
    """What is wrong with the films and photos in a folder, and how many there are."""
    faults, count = [], 0
    for file in sorted(folder.rglob("*")):
        if any(part.startswith(".") for part in file.relative_to(folder).parts) or not file.is_file():
            continue
        if file.suffix not in (".mov", ".jpeg"):
            faults.append(f"{file.name} is no film and no photo")
            continue
        count += 1
        done = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-nostdin", "-i", str(file), "-map", "0", "-fps_mode",
                               "passthrough", "-enc_time_base", "-1", "-f", "null", "-"], capture_output=True, text=True)
        if done.returncode != 0 or done.stderr:
            faults.append(f"{file.name} ({file.stat().st_size} bytes): {done.stderr[-500:]}")
    return faults, count


class MonkeyTest(unittest.TestCase):
    arguments = None
    prefix = ()

    def setUp(self):
        self.desktop = Desktop(with_window_manager=True)
        self.addCleanup(self.desktop.close)
        self.folder = self.desktop.folder / "home"
        self.folder.mkdir()
        self.open_files_with_nothing()

    def open_files_with_nothing(self):
        """No player starts when a film is opened."""
        (self.folder / ".data/applications").mkdir(parents=True)
        (self.folder / ".data/applications/nothing.desktop").write_text(
            "[Desktop Entry]\nType=Application\nName=Nothing\nExec=true %u\nMimeType=video/quicktime;image/jpeg;inode/directory\n")
        (self.folder / ".config").mkdir()
        (self.folder / ".config/mimeapps.list").write_text(
            "[Default Applications]\n" + "".join(f"{kind}=nothing.desktop\n"
                                                 for kind in ("video/quicktime", "image/jpeg", "inode/directory")))

    def start(self, **options):
        return CameraProgram(self, settings={"camera-off-after": "uint32 2"}, **options)

    def test_at_random(self):
        arguments = self.arguments
        monkey = Monkey(self, arguments.seed, arguments.pace, arguments.kills)
        begun = time.monotonic()
        try:
            count = monkey.run(arguments.actions, arguments.minutes * 60)
            monkey.close()
        finally:
            if arguments.keep:
                pathlib.Path(arguments.keep).mkdir(parents=True, exist_ok=True)
                (pathlib.Path(arguments.keep) / "actions").write_text("\n".join(monkey.done) + "\n")
                (pathlib.Path(arguments.keep) / "log").write_text(monkey.app.text_of_log())
        faults, files = faults_of(self.folder / "Videos")
        more, photos = faults_of(self.folder / "Pictures")
        faults += more
        faults += [line for line in monkey.app.text_of_log().splitlines() if FAULTS.search(line)]
        print(f"{count} actions in {time.monotonic() - begun:.0f} s, {monkey.starts} starts, {files} films, {photos} photos, "
              f"answers after {monkey.slowest:.2f} s at most")
        self.assertEqual(faults, [], f"seed {arguments.seed}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--actions", type=int, default=200)
    parser.add_argument("--minutes", type=float, default=24 * 60)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    parser.add_argument("--pace", type=float, default=0, help="seconds from action to action")
    parser.add_argument("--kills", action="store_true")
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--keep", help="a folder for what was done and what the program said")
    MonkeyTest.arguments = parser.parse_args()
    print(f"seed {MonkeyTest.arguments.seed}: {CAMERA_PROGRAM}", flush=True)
    unittest.main(argv=[sys.argv[0]])


if __name__ == "__main__":
    main()
