"""The daemon's system monitors against python3-dbusmock's logind on the private bus."""

import datetime
import signal
import subprocess

import dbus

from nightjar_client import Client, socket_path
from nightjar_harness import PYTHON, BroadcastListener, DbusMock, wait_until

LOGIND_PATH = "/org/freedesktop/login1"
MANAGER = "org.freedesktop.login1.Manager"
MOCK = "org.freedesktop.DBus.Mock"


def sleep_delays(logind):
    manager = logind.object(LOGIND_PATH)
    inhibitors = manager.ListInhibitors(dbus_interface=MANAGER)
    return [i for i in inhibitors if str(i[0]) == "sleep" and str(i[1]) == "nightjard"
            and str(i[3]) == "delay"]


def prepare_for_sleep(logind, starting):
    logind.object(LOGIND_PATH).EmitSignal(MANAGER, "PrepareForSleep", "b",
                                          [dbus.Boolean(starting)], dbus_interface=MOCK)


def test_sleep_delay_is_held_released_on_sleep_and_retaken_on_wake(start_daemon, logind):
    daemon = start_daemon()
    assert daemon.wait_running()
    assert wait_until(lambda: len(sleep_delays(logind)) == 1)

    prepare_for_sleep(logind, True)
    assert wait_until(lambda: not sleep_delays(logind))  # released: the system may sleep
    prepare_for_sleep(logind, False)
    assert wait_until(lambda: len(sleep_delays(logind)) == 1)

    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0
    assert wait_until(lambda: not sleep_delays(logind))


def test_console_user_changes_and_time_zone_switch_keep_the_daemon_running(
        start_daemon, logind, root):
    daemon = start_daemon()
    assert daemon.wait_running()
    mock = logind.object(LOGIND_PATH)
    mock.AddSession("c1", "seat0", dbus.UInt32(1000), "alice", True, dbus_interface=MOCK)
    mock.AddSession("c2", "seat0", dbus.UInt32(1001), "bob", True, dbus_interface=MOCK)
    zone = root / "etc/localtime"
    zone.unlink()
    zone.write_bytes(open("/usr/share/zoneinfo/Asia/Tokyo", "rb").read())
    daemon.signal(signal.SIGHUP)
    assert daemon.wait_for_line("SIGHUP/restart signal caught")
    assert daemon.process.poll() is None
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0


def test_after_the_bus_comes_back_broadcasts_and_the_sleep_delay_come_back(
        start_daemon, system_bus, logind, root):
    daemon = start_daemon()
    assert daemon.wait_running()
    assert wait_until(lambda: len(sleep_delays(logind)) == 1)

    system_bus.restart()  # logind's mock goes with it
    assert daemon.wait_for_line("Lost the system bus; reconnecting")
    mock = DbusMock(system_bus, "logind")
    listener = BroadcastListener(system_bus)
    try:
        # Reconnected after a back-off of about a second.
        assert wait_until(lambda: len(sleep_delays(mock)) == 1, timeout=15)
        assert daemon.wait_for_line("Connected to the system bus again")
        with Client(socket_path(root)) as client:
            event = {"uniqueid": "e1", "name": "e1", "enabled": True,
                     "trigger": {"type": "once", "date": datetime.datetime(2100, 1, 1)},
                     "action": {"type": "sleep"}}
            assert client.call("scheduler.set", event) == {"status": 200}
        assert listener.wait_for("scheduler.events")
        assert daemon.process.poll() is None
        assert [m for m in daemon.messages() if "system bus" in m] == [
            "Lost the system bus; reconnecting", "Connected to the system bus again"]
    finally:
        listener.stop()
        mock.stop()


def test_logind_is_followed_when_it_starts_late_and_when_it_restarts(start_daemon, system_bus):
    daemon = start_daemon()
    assert daemon.wait_running()
    for _ in range(2):
        mock = DbusMock(system_bus, "logind")
        try:
            assert wait_until(lambda: len(sleep_delays(mock)) == 1)
        finally:
            mock.stop()
    assert daemon.process.poll() is None


def test_without_logind_the_daemon_runs_on(start_daemon, system_bus):
    daemon = start_daemon()
    assert daemon.wait_running()
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0


HUNG_LOGIND = """
import sys, time, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
bus.request_name("org.freedesktop.login1")
print("owned", flush=True)
time.sleep(60)  # owns the name, never answers
"""


def test_a_logind_that_never_answers_does_not_stop_the_daemon(start_daemon, system_bus):
    hung = subprocess.Popen([PYTHON, "-c", HUNG_LOGIND, system_bus.address],
                            stdout=subprocess.PIPE)
    try:
        assert hung.stdout.readline().strip() == b"owned"
        daemon = start_daemon()
        assert daemon.wait_running(timeout=15)
        daemon.signal(signal.SIGTERM)
        assert daemon.wait() == 0
    finally:
        hung.kill()
        hung.wait()
