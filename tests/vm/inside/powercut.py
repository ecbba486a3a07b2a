"""A recording on a disk of its own, until the power goes. Says on the console how many pictures the camera has sent,
and how they are written."""
import os
import pathlib
import re
import sys
import time

from guest import Running, tool

DISK = pathlib.Path("/media/disk")


def way():
    """Past the page cache or through it."""
    open_files = pathlib.Path(f"/proc/{running.process.pid}")
    for link in (open_files / "fd").iterdir():
        flags = re.search(r"^flags:\s*([0-7]+)", (open_files / "fdinfo" / link.name).read_text(), re.MULTILINE)
        if os.readlink(link).endswith("movie.mov") and int(flags.group(1), 8) & os.O_DIRECT:
            return "direct"
    return "buffered"


system, picture = sys.argv[1:]
DISK.mkdir()
tool("mount", "-t", system, "/dev/vda", DISK)
running = Running("--pace", "realtime", "record", DISK / "movie.mov", "--format", picture, "--sound", "pcm:48000:2")
with open("/dev/ttyS0", "w", buffering=1) as console:
    told = 0
    while running.process.poll() is None:
        pictures = running.pictures()
        if pictures > told:
            told = pictures
            console.write(f"\npictures {told} {way()}\n")
        time.sleep(0.02)
    console.write(f"\nended {running.end()}\n")
