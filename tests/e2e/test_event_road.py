"""The whole road of events, driven over the API socket: warning, perform, action; and the
wake alarm kept across a sleep."""

import datetime
import os
import plistlib
import select
import shutil
import subprocess
import time

import dbus
import pytest

from nightjar_harness import (CTL, LOGIND_MANAGER, LOGIND_PATH, MOCK, RTC_ALARM_FILE, daily_event,
                              epoch, inhibitors, once_event, pending_dates, tool_calls, utc_in,
                              wait_until, wake_entries)


@pytest.fixture(autouse=True)
def logind_first(logind):
    """logind runs before the daemon starts."""


def test_a_shutdown_event_is_warned_performed_and_started(daemon, client, root, broadcasts,
                                                          system_bus):
    watch = subprocess.Popen([str(CTL), "watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True, env=dict(os.environ, NIGHTJAR_ROOT=str(root),
                                                 DBUS_SYSTEM_BUS_ADDRESS=system_bus.address))
    assert "Watching" in watch.stderr.readline()
    client.ok("notifications.setnotifyperiod", 2)
    date = utc_in(4)
    client.ok("scheduler.set", once_event("halt", "shutdown", date))
    assert pending_dates(client) == {"halt": date}
    assert broadcasts.wait_for("event.willperform", timeout=8)
    assert client.call("build.version")["response"] == "nightjard v3.7.3"
    assert broadcasts.wait_for("event.didperform")
    names = broadcasts.names()
    assert names.index("notifications.notify") < names.index("event.willperform") \
        < names.index("event.didperform")
    changes = ("notifications.notifyperiod", "scheduler.events", "notifications.pending")
    assert set(changes) <= set(names)
    for name, user_info in broadcasts.received():
        assert name not in changes or "<dict/>" in user_info or "<dict>\n</dict>" in user_info
        if name in ("event.willperform", "event.didperform"):
            assert "_DateTimeQueueController.Trigger.Date" in user_info
            performed = plistlib.loads(user_info.encode())
            assert (performed["uniqueid"], performed["action"]["type"]) == ("halt", "shutdown")
    assert wait_until(lambda: tool_calls(root).strip().endswith(
        "/usr/local/nightjar/bin/gracestop -h"))
    watch.terminate()
    assert "event.willperform  halt (" in watch.communicate(timeout=10)[0]
    # Answered inside the pause: its exchange is logged before the perform ends.
    assert daemon.wait_for_line("Dropped event: halt")
    messages = daemon.messages()
    answered = next(i for i, m in enumerate(messages) if '"build.version"' in m)
    assert answered < next(i for i, m in enumerate(messages) if m.startswith("Dropped event: "))
    assert wait_until(lambda: pending_dates(client) == {})


def test_a_sleep_goes_to_logind_and_a_wake_due_with_it_announces_nothing(client, logind,
                                                                        broadcasts):
    date = utc_in(1)
    client.ok("scheduler.setevents", [once_event("a-wake", "wake", date),
                                      once_event("b-nap", "sleep", date)])
    assert wait_until(lambda: logind.object(LOGIND_PATH).GetMethodCalls(
        "Suspend", dbus_interface=MOCK))
    assert wait_until(lambda: pending_dates(client) == {})
    assert [n for n in broadcasts.names() if n.startswith("event.")] == \
        ["event.willperform", "event.didperform"]


def test_an_inactivity_event_is_performed_once_the_user_is_idle(client, root, logind, broadcasts):
    idle_since = int((time.time() - 100) * 1_000_000)
    logind.object(LOGIND_PATH).UpdateProperties(LOGIND_MANAGER, {
        "IdleHint": dbus.Boolean(True), "IdleSinceHint": dbus.UInt64(idle_since)},
        dbus_interface=MOCK)
    client.ok("scheduler.set", dict(once_event("idle", "logout", None),
                                    trigger={"type": "inactive", "secondsofinactivity": 30}))
    # Idle for 100 s already: due at once, and not warned ahead. The machine may not
    # idle-sleep while the action is under way.
    assert pending_dates(client) == {}
    assert broadcasts.wait_for("event.willperform")
    assert wait_until(lambda: inhibitors(logind, "idle"))
    assert broadcasts.wait_for("event.didperform")
    assert wait_until(lambda: not inhibitors(logind, "idle"))
    assert wait_until(lambda: "perch -l" in tool_calls(root))


def step(name, parameter, *seconds):  # a request; its entries, seconds after the date
    return (lambda client, root, date: client.call(name, parameter(date)),
            lambda date: [date + datetime.timedelta(seconds=s) for s in seconds])


def moved_by_zone(date):
    # Nine hours ahead of UTC, the time of day three hours ahead has passed today.
    return [date + datetime.timedelta(hours=15)]


def switch_zone(client, root, date):
    """Answers the first reply after the switch that lists the moved occurrence."""
    (root / "etc/localtime").unlink()
    shutil.copy("/usr/share/zoneinfo/Etc/GMT-9", root / "etc/localtime")

    def moved():
        reply = client.call("notifications.pending")
        return reply if [e["trigger"]["date"] for e in reply["response"]] == \
            moved_by_zone(date) else None
    return wait_until(moved)


SET = step("scheduler.set", lambda date: once_event("up", "start up or wake", date), 0)
DAILY = step("scheduler.set", lambda date: daily_event(
    "up", "start up or wake", date.hour * 3600 + date.minute * 60 + date.second), 0)
ENTRY_CASES = {  # each case's steps in order, for an event three hours ahead; the zone last
    "set": [SET],
    "change": [SET, step("scheduler.set", lambda date: once_event(
        "up", "start up or wake", date + datetime.timedelta(hours=1)), 3600)],
    "delay": [SET] + [step("notifications.delay", lambda date: {"uniqueid": "up", "seconds": 600},
                           s) for s in (600, 1200)],  # delays add up
    "cancel": [SET, step("notifications.cancel", lambda date: "up")],
    # A cancelled daily occurrence gives way to the next day's.
    "daily cancel": [DAILY, step("notifications.cancel", lambda date: "up", 86400)],
    "zone switch": [DAILY, (switch_zone, moved_by_zone)],
}


def test_the_wake_entries_are_written_before_the_reply_leaves(client, root):
    for case, steps in ENTRY_CASES.items():
        # Each case starts from no event: the list emptied and the entries with it.
        client.ok("scheduler.setevents", [])
        assert wake_entries(root) == [], case
        date = utc_in(3 * 3600)
        for number, (request, expected) in enumerate(steps):
            reply = request(client, root, date)
            # Read at once, before a later pass of the daemon could write them.
            entries = wake_entries(root)
            rtc = (root / RTC_ALARM_FILE).read_text().strip()
            assert reply and reply["status"] == 200, (case, number, reply)
            dates = expected(date)
            assert [(e["eventtype"], e["time"]) for e in entries] == \
                [("wakepoweron", d) for d in dates], (case, number)
            assert rtc == (epoch(dates[0]) if dates else "0"), (case, number)


def test_a_shutdown_is_told_to_every_terminal_at_its_warning_and_a_minute_before(
        daemon, client, root, logind):
    session = logind.object(LOGIND_PATH).AddSession("c7", "seat0", dbus.UInt32(1000), "alice",
                                                    True, dbus_interface=MOCK)
    logind.object(session).Set("org.freedesktop.login1.Session", "TTY", "pts/7",
                               dbus_interface=dbus.PROPERTIES_IFACE)
    terminal = root / "dev/pts/7"
    terminal.parent.mkdir(parents=True)
    os.mkfifo(terminal)  # a reader is there, as on a terminal: the daemon's open does not fail
    reader, chunks = os.open(terminal, os.O_RDONLY | os.O_NONBLOCK), []

    def two_messages():
        if select.select([reader], [], [], 0.05)[0]:
            chunks.append(os.read(reader, 65536))
        return b"".join(chunks).count(b"Broadcast message from nightjard") == 2

    date = utc_in(62)
    client.ok("scheduler.set", once_event("halt", "shutdown", date, name="Nightly off"))
    assert wait_until(two_messages, timeout=8)
    os.close(reader)
    first, second = b"".join(chunks).decode().split("\r\nBroadcast message")[1:]
    when = date.strftime("%a %Y-%m-%d %H:%M:%S UTC")
    assert f"The system will shut down at {when} (in 6" in first
    assert f"The system will shut down at {when} (in 60 seconds)," in second
    assert not any("pts/7" in line for line in daemon.lines())


def test_sleep_delay_is_held_released_on_sleep_and_retaken_on_wake(logind, daemon, client,
                                                                   root):
    assert wait_until(lambda: len(inhibitors(logind, "sleep")) == 1)
    date = utc_in(3 * 3600)
    client.ok("scheduler.set", once_event("w", "wake", date))
    alarm = root / RTC_ALARM_FILE
    assert alarm.read_text().strip() == epoch(date)
    # Before a sleep the alarm is written again while the delay still holds the
    # system awake; after a wake the alarm, spent by firing, is set again.
    for starting in (True, False):
        alarm.write_text("0")
        logind.object(LOGIND_PATH).EmitSignal(LOGIND_MANAGER, "PrepareForSleep", "b",
                                              [dbus.Boolean(starting)], dbus_interface=MOCK)
        assert wait_until(lambda: alarm.read_text().strip() == epoch(date)), starting
        held = 0 if starting else 1  # released on sleep: the system may sleep
        assert wait_until(lambda: len(inhibitors(logind, "sleep")) == held), starting
    assert daemon.terminate() == 0
    assert wait_until(lambda: not inhibitors(logind, "sleep"))
