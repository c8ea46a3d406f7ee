"""nightjard -i and -u: the rights in polkit's action file under the daemon's root."""

import xml.etree.ElementTree as ElementTree

POLICY = "usr/share/polkit-1/actions/quillon.nightjar.policy"
READ_RIGHTS = ["build.version", "notifications.pending", "notifications.notifyperiod",
               "scheduler.enabled", "scheduler.events"]
WRITE_RIGHTS = ["notifications.cancel", "notifications.delay", "notifications.reset",
                "notifications.setnotifyperiod", "notifications.notify", "scheduler.setenabled",
                "scheduler.setevents", "scheduler.set", "scheduler.remove"]
RIGHTS = ["quillon.nightjar." + name for name in READ_RIGHTS + WRITE_RIGHTS]


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
    assert defaults_by_id(policy) == {name: ("yes",) * 3 if name in RIGHTS[:5] else
                                      ("auth_admin_keep",) * 3 for name in RIGHTS}
    assert list(defaults_by_id(policy)) == RIGHTS
    assert oct(policy.stat().st_mode & 0o777) == "0o644"
    first = policy.read_bytes()
    # A second -i changes nothing; -u removes the rights, and then the file left with none;
    # a second -u finds nothing.
    for option, exists in (("-i", True), ("-u", False), ("-u", False)):
        daemon = run(start_daemon, option)
        assert (policy.read_bytes() == first) if exists else not policy.exists(), option
        assert not any("Unable to" in m for m in daemon.messages())
    assert not (root / "var/run/nightjard.pid").exists()


def test_each_right_that_cannot_be_set_is_logged(start_daemon, root):
    folder = root / "usr/share/polkit-1/actions"
    folder.rmdir()
    folder.write_text("")  # a file where the folder should be: ENOTDIR
    daemon = run(start_daemon, "-i")
    failures = [line for line in daemon.lines() if "Unable to set right" in line]
    assert failures == [f"<3>Unable to set right: {name}, 20" for name in RIGHTS]
