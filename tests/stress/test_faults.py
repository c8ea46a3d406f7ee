"""Faults while a client changes events: the daemon runs on, logs the fault once, keeps the last
good state, loses no acknowledged change, and recovers on its own when the fault ends."""

import contextlib
import os
import re
import select
import shutil
import subprocess

import pytest

from nightjar_client import Client, socket_path
from nightjar_harness import (NOBODY, PYTHON, STATE_FILE, BroadcastListener, DbusMock, as_user,
                              inhibitors, once_event, saved_ids, wait_until)
from stress_harness import FAR

HUNG_POLKIT = """
import sys, dbus, dbus.service, dbus.mainloop.glib
from gi.repository import GLib
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.bus.BusConnection(sys.argv[1])
name = dbus.service.BusName("org.freedesktop.PolicyKit1", bus)
class Hung(dbus.service.Object):
    @dbus.service.method("org.freedesktop.PolicyKit1.Authority", in_signature="(sa{sv})sa{ss}us",
                         out_signature="(bba{ss})", async_callbacks=("ok", "fail"))
    def CheckAuthorization(self, subject, action, details, flags, cancel, ok, fail):
        print("asked", flush=True)  # and never answers
Hung(bus, "/org/freedesktop/PolicyKit1/Authority")
print("owned", flush=True)
GLib.MainLoop().run()
"""


class World:
    """The daemon, the bus and the mocks of logind and polkitd one fault is tried on."""

    def __init__(self, root, bus):
        self.root, self.bus, self.state = root, bus, root / STATE_FILE
        self.sentinel = root.parent / "sentinel"  # beside the daemon's root, never written
        self.sentinel.write_text("sentinel\n")
        self.mocks, self.mount = {}, contextlib.ExitStack()
        self.start_mocks()

    def start_mocks(self):
        self.stop_mocks()
        self.mocks = {name: DbusMock(self.bus, name) for name in ("logind", "polkitd")}

    def stop_mocks(self, *names):
        for name in names or list(self.mocks):
            self.mocks.pop(name).stop()


def mounted(world, *options):
    folder = str(world.state.parent)
    if subprocess.run(["mount", *options, folder, folder], stderr=subprocess.DEVNULL).returncode:
        pytest.skip(f"mount {' '.join(options)} is refused here")
    unmount = contextlib.ExitStack()
    unmount.callback(subprocess.check_call, ["umount", folder])
    return unmount


@contextlib.contextmanager
def disk_full(world):
    """On the small tmpfs the test mounted before the daemon started."""
    filler = world.state.parent / "filler"
    with contextlib.suppress(OSError), open(filler, "wb") as output:
        while True:
            output.write(bytes(4096))
    yield
    filler.unlink()


@contextlib.contextmanager
def file_size_limit(world):
    """Disk full as a process meets it under RLIMIT_FSIZE (the soft limit only: root may lack
    the right to raise a hard one again)."""
    pid = str(world.daemon.process.pid)
    subprocess.check_call(["prlimit", "--pid", pid, f"--fsize={world.state.stat().st_size}:"])
    yield
    subprocess.check_call(["prlimit", "--pid", pid, "--fsize=unlimited:"])


def replaced(make):
    """A fault that replaces the preferences file by what `make(world)` puts there."""
    @contextlib.contextmanager
    def fault(world):
        world.state.unlink()
        make(world)
        yield
    return fault


@contextlib.contextmanager
def restarted(world, bus=True):
    """The system bus (the mocks go with it), or else the mocks alone, go and come back."""
    if bus:
        world.bus.restart()
    world.stop_mocks()
    yield
    world.start_mocks()


def next_line(process, timeout=15):
    return process.stdout.readline().strip() if select.select(
        [process.stdout], [], [], timeout)[0] else b""


@contextlib.contextmanager
def polkit_hung(world):
    """polkit takes the question of a non-root writer and never answers; root's changes go on
    meanwhile, and the writer is refused once polkit is gone."""
    world.stop_mocks("polkitd")
    hung = subprocess.Popen([PYTHON, "-c", HUNG_POLKIT, world.bus.address], stdout=subprocess.PIPE)
    assert next_line(hung) == b"owned"

    def write():
        with Client("api", timeout=120) as client:
            return client.call("scheduler.set", once_event("nobody", "restart", FAR))

    with as_user(NOBODY, os.path.dirname(socket_path(world.root)), write) as answer:
        assert next_line(hung) == b"asked"
        yield
        assert answer(timeout=0) is None  # root was served during the wait
        hung.kill()
        hung.wait()
        assert answer(timeout=30) == {"error": 500, "reason": "Request must be authorized"}
    world.start_mocks()


# (row, the fault (broken on entry, mended on exit), the line that must be logged exactly once)
FAULTS = [
    ("state folder read-only", lambda w: mounted(w, "--bind", "-o", "ro"),
     "Failed to save the state"),
    ("disk full (small tmpfs)", disk_full, "Failed to save the state"),
    ("file-size limit (RLIMIT_FSIZE)", file_size_limit, "Failed to save the state"),
    ("preferences corrupted", replaced(lambda w: w.state.write_bytes(
        b"<?xml version='1.0'?><plist><dict><key>engine</key><array><dict>")),
     "Preferences file corrupt"),
    ("preferences replaced by a folder", replaced(lambda w: (w.state.mkdir(), (
        w.state / "inside").write_text("x"))), "Preferences file unreadable"),
    ("preferences a symlink to a sentinel", replaced(lambda w: w.state.symlink_to(w.sentinel)),
     "Preferences file corrupt"),
    ("system bus killed and started again", restarted, "Lost the system bus"),
    ("logind and polkitd mocks restarted", lambda w: restarted(w, bus=False),
     "org.freedesktop.login1 left the system bus"),
    ("polkit hung", polkit_hung, "Authorization refused: quillon.nightjar.scheduler.set"),
]


@pytest.mark.parametrize("row,fault,logged", FAULTS, ids=[row for row, _, _ in FAULTS])
def test_a_fault_loses_no_acknowledged_change(start_daemon, root, system_bus, row, fault,
                                              logged):
    world = World(root, system_bus)
    if fault is disk_full:  # the state folder, as it is, on a small tmpfs
        kept = shutil.copytree(world.state.parent, root / "kept")
        world.mount = mounted(world, "-t", "tmpfs", "-o", "size=256k")
        shutil.copytree(kept, world.state.parent, dirs_exist_ok=True)
    daemon = world.daemon = start_daemon(extra_env={"NIGHTJAR_POLKIT_TIMEOUT": "120"})
    model = set()

    def change(client, uniqueid):
        client.ok("scheduler.set", once_event(uniqueid, "restart", FAR))
        model.add(uniqueid)

    def listed(client):
        return {event["uniqueid"] for event in client.call("scheduler.events")["response"]}

    try:
        assert daemon.wait_running()
        with Client(socket_path(root)) as client:
            change(client, "before-1")
            change(client, "before-2")
            client.ok("notifications.setnotifyperiod", 90)
            since, good = len(daemon.lines()), world.state.read_bytes()
            with fault(world):
                for number in range(20):
                    change(client, f"during-{number}")
                client.ok("scheduler.remove", "before-2")
                model.discard("before-2")
                assert listed(client) == model
                if logged == "Failed to save the state":
                    assert world.state.read_bytes() == good  # the last good state
            # Back on the bus (the sleep delay retaken), the broadcasts reach it again.
            assert wait_until(lambda: inhibitors(world.mocks["logind"], "sleep"), timeout=15)
            listener = BroadcastListener(system_bus)
            change(client, "after")
            assert listener.wait_for("scheduler.events")
            listener.stop()
            assert listed(client) == model and saved_ids(root) == model
            assert client.call("notifications.notifyperiod") == {"status": 200, "response": 90}
        faults = [line for line in daemon.lines()[since:]  # error or worse, but the API trace
                  if re.match(r"^<[0-3]>", line) and not line[3:].startswith("API: ")]
        assert len(set(faults)) == len(faults), faults
        assert len([m for m in daemon.messages()[since:] if logged in m]) == 1, faults
        assert world.sentinel.read_text() == "sentinel\n"
        assert daemon.process.poll() is None
    finally:
        daemon.stop()
        world.stop_mocks()
        world.mount.close()
    print(f"\n{row}: survived; {len(model)} acknowledged events kept; {len(faults)} fault lines")
