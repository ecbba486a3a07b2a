"""The camera's own microphone and a loopback card, by the drivers and by a sound server."""
import json
import math
import os
import pathlib
import struct
import subprocess
import sys
import wave

from guest import OUT, Microphone, Running, camera_log, record, step, tool, vesk, vesk_json, wait_until

TONE = pathlib.Path("/tmp/tone.wav")
RATE, SECONDS = 48000, 60
SET_BY_SERVER = """
import json, sys
sys.path.insert(0, sys.argv[2])
from guest import Microphone
device = Microphone(sys.argv[1])
device.set_volume(128)
device.set_mute(1)
print(json.dumps([device.volume(), device.mute()]))
device.close()
"""
PICTURE = ("--format", "2vuy:640x480")


def make_tone():
    """1 kHz at -20 dBFS in both channels."""
    period = b"".join(struct.pack("<hh", *2 * [round(3277 * math.sin(2 * math.pi * at / 48))]) for at in range(48))
    with wave.open(str(TONE), "wb") as file:
        file.setparams((2, 2, RATE, 0, "NONE", ""))
        file.writeframes(period * (RATE // 48 * SECONDS))


def microphone(name):
    return next(one for one in vesk_json("devices")["microphones"] if name in one["name"])


def levels(path):
    """A second of what the meter tells."""
    running = Running("--json", "meter", "--mic", path)
    running.wait_for(lambda: running.out.count('"level"') >= 30, "levels")
    return [json.loads(line)["level"] for line in running.interrupt()["out"].splitlines() if '"level"' in line]


@step
def listed():
    return {**vesk_json("devices"), "sound": vesk_json("formats", "--mic", microphone("Loopback")["path"])["sound"]}


@step
def recorded():
    """Nobody names a microphone, and the camera's own is not the only one."""
    return record("camera", *PICTURE, pictures=75)


@step
def busy():
    """What another program is told while camera and microphone are recorded."""
    answers = {}

    def others(running):
        answers["record"] = vesk("record", "/tmp/other.mov", *PICTURE, "--no-audio")
        answers["meter"] = vesk("meter", "--mic", microphone("Emulated")["path"], "--duration", "2")
    answers["first"] = record("busy", *PICTURE, pictures=10, meanwhile=others)
    return answers


@step
def metered():
    return levels(microphone("Emulated")["path"])


@step
def settings():
    """Volume and mute of the camera's microphone, and what of it reached the camera."""
    before = len(camera_log())
    device = Microphone(microphone("Emulated")["path"])
    found = []
    for volume in (0, 128, 255):
        device.set_volume(volume)
        found.append(device.volume())
    for mute in (1, 0):
        device.set_mute(mute)
        found.append(device.mute())
    device.close()
    return {"found": found, "asked": [line for line in camera_log()[before:] if line.startswith("SET_CUR unit=10")]}


@step
def looped():
    """What is played to the card's second device is recorded from its first."""
    make_tone()
    player = subprocess.Popen(["aplay", "-q", "-D", "plughw:Loopback,1", str(TONE)], stdin=subprocess.DEVNULL)
    try:
        return record("looped", *PICTURE, "--mic", microphone("Loopback")["path"], "--sound", "pcm:48000:2", pictures=40)
    finally:
        player.kill()


@step
def served():
    """The same with a sound server: it owns the card from now on."""
    tool("rmmod", "snd_aloop")  # the server spins on a loopback card that nobody plays to
    os.environ["XDG_RUNTIME_DIR"] = "/run/user-0"
    os.makedirs("/run/user-0", mode=0o700)
    tool("pulseaudio", "-n", "--daemonize=yes", "--exit-idle-time=-1", "--log-target=file:" + str(OUT / "server.log"),
         "-L", "module-native-protocol-unix", "-L", "module-udev-detect")
    wait_until(lambda: "Emulated" in tool("pactl", "list", "sources"), "the server to find the camera's microphone")
    answer = {"devices": vesk_json("devices"), "recorded": record("served", *PICTURE, pictures=75),
              "levels": levels(microphone("Emulated")["path"])}
    # In a process of its own: this one has used the library before there was a server.
    answer["settings"] = json.loads(tool(sys.executable, "-c", SET_BY_SERVER, microphone("Emulated")["path"], sys.path[0]))
    answer["told"] = tool("pactl", "list", "sources")
    return answer
