"""The engine state across a stop and a restart of the daemon."""

import datetime
import os
import plistlib
import signal

from nightjar_client import authorization_form, socket_path
from nightjar_harness import (RTC_ALARM_FILE, STATE_FILE, WAKE_ENTRIES_FILE, epoch, once_event,
                              pending_dates, seconds_of_day, tool_calls, utc_in, wait_until,
                              wake_entries)
from nightjar_harness import daily_event as every_day_event


def daily_event(uniqueid):
    """A daily event with a member of the site's own, which is kept as it was sent."""
    return dict(every_day_event(uniqueid, "logout", 3600, ["monday", "friday"]), note="kept")


def test_events_warnings_and_wake_entries_survive_a_restart(start_daemon, root, logind):
    daemon = start_daemon(running=True)
    date, dawn = utc_in(3600), utc_in(5 * 3600)
    alarm = root / RTC_ALARM_FILE
    with daemon.client() as client:
        client.ok("notifications.setnotifyperiod", 7200)
        client.ok("scheduler.set", once_event("soon", "restart", date))
        client.ok("scheduler.set", daily_event("weekly"))
        client.ok("scheduler.set", once_event("dawn", "wake", dawn))
        events = client.call("scheduler.events")["response"]
        # Warned at once: the event is due within the notify period.
        assert wait_until(lambda: "metadatanotified" in client.call(
            "notifications.pending")["response"][0])
        pending = client.call("notifications.pending")["response"]
    assert daemon.terminate() == 0
    entries, set_alarm = wake_entries(root), alarm.read_text().strip()
    assert dawn in [e["time"] for e in entries] and set_alarm == epoch(entries[0]["time"])
    alarm.write_text("")  # a fired alarm is spent: the restarted daemon must set it again

    daemon = start_daemon(running=True)
    assert wait_until(lambda: alarm.read_text().strip() == set_alarm)
    assert wake_entries(root) == entries
    with daemon.client() as client:
        assert client.call("scheduler.events")["response"] == events
        assert client.call("notifications.notifyperiod")["response"] == 7200.0
        assert client.call("notifications.pending")["response"] == pending
        # The restored warning is not issued a second time.
        assert not any("Issued notification" in m and "soon" in m for m in daemon.messages())
        # The restored events still answer the warning requests.
        client.ok("notifications.delay", {"uniqueid": "soon", "seconds": 60})
        assert pending_dates(client)["soon"] == date + datetime.timedelta(seconds=60)


def test_events_missed_while_stopped_are_dropped_or_move_to_their_next_day(
        start_daemon, root, logind):
    daemon = start_daemon(running=True)
    date = utc_in(2)
    with daemon.client() as client:
        client.ok("scheduler.set", once_event("missed", "restart", date))
        client.ok("scheduler.set", every_day_event("nightly", "restart", seconds_of_day(date)))
    assert daemon.terminate() == 0
    assert wait_until(lambda: utc_in(0) > date, timeout=4)

    daemon = start_daemon(running=True)
    assert daemon.wait_for_line("Dropped event: ")
    assert daemon.wait_for_line("Rescheduling event: ")
    dropped = [m for m in daemon.messages() if m.startswith("Dropped event: ")]
    assert len(dropped) == 1 and "missed" in dropped[0] and dropped[0].endswith(", has past.")
    with daemon.client() as client:
        assert pending_dates(client) == {"nightly": date + datetime.timedelta(days=1)}
    assert "gracestop" not in tool_calls(root)


def test_a_socket_folder_in_a_non_sticky_parent_stops_with_status_13(
        start_daemon, root, broadcasts):
    os.chmod(root / "var/tmp", 0o777)
    assert start_daemon().wait() == 13
    assert not os.path.exists(socket_path(root))
    assert not broadcasts.wait_for("socket.open", timeout=0.5)
    assert broadcasts.names() == []


def test_a_forced_notify_period_wins_and_corrupt_files_are_kept_aside(
        start_daemon, root, logind):
    forced = root / "etc/nightjar/forced.plist"
    forced.write_bytes(plistlib.dumps({"notificationcontroller.notifyperiod": 60.0}))
    (root / STATE_FILE).write_text("<plist><dict><key>engine")
    (root / WAKE_ENTRIES_FILE).write_text("<plist><array>")
    daemon = start_daemon(running=True)
    with daemon.client() as client:
        assert client.call("scheduler.events") == {"status": 200, "response": []}
        assert client.call("notifications.notifyperiod")["response"] == 60.0
        client.ok("notifications.setnotifyperiod", 120)
        assert client.call("notifications.notifyperiod")["response"] == 60.0
        client.ok("scheduler.set", once_event("kept", "restart", utc_in(3600)))
    assert daemon.terminate() == 0
    # The corrupt store was kept aside, and a whole one holds the new state.
    saved = plistlib.loads((root / STATE_FILE).read_bytes())
    assert [e["uniqueid"] for e in saved["engine"]["events"]] == ["kept"]
    folder = root / "var/lib/nightjar"
    kept = list(folder.glob("preferences.plist.unreadable-*"))
    assert [k.read_text() for k in kept] == ["<plist><dict><key>engine"]
    assert any(f"kept as {kept[0]}" in m for m in daemon.messages())
    kept = list(folder.glob("powerevents.plist.unreadable-*"))
    assert [k.read_text() for k in kept] == ["<plist><array>"]


def warned_daily_state(count, name_length=255):
    """The saved state of `count` daily events with names and identifiers of
    `name_length` characters, each queued and warned, as the daemon saves it."""
    now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None, microsecond=0)
    midnight = now.replace(hour=0, minute=0, second=0)
    events, queue, pending = [], [], []
    for i in range(count):
        event = daily_event(f"{i:05d}".ljust(name_length, "u"))
        event["name"] = f"{i:05d}".ljust(name_length, "n")
        event["trigger"]["secondsfrommidnight"] = i * 7 % 86400
        date = midnight + datetime.timedelta(seconds=i * 7 % 86400)
        if date <= now:
            date += datetime.timedelta(days=1)
        queued = dict(event, **{"_DateTimeQueueController.Trigger.Date": date})
        events.append(event)
        queue.append(queued)
        pending.append(dict(queued, metadatatriggerdate=date, metadatanotified=now))
    queue.sort(key=lambda q: q["_DateTimeQueueController.Trigger.Date"])
    return {"engine": {"events": events, "queues": {"DateTime": queue},
                       "notifications": pending},
            "notificationcontroller.notifyperiod": 86400.0}


# The real limit (64 MiB) takes tens of seconds to fill and restore twice; the
# daemon's test-only variable lowers it, and the same code reads and writes.
LIMIT = 1024 * 1024


def test_a_state_near_the_limit_survives_a_restart_and_more_is_refused(
        start_daemon, root, logind):
    env = {"NIGHTJAR_TEST_MAX_FILE_BYTES": str(LIMIT)}
    store = root / STATE_FILE
    per_event = len(plistlib.dumps(warned_daily_state(2))) - len(
        plistlib.dumps(warned_daily_state(1)))
    count = (LIMIT - 16 * 1024) // per_event
    store.write_bytes(plistlib.dumps(warned_daily_state(count)))
    assert LIMIT - 32 * 1024 < store.stat().st_size <= LIMIT

    daemon = start_daemon(extra_env=env, running=True)
    with daemon.client() as client:
        events = client.call("scheduler.events")["response"]
        assert len(events) == count
        assert len(client.call("notifications.pending")["response"]) == count
        # Acknowledged, this would pass the limit and be lost at the next start.
        assert client.call("scheduler.set", daily_event("one-more")) == \
            {"error": 413, "reason": "Saved state would be too large"}
        assert client.call("scheduler.events")["response"] == events
    assert daemon.terminate() == 0
    assert store.stat().st_size <= LIMIT

    with start_daemon(extra_env=env, running=True).client() as client:
        assert client.call("scheduler.events")["response"] == events
    assert not list(store.parent.glob("*.unreadable-*"))


def test_sigterm_during_the_pause_finishes_the_perform_and_waiting_requests_first(
        start_daemon, root, logind, broadcasts):
    daemon = start_daemon(running=True)
    with daemon.client() as client:
        client.ok("scheduler.set", once_event("late", "restart", utc_in(1)))
        assert broadcasts.wait_for("event.willperform", timeout=5)
        client.send({"Request": "scheduler.remove", "Parameter": "late",
                     "Authorization": authorization_form()})
        daemon.signal(signal.SIGTERM)
        assert client.receive().value == {"status": 200}
    assert daemon.wait(timeout=5) == 0
    assert "gracestop -r" in tool_calls(root)
    assert broadcasts.wait_for("socket.closed")
    names = broadcasts.names()
    assert names.index("event.willperform") < names.index("event.didperform") \
        < names.index("socket.closed")
    # The signal came during the pause; the perform then completed (the once
    # event left the queue), and only then was the remove carried out.
    lines = daemon.messages()
    order = [next(i for i, line in enumerate(lines) if line.startswith(text))
             for text in ("Caught 15 signal, quitting", "Dropped event: late",
                          "API: {\"Authorization\"=>\"32 bytes of data\",\"Parameter\"=>\"late\"")]
    assert order == sorted(order), lines
    assert not daemon.pid_file.exists()
