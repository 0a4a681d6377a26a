"""A disk that forgets what was not flushed: an NBD server over an image file.

Writes are kept in memory, where reads find them, until the machine flushes; only then they reach the file. When the machine's
power is cut, each write that was not flushed is kept or lost by chance, the last one perhaps in part: a disk may have written any
of them by then, in any order, and a sector is the least that it writes as a whole.
"""
import os
import random
import socket
import struct
import threading

SECTOR = 512
PAGE = 4096
# The protocol's numbers: https://github.com/NetworkBlockDevice/nbd/blob/master/doc/proto.md
OPTION_EXPORT, OPTION_ABORT, OPTION_INFO, OPTION_GO = 1, 2, 6, 7
REPLY_ACK, REPLY_INFO, REPLY_UNSUPPORTED = 1, 3, 0x80000001
READ, WRITE, DISCONNECT, FLUSH = range(4)
FLAG_FUA = 1
# Has flags, can flush, can write through.
FEATURES = 1 | 4 | 8


class Disk:
    """Serves one machine at a time at a Unix socket, on a thread of its own. Cut() may be called once the machine is gone."""

    def __init__(self, image, path):
        self.size = os.path.getsize(image)
        self.file = os.open(image, os.O_RDWR)
        self.pages = {}
        self.writes = []
        self.flushes = 0
        self.idle = threading.Event()
        self.idle.set()
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen(1)
        threading.Thread(target=self.serve, name="disk", daemon=True).start()

    def serve(self):
        while True:
            connection, _ = self.listener.accept()
            self.idle.clear()
            try:
                with connection, connection.makefile("rb") as stream:
                    if self.greet(connection, stream):
                        self.answer(connection, stream)
            except (OSError, struct.error):
                pass  # the machine is gone
            self.idle.set()

    def greet(self, connection, stream):
        connection.sendall(b"NBDMAGICIHAVEOPT" + struct.pack(">H", 3))
        plain = not struct.unpack(">I", stream.read(4))[0] & 2
        while True:
            _, option, length = struct.unpack(">8sII", stream.read(16))
            stream.read(length)
            if option == OPTION_EXPORT:
                connection.sendall(struct.pack(">QH", self.size, FEATURES) + (bytes(124) if plain else b""))
                return True
            if option in (OPTION_INFO, OPTION_GO):
                self.reply_to_option(connection, option, REPLY_INFO, struct.pack(">HQH", 0, self.size, FEATURES))
                self.reply_to_option(connection, option, REPLY_ACK, b"")
                if option == OPTION_GO:
                    return True
            else:
                self.reply_to_option(connection, option, REPLY_ACK if option == OPTION_ABORT else REPLY_UNSUPPORTED, b"")
                if option == OPTION_ABORT:
                    return False

    @staticmethod
    def reply_to_option(connection, option, kind, data):
        connection.sendall(struct.pack(">QIII", 0x3E889045565A9, option, kind, len(data)) + data)

    def answer(self, connection, stream):
        while True:
            header = stream.read(28)
            if len(header) < 28:
                return
            _, flags, kind, handle, offset, length = struct.unpack(">IHHQQI", header)
            data = b""
            if kind == DISCONNECT:
                return
            if kind == READ:
                data = self.read(offset, length)
            elif kind == WRITE:
                written = stream.read(length)
                if len(written) < length:
                    return  # died in the middle of it; the disk has not taken it
                self.write(offset, written)
            if kind == FLUSH or (kind == WRITE and flags & FLAG_FUA):
                self.flush()
            connection.sendall(struct.pack(">IIQ", 0x67446698, 0, handle) + data)

    def read(self, offset, length):
        data = bytearray(os.pread(self.file, length, offset))
        if self.pages:
            for page in range(offset // PAGE, (offset + length - 1) // PAGE + 1):
                held = self.pages.get(page)
                if held is not None:
                    begin, end = max(offset, page * PAGE), min(offset + length, (page + 1) * PAGE)
                    data[begin - offset:end - offset] = held[begin - page * PAGE:end - page * PAGE]
        return bytes(data)

    def write(self, offset, data):
        for page in range(offset // PAGE, (offset + len(data) - 1) // PAGE + 1):
            held = self.pages.get(page)
            if held is None:
                held = self.pages[page] = bytearray(os.pread(self.file, PAGE, page * PAGE))
            begin, end = max(offset, page * PAGE), min(offset + len(data), (page + 1) * PAGE)
            held[begin - page * PAGE:end - page * PAGE] = data[begin - offset:end - offset]
        self.writes.append((offset, data))

    def flush(self):
        for offset, data in self.writes:
            os.pwrite(self.file, data, offset)
        self.writes.clear()
        self.pages.clear()
        self.flushes += 1

    def cut(self, chance: random.Random):
        """Loses what was not flushed, or a part of it. The number of writes that were kept, and that were lost."""
        self.idle.wait(30)
        share = chance.choice([0.0, chance.random(), 1.0])
        kept = [write for write in self.writes if chance.random() < share]
        lost = len(self.writes) - len(kept)
        if self.writes and chance.random() < 0.5:
            offset, data = self.writes[-1]
            kept.append((offset, data[:chance.randrange(len(data) // SECTOR + 1) * SECTOR]))
        self.writes = kept
        self.flush()
        return len(kept), lost
