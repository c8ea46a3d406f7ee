"""Many clients at once, each with its own mix of requests: every reply right, every
acknowledged change kept, and no memory growth from one identical round to the next."""

import asyncio
import random
import re
import resource
import time

from nightjar_client import OK, Client, authorization_form, socket_path
from nightjar_harness import once_event, saved_ids
from stress_harness import CLIENTS, FAR, REQUESTS, call, connect, percentiles

SEED = 20261125
IDS_PER_CLIENT = 3
VERSION = {"status": 200, "response": "nightjard v3.7.3"}


def remove_event(uniqueid, model):
    status = 200 if uniqueid in model else 400
    model.discard(uniqueid)
    return "scheduler.remove", uniqueid, {"status": status}


# kind -> (request name, parameter, expected reply), given and updating the client's model.
KINDS = {
    "set": lambda uniqueid, model: model.add(uniqueid) or (
        "scheduler.set", once_event(uniqueid, "restart", FAR), OK),
    "remove": remove_event,
    "read": lambda uniqueid, model: ("build.version", None, VERSION),
    "delay": lambda uniqueid, model: ("notifications.delay",
                                      {"seconds": 60, "uniqueid": uniqueid}, OK),
}


def plan(number):
    """Client `number`'s requests on its own events: the same in every round."""
    rng = random.Random(SEED * 100_003 + number)
    return [(rng.choice(list(KINDS)), f"c{number}-{rng.randrange(IDS_PER_CLIENT)}")
            for _ in range(REQUESTS)]


async def run_client(path, number, model, authorization, latencies, refused):
    reader, writer = await connect(path, refused)
    try:
        for identifier, (kind, uniqueid) in enumerate(plan(number), 1):
            name, parameter, expected = KINDS[kind](uniqueid, model)
            request = {"Request": name, "Authorization": authorization}
            if parameter is not None:
                request["Parameter"] = parameter
            started = time.monotonic()
            reply = await call(reader, writer, identifier, request)
            latencies.append(time.monotonic() - started)
            assert reply == expected, (number, identifier, name, uniqueid, reply)
    finally:
        writer.close()


async def one_round(path, models):
    latencies, refused, authorization = [], [0], authorization_form()
    await asyncio.gather(*(run_client(path, number, model, authorization, latencies, refused)
                           for number, model in enumerate(models)))
    return latencies, refused[0]


def test_many_clients_get_right_replies_and_lose_nothing(start_daemon, root):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, CLIENTS + 256)), hard))
    daemon = start_daemon()
    assert daemon.wait_running()
    path = socket_path(root)
    models = [set() for _ in range(CLIENTS)]
    rss = []
    for number in (1, 2):
        started = time.monotonic()
        latencies, refused = asyncio.run(one_round(path, models))
        elapsed = time.monotonic() - started
        expected = set().union(*models)
        with Client(path, timeout=60) as client:
            listed = client.call("scheduler.events")["response"]
        assert {event["uniqueid"] for event in listed} == expected
        assert saved_ids(root) == expected
        with open(f"/proc/{daemon.process.pid}/status") as status:
            rss.append(int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1)))
        percentiles(f"load round {number}, {CLIENTS} clients x {REQUESTS} requests", latencies)
        print(f"load round {number}: {elapsed:.1f} s, {len(expected)} events, {refused} connects "
              f"refused by the backlog and retried, daemon RSS {rss[-1]} KiB")
    assert rss[1] <= rss[0] + 1024, rss
    assert daemon.process.poll() is None
