"""A desktop session without a screen for what is measured of programs with windows: a session bus and a home of its own."""
import os
import pathlib
import subprocess
import sys
import time


class DesktopSession:
    """What is started in it ends with it."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.started = []
        for name in ("run", "home/Videos", "home/Pictures", "home/.config"):
            (self.folder / name).mkdir(parents=True)
        (self.folder / "run").chmod(0o700)
        (self.folder / "home/.config/user-dirs.dirs").write_text('XDG_VIDEOS_DIR="$HOME/Videos"\n'
                                                                 'XDG_PICTURES_DIR="$HOME/Pictures"\n')
        home = str(self.folder / "home")
        self.environment = {**os.environ, "HOME": home, "XDG_RUNTIME_DIR": str(self.folder / "run"),
                            "XDG_CONFIG_HOME": home + "/.config", "XDG_CACHE_HOME": home + "/.cache",
                            "XDG_DATA_HOME": home + "/.data", "GSETTINGS_BACKEND": "memory", "LIBGL_ALWAYS_SOFTWARE": "1",
                            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.folder}/bus"}
        self.environment.pop("WAYLAND_DISPLAY", None)
        self.start("dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address=unix:path={self.folder}/bus")
        self.wait((self.folder / "bus").exists, "session bus")

    def start(self, *command, **environment):
        with open(self.folder / (pathlib.Path(command[0]).name + ".log"), "a") as log:
            process = subprocess.Popen(command, env={**self.environment, **environment}, stdin=subprocess.DEVNULL,
                                       stdout=log, stderr=log)
        self.started.append(process)
        return process

    def run(self, *command, **environment):
        """What it prints."""
        return subprocess.run(command, env={**self.environment, **environment}, stdin=subprocess.DEVNULL, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout

    def wait(self, condition, what, patience=60, pause=0.1):
        end = time.monotonic() + patience
        while not condition():
            if time.monotonic() > end:
                sys.exit(f"there is no {what}; see the logs in {self.folder}")
            time.sleep(pause)

    def end(self):
        for process in reversed(self.started):
            process.terminate()
            process.wait()
