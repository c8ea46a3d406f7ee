"""Acknowledged changes reach the disk before their reply."""

import os
import random
import signal
import threading
import time

from nightjar_client import OK, ConnectionClosed
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
    with start_daemon(running=True).client(timeout=30.0) as client:
        listed = {e["uniqueid"] for e in client.call("scheduler.events")["response"]}
    missing = set(acknowledged) - listed
    assert not missing, f"seed {SEED}: not listed after restart: {sorted(missing)[:10]}"
