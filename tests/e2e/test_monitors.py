"""The daemon's system monitors against python3-dbusmock's logind on the private bus."""

import subprocess

import dbus

from nightjar_harness import (LOGIND_MANAGER as MANAGER, LOGIND_PATH, MOCK, PYTHON,
                              RTC_ALARM_FILE, BroadcastListener, DbusMock, epoch, once_event,
                              utc_in, wait_until)


def sleep_delays(logind):
    inhibitors = logind.object(LOGIND_PATH).ListInhibitors(dbus_interface=MANAGER)
    return [i for i in inhibitors if str(i[0]) == "sleep" and str(i[1]) == "nightjard"
            and str(i[3]) == "delay"]


def test_sleep_delay_is_held_released_on_sleep_and_retaken_on_wake(logind, daemon, client,
                                                                   root):
    assert wait_until(lambda: len(sleep_delays(logind)) == 1)
    # Console users come and go; the daemon follows them and runs on.
    mock = logind.object(LOGIND_PATH)
    mock.AddSession("c1", "seat0", dbus.UInt32(1000), "alice", True, dbus_interface=MOCK)
    mock.AddSession("c2", "seat0", dbus.UInt32(1001), "bob", True, dbus_interface=MOCK)
    # A wake event, so that the RTC holds an alarm the daemon must set again.
    date = utc_in(3 * 3600)
    client.ok("scheduler.set", once_event("w", "wake", date))
    alarm = root / RTC_ALARM_FILE
    assert alarm.read_text().strip() == epoch(date)

    # Before a sleep the alarm is written again while the delay still holds the
    # system awake; after a wake the alarm, spent by firing, is set again.
    for starting in (True, False):
        alarm.write_text("0")
        mock.EmitSignal(MANAGER, "PrepareForSleep", "b", [dbus.Boolean(starting)],
                        dbus_interface=MOCK)
        assert wait_until(lambda: alarm.read_text().strip() == epoch(date)), starting
        held = 0 if starting else 1  # released on sleep: the system may sleep
        assert wait_until(lambda: len(sleep_delays(logind)) == held), starting

    assert daemon.terminate() == 0
    assert wait_until(lambda: not sleep_delays(logind))


def test_after_the_bus_or_logind_comes_back_broadcasts_and_the_sleep_delay_come_back(
        logind, daemon, system_bus):
    assert wait_until(lambda: len(sleep_delays(logind)) == 1)
    system_bus.restart()  # logind's mock goes with it
    assert daemon.wait_for_line("Lost the system bus; reconnecting")
    mock = DbusMock(system_bus, "logind")
    listener = BroadcastListener(system_bus)
    try:
        # Reconnected after a back-off of about a second.
        assert wait_until(lambda: len(sleep_delays(mock)) == 1, timeout=15)
        assert daemon.wait_for_line("Connected to the system bus again")
        with daemon.client() as client:
            client.ok("scheduler.set", once_event("e1", "sleep", utc_in(7200)))
        assert listener.wait_for("scheduler.events")
        assert [m for m in daemon.messages() if "system bus" in m] == [
            "Lost the system bus; reconnecting", "Connected to the system bus again"]
        mock.stop()  # logind alone restarts
        mock = DbusMock(system_bus, "logind")
        assert wait_until(lambda: len(sleep_delays(mock)) == 1)
    finally:
        listener.stop()
        mock.stop()


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
        assert daemon.terminate() == 0
    finally:
        hung.kill()
        hung.wait()
