"""A recording on a disk of its own, until the power goes. Says on the console how many pictures the camera has sent."""
import os
import pathlib
import sys
import time

from guest import Running, tool

DISK = pathlib.Path("/media/disk")

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
            console.write(f"\npictures {told}\n")
        time.sleep(0.02)
    console.write(f"\nended {running.end()}\n")
