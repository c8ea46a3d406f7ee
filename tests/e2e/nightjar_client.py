"""A small client of the daemon's API socket, for the end-to-end tests.

Framing: four little-endian 32-bit words (magic "NJAP", type, identifier, whole length); a
DICT and the RPLY to it add a reserved word and the payload length, then an XML property
list. A NOOP's answer is a 20-byte RPLY. Type codes put their first character in the most
significant byte, so DICT travels as b"TCID". The authorization form is 32 bytes: b"NJAZ",
version 1, pid, uid, start time (field 22 of /proc/<pid>/stat), eight zero bytes.
"""

import collections
import os
import plistlib
import socket
import struct

# Stretches every time-out, for a slower build of the daemon (the sanitizer one).
TIMEOUT_FACTOR = float(os.environ.get("NIGHTJAR_TIMEOUT_FACTOR", "1"))
MAGIC, DICT, NOOP, GDBY, RPLY = 0x4E4A4150, 0x44494354, 0x4E4F4F50, 0x47444259, 0x52504C59
HEADER = struct.Struct("<IIII")
PAYLOAD_OFFSET = 24
OK = {"status": 200}


def socket_path(root):
    """The API socket under a daemon root."""
    return os.path.join(str(root), "var/tmp/quillon.nightjar/api")


def process_start_time():
    """Field 22 of /proc/self/stat, counted from the last ")" (the name may hold one)."""
    with open("/proc/self/stat", "rb") as stat:
        line = stat.read()
    return int(line[line.rindex(b")") + 2:].split()[19])


def authorization_form(start_time=None):
    """The 32-byte form for this process; its start time may be forged for a test."""
    start_time = process_start_time() if start_time is None else start_time
    return b"NJAZ" + struct.pack("<IIIQQ", 1, os.getpid(), os.getuid(), start_time, 0)


def header(message_type, identifier, length):
    return HEADER.pack(MAGIC, message_type, identifier, length)


def dict_message(identifier, payload):
    """A DICT carrying `payload` bytes."""
    return header(DICT, identifier, PAYLOAD_OFFSET + len(payload)) + \
        struct.pack("<II", 0, len(payload)) + payload


def encode_request(identifier, request):
    """A DICT carrying `request` (a dict, or any plistlib value) as XML."""
    return dict_message(identifier, plistlib.dumps(request, fmt=plistlib.FMT_XML))


def bare_message(message_type, identifier):
    """A header-only message: NOOP or GDBY."""
    return header(message_type, identifier, HEADER.size)


def split_reply(data):
    """(the first RPLY in `data`, the bytes after it), or None while it is not all there."""
    if len(data) < HEADER.size:
        return None
    _, kind, identifier, length = HEADER.unpack_from(data)
    if kind != RPLY or length < 20 or (20 < length < PAYLOAD_OFFSET):
        raise ValueError(f"not a reply: type {kind:#x}, length {length}")
    if len(data) < length:
        return None
    size = struct.unpack_from("<I", data, 20)[0] if length > 20 else 0
    return Reply(identifier, data[PAYLOAD_OFFSET:PAYLOAD_OFFSET + size]), data[length:]


class ConnectionClosed(Exception):
    """The daemon closed the connection."""


class Reply(collections.namedtuple("Reply", "identifier payload")):
    """One RPLY: its identifier, its raw payload, and (`value`) the payload parsed."""

    @property
    def value(self):
        return plistlib.loads(self.payload) if self.payload else None


class Client:
    """One connection to the daemon's socket (a blocking connect waits for the backlog)."""

    def __init__(self, path, timeout=5.0):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(str(path))
        self.socket.settimeout(timeout * TIMEOUT_FACTOR)
        self._buffer, self._next_identifier = b"", 1

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def send_raw(self, data):
        self.socket.sendall(data)

    def send(self, request):
        """Sends a DICT request; answers the identifier it carries."""
        identifier, self._next_identifier = self._next_identifier, self._next_identifier + 1
        self.send_raw(encode_request(identifier, request))
        return identifier

    def receive(self):
        """The next reply; ConnectionClosed when the daemon closed instead."""
        while not (split := split_reply(self._buffer)):
            chunk = self.socket.recv(65536)
            if not chunk:
                raise ConnectionClosed()
            self._buffer += chunk
        reply, self._buffer = split
        return reply

    def request(self, request):
        """Sends `request` and answers the parsed reply to it."""
        identifier = self.send(request)
        reply = self.receive()
        assert reply.identifier == identifier, (reply.identifier, identifier)
        return reply.value

    def call(self, name, parameter=None):
        """{"Request": name, "Authorization": this process's form[, "Parameter"]}."""
        request = {"Request": name, "Authorization": authorization_form()}
        if parameter is not None:
            request["Parameter"] = parameter
        return self.request(request)

    def ok(self, name, parameter=None):
        """call() that must answer {"status": 200}."""
        reply = self.call(name, parameter)
        assert reply == OK, (name, parameter, reply)

    def noop(self, identifier=0):
        self.send_raw(bare_message(NOOP, identifier))
        return self.receive()

    def is_closed_by_daemon(self, timeout=2.0):
        """True once the daemon closed the connection (after any pending bytes)."""
        self.socket.settimeout(timeout)
        try:
            while chunk := self.socket.recv(65536):
                self._buffer += chunk
            return True
        except socket.timeout:
            return False
        except ConnectionResetError:
            return True
