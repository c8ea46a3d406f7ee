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
                              utc_in, wait_until)
from nightjar_harness import once_event as any_once_event

DELAY_10M, DELAY_1H = ("delay-600", "Delay 10 minutes"), ("delay-3600", "Delay 1 hour")
CANCEL = ("cancel", "Cancel")


def once_event(uniqueid, date, action="shutdown"):
    return any_once_event(uniqueid, action, date, uniqueid.capitalize())


class Desktop:
    """A session bus with a mock notification server, the daemon, and the agents started."""

    def __init__(self, tmp_path, root, system_bus, daemon, user=None):
        self.user = user
        if user:  # the session's user must reach its bus and the daemon's socket
            open_to_others(tmp_path)
        (tmp_path / "session").mkdir()
        # A bus that lets the test (root) and the session's user both in.
        self.session = PrivateBus(tmp_path / "session")
        self.env = dict(os.environ, NIGHTJAR_ROOT=str(root), TZ="UTC",
                        DBUS_SYSTEM_BUS_ADDRESS=system_bus.address,
                        DBUS_SESSION_BUS_ADDRESS=self.session.address,
                        XDG_CONFIG_HOME=str(tmp_path))
        self.server = DbusMock(self.session, "notification_daemon", system=False)
        self.mock = dbus.Interface(self.server.object("/org/freedesktop/Notifications"), MOCK)
        self.daemon = daemon
        self.client = daemon.client()
        self.agents = []

    def start_agent(self):
        agent = subprocess.Popen([str(AGENT)], env=self.env, stderr=subprocess.PIPE, text=True,
                                 user=self.user)
        self.agents.append(agent)
        return agent

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

    def invoke(self, notice_id, key):
        self.mock.EmitSignal(self.server.name, "ActionInvoked", "us",
                             [dbus.UInt32(notice_id), key])

    def warn(self, *events):
        """Sets the events (each warned at once: its date lies within the notify period)."""
        for event in events:
            self.client.ok("scheduler.set", event)

    def pending(self):
        return {e["uniqueid"]: e for e in self.client.call("notifications.pending")["response"]}

    def stop(self):
        for agent in self.agents:
            if agent.poll() is None:
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
    desktop.warn(once_event("halt", utc_in(4)))

    assert wait_until(desktop.notices, timeout=6)
    [(summary, body, actions)] = desktop.notices().values()
    assert summary.startswith("Shutdown at ")
    assert body in ("Halt: less than a minute left", "Halt: 1 minute left")
    assert actions == [DELAY_10M, DELAY_1H, CANCEL]
    hints = [args[6] for _, method, args in desktop.mock.GetCalls() if method == "Notify"]
    assert hints[0]["urgency"] == 2

    assert broadcasts.wait_for("event.willperform", timeout=8)
    assert wait_until(lambda: list(desktop.notices().values()) == [("Shutdown now", "Halt", [])])


def test_delay_cancel_and_remove_close_their_notices_and_a_second_agent_exits(desktop):
    first = desktop.start_agent()
    date = utc_in(900)
    desktop.warn(once_event("halt", date), once_event("boot", utc_in(1200), "restart"),
                 once_event("gone", utc_in(1300), "sleep"))
    assert wait_until(lambda: len(desktop.notices()) == 3)  # the agent owns its name by now
    second = desktop.start_agent()
    assert second.wait(timeout=10) == 0
    assert "another agent runs in this session" in second.stderr.read()
    assert first.poll() is None
    ids = {body.split(":")[0]: notice_id for notice_id, (_, body, _) in desktop.notices().items()}

    def shown(prefix):
        return [i for i, (_, body, _) in desktop.notices().items() if body.startswith(prefix)]

    desktop.invoke(ids["Halt"], DELAY_10M[0])
    assert wait_until(lambda: desktop.pending()["halt"]["trigger"]["date"]
                      == date + datetime.timedelta(seconds=600))
    # Still within the hour's period, the delayed event is warned again at once,
    # often within the same second as its first warning: a new notice all the same.
    assert wait_until(lambda: shown("Halt:") and ids["Halt"] not in shown("Halt:"))
    desktop.invoke(ids["Boot"], CANCEL[0])
    assert wait_until(lambda: "boot" not in desktop.pending())
    subprocess.run([str(CTL), "remove", "gone"], env=desktop.env, check=True, timeout=20)
    assert wait_until(lambda: len(desktop.notices()) == 1 and shown("Halt:"))


def test_a_restarted_daemon_leaves_one_notice_per_warning(desktop, start_daemon):
    desktop.start_agent()
    desktop.warn(once_event("halt", utc_in(900)), once_event("boot", utc_in(1000), "restart"))
    assert wait_until(lambda: len(desktop.notices()) == 2)

    desktop.daemon.signal(signal.SIGKILL)
    desktop.daemon.wait()
    desktop.client.close()
    desktop.client = start_daemon(running=True).client()
    desktop.warn(once_event("nap", utc_in(1100), "sleep"))  # shown after the re-read

    assert wait_until(lambda: len(desktop.notices()) == 3)
    bodies = sorted(body.split(":")[0] for _, body, _ in desktop.notices().values())
    assert bodies == ["Boot", "Halt", "Nap"]
    assert sum(method == "Notify" for _, method, _ in desktop.mock.GetCalls()) == 3


@pytest.mark.parametrize("desktop", [NOBODY], indirect=True)
def test_a_user_who_is_not_root_meets_polkit_with_interaction_first(desktop, polkitd):
    authority = polkitd.object("/org/freedesktop/PolicyKit1/Authority")
    authority.SetAllowed(["quillon.nightjar.notifications.pending",
                          "quillon.nightjar.notifications.delay"], dbus_interface=MOCK)
    desktop.start_agent()
    date = utc_in(900)
    desktop.warn(once_event("halt", date))
    assert wait_until(lambda: len(desktop.notices()) == 1)

    desktop.invoke(list(desktop.notices())[0], DELAY_10M[0])
    assert wait_until(lambda: desktop.pending()["halt"]["trigger"]["date"]
                      == date + datetime.timedelta(seconds=600))
    calls = authority.GetCalls(dbus_interface=MOCK)
    asked = [(str(args[1]), int(args[3])) for _, method, args in calls
             if method == "CheckAuthorization" and int(args[0][1]["uid"]) == NOBODY]
    assert ("quillon.nightjar.notifications.delay", 1) in asked
