"""nightjar-agent against the real daemon, with python3-dbusmock's notification
server on a private session bus: notices follow the pending warnings, and their
actions reach the daemon."""

import datetime
import os
import signal
import subprocess

import dbus
import pytest

from nightjar_harness import (AGENT, CTL, MOCK, NOBODY, DbusMock, PrivateBus, open_to_others,
                              pending_dates, utc_in, wait_until)
from nightjar_harness import once_event as any_once_event

ACTIONS = [("delay-600", "Delay 10 minutes"), ("delay-3600", "Delay 1 hour"), ("cancel", "Cancel")]


def once_event(uniqueid, seconds, action="shutdown"):
    return any_once_event(uniqueid, action, utc_in(seconds), uniqueid.capitalize())


class Desktop:
    """A session bus with a mock notification server, the daemon, and the agents started."""

    def __init__(self, tmp_path, root, system_bus, daemon, user=None):
        if user:  # the session's user must reach its bus and the daemon's socket
            open_to_others(tmp_path)
        (tmp_path / "session").mkdir()
        self.user, self.session = user, PrivateBus(tmp_path / "session")
        self.env = dict(os.environ, NIGHTJAR_ROOT=str(root), TZ="UTC",
                        DBUS_SYSTEM_BUS_ADDRESS=system_bus.address,
                        DBUS_SESSION_BUS_ADDRESS=self.session.address,
                        XDG_CONFIG_HOME=str(tmp_path))
        self.server = DbusMock(self.session, "notification_daemon")
        self.mock = dbus.Interface(self.server.object("/org/freedesktop/Notifications"), MOCK)
        self.daemon, self.client, self.agents = daemon, daemon.client(), []

    def start_agent(self):
        self.agents.append(subprocess.Popen([str(AGENT)], env=self.env, stderr=subprocess.PIPE,
                                            text=True, user=self.user))
        return self.agents[-1]

    def notices(self):
        """The notices on screen, by id: (summary, body, actions as (key, label) pairs)."""
        shown, next_id = {}, 1
        for _, method, args in self.mock.GetCalls():
            if method == "Notify":
                replaces, summary, body, actions = int(args[1]), args[3], args[4], args[5]
                notice_id = replaces or next_id
                next_id += 0 if replaces else 1
                pairs = [(str(actions[i]), str(actions[i + 1])) for i in range(0, len(actions), 2)]
                shown[notice_id] = (str(summary), str(body), pairs)
            elif method == "CloseNotification":
                shown.pop(int(args[0]), None)
        return shown

    def shown(self, prefix):
        return [i for i, (_, body, _) in self.notices().items() if body.startswith(prefix)]

    def invoke(self, notice_id, key):
        self.mock.EmitSignal(self.server.name, "ActionInvoked", "us",
                             [dbus.UInt32(notice_id), key])

    def warn(self, *events):
        """Sets the events (each warned at once: its date lies within the notify period)."""
        for event in events:
            self.client.ok("scheduler.set", event)

    def pending(self, uniqueid):  # the date of its pending warning, None without one
        return pending_dates(self.client).get(uniqueid)

    def stop(self):
        for agent in self.agents:
            agent.terminate()
            agent.wait(timeout=10)
        self.client.close()
        self.server.stop()
        self.session.stop()


@pytest.fixture
def desktop(tmp_path, root, system_bus, start_daemon, request):
    desk = Desktop(tmp_path, root, system_bus, start_daemon(running=True),
                   getattr(request, "param", None))
    desk.client.ok("notifications.setnotifyperiod", 3600)
    yield desk
    desk.stop()


def test_a_warning_is_one_notice_with_three_actions_then_a_last_one(desktop, broadcasts):
    desktop.client.ok("notifications.setnotifyperiod", 2)
    desktop.start_agent()
    desktop.warn(once_event("halt", 4))
    assert wait_until(desktop.notices, timeout=6)
    [(summary, body, actions)] = desktop.notices().values()
    assert summary.startswith("Shutdown at ")
    assert body in ("Halt: less than a minute left", "Halt: 1 minute left")
    assert actions == ACTIONS
    hints = [args[6] for _, method, args in desktop.mock.GetCalls() if method == "Notify"]
    assert hints[0]["urgency"] == 2
    assert broadcasts.wait_for("event.willperform", timeout=8)
    assert wait_until(lambda: list(desktop.notices().values()) == [("Shutdown now", "Halt", [])])


def test_delay_cancel_and_remove_close_their_notices_and_a_second_agent_exits(desktop):
    first = desktop.start_agent()
    desktop.warn(once_event("halt", 900), once_event("boot", 1200, "restart"),
                 once_event("gone", 1300, "sleep"))
    date = desktop.pending("halt")
    assert wait_until(lambda: len(desktop.notices()) == 3)  # the agent owns its name by now
    second = desktop.start_agent()
    assert second.wait(timeout=10) == 0
    assert "another agent runs in this session" in second.stderr.read()
    assert first.poll() is None
    [halt], [boot] = desktop.shown("Halt:"), desktop.shown("Boot:")
    desktop.invoke(halt, "delay-600")
    assert wait_until(lambda: desktop.pending("halt") == date + datetime.timedelta(seconds=600))
    # Still within the hour's period, the delayed event is warned again at once,
    # often within the same second as its first warning: a new notice all the same.
    assert wait_until(lambda: desktop.shown("Halt:") and halt not in desktop.shown("Halt:"))
    desktop.invoke(boot, "cancel")
    assert wait_until(lambda: desktop.pending("boot") is None)
    subprocess.run([str(CTL), "remove", "gone"], env=desktop.env, check=True, timeout=20)
    assert wait_until(lambda: len(desktop.notices()) == 1 and desktop.shown("Halt:"))


def test_a_restarted_daemon_leaves_one_notice_per_warning(desktop, start_daemon):
    desktop.start_agent()
    desktop.warn(once_event("halt", 900), once_event("boot", 1000, "restart"))
    assert wait_until(lambda: len(desktop.notices()) == 2)
    desktop.daemon.process.send_signal(signal.SIGKILL)
    desktop.daemon.wait()
    desktop.client.close()
    desktop.client = start_daemon(running=True).client()
    desktop.warn(once_event("nap", 1100, "sleep"))  # shown after the re-read
    assert wait_until(lambda: len(desktop.notices()) == 3)
    assert sorted(body.split(":")[0] for _, body, _ in desktop.notices().values()) == \
        ["Boot", "Halt", "Nap"]
    assert sum(method == "Notify" for _, method, _ in desktop.mock.GetCalls()) == 3


@pytest.mark.parametrize("desktop", [NOBODY], indirect=True)
def test_a_user_who_is_not_root_meets_polkit_with_interaction_first(desktop, polkitd):
    authority = polkitd.object("/org/freedesktop/PolicyKit1/Authority")
    authority.SetAllowed(["quillon.nightjar.notifications.pending",
                          "quillon.nightjar.notifications.delay"], dbus_interface=MOCK)
    desktop.start_agent()
    desktop.warn(once_event("halt", 900))
    date = desktop.pending("halt")
    assert wait_until(lambda: len(desktop.notices()) == 1)
    desktop.invoke(list(desktop.notices())[0], "delay-600")
    assert wait_until(lambda: desktop.pending("halt") == date + datetime.timedelta(seconds=600))
    asked = [(str(args[1]), int(args[3])) for _, method, args in
             authority.GetCalls(dbus_interface=MOCK)
             if method == "CheckAuthorization" and int(args[0][1]["uid"]) == NOBODY]
    assert ("quillon.nightjar.notifications.delay", 1) in asked
