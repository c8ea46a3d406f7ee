"""What the stress tests share: sizes, an asynchronous client for many connections at once, a
well-behaved probe client, and the figures they print (never asserted against a time)."""

import asyncio
import concurrent.futures
import os
import socket
import time

from nightjar_client import HEADER, Client, encode_request, split_reply
from nightjar_harness import once_event, utc_in

# NIGHTJAR_STRESS_SIZE=full runs the sizes meant for a run by hand; "CxR" any other load.
SIZE = os.environ.get("NIGHTJAR_STRESS_SIZE", "ci")
FULL = SIZE != "ci"
CLIENTS, REQUESTS = {"ci": (100, 20), "full": (1000, 100)}.get(SIZE) or \
    tuple(int(n) for n in SIZE.split("x"))
PROBE_REQUESTS = 400 if FULL else 60
WELL_BEHAVED_WAIT = 2.0  # a bound on starvation, not a latency figure
FAR = utc_in(30 * 86400)  # events that never come due during a test
WAITING_CONNECTS = concurrent.futures.ThreadPoolExecutor(8)


def percentiles(name, seconds):
    ordered = sorted(seconds) or [0.0]
    pick = lambda share: ordered[min(len(ordered) - 1, int(share * len(ordered)))] * 1000
    print(f"\n{name}: {len(seconds)} replies, p50 {pick(0.5):.2f} ms, p99 {pick(0.99):.2f} ms, "
          f"max {ordered[-1] * 1000:.2f} ms")


async def connect(path, refused):
    """Connects; refused by a full backlog (counted in `refused[0]`), waits its turn blocking."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.setblocking(False)
    try:
        sock.connect(str(path))
    except BlockingIOError:
        refused[0] += 1
        sock.close()
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        await asyncio.get_running_loop().run_in_executor(WAITING_CONNECTS, sock.connect,
                                                         str(path))
        sock.setblocking(False)
    return await asyncio.open_unix_connection(sock=sock, limit=1 << 20)


async def call(reader, writer, identifier, request):
    writer.write(encode_request(identifier, request))
    await writer.drain()
    head = await reader.readexactly(HEADER.size)
    reply, _ = split_reply(head + await reader.readexactly(HEADER.unpack(head)[3] - HEADER.size))
    assert reply.identifier == identifier, (reply.identifier, identifier)
    return reply.value


def probe(path, count, prefix="probe"):
    """A well-behaved client's latencies: each reply right and within WELL_BEHAVED_WAIT."""
    latencies = []
    with Client(path, timeout=WELL_BEHAVED_WAIT) as client:
        for number in range(count):
            uniqueid = f"{prefix}-{number % 4}"
            name, parameter = (("scheduler.set", once_event(uniqueid, "restart", FAR))
                               if number % 8 < 4 else ("scheduler.remove", uniqueid))
            started = time.monotonic()
            assert client.call(name, parameter) == {"status": 200}, (name, number)
            latencies.append(time.monotonic() - started)
    return latencies
