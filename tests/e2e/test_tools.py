"""gracestop and perch against python3-dbusmock's logind on the private bus."""

import os
import subprocess

import dbus
import pytest

from nightjar_harness import BUILD_DIR, LOGIND_MANAGER, LOGIND_PATH, MOCK, DbusMock

DISPLAY_MANAGER = "org.freedesktop.DisplayManager"


def run_tool(name, bus_address, *args):
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus_address)
    return subprocess.run([str(BUILD_DIR / "tools" / name), *args], env=env,
                          capture_output=True, text=True, timeout=30)


def calls(mock_object, method):
    """The argument lists of every recorded call of `method`, as Python values."""
    return [list(args) for _, args in mock_object.GetMethodCalls(method, dbus_interface=MOCK)]


def refuse(logind, method, signature, error_name, message):
    code = f"raise dbus.exceptions.DBusException({message!r}, name={error_name!r})"
    logind.object(LOGIND_PATH).AddMethod(LOGIND_MANAGER, method, signature, "", code,
                                        dbus_interface=MOCK)


def add_session(logind, session_id, user, uid):
    logind.object(LOGIND_PATH).AddSession(session_id, "seat0", dbus.UInt32(uid), user, True,
                                          dbus_interface=MOCK)


@pytest.fixture
def display_manager(system_bus):
    """A display manager offering org.freedesktop.DisplayManager with one seat."""
    path = "/org/freedesktop/DisplayManager"
    mock = DbusMock(system_bus, DISPLAY_MANAGER, path=path, interface=DISPLAY_MANAGER)
    seat = path + "/Seat0"
    mock.object(path).AddObject(seat, DISPLAY_MANAGER + ".Seat", {"CanSwitch": True},
                                [("SwitchToGreeter", "", "", "")], dbus_interface=MOCK)
    mock.object(path).AddProperty(DISPLAY_MANAGER, "Seats",
                                  dbus.Array([dbus.ObjectPath(seat)], signature="o"),
                                  dbus_interface=MOCK)
    yield mock.object(seat)
    mock.stop()


@pytest.mark.parametrize("tool, option, method, argument, error, message", [
    ("gracestop", "-h", "PowerOff", False, "org.freedesktop.login1.BlockedByInhibitorLock",
     "Operation denied due to active block inhibitor"),
    ("gracestop", "-r", "Reboot", False, "org.freedesktop.login1.BlockedByInhibitorLock",
     "Operation denied due to active block inhibitor"),
    ("perch", "-l", "TerminateSession", "c2", "org.freedesktop.DBus.Error.AccessDenied",
     "Permission denied"),
    ("perch", "-s", "LockSession", "c2", "org.freedesktop.DBus.Error.AccessDenied",
     "Permission denied"),  # -s locks: no display manager runs
])
def test_each_action_reaches_logind_without_interaction_and_a_refusal_is_reported(
        system_bus, logind, tool, option, method, argument, error, message):
    add_session(logind, "c1", "alice", 1000)
    add_session(logind, "c2", "bob", 1001)  # now the active one
    result = run_tool(tool, system_bus.address, option)
    assert result.returncode == 0, result.stderr
    assert calls(logind.object(LOGIND_PATH), method) == [[argument]]
    refuse(logind, method, "b" if tool == "gracestop" else "s", error, message)
    result = run_tool(tool, system_bus.address, option)
    assert result.returncode == 1
    assert f"{tool}: cannot" in result.stderr and message in result.stderr


def test_tools_without_a_system_bus_or_logind(system_bus, tmp_path):
    for tool, option in (("gracestop", "-r"), ("perch", "-l")):
        result = run_tool(tool, f"unix:path={tmp_path}/no-bus", option)
        assert result.returncode == 1
        assert f"{tool}: cannot connect to the system bus" in result.stderr
    result = run_tool("gracestop", system_bus.address, "-h")
    assert result.returncode == 1
    assert "gracestop: cannot power off: logind is not running" in result.stderr


@pytest.mark.parametrize("tool", ["gracestop", "perch"])
@pytest.mark.parametrize("args", [[], ["-x"], ["-h", "-r"], ["-l", "-s"], ["--help"], ["l"]])
def test_bad_arguments_print_the_usage(tool, args):
    result = run_tool(tool, "unix:path=/nonexistent", *args)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith(f"usage: {tool} ")


def test_perch_without_a_user_at_the_console(system_bus, logind):
    logind.object(LOGIND_PATH).AddSeat("seat0", dbus_interface=MOCK)
    for option in ("-l", "-s"):
        result = run_tool("perch", system_bus.address, option)
        assert result.returncode == 1
        assert "no user session is active on seat0" in result.stderr
    assert calls(logind.object(LOGIND_PATH), "TerminateSession") == []
    assert calls(logind.object(LOGIND_PATH), "LockSession") == []


def test_perch_switch_goes_through_the_display_manager(system_bus, logind, display_manager):
    add_session(logind, "c1", "alice", 1000)
    result = run_tool("perch", system_bus.address, "-s")
    assert result.returncode == 0, result.stderr
    assert calls(display_manager, "SwitchToGreeter") == [[]]
    assert calls(logind.object(LOGIND_PATH), "LockSession") == []
