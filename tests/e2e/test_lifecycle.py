"""The daemon's command line, rights, start-up, signals and tear-down, seen from outside."""

import datetime
import os
import signal
import subprocess
import xml.etree.ElementTree as ElementTree

from nightjar_harness import PYTHON, once_event, wait_until


def test_one_shot_options_print_and_exit_without_claiming_the_lock(start_daemon, root):
    usage = "Usage: {} [-dhiuv] [-p <absolute path>]\n"
    for args, wanted in ((("-d", "-v"), "nightjard v3.7.3\n"), (("-h",), usage), (("-z",), usage)):
        daemon = start_daemon(*args)
        assert daemon.wait() == 0
        out = daemon.process.stdout.read().decode()
        assert out.startswith(wanted.format(daemon.process.args[0])), (args, out)
    assert not (root / "var/run/nightjard.pid").exists()


def test_a_lock_folder_or_a_socket_parent_that_will_not_do_stops_with_its_status(
        start_daemon, root, broadcasts):
    (root / "var/run").rmdir()
    (root / "var/run").write_text("")  # a file where the folder should be defeats even root
    daemon = start_daemon()
    assert daemon.wait() == 1
    assert any(line.startswith("<3>Stopping, failed to claim unique lock: ")
               and line.endswith("/var/run/nightjard.pid") for line in daemon.lines())
    (root / "var/run").unlink()
    (root / "var/run").mkdir()
    os.chmod(root / "var/tmp", 0o777)  # not sticky
    assert start_daemon().wait() == 13
    assert not os.path.exists(root / "var/tmp/quillon.nightjar/api")
    assert broadcasts.names() == []


def test_each_signal_is_logged_and_the_quitting_ones_tear_down(start_daemon, broadcasts):
    daemon = start_daemon(running=True)  # with a bus but no logind on it: the daemon runs on
    assert broadcasts.wait_for("socket.open")
    assert daemon.pid_file.read_text() == str(daemon.process.pid)
    daemon.process.send_signal(signal.SIGHUP)  # each signal's line is a unit case
    assert daemon.wait_for_line("SIGHUP/restart signal caught")
    assert daemon.process.poll() is None and daemon.pid_file.exists()
    assert daemon.terminate() == 0
    assert "<6>Caught 15 signal, quitting" in daemon.lines()
    assert not daemon.pid_file.exists()
    assert broadcasts.wait_for("socket.closed")
    assert broadcasts.names() == ["socket.open", "socket.closed"]
    assert all("<dict/>" in info or "<dict>\n</dict>" in info for _, info in broadcasts.received())
    daemon = start_daemon(bus=False, running=True)  # without a system bus too
    daemon.process.send_signal(signal.SIGINT)
    assert daemon.wait() == 0 and "Caught 2 signal, quitting" in daemon.messages()


HUNG_LOGIND = """
import sys, time, dbus
bus = dbus.bus.BusConnection(sys.argv[1])
bus.request_name("org.freedesktop.login1")
print("owned", flush=True)
time.sleep(60)  # owns the name, never answers
"""


def test_a_logind_that_never_answers_does_not_hold_up_start_up(start_daemon, system_bus):
    hung = subprocess.Popen([PYTHON, "-c", HUNG_LOGIND, system_bus.address],
                            stdout=subprocess.PIPE)
    try:
        assert hung.stdout.readline().strip() == b"owned"
        daemon = start_daemon()
        assert daemon.wait_running(timeout=15)
        assert daemon.terminate() == 0
    finally:
        hung.kill()
        hung.wait()


def test_daemonise_detaches_and_the_child_keeps_running(start_daemon, root, broadcasts):
    daemon = start_daemon("-d")
    assert daemon.wait() == 0  # the parent leaves at once
    assert broadcasts.wait_for("socket.open")
    # The pid file names the detached daemon, in a session of its own (no terminal).
    pid = int(daemon.pid_file.read_text())
    assert pid != daemon.process.pid and os.getsid(pid) == pid
    with open(f"/proc/{pid}/status") as status:
        assert "Umask:\t0027" in status.read()
    assert os.readlink(f"/proc/{pid}/cwd") == str(root / "usr/local")
    os.kill(pid, signal.SIGTERM)
    assert broadcasts.wait_for("socket.closed")
    assert wait_until(lambda: not daemon.pid_file.exists())


def test_the_status_line_follows_the_events_and_the_watchdog_is_fed(start_daemon):
    # WATCHDOG_USEC as the unit's WatchdogSec= sets it.
    daemon = start_daemon(extra_env={"WATCHDOG_USEC": "1000000"}, running=True)

    def notified(line):
        return wait_until(lambda: line in daemon.lines(notified=True))
    assert notified("STATUS=0 events")
    with daemon.client() as client:
        client.ok("scheduler.set", once_event("n1", "shutdown", datetime.datetime(
            2100, 1, 1, 22, 30), name="Nightly\noff"))
    # The zone is the root's, UTC; a name cannot break the line.
    assert notified("STATUS=1 event; next: Nightly off on 2100-01-01 at 22:30")
    assert notified("WATCHDOG=1")


READS = ["build.version", "notifications.pending", "notifications.notifyperiod",
         "scheduler.enabled", "scheduler.events"]
WRITES = ["notifications.cancel", "notifications.delay", "notifications.reset",
          "notifications.setnotifyperiod", "notifications.notify", "scheduler.setenabled",
          "scheduler.setevents", "scheduler.set", "scheduler.remove"]


def test_install_defines_the_fourteen_rights_once_and_uninstall_removes_them(
        start_daemon, root):
    policy = root / "usr/share/polkit-1/actions/quillon.nightjar.policy"

    def run(option):
        daemon = start_daemon(option)
        assert daemon.wait() == 0 and daemon.process.stdout.read() == b""
        assert not any("Unable to" in m for m in daemon.messages()), option

    run("-i")
    keys = ("allow_any", "allow_inactive", "allow_active")
    assert [(action.get("id"), [action.find("defaults").findtext(key).strip() for key in keys])
            for action in ElementTree.parse(policy).getroot().iter("action")] == [
        ("quillon.nightjar." + name, ["yes"] * 3) for name in READS] + [
        ("quillon.nightjar." + name, ["auth_admin_keep"] * 3) for name in WRITES]
    assert oct(policy.stat().st_mode & 0o777) == "0o644"
    first = policy.read_bytes()
    run("-i")
    assert policy.read_bytes() == first
    for _ in range(2):  # the rights removed with the file left empty of them; then nothing
        run("-u")
        assert not policy.exists()
    assert not (root / "var/run/nightjard.pid").exists()
