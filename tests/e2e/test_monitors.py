"""The daemon's system monitors against python3-dbusmock's logind on the private bus."""

import dbus

from nightjar_harness import (LOGIND_MANAGER, LOGIND_PATH, MOCK, RTC_ALARM_FILE, epoch,
                              inhibitors, once_event, utc_in, wait_until)


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
