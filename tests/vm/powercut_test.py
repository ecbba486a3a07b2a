"""A recording whose machine loses its power keeps all but its last two seconds.

Each cut is a machine that records onto a disk of its own, which loses, reorders and tears what it was not told to
flush (lossy_disk.py), and is killed at some moment. Then the disk is mounted here, and the movie recovered.
VESK_POWERCUTS sets how many cuts there are; VESK_POWERCUT_SEED repeats those of an earlier run, _FIRST from this one on.
"""
import contextlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import lossy_disk
import machine
import program

CUTS = int(os.environ.get("VESK_POWERCUTS", "2"))
FIRST = int(os.environ.get("VESK_POWERCUT_FIRST", "0"))
SEED = int(os.environ.get("VESK_POWERCUT_SEED", random.randrange(1 << 32)))
RATE = 30
LONGEST = 12  # seconds of a recording
SIZE = 400 << 20
MOST_LOST = 2  # seconds
PATIENCE = 120
LIMIT = 300

H264, RAW = "h264:1280x720@30", "raw:320x240@30"
# File system, how it is written, pictures: the first two differ in everything.
KINDS = (("ext4", "direct", H264), ("xfs", "buffered", RAW), ("ext4", "buffered", H264), ("xfs", "direct", RAW),
         ("vfat", "direct", H264), ("ext4", "direct", RAW), ("xfs", "buffered", H264), ("exfat", "direct", RAW),
         ("ext4", "buffered", RAW), ("xfs", "direct", H264))
MAKE = {"ext4": ("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0"), "xfs": ("mkfs.xfs", "-q", "-f"),
        "vfat": ("mkfs.vfat",), "exfat": ("mkfs.exfat",)}
# What the machine loads for each: it has no module loader of its own.
MODULES = {"ext4": ("ext4",), "xfs": ("xfs",), "vfat": ("nls_cp437", "nls_ascii", "vfat"), "exfat": ("exfat",)}


def start_machine(out, system, disk, command):
    modules = [word for module in MODULES[system] for word in ("--module", module)]
    return machine.start_machine(out, [*modules, "--disk", disk.path], command, LIMIT)


@contextlib.contextmanager
def content_of(medium, folder, system):
    """What a file system on an image holds after it was mounted: on this machine when that can be done here, else a
    copy that another emulated machine made."""
    place = folder / "disk"
    place.mkdir()
    mounted = subprocess.run(["mount", "-t", system, "-o", "loop", medium, place], capture_output=True)
    if mounted.returncode == 0:
        try:
            yield place
        finally:
            subprocess.run(["umount", place], check=True)
        return
    disk = lossy_disk.LossyDisk(medium)
    copy = f"mkdir /media/disk && mount -t {system} /dev/vda /media/disk && cp -a /media/disk $VM_OUT/ && umount /media/disk"
    with machine.turn():
        reader = start_machine(folder, system, disk, ["sh", "-c", copy])
        _, err = reader.communicate()
    disk.close()
    if reader.returncode != 0:
        raise AssertionError(f"{medium} cannot be mounted: {err[-2000:]}")
    yield place


class PowerCut(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.references = {}
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="vesk-powercut-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        for picture in (H264, RAW):
            movie = cls.folder / "reference.mov"
            program.vesk("--capture", "simulated", "--pace", "fast", "record", "--force", movie, "--format", picture,
                         "--sound", "pcm:48000:2", "--duration", str(LONGEST + 20))
            cls.references[picture] = (program.picture_hashes(movie), program.sound_bytes(movie))
            movie.unlink()

    def record_until_cut(self, out, kind, chance):
        """Returns the disk and the seconds of film that the camera had sent by the cut: as the machine said, which
        it does five times a second, and as many as there must have been if it was in time."""
        system, way, picture = kind
        medium = out / "disk.image"
        with open(medium, "wb") as image:
            image.truncate(SIZE)
        subprocess.run([*MAKE[system], medium], check=True, capture_output=True)
        disk = lossy_disk.LossyDisk(medium)
        console = out / "kernel.log"
        recording = start_machine(out, system, disk, [*machine.steps("powercut", "simulated", VESK_WRITE=way), system, picture])
        lasts = chance.uniform(0.5, LONGEST)
        pictures, began, told, way_used = 0, None, None, None

        def look():
            nonlocal pictures, told, way_used
            text = console.read_text(errors="replace") if console.exists() else ""
            said = re.findall(r"^pictures (\d+) (\w+)\s", text, re.MULTILINE)
            if said and int(said[-1][0]) > pictures:
                pictures, told, way_used = int(said[-1][0]), time.monotonic(), said[-1][1]
            return text

        patient_until = time.monotonic() + PATIENCE
        while began is None or time.monotonic() < began + lasts:
            text = look()
            began = began or told
            if recording.poll() is not None or "\nended " in text or time.monotonic() > patient_until + LONGEST:
                recording.terminate()
                self.fail(f"it did not record: {text[-2000:]}{recording.communicate()}")
            time.sleep(0.01)
        if chance.random() < 0.7:
            # A disk is seldom at work, and it is the work under way that a cut can spoil.
            disk.fail_at(chance.randrange(1, 5))
            disk.failed.wait(2)
        os.kill(int((out / ".pid").read_text()), signal.SIGKILL)
        look()
        sent = pictures / RATE
        expected = sent + time.monotonic() - told
        recording.communicate()
        if sent > MOST_LOST:  # the first fragment has come
            self.assertEqual(way_used, way)
        return disk, sent, expected

    def cut(self, number, chance):
        kind = KINDS[number % len(KINDS)]
        system, way, picture = kind
        out = self.folder / f"cut-{number}"
        out.mkdir()
        with machine.turn():
            disk, sent, expected = self.record_until_cut(out, kind, chance)
        lost, unflushed = disk.cut(chance)
        with content_of(disk.medium, out, system) as folder:
            movie = folder / "movie.mov"
            recovered = program.vesk("--json", "recover", movie, check=False)
            kept = json.loads(recovered.stdout)["duration"] if recovered.returncode == 0 else 0
            print(f"cut {number}: {system}, {way}, {picture}: {sent:.2f} s sent (at most {expected:.2f}), {kept:.2f} s kept; of {unflushed} writes "
                  f"that were not flushed {lost} were lost or torn, {disk.flushes} flushes", file=sys.stderr, flush=True)
            self.assertGreater(kept, sent - MOST_LOST, recovered.stderr)
            if kept > 0:
                self.assertEqual(program.warnings_of_ffmpeg(movie), "")
                self.assert_begins(program.picture_hashes(movie), self.references[picture][0])
                self.assert_begins(program.sound_bytes(movie), self.references[picture][1])
        shutil.rmtree(out)

    def assert_begins(self, part, whole):
        """What was kept is what the camera sent, from its beginning on."""
        self.assertGreater(len(part), 0)
        self.assertTrue(part == whole[:len(part)], "what was kept is not what was sent")

    def test_what_a_power_cut_leaves_is_recovered(self):
        print(f"VESK_POWERCUT_SEED={SEED}", file=sys.stderr, flush=True)
        for number in range(FIRST, FIRST + CUTS):
            with self.subTest(cut=number, seed=SEED):
                self.cut(number, random.Random(SEED + number))


if __name__ == "__main__":
    result = unittest.main(exit=False).result
    failed = len(result.failures) + len(result.errors)
    print(f"{max(CUTS - failed, 0)} passed, {failed} failed")
    sys.exit(0 if failed == 0 else 1)
