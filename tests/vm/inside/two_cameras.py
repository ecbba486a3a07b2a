"""Two cameras of the same make."""
from guest import camera_log, plug, record, step, unplug, vesk_json


@step
def listed():
    return vesk_json("devices")


@step
def plugged_the_other_way_round():
    unplug(0, left=2)
    unplug(1)
    plug(1)
    plug(0, there=4)
    return vesk_json("devices")


def path_of(port):
    """The camera whose node hangs on that port."""
    return next(one["path"] for one in vesk_json("devices")["cameras"] if f"usb-0:{port + 1}:" in one["path"])


def asked():
    """How often each camera was asked for a form of pictures, and each microphone for a rate."""
    return [[sum(line.startswith(begin) for line in camera_log(number)) for number in (0, 1)]
            for begin in ("COMMIT", "SET_CUR unit=0 selector=1 length=3")]


@step
def second_recorded():
    """With its own microphone; which camera it was shows in what each was asked."""
    before = asked()
    return {**record("second", "--camera", path_of(1), "--format", "2vuy:640x480", pictures=16), "asked": [before, asked()]}


@step
def both_recorded():
    """At the same time."""
    answers = {}

    def other(running):
        answers["two"] = record("two", "--camera", path_of(1), "--format", "2vuy:640x480", pictures=10)
    answers["one"] = record("one", "--camera", path_of(0), "--format", "2vuy:640x480", pictures=10, meanwhile=other)
    return answers
