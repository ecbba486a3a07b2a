"""Controls and extension units, down to the bytes that the camera was sent."""
import contextlib
import os
import pathlib
import subprocess

from guest import (OUT, PATIENCE, PROGRAM, Camera, camera_log, nodes, plug, record, step, tell_camera, tool, unplug, vesk,
                   vesk_json, wait_until)

RAW = ("--format", "2vuy:640x480", "--no-audio")
IMAGE = bytes.fromhex("B4A4D54F45FD48908CC83B4D807EB23A")
EXTENSION = bytes.fromhex("A1B2C3D4E5F647118899AABBCCDDEEFF")


def values():
    return {one["name"]: one["current"] for one in vesk_json("controls")["controls"]}


def sent(action):
    """What an action answers, and what it had the camera sent."""
    before = len(camera_log())
    answer = action()
    # Those of the microphone, whose units are counted from 100, are the kernel's own.
    return answer, [line for line in camera_log()[before:] if line.startswith("SET_CUR unit=") and "unit=10" not in line]


def from_outside(*arguments):
    """As another program does it."""
    node = next(f"/dev/{path.name}" for path in nodes() if (path / "index").read_text().strip() == "0")
    return tool("v4l2-ctl", "-d", node, *arguments)


def change_from_outside(**settings):
    from_outside("-c", ",".join(f"{name}={value}" for name, value in settings.items()))


@contextlib.contextmanager
def user_session(home):
    """The service manager of a person who has logged in, who has the services in that home."""
    group = pathlib.Path("/sys/fs/cgroup/session")
    tool("mount", "-t", "cgroup2", "none", group.parent)
    group.mkdir()
    pathlib.Path("/run/systemd/system").mkdir(parents=True)  # it looks whether the machine runs systemd
    os.environ |= {"HOME": str(home), "XDG_RUNTIME_DIR": tool("mktemp", "-d", "-p", "/run").strip()}
    with open(OUT / "systemd.log", "w") as log:
        manager = subprocess.Popen(["sh", "-c", f"echo $$ >{group}/cgroup.procs; exec /lib/systemd/systemd --user"],
                                   stdout=log, stderr=log)
    wait_until(lambda: systemctl("is-system-running").startswith("running"), "the session")
    yield
    manager.terminate()
    manager.wait(PATIENCE)


def systemctl(*arguments):
    """What it says, and what it ends with when that is a failure."""
    done = subprocess.run(["systemctl", "--user", *arguments], capture_output=True, text=True, timeout=PATIENCE, check=False)
    return done.stdout + done.stderr + (str(done.returncode) if done.returncode else "")


@step
def listed():
    return vesk_json("controls")["controls"]


@step
def set_one_by_one():
    return [sent(lambda: vesk("controls", "set", name, value)) for name, value in (
        ("brightness", 200), ("hue", -45), ("exposure", 100), ("autoExposure", "off"), ("exposure", 100),
        ("autoFocus", "off"), ("focus", 77), ("pan", 7200), ("tilt", -3600), ("zoom", 250), ("antiFlicker", 1),
        ("autoWhiteBalance", "off"), ("whiteBalance", 5000), ("brightness", 256))]


@step
def saved_reset_loaded():
    saved = vesk("controls", "save", "/tmp/kept.json", "--force")
    before = values()
    reset = vesk("controls", "reset")
    initial = values()
    loaded = vesk("controls", "load", "/tmp/kept.json")
    return {"answers": [saved, reset, loaded], "before": before, "initial": initial, "after": values()}


@step
def nudged():
    return [sent(lambda: vesk("nudge", *arguments)) for arguments in (("left",), ("down", "--times", "2"), ("reset",))]


@step
def while_recording():
    """Brighter and brighter while it is recorded, once by vesk and once by another program."""
    vesk("controls", "reset")

    def change(running):
        for action in (lambda: vesk("controls", "set", "brightness", 150), lambda: change_from_outside(brightness=175)):
            action()
            running.wait_for_pictures(running.pictures() + 6)
    return record("brighter", *RAW, pictures=12, meanwhile=change)


@step
def kept_over_replugs():
    """By the service, installed in a home as it is into a prefix."""
    home = pathlib.Path(tool("mktemp", "-d").strip())
    template = next(pathlib.Path(__file__).resolve().parents[3].glob("apps/vesk/*keep@.service.in"))
    units, settings = home / ".local/share/systemd/user", home / ".config/vesk"
    units.mkdir(parents=True)
    settings.mkdir(parents=True)
    (units / template.stem).write_text(template.read_text().replace("@bindir@", str(pathlib.Path(PROGRAM).parent)))

    def is_applied():
        return "brightness: 200" in from_outside("-C", "brightness")
    vesk("controls", "set", "brightness", 200)
    vesk("controls", "save", settings / "desk.json")
    change_from_outside(brightness=60)
    with user_session(home):
        answers = [systemctl("start", "vesk-controls-keep@nothing"), systemctl("start", "vesk-controls-keep@desk")]
        wait_until(is_applied, "settings to be applied at its start")
        change_from_outside(brightness=60)
        unplug()
        plug()
        wait_until(is_applied, "settings to be applied when the camera is back")
        answers.append(systemctl("stop", "vesk-controls-keep@desk"))
        shown = systemctl("show", "vesk-controls-keep@desk", "-p", "ActiveState,Result,ExecMainStatus")
    return {"answers": answers, "shown": sorted(shown.split())}


@step
def through_the_interface():
    camera = Camera(vesk_json("devices")["cameras"][0]["path"])
    read = {f"{number}/{request}": camera.property(EXTENSION, number, request)
            for number, request in ((1, 0), (2, 0), (3, 0), (4, 0), (4, 1), (9, 0))}
    unknown = camera.property(bytes(16), 1)
    (first, asked) = sent(lambda: camera.set_property(EXTENSION, 4, bytes([0x09, 0x01])))
    refused = camera.set_property(EXTENSION, 1, bytes(4))
    brightness = [camera.property(IMAGE, 2)]
    change_from_outside(brightness=33)
    brightness.append(camera.property(IMAGE, 2))
    camera.close()
    return {"read": read, "unknown": unknown, "set": first, "asked": asked, "refused": refused, "brightness": brightness}


@step
def hung():
    """A camera that no longer answers, whose settings were saved while it did."""
    unplug()  # what the kernel knows by heart goes with it
    plug()
    vesk("controls", "save", "/tmp/kept.json", "--force")
    saved = pathlib.Path("/tmp/kept.json").read_text()
    unplug()
    plug()
    tell_camera("mute on")
    answers = {name: vesk(*arguments, patience=120) for name, arguments in (
        ("list", ("controls",)), ("save", ("controls", "save", "/tmp/kept.json", "--force")),
        ("nudge", ("nudge", "left")), ("info", ("info",)), ("record", ("record", "/tmp/hung.mov", *RAW, "--duration", "1")), ("doctor", ("doctor",)))}
    tell_camera("mute off")
    return {**answers, "kept": pathlib.Path("/tmp/kept.json").read_text() == saved, "later": vesk("controls")["status"]}
