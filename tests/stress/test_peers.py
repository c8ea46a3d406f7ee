"""Hostile peers beside a well-behaved client, whose replies keep coming, each within 2 s."""

import contextlib
import os
import random
import socket
import threading
import time

import pytest

from nightjar_client import DICT, NOOP, Client, ConnectionClosed, bare_message, header, \
    socket_path
from nightjar_harness import NOBODY, as_user
from stress_harness import PROBE_REQUESTS, percentiles, probe

REFUSALS = 3000
REFUSAL_LINES_PER_SECOND = 50


def raw(path):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.connect(str(path))
    return peer


@contextlib.contextmanager
def never_reading(daemon, path):
    peers = [raw(path) for _ in range(8)]
    for peer in peers:
        peer.setblocking(False)
        with contextlib.suppress(BlockingIOError, ConnectionResetError, BrokenPipeError):
            while True:
                peer.send(bare_message(NOOP, 1) * 4096)
    yield
    for peer in peers:
        peer.close()


@contextlib.contextmanager
def half_messages(daemon, path):
    peers = [raw(path) for _ in range(32)]
    for peer in peers:
        peer.sendall(header(DICT, 1, 400) + bytes(30))
    yield
    for peer in peers:
        peer.close()


@contextlib.contextmanager
def closed_after(messages, path):
    """Peers that each send one of `messages`; each must be closed by the daemon."""
    peers = [Client(path) for _ in messages]
    for peer, message in zip(peers, messages):
        peer.send_raw(message)
    yield
    for peer, message in zip(peers, messages):
        assert peer.is_closed_by_daemon(), message[:16]
        peer.close()


def bad_lengths(daemon, path):
    return closed_after([header(DICT, 1, length) + bytes(64)
                         for length in (0, 15, 102_401, 2**32 - 1)], path)


def random_bytes(daemon, path):
    rng = random.Random(20261125)
    return closed_after([rng.randbytes(65536) for _ in range(8)], path)


@contextlib.contextmanager
def idle_connections(daemon, path, cap=True):
    """As a non-root user, opens idle connections until the daemon closes one."""
    def open_until_closed():
        held = []
        for number in range(100):
            held.append(Client("api", timeout=2))
            try:
                held[-1].noop(number)
            except (ConnectionClosed, OSError):
                held.pop().close()
                break
        return len(held)

    with as_user(NOBODY, os.path.dirname(path), open_until_closed) as kept:
        print(f"\n{kept} idle connections held by uid {NOBODY}")
        assert kept == 64 if cap else 0 < kept < 64
        yield


@contextlib.contextmanager
def refusals_in_a_loop(daemon, path):
    def refuse():
        with Client("api", timeout=10) as client:
            return sum(client.call("bogus.thing")["error"] == 500 for _ in range(REFUSALS))

    answers = []
    started = time.monotonic()
    with contextlib.ExitStack() as stack:
        thread = threading.Thread(target=lambda: answers.append(stack.enter_context(
            as_user(NOBODY, os.path.dirname(path), refuse))))
        thread.start()
        yield
        thread.join(timeout=120)
    seconds = time.monotonic() - started
    assert answers == [REFUSALS]
    lines = [m for m in daemon.messages() if "Authorization refused: " in m]
    print(f"{REFUSALS} refusals in {seconds:.1f} s: {len(lines)} lines logged")
    assert len(lines) <= REFUSAL_LINES_PER_SECOND * (seconds + 2)


# (row, RLIMIT_NOFILE of the daemon, the peers beside the well-behaved client)
PEERS = [
    ("never-reading clients", None, never_reading),
    ("half a message, then silence", None, half_messages),
    ("lengths 0, 15, 102 401 and 2^32-1", None, bad_lengths),
    ("random bytes", None, random_bytes),
    ("idle connections up to the per-uid cap", None, idle_connections),
    ("low RLIMIT_NOFILE", (96, 96), lambda d, p: idle_connections(d, p, cap=False)),
    ("refused requests in a loop", None, refusals_in_a_loop),
]


@pytest.mark.parametrize("row,nofile,peers", PEERS, ids=[row for row, _, _ in PEERS])
def test_a_well_behaved_client_is_served_beside_hostile_peers(start_daemon, root, row, nofile,
                                                              peers):
    daemon = start_daemon(nofile=nofile)
    assert daemon.wait_running()
    path = socket_path(root)
    with peers(daemon, path):
        latencies = probe(path, PROBE_REQUESTS)
    percentiles(f"well-behaved client beside {row}", latencies)
    assert daemon.process.poll() is None
    assert probe(path, 8, "after") and daemon.process.poll() is None
