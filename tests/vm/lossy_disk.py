"""A disk whose power can be cut: it loses, reorders and tears what it was not told to flush.

It is a server of the network block protocol on a socket of its own, for an emulator in this machine. What the
machine writes goes into a volatile cache, from which the machine reads it back; a flush, and a write with force unit
access, brings it to the medium, which is an image file. When the power is cut, each write that is still in the cache
has reached the medium or has not, whatever came before or after it, and some only with part of their sectors.
"""
import os
import pathlib
import socket
import struct
import subprocess
import threading

SECTOR = 512
TORN = 0.2  # of the writes that reach the medium, how many do so in part

_HANDSHAKE, _OPTION, _OPTION_REPLY = b"NBDMAGIC", 0x49484156454F5054, 0x3E889045565A9
_REQUEST, _REPLY = 0x25609513, 0x67446698
_INFO, _GO, _ABORT = 6, 7, 2
_ACKNOWLEDGED, _INFO_REPLY, _UNSUPPORTED = 1, 3, 0x80000001
_FEATURES = 1 | 4 | 8  # flags are there, can flush, knows force unit access
_READ, _WRITE, _DISCONNECT, _FLUSH = 0, 1, 2, 3
_INVALID = 22


class LossyDisk:
    """The disk with the content of the image file MEDIUM. Serves one machine, in a thread of its own."""

    def __init__(self, medium):
        self.medium = pathlib.Path(medium)
        self.cached = self.medium.with_suffix(".cached")
        # Apart, since the medium must not hold what only the cache does.
        subprocess.run(["cp", "--sparse=always", self.medium, self.cached], check=True)
        self.size = self.medium.stat().st_size
        self.pending = []  # (offset, bytes) in the order in which the machine wrote
        self.flushes = 0
        self._fails_at = None
        self.failed = threading.Event()
        self.path = self.medium.with_suffix(".socket")
        self.path.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(self.path))
        self._listener.listen(1)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def fail_at(self, count):
        """From when so many writes are not flushed it answers nothing more, and `failed` is set."""
        self._fails_at = count

    def cut(self, chance):
        """After the machine is gone: what reached the medium. Returns how many writes were lost or torn, of how many
        that were not flushed."""
        self._end()
        kept = chance.choice((0, 0.5, 0.9))
        lost = 0
        with open(self.medium, "r+b", buffering=0) as medium:
            for offset, data in self.pending:
                if chance.random() >= kept:
                    lost += 1
                    continue
                if chance.random() < TORN:
                    lost += 1
                    first, end = sorted(SECTOR * chance.randrange(len(data) // SECTOR + 1) for _ in range(2))
                    offset, data = offset + first, data[first:end]
                os.pwrite(medium.fileno(), data, offset)
        return lost, len(self.pending)

    def close(self):
        """After the machine has switched off: everything reached the medium."""
        self._end()
        with open(self.medium, "r+b", buffering=0) as medium:
            self._bring(medium.fileno())

    def _end(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()
        self.path.unlink()
        self.cached.unlink()

    def _bring(self, medium):
        for offset, data in self.pending:
            os.pwrite(medium, data, offset)
        self.pending = []

    def _serve(self):
        try:
            link, _ = self._listener.accept()
        except OSError:  # no machine came
            return
        with link, open(self.medium, "r+b", buffering=0) as medium, open(self.cached, "r+b", buffering=0) as cached:
            try:
                if self._agree(link):
                    while self._answer(link, medium.fileno(), cached.fileno()):
                        pass
                while link.recv(1 << 20):
                    pass
            except (EOFError, ConnectionError):
                pass  # the machine is gone

    def _agree(self, link):
        link.sendall(struct.pack(">8sQH", _HANDSHAKE, _OPTION, 3))  # no padding, options are answered one by one
        _take(link, 4)
        while True:
            _, option, length = struct.unpack(">QII", _take(link, 16))
            _take(link, length)

            def reply(kind, data=b""):
                link.sendall(struct.pack(">QIII", _OPTION_REPLY, option, kind, len(data)) + data)

            if option in (_INFO, _GO):
                reply(_INFO_REPLY, struct.pack(">HQH", 0, self.size, _FEATURES))
                reply(_INFO_REPLY, struct.pack(">HIII", 3, SECTOR, 4096, 32 << 20))
                reply(_ACKNOWLEDGED)
                if option == _GO:
                    return True
            elif option == _ABORT:
                reply(_ACKNOWLEDGED)
                return False
            else:
                reply(_UNSUPPORTED)

    def _answer(self, link, medium, cached):
        magic, flags, kind, handle, offset, length = struct.unpack(">IHHQQI", _take(link, 28))
        if magic != _REQUEST or kind == _DISCONNECT:
            return False
        error, data = 0, b""
        if kind == _READ:
            data = os.pread(cached, length, offset)
        elif kind == _WRITE:
            written = _take(link, length)
            os.pwrite(cached, written, offset)
            self.pending.append((offset, written))
            if self._fails_at is not None and len(self.pending) >= self._fails_at:
                self.failed.set()
                return False
            if flags & 1:
                # More than it must: what was written before comes along, so that the order stays as it was.
                self._bring(medium)
        elif kind == _FLUSH:
            self._bring(medium)
            self.flushes += 1
        else:
            error = _INVALID
        link.sendall(struct.pack(">IIQ", _REPLY, error, handle) + data)
        return True


def _take(link, count):
    data = bytearray(count)
    view, got = memoryview(data), 0
    while got < count:
        more = link.recv_into(view[got:])
        if more == 0:
            raise EOFError
        got += more
    return data
