"""What runs inside the emulated machine: vesk and what stands around it. Results go to $VM_OUT.

Emulation is slow and uneven, so that everything waits for an event with a generous limit: so many
pictures, a line, a device.
"""
import ctypes
import json
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import traceback

OUT = pathlib.Path(os.environ["VM_OUT"])
PROGRAM = os.environ["VESK_PROGRAM"]
LIBRARY = os.environ.get("VESK_LIBRARY", str(pathlib.Path(PROGRAM).resolve().parents[1] / "libvesk.so"))
PATIENCE = 60

_results = {}


def step(function):
    """Runs the function at once and keeps its answer under its name. One that fails keeps its error,
    which the test that looks at it shows; the others go on."""
    began = time.monotonic()
    try:
        answer = {"is": function()}
    except Exception:
        answer = {"error": traceback.format_exc()}
    _results[function.__name__] = {**answer, "seconds": round(time.monotonic() - began, 1)}
    (OUT / "results.json").write_text(json.dumps(_results))


def wait_until(condition, what, patience=PATIENCE):
    end = time.monotonic() + patience
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise TimeoutError(f"waited {patience} s in vain: {what}")
        time.sleep(0.05)


def tool(*command):
    return subprocess.run(list(map(str, command)), capture_output=True, text=True, timeout=PATIENCE, check=True,
                          stdin=subprocess.DEVNULL).stdout


def vesk(*arguments, patience=PATIENCE):
    """Runs the program to its end."""
    done = subprocess.run([PROGRAM, *map(str, arguments)], capture_output=True, text=True, timeout=patience,
                          stdin=subprocess.DEVNULL)
    return {"status": done.returncode, "out": done.stdout, "err": done.stderr}


def vesk_json(*arguments):
    done = vesk("--json", *arguments)
    if done["status"] != 0:
        raise RuntimeError(done)
    return json.loads(done["out"])


class Running:
    """The program while it runs. Standard error is a terminal, so that it tells how far it is."""

    def __init__(self, *arguments, prefix=()):
        mine, its = pty.openpty()
        self.err, self.out, self._counted_from = "", "", 0
        self.process = subprocess.Popen([*prefix, PROGRAM, *map(str, arguments)], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=its, text=True)
        os.close(its)
        self._readers = [threading.Thread(target=self._read_terminal, args=(mine,), daemon=True),
                         threading.Thread(target=self._read_out, daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read_terminal(self, terminal):
        while True:
            try:
                data = os.read(terminal, 65536)
            except OSError:  # the other end is closed
                return
            self.err += data.decode(errors="replace")

    def _read_out(self):
        for line in self.process.stdout:
            self.out += line

    def lines(self):
        """What it said on standard error, without the line that shows how far it is."""
        whole = re.sub(r"\r\x1b\[K[^\r\n]*(?=\r\x1b)", "", self.err)
        return [line for line in re.sub(r"\r|\x1b\[K", "", whole).split("\n") if line and "ends it" not in line]

    def pictures(self):
        found = re.findall(r"(\d+) pictures", self.err[self._counted_from:])
        return int(found[-1]) if found else 0

    def count_anew(self):
        """Another movie begins."""
        self._counted_from = len(self.err)

    def wait_for(self, condition, what, patience=PATIENCE):
        def ready():
            if self.process.poll() is not None and not condition():
                raise RuntimeError(f"it ended while it was waited for: {what}\n{self.out}{self.err[-2000:]}")
            return condition()
        return wait_until(ready, what, patience)

    def wait_for_pictures(self, count, patience=PATIENCE):
        self.wait_for(lambda: self.pictures() >= count, f"{count} pictures", patience)

    def wait_for_text(self, text, patience=PATIENCE):
        self.wait_for(lambda: text in self.out + self.err, f"\"{text}\"", patience)

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)
        return self.end()

    def end(self, patience=PATIENCE):
        try:
            self.process.wait(patience)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            self.err += "\nKILLED: it did not end by itself"
        for reader in self._readers:
            reader.join(PATIENCE)
        return {"pid": self.process.pid, "status": self.process.returncode, "out": self.out, "err": self.lines()}


def record(name, *arguments, pictures=30, before=lambda running: None, meanwhile=lambda running: None):
    """Records at least so many pictures into $VM_OUT/NAME.mov, and after half of them does what else is to happen.
    That answers True when the recording then ends by itself."""
    folder = pathlib.Path(tempfile.mkdtemp())
    logged = len(camera_log())
    running = Running("--json", "record", folder / f"{name}.mov", *arguments)
    before(running)
    running.wait_for_pictures(pictures // 2)
    if not meanwhile(running):
        running.wait_for_pictures(max(pictures, running.pictures() + pictures // 2))
        running.interrupt()
    answer = running.end()
    for movie in folder.glob("*.mov"):
        shutil.copy(movie, OUT / movie.name)
    shutil.rmtree(folder)
    answer["late"] = [line for line in camera_log()[logged:] if line.startswith("LATE")]
    answer["json"] = [json.loads(line) for line in answer["out"].splitlines()]
    answer["movies"] = [{**one, "file": pathlib.Path(one["file"]).name} for one in answer["json"] if "video" in one]
    return answer


# ---- devices ----

def tell_camera(command, number=0):
    """A line for the emulated camera."""
    with open(f"/run/usbcam{number}", "w") as fifo:
        fifo.write(command + "\n")


def nodes():
    return sorted(pathlib.Path("/sys/class/video4linux").glob("video*")) if pathlib.Path("/sys/class/video4linux").exists() else []


def unplug(number=0, left=0):
    tell_camera("unplug", number)
    wait_until(lambda: len(nodes()) == left, "the camera to go")
    tool("udevadm", "settle")


def plug(number=0, there=2):
    tell_camera("plug", number)
    wait_until(lambda: len(nodes()) == there, "the camera to come")
    tool("udevadm", "settle")


def camera_log(number=0):
    """The requests that reached the emulated camera, and where its sound was late; nothing without such a camera."""
    log = OUT / f"usbcam{number}.log"
    return log.read_text().splitlines() if log.exists() else []


# ---- the capture interface, for what no movie holds ----

class _Frame(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("event", ctypes.c_uint32), ("context", ctypes.c_void_p), ("reserved", ctypes.c_uint32),
                ("length", ctypes.c_uint32), ("frame", ctypes.c_void_p), ("timestamp", ctypes.c_int64)]


class _Parameters(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("is_h264", ctypes.c_uint32), ("format", ctypes.c_uint16 * 13), ("reserved", ctypes.c_uint16),
                ("width", ctypes.c_int32), ("height", ctypes.c_int32), ("numerator", ctypes.c_uint32),
                ("denominator", ctypes.c_uint32), ("reserved2", ctypes.c_uint32), ("bit_rate", ctypes.c_uint32),
                ("h264_value", ctypes.c_uint32)]


_EVENT_FRAME = 1


class _PropertySet(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("identifier", ctypes.c_uint8 * 16), ("value", ctypes.c_uint32)]


class _Device:
    """A device through the library's capture interface, whose calls for its kind begin with PREFIX."""

    prefix = ""

    def __init__(self, path):
        self._library = ctypes.CDLL(LIBRARY)
        open_device = getattr(self._library, f"{self.prefix}_Open_Device")
        open_device.restype = ctypes.c_void_p
        getattr(self._library, f"{self.prefix}_Init")()
        self._handle = ctypes.c_void_p(open_device(path.encode("utf-16-le") + b"\0\0"))
        if not self._handle:
            raise RuntimeError(f"{path} cannot be opened")

    def _call(self, name, *arguments):
        status = getattr(self._library, name)(self._handle, *arguments)
        if status != 0:
            raise RuntimeError(f"{name} answered {status}")

    def close(self):
        self._library.VCI_Close_Device(self._handle)
        getattr(self._library, f"{self.prefix}_Cleanup")()


class Camera(_Device):
    prefix = "VCI"

    def frames(self, codec, width, height, count, interval=333333):
        """So many frames with their time stamps, and how many milliseconds after its stamp each came."""
        frames, enough = [], threading.Event()

        def take(_, info):
            if len(frames) < count:
                event = info.contents
                frames.append((event.timestamp, time.monotonic_ns() // 1000, ctypes.string_at(event.frame, event.length)))
            if len(frames) == count:
                enough.set()

        callback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(_Frame))(take)
        wanted = _Parameters(width=width, height=height, numerator=interval, denominator=10_000_000)
        for index, character in enumerate(codec):
            wanted.format[index] = ord(character)
        self._call("VCI_Set_Capture_Parameters", ctypes.byref(wanted))
        self._call("VCI_Subscribe_Event", _EVENT_FRAME, callback, None)
        self._call("VCI_Start_Capture", 0)
        in_time = enough.wait(PATIENCE)
        self._call("VCI_Stop_Capture", 0)
        self._call("VCI_UnSubscribe_Event", _EVENT_FRAME)
        if not in_time:
            raise TimeoutError(f"{len(frames)} of {count} frames of {codec} came")
        return frames

    def property(self, identifier, number, request=0, size=64):
        """Status and bytes of a property of the set with that identifier."""
        wanted = _PropertySet(identifier=(ctypes.c_uint8 * 16)(*identifier))
        value, length = (ctypes.c_uint8 * size)(), ctypes.c_uint32(size)
        status = self._library.VCI_Get_Property(self._handle, request, ctypes.byref(wanted), ctypes.byref(ctypes.c_uint32(number)),
                                                value, ctypes.byref(length), 0, 0)
        return status, bytes(value[:length.value]).hex() if status == 0 else ""

    def set_property(self, identifier, number, value):
        wanted = _PropertySet(identifier=(ctypes.c_uint8 * 16)(*identifier))
        return self._library.VCI_Set_Property(self._handle, ctypes.byref(wanted), ctypes.byref(ctypes.c_uint32(number)),
                                              (ctypes.c_uint8 * len(value))(*value),
                                              ctypes.byref(ctypes.c_uint32(len(value))), 0, 0)


class Microphone(_Device):
    prefix = "ACI"

    def volume(self):
        found = ctypes.c_uint32()
        self._call("ACI_Get_Mic_Volume", ctypes.byref(found))
        return found.value

    def set_volume(self, volume):
        self._call("ACI_Set_Mic_Volume", ctypes.c_uint8(volume))

    def mute(self):
        found = ctypes.c_uint8()
        self._call("ACI_Get_Mic_Mute", ctypes.byref(found))
        return found.value

    def set_mute(self, mute):
        self._call("ACI_Set_Mic_Mute", mute)


def keep_frames(name, frames):
    """Frames into $VM_OUT/NAME; what is told of them goes into the results."""
    (OUT / name).write_bytes(b"".join(frame for _, _, frame in frames))
    return {"sizes": [len(frame) for _, _, frame in frames], "stamps": [stamp for stamp, _, _ in frames],
            "delays": [now - stamp for stamp, now, _ in frames]}
