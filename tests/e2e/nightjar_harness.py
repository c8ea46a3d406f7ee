"""The real nightjard under a temporary root beside a private system bus: the root's
layout, the bus, a listener for the daemon's broadcasts, the daemon with its log lines; and
the fixtures of the end-to-end and stress suites made of them."""

import contextlib
import datetime
import json
import os
import plistlib
import re
import select
import shutil
import signal
import socket
import subprocess
import threading
import time
import traceback
from pathlib import Path

import dbus
import dbus.mainloop.glib
import pytest
from gi.repository import GLib

from nightjar_client import TIMEOUT_FACTOR, Client, socket_path

BUILD_DIR = Path(os.environ.get("NIGHTJAR_BUILD_DIR",
                                Path(__file__).resolve().parents[2] / "build" / "release"))
DAEMON = BUILD_DIR / "src" / "core" / "nightjard"
CTL = BUILD_DIR / "tools" / "nightjarctl"
AGENT = BUILD_DIR / "tools" / "nightjar-agent"
PYTHON = "/usr/bin/python3"
NOBODY = 65534

BUS_CONFIG = Path(__file__).resolve().parents[2] / "scripts" / "private-system-bus.conf"


def wait_until(predicate, timeout=5.0, interval=0.01):
    """Polls `predicate` until it answers something true or `timeout` passes."""
    deadline = time.monotonic() + timeout * TIMEOUT_FACTOR
    while True:
        result = predicate()
        if result or time.monotonic() >= deadline:
            return result
        time.sleep(interval)


@contextlib.contextmanager
def as_user(uid, folder, work):
    """Runs `work()` in a child forked under `uid`, in `folder` (so relative paths pass the
    test's private folders); yields answer(timeout=None): the child's answer (as JSON), or None
    while it has none. The child keeps what it opened until the block ends."""
    (answer_read, answer_write), (release_read, release_write) = os.pipe(), os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            os.close(release_write)
            os.chdir(folder)
            os.setgroups([])
            os.setgid(uid)
            os.setuid(uid)
            os.write(answer_write, json.dumps(work()).encode())
            os.close(answer_write)
            os.read(release_read, 1)
        except BaseException:
            traceback.print_exc()
        os._exit(0)
    os.close(answer_write)
    answers = os.fdopen(answer_read, "rb")
    try:
        yield lambda timeout=None: json.loads(answers.read()) if select.select(
            [answers], [], [], timeout)[0] else None
    finally:
        answers.close()
        os.close(release_write)
        os.waitpid(pid, 0)


def stop(process):
    """Terminates `process` unless it is gone, and waits for it."""
    if process.poll() is None:
        process.terminate()
        process.wait(timeout=10)


def open_to_others(folder: Path):
    """Lets other users through `folder` and the folders above it, up to /tmp."""
    for each in (folder, *folder.parents[:-2]):
        os.chmod(each, os.stat(each).st_mode | 0o011)


def make_root(base: Path) -> Path:
    """Lays out a daemon root: the folders and files the daemon reads or writes."""
    root = base / "root"
    for folder in ("var/run", "var/tmp", "var/lib/nightjar", "etc/nightjar",
                   "sys/class/rtc/rtc0", "usr/local/nightjar/bin", "usr/share/polkit-1/actions"):
        (root / folder).mkdir(parents=True, exist_ok=True)
    os.chmod(root / "var/tmp", 0o1777)
    shutil.copy("/usr/share/zoneinfo/UTC", root / "etc/localtime")
    (root / "sys/class/rtc/rtc0/wakealarm").write_text("")
    for tool in ("gracestop", "perch"):  # each call logged, for tool_calls()
        path = root / "usr/local/nightjar/bin" / tool
        path.write_text(f'#!/bin/sh\necho "$0 $*" >> "{root}/tool-calls.log"\n')
        os.chmod(path, 0o755)
    return root


def install_rights(root: Path):
    """Installs the daemon's rights in the root's polkit action file (`nightjard -i`)."""
    if (root / "usr/share/polkit-1/actions/quillon.nightjar.policy").exists():
        return
    env = dict(os.environ, NIGHTJAR_ROOT=str(root), NIGHTJAR_LOG="stderr")
    subprocess.run([str(DAEMON), "-i"], env=env, check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=30)


class PrivateBus:
    """A dbus-daemon of its own, configured like a permissive system bus."""

    def __init__(self, base: Path):
        self.socket, self._config = base / "system_bus_socket", base / "bus.conf"
        self._config.write_text(BUS_CONFIG.read_text().replace("@SOCKET@", str(self.socket)))
        self.address = f"unix:path={self.socket}"
        self._start()

    def _start(self):
        self.process = subprocess.Popen(
            ["dbus-daemon", "--nofork", f"--config-file={self._config}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        if not wait_until(self._listening, timeout=10):  # bound a moment before it listens
            self.stop()
            raise RuntimeError("private dbus-daemon did not start")

    def _listening(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    def stop(self):
        stop(self.process)

    def restart(self):
        """Kills the bus, and every connection with it, and starts a new one at the same
        address."""
        self.process.kill()
        self.process.wait(timeout=10)
        self.socket.unlink(missing_ok=True)
        self._start()


class DbusMock:
    """python3-dbusmock on a private bus: a template, or with `path` and `interface` a bare
    object that the test fills, under the name `template`."""

    NAMES = {"logind": "org.freedesktop.login1", "polkitd": "org.freedesktop.PolicyKit1",
             "notification_daemon": "org.freedesktop.Notifications"}

    def __init__(self, bus: PrivateBus, template: str, path=None, interface=None):
        args = [PYTHON, "-m", "dbusmock", "--system"]  # on `bus`, a system bus or not
        args += [template, path, interface] if path else ["--template", template]
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
        self.process = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        self.bus = dbus.bus.BusConnection(bus.address)
        self.name = self.NAMES.get(template, template)
        if not wait_until(lambda: self.bus.name_has_owner(self.name), timeout=15):
            self.stop()
            raise RuntimeError(f"dbusmock {template} did not start")

    def object(self, path):
        return self.bus.get_object(self.name, path)

    def stop(self):
        stop(self.process)
        self.bus.close()


class BroadcastListener:
    """Collects the daemon's "Notification" signals from the bus, (name, user info) each;
    they are dispatched on GLib's default context whenever the test asks for them."""

    def __init__(self, bus: PrivateBus):
        self._received = []
        self._connection = dbus.bus.BusConnection(
            bus.address, mainloop=dbus.mainloop.glib.DBusGMainLoop())
        self._connection.add_signal_receiver(
            lambda name, info: self._received.append((str(name), str(info))),
            signal_name="Notification", dbus_interface="quillon.nightjar",
            path="/quillon/nightjar")
        # A round trip makes sure the match rule is in place before the test goes on.
        self._connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "GetId", "", [])

    def received(self):
        while GLib.MainContext.default().iteration(False):
            pass
        return list(self._received)

    def names(self):
        return [name for name, _ in self.received()]

    def wait_for(self, name, count=1, timeout=5.0):
        return wait_until(lambda: self.names().count(name) >= count, timeout)

    def stop(self):
        self._connection.close()


class Daemon:
    """The real nightjard, its standard error and notify lines collected as they come."""

    def __init__(self, root: Path, bus_address=None, args=(), extra_env=None, nofile=None):
        # Without a bus, a socket that does not exist: never the host's bus.
        env = dict(os.environ, NIGHTJAR_ROOT=str(root), NIGHTJAR_LOG="stderr",
                   TZ=f":{root}/etc/localtime",
                   DBUS_SYSTEM_BUS_ADDRESS=bus_address or f"unix:path={root}/no-bus")
        # The daemon says READY=1 here once its signals and socket are live.
        notify_path = root.parent / f"notify-{time.monotonic_ns()}"
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notify.bind(str(notify_path))
        env["NOTIFY_SOCKET"] = str(notify_path)
        env.update(extra_env or {})
        self.root, self.pid_file = root, root / "var/run/nightjard.pid"
        self._lines, self._notified, self._lock = [], [], threading.Lock()
        command = [str(DAEMON), *args]
        if nofile:  # (soft, hard) limits on open descriptors
            command = ["prlimit", f"--nofile={nofile[0]}:{nofile[1]}", *command]
        self.process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # The notify socket is drained all the time, as systemd does: a full queue would
        # block the daemon in sd_notify.
        self._readers = [threading.Thread(target=self._drain, args=args, daemon=True)
                         for args in ((self.process.stderr.readline, self._lines),
                                      (lambda: self._notify.recv(4096), self._notified))]
        for reader in self._readers:
            reader.start()

    def _drain(self, read, into):
        try:
            for chunk in iter(read, b""):
                with self._lock:
                    into.extend(chunk.decode("utf-8", "replace").rstrip("\n").split("\n"))
        except OSError:
            pass  # closed

    def lines(self, notified=False):
        """Its standard error's lines, or else the lines it notified, in order."""
        with self._lock:
            return list(self._notified if notified else self._lines)

    def messages(self):
        """Log lines without their "<N>" priority prefix."""
        return [re.sub(r"^<\d+>", "", line) for line in self.lines()]

    def wait_for_line(self, text, timeout=5.0):
        return wait_until(lambda: any(text in line for line in self.messages()), timeout)

    def wait_running(self, timeout=5.0):
        """Waits for the daemon's READY=1; answers False if it exits or it never comes."""
        return wait_until(lambda: self.process.poll() is not None or "READY=1" in self.lines(
            notified=True), timeout) and self.process.poll() is None

    def wait(self, timeout=10.0):
        code = self.process.wait(timeout=timeout)
        with contextlib.suppress(OSError):  # closed already
            self._notify.shutdown(socket.SHUT_RDWR)
        self._notify.close()
        for reader in self._readers:
            reader.join(timeout=5)
        return code

    def terminate(self, timeout=10.0):
        """Sends SIGTERM and answers the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.wait(timeout)

    def stop(self):
        try:
            stop(self.process)
        except subprocess.TimeoutExpired:
            self.process.kill()
        self.wait()

    def client(self, timeout=5.0):
        """A new connection to this daemon's socket."""
        return Client(socket_path(self.root), timeout)


LOGIND_PATH = "/org/freedesktop/login1"
LOGIND_MANAGER = "org.freedesktop.login1.Manager"
MOCK = "org.freedesktop.DBus.Mock"
EVERY_DAY = ["monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday"]
STATE_FILE = "var/lib/nightjar/preferences.plist"
WAKE_ENTRIES_FILE = "var/lib/nightjar/powerevents.plist"
RTC_ALARM_FILE = "sys/class/rtc/rtc0/wakealarm"


def inhibitors(logind, what):
    """The daemon's inhibitors of `what` ("sleep", "idle") that logind's mock holds."""
    listed = logind.object(LOGIND_PATH).ListInhibitors(dbus_interface=LOGIND_MANAGER)
    return [i for i in listed if str(i[0]) == what and str(i[1]) == "nightjard"]


def utc_in(seconds):
    """A naive UTC date `seconds` ahead, whole seconds (the XML form keeps no fraction)."""
    now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0, tzinfo=None)
    return now + datetime.timedelta(seconds=seconds)


def epoch(date):
    """A naive UTC date as the RTC alarm file holds it: seconds since 1970, as text."""
    return str(int(date.replace(tzinfo=datetime.timezone.utc).timestamp()))


def once_event(uniqueid, action, date, name=None):
    return {"uniqueid": uniqueid, "name": name or uniqueid, "enabled": True,
            "trigger": {"type": "once", "date": date}, "action": {"type": action}}


def daily_event(uniqueid, action, seconds, days=EVERY_DAY):
    return {"uniqueid": uniqueid, "name": uniqueid, "enabled": True,
            "trigger": {"type": "daily", "secondsfrommidnight": seconds, "days": days},
            "action": {"type": action}}


def pending_dates(client):
    """uniqueid -> date of each pending warning, in the daemon's order."""
    reply = client.call("notifications.pending")
    assert reply["status"] == 200, reply
    events = reply.get("response", [])
    assert all(e["trigger"]["type"] == "once" for e in events), events
    return {e["uniqueid"]: e["trigger"]["date"] for e in events}


def saved_ids(root):
    """The unique ids under "engine" → "events"; raises if the file does not parse."""
    state = plistlib.loads((root / STATE_FILE).read_bytes())
    return {event["uniqueid"] for event in state["engine"]["events"]}


def wake_entries(root):
    """The wake-entry file's records, [] while it does not exist."""
    saved = root / WAKE_ENTRIES_FILE
    return plistlib.loads(saved.read_bytes()) if saved.exists() else []


def tool_calls(root):
    """What the fake gracestop and perch were called with, "" before any call."""
    log = root / "tool-calls.log"
    return log.read_text() if log.exists() else ""


@pytest.fixture
def root(tmp_path):
    return make_root(tmp_path)


@pytest.fixture
def system_bus(tmp_path):
    bus = PrivateBus(tmp_path)
    yield bus
    bus.stop()


def on_the_bus(name, make):
    """A fixture of `make(system_bus)`, stopped after the test."""
    def serve(system_bus):
        served = make(system_bus)
        yield served
        served.stop()
    return pytest.fixture(serve, name=name)


logind = on_the_bus("logind", lambda bus: DbusMock(bus, "logind"))
polkitd = on_the_bus("polkitd", lambda bus: DbusMock(bus, "polkitd"))
broadcasts = on_the_bus("broadcasts", BroadcastListener)


@pytest.fixture
def start_daemon(root, system_bus):
    """Starts nightjard on the temporary root and the private bus; stops it after the test."""
    started = []

    def start(*args, bus=True, extra_env=None, nofile=None, running=False):
        # A daemon that is to run gets the rights installed first, as `nightjard -i` would.
        if not args:
            install_rights(root)
        daemon = Daemon(root, system_bus.address if bus else None, args, extra_env, nofile)
        started.append(daemon)
        assert not running or daemon.wait_running()
        return daemon

    yield start
    for daemon in started:
        daemon.stop()
    # A sanitizer build's report (leak, overflow, undefined behaviour) fails the test.
    for daemon in started:
        text = "\n".join(daemon.lines())
        if re.search(r"ERROR: (Address|Leak)Sanitizer|runtime error:", text):
            pytest.fail("nightjard: sanitizer report\n" + text[-8000:])


@pytest.fixture
def daemon(start_daemon):
    """A daemon with its rights installed, running (READY=1 said)."""
    return start_daemon(running=True)


@pytest.fixture
def client(daemon):
    """One connection to the running `daemon`'s socket."""
    with daemon.client() as connection:
        yield connection
