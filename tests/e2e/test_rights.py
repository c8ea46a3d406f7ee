"""nightjard -i and -u: the rights in polkit's action file under the daemon's root."""

import xml.etree.ElementTree as ElementTree

READS = ["build.version", "notifications.pending", "notifications.notifyperiod",
         "scheduler.enabled", "scheduler.events"]
WRITES = ["notifications.cancel", "notifications.delay", "notifications.reset",
          "notifications.setnotifyperiod", "notifications.notify", "scheduler.setenabled",
          "scheduler.setevents", "scheduler.set", "scheduler.remove"]


def defaults_by_id(path):
    return {action.get("id"): tuple((action.find("defaults").findtext(key) or "no").strip()
                                    for key in ("allow_any", "allow_inactive", "allow_active"))
            for action in ElementTree.parse(path).getroot().iter("action")}


def test_install_defines_the_fourteen_rights_once_and_uninstall_removes_them(
        start_daemon, root):
    policy = root / "usr/share/polkit-1/actions/quillon.nightjar.policy"

    def run(option):
        daemon = start_daemon(option)
        assert daemon.wait() == 0 and daemon.process.stdout.read() == b""
        assert not any("Unable to" in m for m in daemon.messages()), option

    run("-i")
    assert list(defaults_by_id(policy).items()) == [
        ("quillon.nightjar." + name, ("yes",) * 3) for name in READS] + [
        ("quillon.nightjar." + name, ("auth_admin_keep",) * 3) for name in WRITES]
    assert oct(policy.stat().st_mode & 0o777) == "0o644"
    first = policy.read_bytes()
    run("-i")
    assert policy.read_bytes() == first
    for _ in range(2):  # the rights removed with the file left empty of them; then nothing
        run("-u")
        assert not policy.exists()
    assert not (root / "var/run/nightjard.pid").exists()
