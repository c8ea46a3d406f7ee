"""nightjarctl against the real daemon: every subcommand, export and apply, and the sentences
of bad input and of refusals (watch: test_event_road)."""

import json
import os
import shlex
import signal
import socket
import subprocess

import pytest

from nightjar_harness import CTL, MOCK, NOBODY, open_to_others, wait_until


def ctl_env(root, system_bus=None):
    """nightjarctl's environment: the test's root, a fixed zone, the private bus if any."""
    env = dict(os.environ, NIGHTJAR_ROOT=str(root), TZ="Europe/Berlin")
    if system_bus:
        env["DBUS_SYSTEM_BUS_ADDRESS"] = system_bus.address
    return env


@pytest.fixture
def ctl(root, system_bus, daemon):
    """Runs nightjarctl against a running daemon; answers (exit status, stdout, stderr)."""
    def run(*args, user=None, tty=False):
        command = [str(CTL), *args]
        if tty:  # on a terminal of its own, as a person types it
            command = ["script", "-qec", shlex.join(command), "/dev/null"]
        done = subprocess.run(command, env=ctl_env(root, system_bus), capture_output=True,
                              text=True, timeout=20, user=user)
        return done.returncode, done.stdout, done.stderr

    run.daemon = daemon
    return run


def api_lines(daemon):
    """The exchanges logged so far: a SIGUSR1 line read back marks the end of what is logged."""
    marks = daemon.messages().count("SIGUSR1/rotate signal caught") + 1
    daemon.process.send_signal(signal.SIGUSR1)
    assert wait_until(lambda: daemon.messages().count("SIGUSR1/rotate signal caught") == marks)
    return [line for line in daemon.messages() if line.startswith("API:")]


def add(ctl, *args):
    status, out, err = ctl("add", *args)
    assert status == 0, err
    return out.strip()


# (arguments, exit status, text in stdout, text in stderr); "{id}" is the event added first.
SUBCOMMANDS = [
    (["version"], 0, "nightjard v3.7.3", ""),
    (["list"], 0, "Nightly  daily 22:30  shutdown", ""),
    (["show", "{id}"], 0, "action:  shutdown", ""),
    (["set", "{id}", "--daily", "21:00", "--days", "weekends", "--name", "Weekend"], 0, "", ""),
    (["show", "{id}", "--json"], 0, '"saturday"', ""),
    (["list", "--json"], 0, '"secondsfrommidnight": 75600', ""),
    (["status"], 0, "scheduler:      on\nevents:         1\n", ""),
    (["status", "--json"], 0, '"version": "nightjard v3.7.3"', ""),
    (["pending"], 0, "Weekend", ""),
    (["pending", "--json"], 0, '"metadatatriggerdate"', ""),
    (["disable"], 0, "", ""),
    (["status"], 0, "scheduler:      off", ""),
    (["enable"], 0, "", ""),
    (["notify-period", "2h"], 0, "", ""),
    (["notify-period"], 0, "2h", ""),
    (["delay", "{id}", "10m"], 0, "", ""),
    (["cancel", "{id}"], 0, "", ""),
    (["reset", "{id}"], 0, "", ""),
    (["raw", "build.version"], 0, "<string>nightjard v3.7.3</string>", ""),
    (["export"], 0, '"name": "Weekend"', ""),
    (["remove", "{id}"], 0, "", ""),
    (["remove", "{id}"], 1, "", "no event has the identifier {id}"),
    # Refused by the daemon: exit status 1, the reply as sentences.
    (["add", "--idle", "25h", "--action", "sleep"], 1, "",
     "trigger.secondsofinactivity: above maximum of 86400"),
    (["raw", "scheduler.set"], 1, "", '"scheduler.set" needs a parameter'),
    (["raw", "build.version", "<string>x</string>"], 1, "", "only reads and takes no parameter"),
    (["raw", "scheduler.bogus"], 1, "",
     "permission denied: you do not hold the right quillon.nightjar.scheduler.bogus"),
    # Refused before anything is sent: exit status 2 and a sentence.
    (["add", "--at", "next week", "--action", "shutdown"], 2, "", '"next week" is not a date'),
    (["add", "--idle", "30m", "--action", "fly"], 2, "", '"fly" is not an action'),
    (["delay", "X", "10q"], 2, "", '"10q" is not a duration'),
    (["raw", "scheduler.set", "<nope"], 2, "", "not an XML property list"),
    (["add"], 2, "", "add needs --action"),
    (["frobnicate"], 2, "", ""),
]


def test_every_subcommand(ctl):
    event = add(ctl, "--daily", "22:30", "--days", "mon-fri", "--action", "shutdown",
                "--name", "Nightly")
    for args, status, out, err in SUBCOMMANDS:
        sent = len(api_lines(ctl.daemon)) if status == 2 else None
        result = ctl(*[arg.format(id=event) for arg in args])
        assert result[0] == status, (args, result)
        assert out.format(id=event) in result[1], (args, result)
        assert err.format(id=event) in result[2], (args, result)
        assert sent is None or len(api_lines(ctl.daemon)) == sent, args


def test_a_local_date_and_a_status_that_warns_when_the_rtc_holds_another_alarm(ctl, root):
    event = add(ctl, "--at", "2027-07-01 07:00", "--action", "poweron")
    shown = json.loads(ctl("show", event, "--json")[1])
    assert (shown["trigger"]["date"], shown["action"]["type"]) == (
        "2027-07-01T05:00:00Z", "start up or wake")
    assert "2027-07-01 07:00  enabled" in ctl("list")[1]
    assert "warning" not in ctl("status")[1]
    (root / "sys/class/rtc/rtc0/wakealarm").write_text("0\n")
    out = ctl("status")[1]
    assert "RTC wake alarm: none\n" in out and "warning: the RTC wake alarm (none) differs" in out
    assert json.loads(ctl("status", "--json")[1])["wakematches"] is False


def test_a_daemon_that_is_not_running(root):
    path = root / "var/tmp/quillon.nightjar/api"
    for wanted in (f"no socket at {path}", f"stale socket at {path}, nobody accepts on it"):
        done = subprocess.run([str(CTL), "list"], env=ctl_env(root), capture_output=True,
                              text=True)
        assert (done.returncode, done.stderr) == (
            1, f"nightjarctl: nightjard is not running ({wanted})\n")
        if not path.exists():  # then a socket left behind, with no daemon at it
            path.parent.mkdir()
            socket.socket(socket.AF_UNIX).bind(str(path))


def test_export_then_apply_sends_nothing_and_a_second_apply_neither(ctl, tmp_path):
    kept = add(ctl, "--daily", "06:00", "--days", "all", "--action", "poweron", "--name", "Up")
    gone = add(ctl, "--idle", "30m", "--action", "sleep", "--name", "Idle")
    exported, wanted = tmp_path / "events.json", tmp_path / "wanted.json"
    exported.write_text(ctl("export")[1])
    events = [event for event in json.loads(exported.read_text()) if event["uniqueid"] != gone]
    events[0]["name"] = "Up early"
    events.append({"uniqueid": "F1", "name": "Fleet", "enabled": False,
                   "trigger": {"type": "once", "date": "2030-01-01T00:00:00Z"},
                   "action": {"type": "restart"},
                   "site": {"base64": "AAEC"}, "weight": 1.5, "count": 3})
    wanted.write_text(json.dumps(events))

    def apply(*args):  # with nothing to change, only the listing is sent
        sent = len(api_lines(ctl.daemon))
        result = ctl("apply", *args)
        assert len(api_lines(ctl.daemon)) == sent + 1, args
        return result

    assert apply(str(exported)) == apply("--check", str(exported)) == (0, "", "")
    status, out, _ = apply("--check", str(wanted))
    assert status == 3 and "would remove Idle" in out
    status, out, _ = ctl("apply", str(wanted))
    assert (status, sorted(out.splitlines())) == (0, [
        "add Fleet (F1)", f"change Up early ({kept})", f"remove Idle ({gone})"])
    assert apply(str(wanted)) == (0, "", "")


def interactive_checks(polkitd):
    """The rights polkit was asked for with user interaction (flag 1)."""
    calls = polkitd.object("/org/freedesktop/PolicyKit1/Authority").GetCalls(dbus_interface=MOCK)
    return [str(args[1]) for _, method, args in calls
            if method == "CheckAuthorization" and int(args[3]) == 1]


def test_a_user_holds_a_write_right_only_when_polkit_grants_it(ctl, polkitd, tmp_path):
    open_to_others(tmp_path)  # the client runs as nobody
    authority = polkitd.object("/org/freedesktop/PolicyKit1/Authority")
    # polkit grants the read rights to anyone, as the installed policy says.
    reads = ["quillon.nightjar.scheduler.events", "quillon.nightjar.notifications.pending"]
    authority.SetAllowed(reads, dbus_interface=MOCK)
    status, out, err = ctl("list", user=NOBODY)
    assert (status, out.split()[:1]) == (0, ["NAME"]), err
    refusal = ("nightjarctl: permission denied: you do not hold the right "
               "quillon.nightjar.scheduler.set (run as root, or authenticate through polkit)")
    add_idle = ("add", "--idle", "30m", "--action", "sleep")
    assert ctl("--no-ask-password", *add_idle, user=NOBODY) == (1, "", refusal + "\n")
    assert ctl(*add_idle, "--no-ask-password", user=NOBODY, tty=True)[0] == 1
    assert interactive_checks(polkitd) == []
    # On a terminal the right is asked for with interaction first, then refused all the same.
    status, out, _ = ctl(*add_idle, user=NOBODY, tty=True)
    assert status == 1 and refusal in out
    assert interactive_checks(polkitd) == ["quillon.nightjar.scheduler.set"]
    authority.SetAllowed(reads + ["quillon.nightjar.scheduler.set"], dbus_interface=MOCK)
    status, out, err = ctl("--no-ask-password", *add_idle, user=NOBODY)
    assert status == 0 and out.strip() in ctl("list", "--json", user=NOBODY)[1], err
