"""Recordings on the file systems that people have: whole, after a kill, and on a disk that is full at each last block;
written past the page cache, as they are, and through it.

They are made on loop devices, which takes root.
"""
import contextlib
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

from program import MovieTest, start_vesk, tool, vesk

MIB = 1 << 20
H264, RAW = "h264:320x240", "raw:640x480"
SOUND = ("--sound", "pcm:48000:2")
# How each is made, and the sector size of the device below it.
MADE = {
    "ext4, blocks of 4096": (("mkfs.ext4", "-q", "-F", "-m", "0", "-b", "4096"), 512),
    "ext4, blocks of 1024": (("mkfs.ext4", "-q", "-F", "-m", "0", "-b", "1024"), 512),
    "xfs, sectors of 512": (("mkfs.xfs", "-q", "-f", "-s", "size=512"), 512),
    "xfs, sectors of 4096": (("mkfs.xfs", "-q", "-f", "-s", "size=4096"), 4096),
    "btrfs": (("mkfs.btrfs", "-q", "-f"), 512),
}
OTHERS = ("tmpfs", "fuse", "ramfs")
REFUSES_DIRECT = ("ramfs",)  # cannot even be opened past the page cache
WAYS = ("direct", "buffered")
MOST_HELD = {"direct": MIB // 2, "buffered": 24 * MIB}
SIZES = 20  # of a full disk, each a block larger than the one before


def run(*command):
    return subprocess.run(list(map(str, command)), capture_output=True, text=True, stdin=subprocess.DEVNULL)


class FileSystems(MovieTest):
    @classmethod
    def setUpClass(cls):
        if os.geteuid() != 0:
            raise unittest.SkipTest("only root makes file systems")
        with tempfile.TemporaryDirectory(prefix="vesk-test-") as folder, open(f"{folder}/image", "wb") as image:
            image.truncate(MIB)
            tool("mkfs.ext4", "-q", "-F", image.name)
            tried = run("mount", "-o", "loop", image.name, folder)
            if tried.returncode != 0:
                raise unittest.SkipTest(f"a loop device cannot be mounted here: {tried.stderr.strip()}")
            tool("umount", folder)

    @contextlib.contextmanager
    def mounted(self, kind, size=400 * MIB):
        """A file system of that kind, mounted in the test's folder."""
        place, below = self.folder / "disk", self.folder / "below"
        place.mkdir()
        with contextlib.ExitStack() as undo:
            undo.callback(place.rmdir)
            if kind == "tmpfs":
                tool("mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", place)
            elif kind == "ramfs":
                tool("mount", "-t", "ramfs", "ramfs", place)
            elif kind == "fuse":
                below.mkdir()
                undo.callback(shutil.rmtree, below)
                tool("bindfs", below, place)
            else:
                make, sector = MADE[kind]
                with open(below, "wb") as image:
                    image.truncate(size)
                undo.callback(below.unlink)
                device = tool("losetup", "--find", "--show", "--sector-size", sector, below).strip()
                undo.callback(tool, "losetup", "--detach", device)
                tool(*make, device)
                tool("mount", device, place)
            undo.callback(tool, "umount", place)
            yield place

    def record(self, movie, picture, *options, way="direct", status=0):
        done = vesk("--json", "--capture", "simulated", "--pace", "fast", "record", movie, "--format", picture, *SOUND, *options,
                    check=False, environment={"VESK_WRITE": way})
        self.assertEqual(done.returncode, status, done.stderr)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def content_of(self, movie):
        """Its pictures' hashes and its sound; it plays without a word of complaint."""
        sound = self.folder / "sound"
        done = run("ffmpeg", "-v", "warning", "-nostdin", "-y", "-i", movie, "-map", "0:v:0", "-fps_mode", "passthrough",
                   "-enc_time_base", "-1", "-f", "framemd5", "-", "-map", "0:a:0", "-f", "s16le", sound)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        return [line.split(",")[-1] for line in done.stdout.splitlines() if not line.startswith("#")], sound.read_bytes()

    def reference(self, picture, seconds):
        movie = self.folder / "reference.mov"
        self.record(movie, picture, "--force", "--duration", str(seconds))
        return self.content_of(movie)

    def assert_begins(self, movie, reference):
        """It holds what was sent, from its beginning on."""
        pictures, sound = self.content_of(movie)
        self.assertGreater(len(pictures), 0)
        self.assertEqual(pictures, reference[0][:len(pictures)])
        self.assertTrue(sound == reference[1][:len(sound)])

    def test_a_movie_is_whole_and_one_that_was_killed_is_recovered(self):
        references = {H264: self.reference(H264, 20), RAW: self.reference(RAW, 3)}
        long = self.reference(H264, 120)
        for kind in (*MADE, *OTHERS):
            with self.mounted(kind) as folder:
                movie = folder / "movie.mov"
                for way in WAYS:
                    with self.subTest(kind=kind, way=way):
                        for picture, reference in references.items():
                            done = self.record(movie, picture, "--duration", "20" if picture == H264 else "3", way=way)[-1]
                            self.assert_written(movie, done["disk"], kind, way)
                            self.assertTrue(self.content_of(movie) == reference)
                            movie.unlink()
                        self.kill(movie, 5 * MIB, way)
                        self.assertTrue(json.loads(vesk("--json", "recover", movie).stdout)["recovered"])
                        self.assertGreater(movie.stat().st_size, 5 * MIB)
                        self.assert_begins(movie, long)
                        movie.unlink()

    def assert_written(self, movie, disk, kind, way):
        """All of it was written that way, where it can be, and next to nothing of it stays in the page cache."""
        if kind in REFUSES_DIRECT:
            with self.assertRaises(OSError):
                os.close(os.open(movie, os.O_WRONLY | os.O_DIRECT))
            way = "buffered"
        other, = set(WAYS) - {way}
        self.assertGreater(disk[way], movie.stat().st_size * 0.9)
        self.assertEqual((disk[other], disk["fellBehind"]), (0, 0))
        if kind not in OTHERS:
            held = int(tool("fincore", "--bytes", "--noheadings", "--output", "RES", movie))
            self.assertLess(held, MOST_HELD[way], f"{held} of {movie.stat().st_size} bytes")

    def kill(self, movie, size, way):
        program = start_vesk("--capture", "simulated", "--pace", "fast", "record", movie, "--format", H264, *SOUND,
                             "--duration", "120", env={**os.environ, "VESK_WRITE": way})
        while not any(left.stat().st_size > size for left in movie.parent.glob(".movie.mov.recording-*/movie.mov")):
            self.assertIsNone(program.poll(), "it ended by itself")
            time.sleep(0.002)
        program.send_signal(signal.SIGKILL)
        program.communicate()

    def test_a_disk_that_is_full_at_each_of_its_last_blocks(self):
        reference = self.reference(H264, 30)
        for kind, room in (("ext4, blocks of 4096", 3 * MIB), ("ext4, blocks of 1024", 3 * MIB), ("xfs, sectors of 512", 3 * MIB)):
            with self.mounted(kind, 16 * MIB if "ext4" in kind else 320 * MIB) as folder:
                status = os.statvfs(folder)
                filled = status.f_bavail * status.f_bsize - room
                with open(folder / "filling", "wb") as filling:
                    os.posix_fallocate(filling.fileno(), 0, filled)
                for number in range(SIZES):
                    way = WAYS[number % 2]
                    with self.subTest(kind=kind, number=number, way=way):
                        os.truncate(folder / "filling", filled - number * status.f_bsize)
                        movie = folder / "movie.mov"
                        self.record(movie, H264, way=way, status=1)
                        self.assert_begins(movie, reference)
                        self.assertGreater(movie.stat().st_size, room - MIB)
                        movie.unlink()


if __name__ == "__main__":
    unittest.main()
