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
from nightjar_harness import wait_until

LOGIND_PATH = "/org/freedesktop/login1"
MOCK = "org.freedesktop.DBus.Mock"


def utc_in(seconds):
    """A naive UTC date `seconds` ahead, whole seconds (the XML form keeps no fraction)."""
    now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0, tzinfo=None)
    return now + datetime.timedelta(seconds=seconds)


def once_event(uniqueid, action, date, name=None):
    return {"uniqueid": uniqueid, "name": name or uniqueid, "enabled": True,
            "trigger": {"type": "once", "date": date}, "action": {"type": action}}


@pytest.fixture
def api(start_daemon, root, logind):
    daemon = start_daemon()
    assert daemon.wait_running()
    client = Client(socket_path(root))
    yield daemon, client
    client.close()


def pending_ids(client):
    reply = client.call("notifications.pending")
    assert reply["status"] == 200
    return [event["uniqueid"] for event in reply.get("response", [])]


def pending_date(client, uniqueid):
    for event in client.call("notifications.pending")["response"]:
        if event["uniqueid"] == uniqueid:
            assert event["trigger"]["type"] == "once"
            return event["trigger"]["date"]
    return None


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

    log = root / "tool-calls.log"
    assert wait_until(lambda: log.exists() and "gracestop -h" in log.read_text())
    assert log.read_text().strip().endswith("/usr/local/nightjar/bin/gracestop -h")
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


def test_a_wake_event_sets_the_rtc_and_the_power_event_list(api, root, broadcasts):
    daemon, client = api
    date = utc_in(3 * 3600)
    assert client.call("scheduler.set", once_event("rise", "wake", date)) == {"status": 200}
    epoch = int(date.replace(tzinfo=datetime.timezone.utc).timestamp())
    alarm = root / "sys/class/rtc/rtc0/wakealarm"
    assert wait_until(lambda: alarm.read_text().strip() == str(epoch)), alarm.read_text()

    saved = root / "var/lib/nightjar/powerevents.plist"
    assert wait_until(saved.exists)
    entries = plistlib.loads(saved.read_bytes())
    assert [(e["eventtype"], e["time"]) for e in entries] == [("wake", date)]
    assert entries[0]["scheduledby"]

    # Removing the event takes its entry away and clears the alarm.
    assert client.call("scheduler.remove", "rise") == {"status": 200}
    assert wait_until(lambda: plistlib.loads(saved.read_bytes()) == [])
    assert wait_until(lambda: alarm.read_text().strip() in ("", "0"))
    assert "event.willperform" not in broadcasts.names()


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


def test_requests_are_answered_during_the_pause_before_an_action(api, broadcasts):
    _, client = api
    assert client.call("scheduler.set", once_event("off", "restart", utc_in(1))) == \
        {"status": 200}
    assert broadcasts.wait_for("event.willperform", timeout=6)
    assert "event.didperform" not in broadcasts.names()
    started = time.monotonic()
    assert client.call("build.version")["response"] == "nightjard v3.7.3"
    assert time.monotonic() - started < 0.5
    assert "event.didperform" not in broadcasts.names()  # still inside the pause
    assert broadcasts.wait_for("event.didperform")


def daily_event(uniqueid, action, seconds):
    return {"uniqueid": uniqueid, "name": uniqueid, "enabled": True,
            "trigger": {"type": "daily", "secondsfrommidnight": seconds,
                        "days": ["monday", "tuesday", "wednesday", "thursday", "friday",
                                 "saturday", "sunday"]},
            "action": {"type": action}}


def seconds_of_day(date):
    return date.hour * 3600 + date.minute * 60 + date.second


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
    zone = root / "etc/localtime"
    zone.unlink()
    zone.write_bytes(open("/usr/share/zoneinfo/Etc/GMT-9", "rb").read())
    daemon.signal(signal.SIGHUP)
    shifted = soon - datetime.timedelta(hours=9)
    while shifted <= utc_in(0):
        shifted += datetime.timedelta(days=1)
    assert wait_until(lambda: pending_date(client, "out") == shifted), \
        client.call("notifications.pending")


def test_disabling_the_scheduler_drops_warnings_and_wake_entries(api, root, broadcasts):
    _, client = api
    date = utc_in(7200)
    assert client.call("scheduler.set", once_event("w", "wake", date)) == {"status": 200}
    assert client.call("scheduler.set", dict(once_event("off", "shutdown", date),
                                             enabled=False)) == {"status": 200}
    assert pending_ids(client) == ["w"]
    saved = root / "var/lib/nightjar/powerevents.plist"
    assert wait_until(lambda: saved.exists() and len(plistlib.loads(saved.read_bytes())) == 1)

    assert client.call("scheduler.setenabled", False) == {"status": 200}
    assert client.call("scheduler.enabled") == {"status": 200, "response": False}
    assert pending_ids(client) == []
    assert wait_until(lambda: plistlib.loads(saved.read_bytes()) == [])
    assert broadcasts.wait_for("scheduler.enabled")

    assert client.call("scheduler.setenabled", True) == {"status": 200}
    assert pending_ids(client) == ["w"]
    assert wait_until(lambda: len(plistlib.loads(saved.read_bytes())) == 1)


def test_delays_add_up(api):
    _, client = api
    date = utc_in(3600)
    assert client.call("scheduler.set", once_event("d", "restart", date)) == {"status": 200}
    for _ in range(2):
        assert client.call("notifications.delay", {"uniqueid": "d", "seconds": 600}) == \
            {"status": 200}
    assert pending_date(client, "d") == date + datetime.timedelta(seconds=1200)


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
    log = root / "tool-calls.log"
    assert wait_until(lambda: log.exists() and "perch -l" in log.read_text())
    assert "perch -s" not in log.read_text()
    # The wake kind announced nothing; all three are gone from the warnings.
    assert wait_until(lambda: pending_ids(client) == [])
    assert [n for n in broadcasts.names() if n.startswith("event.")] == names


def test_requests_that_are_not_dictionaries_are_refused_without_harm(api):
    daemon, client = api
    for request in (["build.version"], "build.version", 7, {"Request": {"a": "b"}}):
        reply = client.request(request)
        assert isinstance(reply, dict) and reply.get("error") == 401, (request, reply)
    reply = client.call("notifications.delay", ["a", 60])
    assert reply["error"] == 405 and reply["reason"] == "Invalid parameter"
    assert client.call("build.version")["response"] == "nightjard v3.7.3"
    assert daemon.process.poll() is None


def test_wake_entries_follow_a_changed_event(api, root):
    _, client = api
    saved = root / "var/lib/nightjar/powerevents.plist"
    alarm = root / "sys/class/rtc/rtc0/wakealarm"

    def entries():
        return sorted((e["eventtype"], e["time"]) for e in plistlib.loads(saved.read_bytes())) \
            if saved.exists() else None

    first, later = utc_in(3 * 3600), utc_in(4 * 3600)
    assert client.call("scheduler.set", once_event("rise", "wake", first)) == {"status": 200}
    # An event the daemon carries out itself wakes the machine 30 seconds early.
    assert client.call("scheduler.set", once_event("halt", "shutdown", later)) == \
        {"status": 200}
    expected = [("wake", first), ("wake", later - datetime.timedelta(seconds=30))]
    assert wait_until(lambda: entries() == expected), entries()

    moved = first + datetime.timedelta(hours=2)
    assert client.call("scheduler.set", once_event("rise", "wake", moved)) == {"status": 200}
    expected = sorted([("wake", moved), ("wake", later - datetime.timedelta(seconds=30))])
    assert wait_until(lambda: entries() == expected), entries()
    epoch = int((later - datetime.timedelta(seconds=30)).replace(
        tzinfo=datetime.timezone.utc).timestamp())
    assert wait_until(lambda: alarm.read_text().strip() == str(epoch)), alarm.read_text()


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


def test_the_performed_event_is_announced_with_its_trigger_date(api, broadcasts):
    _, client = api
    assert client.call("scheduler.set", once_event("r", "restart", utc_in(1))) == \
        {"status": 200}
    assert broadcasts.wait_for("event.didperform", timeout=8)
    announced = dict(broadcasts.received())
    for name in ("event.willperform", "event.didperform"):
        assert "_DateTimeQueueController.Trigger.Date" in announced[name]
        assert plistlib.loads(announced[name].encode())["uniqueid"] == "r"


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
    zone = root / "etc/localtime"
    zone.unlink()
    zone.write_bytes(open("/usr/share/zoneinfo/Etc/GMT+1", "rb").read())
    daemon.signal(signal.SIGHUP)
    assert wait_until(lambda: pending_date(client, "day") == at + datetime.timedelta(hours=1)), \
        client.call("notifications.pending")


def inhibitors(logind, what):
    manager = logind.object(LOGIND_PATH)
    listed = manager.ListInhibitors(dbus_interface="org.freedesktop.login1.Manager")
    return [i for i in listed if str(i[0]) == what and str(i[1]) == "nightjard"]


def test_an_inactivity_event_is_performed_once_the_user_is_idle(api, root, logind, broadcasts):
    daemon, client = api
    idle_since = int((time.time() - 100) * 1_000_000)
    logind.object(LOGIND_PATH).UpdateProperties(
        "org.freedesktop.login1.Manager",
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
    log = root / "tool-calls.log"
    assert wait_until(lambda: log.exists() and "perch -l" in log.read_text())
    assert "gracestop" not in log.read_text()
    # Inactivity events are not warned ahead.
    assert pending_ids(client) == []


def test_many_wake_events_are_written_together(api, root):
    _, client = api
    base = utc_in(2 * 3600)
    events = [once_event(f"w{i:03}", "wake", base + datetime.timedelta(minutes=i))
              for i in range(150)]
    assert client.call("scheduler.setevents", list(reversed(events))) == {"status": 200}
    saved = root / "var/lib/nightjar/powerevents.plist"
    assert wait_until(lambda: saved.exists() and
                      len(plistlib.loads(saved.read_bytes())) == len(events))
    times = sorted(e["time"] for e in plistlib.loads(saved.read_bytes()))
    assert times == [e["trigger"]["date"] for e in events]
    epoch = int(base.replace(tzinfo=datetime.timezone.utc).timestamp())
    alarm = root / "sys/class/rtc/rtc0/wakealarm"
    assert wait_until(lambda: alarm.read_text().strip() == str(epoch))
    assert client.call("scheduler.setevents", []) == {"status": 200}
    assert wait_until(lambda: plistlib.loads(saved.read_bytes()) == [])


def test_without_an_rtc_the_wake_list_is_still_kept(start_daemon, root, logind):
    (root / "sys/class/rtc/rtc0/wakealarm").unlink()
    daemon = start_daemon()
    assert daemon.wait_running()
    date = utc_in(3600)
    with Client(socket_path(root)) as client:
        assert client.call("scheduler.set", once_event("w", "wake", date)) == {"status": 200}
        saved = root / "var/lib/nightjar/powerevents.plist"
        assert wait_until(lambda: saved.exists() and
                          [e["time"] for e in plistlib.loads(saved.read_bytes())] == [date])
        assert client.call("build.version")["status"] == 200
    assert daemon.process.poll() is None


def test_warnings_come_in_the_order_of_their_events(api, broadcasts):
    daemon, client = api
    assert client.call("notifications.setnotifyperiod", 2) == {"status": 200}
    events = [once_event("second", "wake", utc_in(4)), once_event("first", "wake", utc_in(3))]
    assert client.call("scheduler.setevents", events) == {"status": 200}
    assert pending_ids(client) == ["first", "second"]

    def issued():
        return [m for m in daemon.messages() if m.startswith("Issued notification: ")
                and m.count("uniqueid") == 0]

    assert wait_until(lambda: len(issued()) == 2, timeout=5), daemon.messages()
    assert "first" in issued()[0] and "second" in issued()[1]
    assert broadcasts.wait_for("notifications.notify")
    # Wake kinds are carried out by the hardware: nothing is announced for them.
    assert wait_until(lambda: pending_ids(client) == [], timeout=5)
    assert "event.willperform" not in broadcasts.names()


def test_a_changed_event_is_warned_again_and_a_disabled_one_leaves(api, root, broadcasts):
    daemon, client = api
    assert client.call("notifications.setnotifyperiod", 7200) == {"status": 200}
    event = once_event("m", "wake", utc_in(3600))
    assert client.call("scheduler.set", event) == {"status": 200}

    def warnings():
        return [m for m in daemon.messages() if m.startswith("Issued notification: ")
                and "uniqueid" not in m]

    assert wait_until(lambda: len(warnings()) == 1)
    assert client.call("scheduler.set", dict(event, name="m2")) == {"status": 200}
    assert wait_until(lambda: len(warnings()) == 2)
    assert "m2" in warnings()[1]

    saved = root / "var/lib/nightjar/powerevents.plist"
    assert wait_until(lambda: saved.exists() and len(plistlib.loads(saved.read_bytes())) == 1)
    before = broadcasts.names().count("scheduler.events")
    assert client.call("scheduler.set", dict(event, name="m2", enabled=False)) == \
        {"status": 200}
    assert pending_ids(client) == []
    assert wait_until(lambda: plistlib.loads(saved.read_bytes()) == [])
    assert broadcasts.wait_for("scheduler.events", count=before + 1)
    assert [e["enabled"] for e in client.call("scheduler.events")["response"]] == [False]


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
