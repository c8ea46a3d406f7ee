#!/usr/bin/python3
"""The daemon's costs measured from outside, on the real nightjard.

Each size gets a temporary root holding a saved state of that many daily events
with 255-character names, a notify period of a day (so every event carries a
pending warning) and times of day at least an hour ahead (so none fires during
the run). The state is made by the daemon itself: the events alone are written,
then a daemon without a bus turns the scheduler off and on, which queues and
warns every event and saves the whole state.

Then, for each size, beside a private system bus with a mocked logind:
  - start-up: from the start of the process to the socket accepting and to the
    first reply ("build.version");
  - resident memory (VmRSS) once started and again after the sets below, and
    per event against an empty state once started;
  - the round trip of "scheduler.events", the reply parsed (and the parse alone);
  - context switches of the idle daemon over a window;
  - "scheduler.set" acknowledged over the socket, beside the same durable writes
    done bare in the same folder: the state file's bytes as the set left them,
    plus the wake-entry file's when the set changed it (temporary file, write,
    fsync, rename, fsync of the folder, as the daemon does);
  - lateness of "event.willperform" behind the trigger dates of a few events
    due seconds ahead (their action, a user switch, is skipped: nobody is at
    the console).

Run as root from a release build: bench/blackbox.py [--quick] [--json FILE].
"""

import argparse
import datetime
import json
import os
import plistlib
import random
import statistics
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from nightjar_client import Client, authorization_form, socket_path  # noqa: E402
from nightjar_harness import (STATE_FILE, WAKE_ENTRIES_FILE, BroadcastListener,  # noqa: E402
                              Daemon, DbusMock, PrivateBus, daily_event, epoch, install_rights,
                              make_root, utc_in, wait_until)
from gi.repository import GLib  # noqa: E402

NAME_LENGTH = 255
NOTIFY_PERIOD = 86400.0
EARLIEST_AHEAD = 3600  # no daily event is due sooner than this after the start
SPREAD = 72000  # the daily events' times of day spread over this many seconds
PERFORM_SPACING = 3  # seconds between the lateness events: performing pauses 2 s
REPLY_TIMEOUT = 600.0


def percentile(samples, share):
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def milliseconds(seconds):
    return round(seconds * 1000.0, 3)


class TimedListener(BroadcastListener):
    """The daemon's broadcasts, each with the wall-clock time it arrived: a thread
    of its own dispatches them as they come, so the times are not those of a poll."""

    def __init__(self, bus):
        self.arrivals = []
        super().__init__(bus)
        self._connection.add_signal_receiver(
            lambda name, info: self.arrivals.append((time.time(), str(name), str(info))),
            signal_name="Notification", dbus_interface="quillon.nightjar",
            path="/quillon/nightjar")
        self._stopping = threading.Event()
        self._pump = threading.Thread(target=self._dispatch, daemon=True)
        self._pump.start()

    def _dispatch(self):
        context = GLib.MainContext.default()
        while not self._stopping.is_set():
            if not context.iteration(False):
                time.sleep(0.0005)

    def wait_for(self, name, count=1, timeout=5.0):
        return wait_until(lambda: [n for _, n, _ in self.arrivals].count(name) >= count,
                          timeout)

    def stop(self):
        self._stopping.set()
        self._pump.join()
        super().stop()


class Workload:
    """The daily events of one size, and the times of day they may move to."""

    def __init__(self, count, seed=17):
        self.random = random.Random(seed)
        now = utc_in(0)
        self.start_of_day = now.hour * 3600 + now.minute * 60 + now.second
        self.events = [self.event(number, self.some_time()) for number in range(count)]

    def some_time(self):
        return (self.start_of_day + EARLIEST_AHEAD + self.random.randrange(SPREAD)) % 86400

    @staticmethod
    def event(number, seconds):
        event = daily_event(f"event-{number:05d}", "wake", seconds)
        label = f"Event {number} "
        event["name"] = label + "n" * (NAME_LENGTH - len(label))
        return event

    def moved(self):
        """One of the events at another time of day, as a client's change would be."""
        number = self.random.randrange(len(self.events))
        self.events[number] = self.event(number, self.some_time())
        return self.events[number]


def write_events_only(root, events):
    """A saved state holding the events alone, and the notify period."""
    state = {"engine": {"events": events, "notifications": [],
                        "queues": {"DateTime": [], "Inactivity": []}},
             "notificationcontroller.notifyperiod": NOTIFY_PERIOD}
    (root / STATE_FILE).write_bytes(plistlib.dumps(state, fmt=plistlib.FMT_XML))


def call(client, name, parameter=None):
    reply = client.call(name, parameter)
    if not isinstance(reply, dict) or reply.get("status") != 200:
        raise RuntimeError(f"{name}: {str(reply)[:200]}")
    return reply


def let_daemon_save_state(root, workload):
    """Has a daemon without a bus queue and warn every event, and save it all."""
    write_events_only(root, workload.events)
    daemon = Daemon(root)
    try:
        if not daemon.wait_running(REPLY_TIMEOUT):
            raise RuntimeError("the daemon did not start on the events alone")
        with Client(socket_path(root), timeout=REPLY_TIMEOUT) as client:
            call(client, "scheduler.setenabled", False)
            call(client, "scheduler.setenabled", True)
            pending = len(call(client, "notifications.pending").get("response", []))
    finally:
        daemon.stop()
    if pending != len(workload.events):
        raise RuntimeError(f"{pending} of {len(workload.events)} events are warned")


def connect_when_open(path, deadline):
    while True:
        try:
            return Client(path, timeout=REPLY_TIMEOUT)
        except (FileNotFoundError, ConnectionRefusedError):
            if time.monotonic() > deadline:
                raise
            time.sleep(0.0005)


def start_and_time(root, bus):
    """Starts the daemon; answers it with the seconds to the socket and to the first reply."""
    began = time.monotonic()
    daemon = Daemon(root, bus.address)
    try:
        client = connect_when_open(socket_path(root), began + REPLY_TIMEOUT)
        opened = time.monotonic()
        with client:
            call(client, "build.version")
        replied = time.monotonic()
    except BaseException:
        daemon.stop()
        raise
    return daemon, opened - began, replied - began


def proc_status(pid, *fields):
    """Sums of /proc fields over every thread of the process (VmRSS is per process)."""
    total = dict.fromkeys(fields, 0)
    tasks = Path(f"/proc/{pid}/task")
    for task in tasks.iterdir():
        for line in (task / "status").read_text().splitlines():
            key, _, value = line.partition(":")
            if key in total:
                total[key] += int(value.split()[0])
        if "VmRSS" in fields:
            break
    return total


def resident_kib(pid):
    return proc_status(pid, "VmRSS")["VmRSS"]


def context_switches(pid):
    counts = proc_status(pid, "voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")
    return sum(counts.values())


def bare_atomic_write(folder, path, data):
    descriptor, temporary = tempfile.mkstemp(dir=folder, prefix=".bare.")
    try:
        os.fchmod(descriptor, 0o644)
        view = memoryview(data)
        while view:
            view = view[os.write(descriptor, view):]
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
    os.rename(temporary, path)
    folder_descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(folder_descriptor)
    finally:
        os.close(folder_descriptor)


def read_or_empty(path):
    return path.read_bytes() if path.exists() else b""


def time_sets(root, client, workload, count):
    """`count` acknowledged sets, each followed by the same writes done bare."""
    folder = root / "var/lib/nightjar"
    state_path, entries_path = root / STATE_FILE, root / WAKE_ENTRIES_FILE
    acknowledged, bare, moves = [], [], 0
    for _ in range(count):
        entries_before = read_or_empty(entries_path)
        event = workload.moved()
        began = time.monotonic()
        call(client, "scheduler.set", event)
        acknowledged.append(time.monotonic() - began)
        state, entries = state_path.read_bytes(), read_or_empty(entries_path)
        began = time.monotonic()
        bare_atomic_write(folder, folder / "bare-state.plist", state)
        if entries != entries_before:
            bare_atomic_write(folder, folder / "bare-entries.plist", entries)
        bare.append(time.monotonic() - began)
        moves += entries != entries_before
    return {"set_p50_ms": milliseconds(percentile(acknowledged, 0.5)),
            "set_p99_ms": milliseconds(percentile(acknowledged, 0.99)),
            "bare_p50_ms": milliseconds(percentile(bare, 0.5)),
            "bare_p99_ms": milliseconds(percentile(bare, 0.99)),
            "sets": count, "entry_moves": moves,
            "state_bytes": state_path.stat().st_size,
            "entry_bytes": len(read_or_empty(entries_path))}


def time_events_reply(client, count, keep):
    """`count` round trips of "scheduler.events", the reply parsed, and the parse alone;
    the array answered is written to `keep` (when given) for the XML writer's reference
    in reply_bench."""
    rounds, parses = [], []
    for _ in range(count):
        began = time.monotonic()
        identifier = client.send({"Request": "scheduler.events",
                                  "Authorization": authorization_form()})
        payload = client.receive()
        received = time.monotonic()
        reply = payload.value
        parsed = time.monotonic()
        if payload.identifier != identifier or reply.get("status") != 200:
            raise RuntimeError(f"scheduler.events: {str(reply)[:200]}")
        rounds.append(parsed - began)
        parses.append(parsed - received)
    if keep:
        keep.write_bytes(plistlib.dumps(reply.get("response", []), fmt=plistlib.FMT_XML))
    return {"events_p50_ms": milliseconds(statistics.median(rounds)),
            "events_parse_p50_ms": milliseconds(statistics.median(parses)),
            "events_listed": len(reply.get("response", [])),
            "events_reply_bytes": len(payload.payload)}


def count_idle_switches(pid, window):
    before = context_switches(pid)
    time.sleep(window)
    return {"idle_switches": context_switches(pid) - before, "idle_window_s": window}


def time_lateness(client, listener, count, first_ahead):
    """Once events `first_ahead` seconds on, PERFORM_SPACING apart: how late each was
    announced by "event.willperform"."""
    first, due = utc_in(first_ahead), {}
    for number in range(count):
        date = first + datetime.timedelta(seconds=PERFORM_SPACING * number)
        uniqueid = f"late-{number}"
        call(client, "scheduler.set",
             {"uniqueid": uniqueid, "name": uniqueid, "enabled": True,
              "trigger": {"type": "once", "date": date},
              "action": {"type": "fast user switch"}})
        due[uniqueid] = int(epoch(date))
    deadline = first_ahead + PERFORM_SPACING * count + 30
    if not listener.wait_for("event.willperform", count, timeout=deadline):
        raise RuntimeError("not every event was performed")
    late = []
    for arrived, name, info in listener.arrivals:
        if name == "event.willperform":
            uniqueid = plistlib.loads(info.encode()).get("uniqueid")
            if uniqueid in due:
                late.append(arrived - due[uniqueid])
    return {"late_p50_ms": milliseconds(statistics.median(late)),
            "late_max_ms": milliseconds(max(late)), "late_events": len(late)}


def time_starts(root, bus, times):
    """Starts the daemon `times` times; answers the last one, still running, and the
    median seconds to the socket and to the first reply."""
    daemon, starts = None, []
    for _ in range(times):
        if daemon is not None:
            daemon.stop()
        daemon, opened, replied = start_and_time(root, bus)
        starts.append((opened, replied))
    return daemon, {"start_socket_ms": milliseconds(statistics.median(s[0] for s in starts)),
                    "start_reply_ms": milliseconds(statistics.median(s[1] for s in starts))}


def exercise(root, daemon, listener, workload, options):
    """The figures of a running daemon holding the workload's events."""
    count, figures = len(workload.events), {}
    with Client(socket_path(root), timeout=REPLY_TIMEOUT) as client:
        if count in options.events_at:
            keep = options.keep_events and Path(options.keep_events) / f"events-{count}.plist"
            figures.update(time_events_reply(client, options.rounds, keep))
        if count in options.idle_at:
            figures.update(count_idle_switches(daemon.process.pid, options.idle_window))
        figures.update(time_sets(root, client, workload, options.sets))
        figures["rss_after_sets_kib"] = resident_kib(daemon.process.pid)
        ahead = options.lead + 2 * figures["set_p99_ms"] * options.late / 1000.0
        figures.update(time_lateness(client, listener, options.late, round(ahead)))
    return figures


def measure_size(count, options, base):
    root = make_root(base)
    install_rights(root)
    workload = Workload(count)
    if count:
        let_daemon_save_state(root, workload)
    else:
        write_events_only(root, [])
    bus = PrivateBus(base)
    logind = DbusMock(bus, "logind")
    listener = TimedListener(bus)
    daemon = None
    try:
        daemon, figures = time_starts(root, bus, options.starts)
        figures = {"events": count, **figures, "rss_kib": resident_kib(daemon.process.pid)}
        if count:
            figures.update(exercise(root, daemon, listener, workload, options))
        if daemon.process.poll() is not None:
            raise RuntimeError("the daemon exited during the run")
    finally:
        if daemon is not None:
            daemon.stop()
        listener.stop()
        logind.stop()
        bus.stop()
    return figures


def parse_options(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sizes", type=int, nargs="+", default=[1000, 10000],
                        help="numbers of daily events (default 1000 10000)")
    parser.add_argument("--sets", type=int, default=100, help="acknowledged sets per size")
    parser.add_argument("--rounds", type=int, default=10, help="scheduler.events round trips")
    parser.add_argument("--events-at", type=int, nargs="*", default=[1000],
                        help="sizes at which the scheduler.events round trip is timed")
    parser.add_argument("--starts", type=int, default=3, help="starts per size (median)")
    parser.add_argument("--late", type=int, default=10, help="events performed for lateness")
    parser.add_argument("--lead", type=float, default=3.0,
                        help="seconds between the last set and the first lateness event")
    parser.add_argument("--idle-window", type=float, default=30.0, help="seconds idle")
    parser.add_argument("--idle-at", type=int, nargs="*", default=[1000],
                        help="sizes at which idle wake-ups are counted")
    parser.add_argument("--quick", action="store_true",
                        help="a short try: 200 events, few samples, a 3-second idle window")
    parser.add_argument("--json", help="also write the figures to this file")
    parser.add_argument("--keep-events", metavar="FOLDER",
                        help="write each size's scheduler.events array to FOLDER/events-N.plist")
    options = parser.parse_args(argv)
    if options.quick:
        options.sizes, options.sets, options.rounds, options.starts = [200], 10, 3, 1
        options.late, options.idle_window = 3, 3.0
        options.idle_at = options.events_at = [200]
    return options


def main(argv):
    options = parse_options(argv)
    if os.geteuid() != 0:
        sys.exit("blackbox.py runs the daemon as root (its socket's folder is root's)")
    results = {"sizes": {}}
    with tempfile.TemporaryDirectory(prefix="nightjar-blackbox-") as top:
        for count in [0, *options.sizes]:
            base = Path(top) / str(count)
            base.mkdir()
            began = time.monotonic()
            figures = measure_size(count, options, base)
            figures["run_s"] = round(time.monotonic() - began, 1)
            results["sizes"][str(count)] = figures
            print(json.dumps(figures), flush=True)
    empty = results["sizes"]["0"]["rss_kib"]
    for count, figures in results["sizes"].items():
        if int(count):
            for key in ("rss", "rss_after_sets"):
                if f"{key}_kib" in figures:
                    figures[f"{key}_per_event_kib"] = round(
                        (figures[f"{key}_kib"] - empty) / int(count), 3)
    if options.json:
        Path(options.json).write_text(json.dumps(results, indent=1) + "\n")
    return results


if __name__ == "__main__":
    main(sys.argv[1:])
