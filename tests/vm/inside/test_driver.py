"""The kernel's own test driver: a camera that is on no bus, with sizes and formats of its own."""
from guest import Camera, keep_frames, record, step, vesk_json


@step
def listed():
    return {"devices": vesk_json("devices"), "video": vesk_json("formats")["video"], "controls": vesk_json("controls")["controls"]}


@step
def recorded():
    """Colour bars."""
    return record("bars", "--format", "2vuy:640x360@30", "--no-audio", pictures=20)


@step
def stamped():
    camera = Camera(vesk_json("devices")["cameras"][0]["path"])
    kept = keep_frames("vivid", camera.frames("2vuy", 320, 180, 20))
    camera.close()
    return kept
