"""Acknowledged changes reach the disk before their reply, whatever else the socket carries."""

import os
import random
import signal
import threading
import time

from nightjar_client import OK, ConnectionClosed, dict_message
from nightjar_harness import once_event, saved_ids, utc_in

CRASH_KILLS = int(os.environ.get("NIGHTJAR_CRASH_KILLS", "200"))
SEED = 20261123


def send_until_closed(daemon, prefix, date, acknowledged):
    """Sends new events until the daemon goes away; records each one answered 200."""
    try:
        with daemon.client() as client:
            for number in range(1_000_000):
                uniqueid = f"{prefix}-{number}"
                if client.call("scheduler.set", once_event(uniqueid, "restart", date)) == OK:
                    acknowledged.append(uniqueid)
    except (ConnectionClosed, OSError):
        pass


def test_kill_9_at_random_moments_loses_no_acknowledged_event(start_daemon, root):
    rng = random.Random(SEED)
    date = utc_in(7 * 86400)
    acknowledged = []
    for round_number in range(CRASH_KILLS):
        context = f"seed {SEED}, round {round_number}"
        daemon = start_daemon()
        assert daemon.wait_running(timeout=10), context
        sender = threading.Thread(target=send_until_closed,
                                  args=(daemon, f"r{round_number}", date, acknowledged))
        sender.start()
        time.sleep(rng.uniform(0.003, 0.1))
        daemon.signal(signal.SIGKILL)
        daemon.wait()
        sender.join(timeout=10)
        assert not sender.is_alive(), context
        # A file that does not parse raises here: that is the fault under test too.
        missing = set(acknowledged) - (saved_ids(root) if acknowledged else set())
        assert not missing, f"{context}: acknowledged but not saved: {sorted(missing)[:10]}"

    assert acknowledged, f"seed {SEED}: no change was ever acknowledged"
    daemon = start_daemon()
    assert daemon.wait_running(timeout=10)
    with daemon.client(timeout=30.0) as client:
        listed = {e["uniqueid"] for e in client.call("scheduler.events")["response"]}
    missing = set(acknowledged) - listed
    assert not missing, f"seed {SEED}: not listed after restart: {sorted(missing)[:10]}"


def flood(daemon, started, stop):
    """Sends DICT messages that get no reply: each is read to its end and never closed."""
    burst = dict_message(0, b"<plist><array>" + b"<string>unclosed</string>" * 4000) * 20
    with daemon.client() as client:
        client.send_raw(burst)
        started.release()
        while not stop.is_set():
            client.send_raw(burst)


def test_a_flood_of_unparsable_requests_holds_back_no_other_reply(daemon, root):
    started, stop = threading.Semaphore(0), threading.Event()
    flooders = [threading.Thread(target=flood, args=(daemon, started, stop)) for _ in range(2)]
    for flooder in flooders:
        flooder.start()
    try:
        assert started.acquire(timeout=10) and started.acquire(timeout=10)
        # Two seconds catch a reply held for as long as the flood goes on, not a slow one.
        with daemon.client(timeout=2.0) as client:
            client.ok("scheduler.set", once_event("calm", "restart", utc_in(3600)))
            assert "calm" in saved_ids(root)
    finally:
        stop.set()
        for flooder in flooders:
            flooder.join(timeout=10)
