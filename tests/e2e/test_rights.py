"""nightjard -i and -u: the rights in polkit's action file under the daemon's root."""

import os
import xml.etree.ElementTree as ElementTree

import dbus
import dbusmock

from nightjar_client import Client, socket_path
from nightjar_harness import NOBODY, as_user
from test_api_replies import EVENT, UNAUTHORIZED

POLICY = "usr/share/polkit-1/actions/quillon.nightjar.policy"
READ_RIGHTS = ["build.version", "notifications.pending", "notifications.notifyperiod",
               "scheduler.enabled", "scheduler.events"]
WRITE_RIGHTS = ["notifications.cancel", "notifications.delay", "notifications.reset",
                "notifications.setnotifyperiod", "notifications.notify", "scheduler.setenabled",
                "scheduler.setevents", "scheduler.set", "scheduler.remove"]
RIGHTS = ["quillon.nightjar." + name for name in READ_RIGHTS + WRITE_RIGHTS]

OWN_SET = """  <action id="quillon.nightjar.scheduler.set">
    <description>Set by the site</description>
    <message>Ask the site</message>
    <defaults><allow_any>no</allow_any><allow_inactive>no</allow_inactive><allow_active>auth_self</allow_active></defaults>
  </action>
"""
FOREIGN = """  <action id="org.example.other">
    <defaults><allow_any>yes</allow_any></defaults>
  </action>
"""


def policy_file(actions):
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<!-- the site\'s -->\n<policyconfig>\n'
            + actions + "</policyconfig>\n")


def run(start_daemon, option):
    daemon = start_daemon(option)
    assert daemon.wait() == 0
    assert daemon.process.stdout.read() == b""
    return daemon


def defaults_by_id(path):
    result = {}
    for action in ElementTree.parse(path).getroot().iter("action"):
        defaults = action.find("defaults")
        result[action.get("id")] = tuple(
            (defaults.findtext(key) or "no").strip()
            for key in ("allow_any", "allow_inactive", "allow_active"))
    return result


def test_install_defines_the_fourteen_rights_once_and_uninstall_removes_them(
        start_daemon, root):
    run(start_daemon, "-i")
    policy = root / POLICY
    rules = defaults_by_id(policy)
    assert list(rules) == RIGHTS
    for name in RIGHTS[:5]:
        assert rules[name] == ("yes", "yes", "yes")
    for name in RIGHTS[5:]:
        assert rules[name] == ("auth_admin_keep",) * 3
    assert oct(policy.stat().st_mode & 0o777) == "0o644"
    first = policy.read_bytes()

    daemon = run(start_daemon, "-i")
    assert policy.read_bytes() == first
    assert not any("Unable to" in m for m in daemon.messages())
    assert not (root / "var/run/nightjard.pid").exists()

    # -u removes the rights, and then the file left with none; a second -u finds nothing.
    daemon = run(start_daemon, "-u")
    assert not policy.exists()
    assert not any("Unable to" in m for m in daemon.messages())
    run(start_daemon, "-u")
    assert not policy.exists()


def test_install_keeps_an_already_defined_right_and_the_files_other_content(start_daemon, root):
    policy = root / POLICY
    policy.write_text(policy_file(OWN_SET + FOREIGN))
    run(start_daemon, "-i")
    text = policy.read_text()
    assert text.startswith(policy_file(OWN_SET + FOREIGN)[:-len("</policyconfig>\n")])
    rules = defaults_by_id(policy)
    assert rules["quillon.nightjar.scheduler.set"] == ("no", "no", "auth_self")
    assert sorted(rules) == sorted(RIGHTS + ["org.example.other"])

    # -u takes every right of ours, the site's own definition too, and keeps the rest.
    run(start_daemon, "-u")
    assert policy.read_text() == policy_file(FOREIGN)


def test_each_right_that_cannot_be_set_is_logged(start_daemon, root):
    folder = root / "usr/share/polkit-1/actions"
    folder.rmdir()
    folder.write_text("")  # a file where the folder should be: ENOTDIR
    daemon = run(start_daemon, "-i")
    failures = [line for line in daemon.lines() if "Unable to set right" in line]
    assert failures == [f"<3>Unable to set right: {name}, 20" for name in RIGHTS]


def test_a_user_holds_a_write_right_only_when_polkit_grants_it(polkitd, daemon, root):
    authority = dbus.Interface(polkitd.object("/org/freedesktop/PolicyKit1/Authority"),
                               dbusmock.MOCK_IFACE)

    def set_then_list():
        with Client("api") as client:
            written, listed = client.call("scheduler.set", EVENT), client.call("scheduler.events")
            return written, listed["status"], [e["uniqueid"] for e in listed["response"]]

    # polkit answers for the installed defaults: reads for anyone, writes by grant.
    set_right = "quillon.nightjar.scheduler.set"
    for extra, expected in (([], [UNAUTHORIZED, 200, []]),
                            ([set_right], [{"status": 200}, 200, ["e1"]])):
        authority.SetAllowed(RIGHTS[:5] + extra)
        with as_user(NOBODY, os.path.dirname(socket_path(root)), set_then_list) as replies:
            assert replies == expected
    assert daemon.wait_for_line(f"Authorization refused: {set_right}")
