"""The whole road of one event, driven over the API socket: warning, perform, action."""

import datetime
import os
import plistlib
import select
import signal
import time

import dbus
import pytest

from nightjar_client import Client, socket_path
from nightjar_harness import (LOGIND_MANAGER, LOGIND_PATH, MOCK, RTC_ALARM_FILE, daily_event,
                              epoch, once_event, pending_dates, pending_ids, seconds_of_day,
                              set_zone, tool_calls, utc_in, wait_until, wake_entries)


@pytest.fixture
def api(logind, daemon, client):
    return daemon, client


def pending_date(client, uniqueid):
    return pending_dates(client).get(uniqueid)


def warnings_issued(daemon):
    """The daemon's "Issued notification" lines for single events, in the order issued."""
    return [m for m in daemon.messages() if m.startswith("Issued notification: ")
            and "uniqueid" not in m]


def test_a_shutdown_event_is_warned_performed_and_started(api, root, broadcasts):
    daemon, client = api
    assert client.call("notifications.setnotifyperiod", 2) == {"status": 200}
    assert client.call("notifications.notifyperiod") == {"status": 200, "response": 2.0}
    date = utc_in(4)
    assert client.call("scheduler.set", once_event("halt", "shutdown", date)) == {"status": 200}
    assert pending_date(client, "halt") == date

    assert broadcasts.wait_for("notifications.notify", timeout=6)
    assert daemon.wait_for_line("Issued notification: halt")
    assert broadcasts.wait_for("event.didperform", timeout=10)
    names = broadcasts.names()
    assert names.index("notifications.notify") < names.index("event.willperform") \
        < names.index("event.didperform")
    performed = dict(broadcasts.received())["event.willperform"]
    assert "halt" in performed and "shutdown" in performed

    assert wait_until(lambda: "gracestop -h" in tool_calls(root))
    assert tool_calls(root).strip().endswith("/usr/local/nightjar/bin/gracestop -h")
    assert wait_until(lambda: any(m.startswith("Performing: ") and "halt" in m
                                  for m in daemon.messages()))
    # A once event is dropped after it was performed.
    assert wait_until(lambda: pending_ids(client) == [])


def test_a_sleep_event_suspends_through_logind(api, logind, broadcasts):
    daemon, client = api
    assert client.call("scheduler.set", once_event("nap", "sleep", utc_in(1))) == {"status": 200}
    manager = logind.object(LOGIND_PATH)
    assert wait_until(lambda: manager.GetMethodCalls("Suspend", dbus_interface=MOCK), timeout=8)
    assert broadcasts.wait_for("event.didperform")
    assert daemon.process.poll() is None


def test_delay_cancel_and_reset_move_or_drop_the_pending_warning(api):
    _, client = api
    date = utc_in(3600)
    for uniqueid in ("a", "b"):
        assert client.call("scheduler.set", once_event(uniqueid, "restart", date)) == \
            {"status": 200}
    assert sorted(pending_ids(client)) == ["a", "b"]

    delay = {"uniqueid": "a", "seconds": 600}
    assert client.call("notifications.delay", delay) == {"status": 200}
    assert pending_date(client, "a") == date + datetime.timedelta(seconds=600)
    assert pending_ids(client) == ["b", "a"]  # sorted by the date it will be performed
    assert client.call("notifications.delay", delay) == {"status": 200}
    assert pending_date(client, "a") == date + datetime.timedelta(seconds=1200)  # added up

    assert client.call("notifications.reset", "a") == {"status": 200}
    assert pending_date(client, "a") == date

    assert client.call("notifications.cancel", "b") == {"status": 200}
    assert pending_ids(client) == ["a"]
    # The event itself stays in the list; only this occurrence is dropped.
    assert [e["uniqueid"] for e in client.call("scheduler.events")["response"]] == ["a", "b"]

    # Unknown identifiers and a delay of nothing change nothing, and still answer 200.
    assert client.call("notifications.cancel", "nobody") == {"status": 200}
    assert client.call("notifications.delay", {"uniqueid": "a", "seconds": 0}) == {"status": 200}
    assert pending_date(client, "a") == date


def test_requests_are_answered_during_the_pause_and_the_perform_is_announced(api, broadcasts):
    daemon, client = api
    assert client.call("scheduler.set", once_event("off", "restart", utc_in(1))) == \
        {"status": 200}
    assert broadcasts.wait_for("event.willperform", timeout=6)
    assert client.call("build.version")["response"] == "nightjard v3.7.3"
    assert broadcasts.wait_for("event.didperform")
    # Answered inside the pause: its exchange is logged before the perform ends.
    assert daemon.wait_for_line("Dropped event: off")
    messages = daemon.messages()
    answered = next(i for i, m in enumerate(messages) if '"build.version"' in m)
    dropped = next(i for i, m in enumerate(messages) if m.startswith("Dropped event: off"))
    assert answered < dropped, messages
    announced = dict(broadcasts.received())
    for name in ("event.willperform", "event.didperform"):
        assert "_DateTimeQueueController.Trigger.Date" in announced[name]
        assert plistlib.loads(announced[name].encode())["uniqueid"] == "off"


def test_daily_times_keep_the_wake_lead_and_follow_the_time_zone(api, root):
    daemon, client = api
    soon = utc_in(60)  # the root's zone is UTC
    assert client.call("scheduler.set", daily_event("out", "logout", seconds_of_day(soon))) \
        == {"status": 200}
    assert client.call("scheduler.set", daily_event("up", "wake", seconds_of_day(soon))) \
        == {"status": 200}
    # A wake kind is never placed less than two minutes ahead: it goes to the next day.
    assert pending_date(client, "out") == soon
    assert pending_date(client, "up") == soon + datetime.timedelta(days=1)

    # Nine hours ahead of UTC, the same time of day comes nine hours earlier.
    set_zone(root, "Etc/GMT-9")
    daemon.signal(signal.SIGHUP)
    shifted = soon - datetime.timedelta(hours=9)
    while shifted <= utc_in(0):
        shifted += datetime.timedelta(days=1)
    assert wait_until(lambda: pending_date(client, "out") == shifted), \
        client.call("notifications.pending")


def test_disabling_the_scheduler_drops_warnings(api, broadcasts):
    _, client = api
    date = utc_in(7200)
    assert client.call("scheduler.set", once_event("w", "wake", date)) == {"status": 200}
    assert client.call("scheduler.set", dict(once_event("off", "shutdown", date),
                                             enabled=False)) == {"status": 200}
    assert pending_ids(client) == ["w"]

    assert client.call("scheduler.setenabled", False) == {"status": 200}
    assert client.call("scheduler.enabled") == {"status": 200, "response": False}
    assert pending_ids(client) == []
    assert broadcasts.wait_for("scheduler.enabled")

    assert client.call("scheduler.setenabled", True) == {"status": 200}
    assert pending_ids(client) == ["w"]


def test_events_due_together_are_performed_one_after_another(api, root, broadcasts):
    daemon, client = api
    date = utc_in(1)
    events = [once_event("a-out", "logout", date), once_event("b-switch", "fast user switch",
                                                              date),
              once_event("c-wake", "wake", date)]
    assert client.call("scheduler.setevents", events) == {"status": 200}
    assert broadcasts.wait_for("event.didperform", count=2, timeout=10)
    assert daemon.wait_for_line("IOKit Performing: ")
    names = [n for n in broadcasts.names() if n.startswith("event.")]
    assert names == ["event.willperform", "event.didperform"] * 2
    # No user is at the console of the mocked logind: the switch is skipped, not failed.
    assert daemon.wait_for_line("Ignored fast user switch - no active user")
    assert wait_until(lambda: "perch -l" in tool_calls(root))
    assert "perch -s" not in tool_calls(root)
    # The wake kind announced nothing; all three are gone from the warnings.
    assert wait_until(lambda: pending_ids(client) == [])
    assert [n for n in broadcasts.names() if n.startswith("event.")] == names


def test_broadcasts_follow_changes_only(api, broadcasts):
    _, client = api
    event = once_event("same", "restart", utc_in(3600))
    assert client.call("scheduler.set", event) == {"status": 200}
    assert broadcasts.wait_for("scheduler.events")
    assert broadcasts.wait_for("notifications.pending")
    assert client.call("notifications.setnotifyperiod", 900) == {"status": 200}  # unchanged
    assert client.call("scheduler.set", event) == {"status": 200}  # the same record again
    assert client.call("notifications.setnotifyperiod", 60) == {"status": 200}
    assert broadcasts.wait_for("notifications.notifyperiod")
    names = broadcasts.names()
    assert names.count("scheduler.events") == 1 and names.count("notifications.pending") == 1
    assert names.count("notifications.notifyperiod") == 1
    for name, user_info in broadcasts.received():
        if name.startswith(("scheduler.", "notifications.")):
            assert "<dict/>" in user_info or "<dict>\n</dict>" in user_info, (name, user_info)


def test_cancel_and_delay_of_a_daily_occurrence(api, root):
    daemon, client = api
    at = utc_in(3600)
    assert client.call("scheduler.set", daily_event("day", "restart", seconds_of_day(at))) == \
        {"status": 200}
    assert pending_date(client, "day") == at
    assert client.call("notifications.cancel", "day") == {"status": 200}
    assert pending_date(client, "day") == at + datetime.timedelta(days=1)
    # A delay is counted from the occurrence it moves.
    assert client.call("notifications.delay", {"uniqueid": "day", "seconds": 300}) == \
        {"status": 200}
    assert pending_date(client, "day") == at + datetime.timedelta(days=1, seconds=300)
    # A new time zone computes the daily time afresh and forgets the delay.
    set_zone(root, "Etc/GMT+1")
    daemon.signal(signal.SIGHUP)
    assert wait_until(lambda: pending_date(client, "day") == at + datetime.timedelta(hours=1)), \
        client.call("notifications.pending")


def inhibitors(logind, what):
    manager = logind.object(LOGIND_PATH)
    listed = manager.ListInhibitors(dbus_interface=LOGIND_MANAGER)
    return [i for i in listed if str(i[0]) == what and str(i[1]) == "nightjard"]


def test_an_inactivity_event_is_performed_once_the_user_is_idle(api, root, logind, broadcasts):
    daemon, client = api
    idle_since = int((time.time() - 100) * 1_000_000)
    logind.object(LOGIND_PATH).UpdateProperties(
        LOGIND_MANAGER,
        {"IdleHint": dbus.Boolean(True), "IdleSinceHint": dbus.UInt64(idle_since)},
        dbus_interface=MOCK)
    short = {"uniqueid": "idle", "name": "idle", "enabled": True,
             "trigger": {"type": "inactive", "secondsofinactivity": 30},
             "action": {"type": "logout"}}
    longer = dict(short, uniqueid="idle-long", name="idle-long",
                  trigger={"type": "inactive", "secondsofinactivity": 50},
                  action={"type": "restart"})
    assert client.call("scheduler.setevents", [longer, short]) == {"status": 200}
    # Idle for 100 s already: the shortest period is due at once. The machine may not
    # idle-sleep while the action is under way.
    assert broadcasts.wait_for("event.willperform", timeout=5)
    assert wait_until(lambda: inhibitors(logind, "idle"))
    assert broadcasts.wait_for("event.didperform", timeout=5)
    assert wait_until(lambda: not inhibitors(logind, "idle"))
    assert wait_until(lambda: "perch -l" in tool_calls(root))
    assert "gracestop" not in tool_calls(root)
    # Inactivity events are not warned ahead.
    assert pending_ids(client) == []


def test_many_wake_events_are_written_together(api, root):
    _, client = api
    base = utc_in(2 * 3600)
    events = [once_event(f"w{i:03}", "wake", base + datetime.timedelta(minutes=i))
              for i in range(150)]
    assert client.call("scheduler.setevents", list(reversed(events))) == {"status": 200}
    assert wait_until(lambda: len(wake_entries(root)) == len(events))
    times = sorted(e["time"] for e in wake_entries(root))
    assert times == [e["trigger"]["date"] for e in events]
    alarm = root / RTC_ALARM_FILE
    assert wait_until(lambda: alarm.read_text().strip() == epoch(base))
    assert client.call("scheduler.setevents", []) == {"status": 200}
    assert wait_until(lambda: wake_entries(root) == [])


def test_without_an_rtc_the_wake_list_is_still_kept(start_daemon, root, logind):
    (root / RTC_ALARM_FILE).unlink()
    daemon = start_daemon()
    assert daemon.wait_running()
    date = utc_in(3600)
    with Client(socket_path(root)) as client:
        assert client.call("scheduler.set", once_event("w", "wake", date)) == {"status": 200}
        assert wait_until(lambda: [e["time"] for e in wake_entries(root)] == [date])
        assert client.call("build.version")["status"] == 200
    assert daemon.process.poll() is None


def test_warnings_come_in_the_order_of_their_events(api, broadcasts):
    daemon, client = api
    assert client.call("notifications.setnotifyperiod", 2) == {"status": 200}
    events = [once_event("second", "wake", utc_in(4)), once_event("first", "wake", utc_in(3))]
    assert client.call("scheduler.setevents", events) == {"status": 200}
    assert pending_ids(client) == ["first", "second"]
    assert wait_until(lambda: len(warnings_issued(daemon)) == 2, timeout=5), daemon.messages()
    assert "first" in warnings_issued(daemon)[0] and "second" in warnings_issued(daemon)[1]
    assert broadcasts.wait_for("notifications.notify")
    # Wake kinds are carried out by the hardware: nothing is announced for them.
    assert wait_until(lambda: pending_ids(client) == [], timeout=5)
    assert "event.willperform" not in broadcasts.names()


def test_a_changed_event_is_warned_again_and_a_disabled_one_leaves(api, root, broadcasts):
    daemon, client = api
    assert client.call("notifications.setnotifyperiod", 7200) == {"status": 200}
    event = once_event("m", "wake", utc_in(3600))
    assert client.call("scheduler.set", event) == {"status": 200}
    assert wait_until(lambda: len(warnings_issued(daemon)) == 1)
    assert client.call("scheduler.set", dict(event, name="m2")) == {"status": 200}
    assert wait_until(lambda: len(warnings_issued(daemon)) == 2)
    assert "m2" in warnings_issued(daemon)[1]

    assert wait_until(lambda: len(wake_entries(root)) == 1)
    before = broadcasts.names().count("scheduler.events")
    assert client.call("scheduler.set", dict(event, name="m2", enabled=False)) == \
        {"status": 200}
    assert pending_ids(client) == []
    assert wait_until(lambda: wake_entries(root) == [])
    assert broadcasts.wait_for("scheduler.events", count=before + 1)
    assert [e["enabled"] for e in client.call("scheduler.events")["response"]] == [False]


def step(name, parameter, *seconds):  # a request; its entries, seconds after the date
    return (lambda client, root, date: client.call(name, parameter(date)),
            lambda date: [date + datetime.timedelta(seconds=s) for s in seconds])


def moved_by_zone(date):
    # Nine hours ahead of UTC, the time of day three hours ahead has passed today.
    return [date + datetime.timedelta(hours=15)]


def switch_zone(client, root, date):
    """Answers the first reply after the switch that lists the moved occurrence."""
    set_zone(root, "Etc/GMT-9")

    def moved():
        reply = client.call("notifications.pending")
        return reply if [e["trigger"]["date"] for e in reply["response"]] == \
            moved_by_zone(date) else None
    return wait_until(moved)


SET = step("scheduler.set", lambda date: once_event("up", "start up or wake", date), 0)
DELAY = step("notifications.delay", lambda date: {"uniqueid": "up", "seconds": 600}, 600)
ENTRY_CASES = {  # each case's steps in order, for an event three hours ahead; the zone last
    "set": [SET],
    "change": [SET, step("scheduler.set", lambda date: once_event(
        "up", "start up or wake", date + datetime.timedelta(hours=1)), 3600)],
    "remove": [SET, step("scheduler.remove", lambda date: "up")],
    "delay": [SET, DELAY],
    "cancel": [SET, step("notifications.cancel", lambda date: "up")],
    "reset": [SET, DELAY, step("notifications.reset", lambda date: "up", 0)],
    "setenabled": [SET, step("scheduler.setenabled", lambda date: False),
                   step("scheduler.setenabled", lambda date: True, 0)],
    "zone switch": [step("scheduler.set", lambda date: daily_event(
        "up", "start up or wake", seconds_of_day(date)), 0), (switch_zone, moved_by_zone)],
}


def test_the_wake_entries_are_written_before_the_reply_leaves(api, root):
    _, client = api
    for case, steps in ENTRY_CASES.items():
        # Each case starts from no event: the list emptied and the entries with it.
        assert client.call("scheduler.setevents", []) == {"status": 200}, case
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


def test_a_shutdown_is_told_to_every_terminal_at_its_warning_and_a_minute_before(api, root,
                                                                              logind):
    daemon, client = api
    session = logind.object(LOGIND_PATH).AddSession("c7", "seat0", dbus.UInt32(1000), "alice",
                                                    True, dbus_interface=MOCK)
    logind.object(session).Set("org.freedesktop.login1.Session", "TTY", "pts/7",
                               dbus_interface=dbus.PROPERTIES_IFACE)
    terminal = root / "dev/pts/7"
    terminal.parent.mkdir(parents=True)
    os.mkfifo(terminal)  # a reader is there, as on a terminal: the daemon's open does not fail
    reader = os.open(terminal, os.O_RDONLY | os.O_NONBLOCK)
    text = b""

    def two_messages():
        nonlocal text
        if select.select([reader], [], [], 0.05)[0]:
            text += os.read(reader, 65536)
        return text.count(b"Broadcast message from nightjard") == 2

    date = utc_in(62)
    event = once_event("halt", "shutdown", date, name="Nightly off")
    assert client.call("scheduler.set", event) == {"status": 200}
    assert wait_until(two_messages, timeout=8)
    os.close(reader)
    first, second = text.decode().split("\r\nBroadcast message")[1:]
    when = date.strftime("%a %Y-%m-%d %H:%M:%S UTC")
    assert f"The system will shut down at {when} (in 6" in first
    assert f"The system will shut down at {when} (in 60 seconds)," in second
    for message in (first, second):
        assert 'as scheduled by the event "Nightly off".' in message
        assert message.endswith("To put it off by 10 minutes: nightjarctl delay halt 10m\r\n")
    assert not any("pts/7" in line for line in daemon.lines())
