"""Controls and extension units, down to the bytes that the camera was sent."""
import pathlib

from guest import Camera, Running, camera_log, nodes, plug, record, step, tell_camera, tool, unplug, vesk, vesk_json

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


def change_from_outside(**settings):
    """As another program does it."""
    node = next(f"/dev/{path.name}" for path in nodes() if (path / "index").read_text().strip() == "0")
    tool("v4l2-ctl", "-d", node, "-c", ",".join(f"{name}={value}" for name, value in settings.items()))


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
    vesk("controls", "set", "brightness", 200)
    vesk("controls", "save", "/tmp/kept.json", "--force")
    running = Running("--json", "controls", "keep", "/tmp/kept.json")
    running.wait_for_text('"event":"applied"')
    change_from_outside(brightness=60)
    unplug()
    plug()
    running.wait_for(lambda: running.out.count('"event":"applied"') == 2, "settings to be applied when it is back")
    found = values()["brightness"]
    return {**running.interrupt(), "found": found}


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
