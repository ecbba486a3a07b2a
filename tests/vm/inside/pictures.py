"""One camera: what it lists, and its pictures, whole and damaged."""
from guest import OUT, Camera, camera_log, keep_frames, plug, record, step, tell_camera, unplug, vesk, vesk_json

RAW = ("--format", "2vuy:640x480", "--no-audio")


@step
def devices():
    return vesk_json("devices")


@step
def formats():
    return vesk_json("formats")


@step
def frames():
    """Of each codec and both rates, through the capture interface."""
    camera = Camera(vesk_json("devices")["cameras"][0]["path"])
    kept = {name: keep_frames(name, camera.frames(codec, width, height, count, interval))
            for name, codec, width, height, count, interval in (
                ("jpeg", "dmb1", 640, 480, 32, 333333), ("hd", "dmb1", 1280, 720, 4, 333333),
                ("raw", "2vuy", 640, 480, 32, 333333), ("slow", "dmb1", 640, 480, 10, 666667))}
    kept["asked"] = [line.split("data=")[1] for line in camera_log() if line.startswith("COMMIT")]
    tell_camera("cut on")
    kept["cut"] = keep_frames("cut", camera.frames("dmb1", 640, 480, 12))
    tell_camera("cut off")
    camera.close()
    return kept


@step
def recorded():
    """At the slower of the two rates."""
    logged = len(camera_log())
    answer = record("recorded", "--format", "2vuy:640x480@15", "--no-audio", pictures=40)
    answer["asked"] = [line.split("data=")[1] for line in camera_log()[logged:] if line.startswith("COMMIT")]
    return answer


@step
def encoded():
    """As the program chooses where the camera has no H.264 of its own."""
    return record("encoded", "--format", "640x480", "--no-audio", pictures=40)


@step
def photo_without_tables():
    tell_camera("dht off")
    answer = vesk("snapshot", OUT / "photo.jpeg", "--format", "dmb1:640x480")
    tell_camera("dht on")
    return answer


@step
def damaged():
    tell_camera("error on")
    answer = record("damaged", *RAW, pictures=30)
    tell_camera("error off")
    return answer


@step
def stalled():
    """No pictures until the camera has been started again in vain, then pictures again."""
    def hold(running):
        tell_camera("stall on")
        running.wait_for_text("Plug it in again")
        tell_camera("stall off")
        running.wait_for_text("sends pictures again")
    return record("stalled", *RAW, pictures=20, meanwhile=hold)


@step
def without_uyvy():
    """As YUYV, which is converted, since the camera offers nothing else raw."""
    unplug()
    tell_camera("uyvy off")
    plug()
    return record("converted", *RAW, pictures=20)
