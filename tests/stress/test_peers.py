"""Hostile peers beside a well-behaved client, whose replies keep coming, each within 2 s."""

import contextlib
import os
import random
import socket
import threading
import time

import pytest

from nightjar_client import (DICT, NOOP, Client, ConnectionClosed, bare_message, dict_message,
                             header, socket_path)
from nightjar_harness import NOBODY, as_user
from stress_harness import PROBE_REQUESTS, percentiles, probe

REFUSALS = 3000
REFUSAL_LINES_PER_SECOND = 50


@contextlib.contextmanager
def peers(path, count, start, again=False):
    """`count` raw peers that each do `start(peer)`, and with `again` do it again until the test
    is done."""
    sockets, done = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) for _ in range(count)], \
        threading.Event()
    for peer in sockets:
        peer.connect(str(path))
        start(peer)

    def repeat(peer):
        with contextlib.suppress(OSError):
            while not done.is_set():
                start(peer)
    threads = [threading.Thread(target=repeat, args=(peer,)) for peer in sockets if again]
    for thread in threads:
        thread.start()
    yield
    done.set()
    for thread in threads:
        thread.join(timeout=10)
    for peer in sockets:
        peer.close()


def fill(peer):
    """Sends until the socket's buffer is full: the peer never reads its replies."""
    peer.setblocking(False)
    with contextlib.suppress(BlockingIOError, ConnectionResetError, BrokenPipeError):
        while True:
            peer.send(bare_message(NOOP, 1) * 4096)


@contextlib.contextmanager
def closed_after(messages, path):
    """Peers that each send one of `messages`; each must be closed by the daemon."""
    clients = [Client(path) for _ in messages]
    for client, message in zip(clients, messages):
        client.send_raw(message)
    yield
    for client, message in zip(clients, messages):
        assert client.is_closed_by_daemon(), message[:16]
        client.close()


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

    with as_user(NOBODY, os.path.dirname(path), open_until_closed) as answer:
        kept = answer()
        print(f"\n{kept} idle connections held by uid {NOBODY}")
        assert kept == 64 if cap else 0 < kept < 64
        yield


@contextlib.contextmanager
def refusals_in_a_loop(daemon, path):
    def refuse():
        with Client("api", timeout=10) as client:
            return sum(client.call("bogus.thing")["error"] == 500 for _ in range(REFUSALS))

    started = time.monotonic()
    with as_user(NOBODY, os.path.dirname(path), refuse) as answer:
        yield
        assert answer(timeout=120) == REFUSALS
    seconds = time.monotonic() - started
    lines = [m for m in daemon.messages() if "Authorization refused: " in m]
    print(f"{REFUSALS} refusals in {seconds:.1f} s: {len(lines)} lines logged")
    assert len(lines) <= REFUSAL_LINES_PER_SECOND * (seconds + 2)


# Each read to its end and never answered: the flood must hold back no other reply.
UNPARSABLE = dict_message(0, b"<plist><array>" + b"<string>unclosed</string>" * 4000) * 20
RANDOM = random.Random(20261125).randbytes(8 * 65536)

# (row, RLIMIT_NOFILE of the daemon, the peers beside the well-behaved client)
PEERS = [
    ("never-reading clients", None, lambda d, p: peers(p, 8, fill)),
    ("half a message, then silence", None, lambda d, p: peers(
        p, 32, lambda peer: peer.sendall(header(DICT, 1, 400) + bytes(30)))),
    ("unparsable requests without end", None, lambda d, p: peers(
        p, 2, lambda peer: peer.sendall(UNPARSABLE), again=True)),
    ("lengths 0, 15, 102 401 and 2^32-1", None, lambda d, p: closed_after(
        [header(DICT, 1, length) + bytes(64) for length in (0, 15, 102_401, 2**32 - 1)], p)),
    ("random bytes", None, lambda d, p: closed_after(
        [RANDOM[n * 65536:(n + 1) * 65536] for n in range(8)], p)),
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
