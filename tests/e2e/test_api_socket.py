"""The API socket seen from outside: its node and its framing (hostile peers: tests/stress)."""

import os
import stat
import struct

import pytest

from nightjar_client import (DICT, GDBY, NOOP, Client, bare_message, dict_message,
                             encode_request, header, socket_path)


@pytest.fixture
def path(daemon, root):
    return socket_path(root)


def test_the_node_answers_and_goes_with_the_daemon(daemon, path):
    assert stat.S_ISSOCK(os.stat(path).st_mode)
    assert stat.S_IMODE(os.stat(path).st_mode) == 0o777
    assert stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode) == 0o755
    with Client(path) as client:
        reply = client.noop(7)
        assert (reply.identifier, reply.payload) == (7, b"")
        assert client.call("build.version") == {"status": 200, "response": "nightjard v3.7.3"}
        # Split to single bytes, joined, and unparsable (no reply): answered in order.
        for byte in encode_request(1, {"Request": "build.version"}):
            client.send_raw(bytes([byte]))
        assert client.receive().identifier == 1
        client.send_raw(encode_request(2, {"Request": "a"}) + bare_message(NOOP, 3)
                        + dict_message(4, b"<plist>") + encode_request(5, {"Request": "b"}))
        assert [client.receive().identifier for _ in range(3)] == [2, 3, 5]
    daemon.stop()
    assert not os.path.exists(path)
    assert os.path.isdir(os.path.dirname(path))


FAULTS = {
    "unknown type": header(0x41424344, 1, 16),
    "the client leaves": bare_message(GDBY, 1),
    "NOOP under 16 bytes": header(NOOP, 1, 15),
    "DICT under 24 bytes": header(DICT, 1, 23) + bytes(7),
    "payload past the end": header(DICT, 1, 30) + struct.pack("<II", 0, 7) + b"abcdef",
    "too long: closed on the header alone": header(DICT, 1, 102401),
}


def test_every_fault_closes_that_connection_only(path):
    with Client(path) as bystander:
        for number, (fault, message) in enumerate(FAULTS.items()):
            with Client(path) as client:
                client.send_raw(message)
                assert client.is_closed_by_daemon(), fault
            assert bystander.noop(number).identifier == number, fault
