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


def calls(mock_object, method):  # the argument lists of each recorded call
    return [list(args) for _, args in mock_object.GetMethodCalls(method, dbus_interface=MOCK)]


REFUSALS = {"gracestop": ("org.freedesktop.login1.BlockedByInhibitorLock",
                          "Operation denied due to active block inhibitor"),
            "perch": ("org.freedesktop.DBus.Error.AccessDenied", "Permission denied")}


@pytest.mark.parametrize("tool, option, method, argument", [  # perch -s locks: no display manager
    ("gracestop", "-h", "PowerOff", False), ("gracestop", "-r", "Reboot", False),
    ("perch", "-l", "TerminateSession", "c2"), ("perch", "-s", "LockSession", "c2")])
def test_each_action_reaches_logind_without_interaction_and_a_refusal_is_reported(
        system_bus, logind, tool, option, method, argument):
    error, message = REFUSALS[tool]
    manager = logind.object(LOGIND_PATH)
    for session, user, uid in (("c1", "alice", 1000), ("c2", "bob", 1001)):  # c2 active
        manager.AddSession(session, "seat0", dbus.UInt32(uid), user, True, dbus_interface=MOCK)
    result = run_tool(tool, system_bus.address, option)
    assert result.returncode == 0, result.stderr
    assert calls(manager, method) == [[argument]]
    manager.AddMethod(LOGIND_MANAGER, method, "b" if tool == "gracestop" else "s", "",
                      f"raise dbus.exceptions.DBusException({message!r}, name={error!r})",
                      dbus_interface=MOCK)
    result = run_tool(tool, system_bus.address, option)
    assert result.returncode == 1
    assert f"{tool}: cannot" in result.stderr and message in result.stderr


@pytest.mark.parametrize("tool, bus, option, wanted", [
    ("gracestop", "no-bus", "-r", "gracestop: cannot connect to the system bus"),
    ("perch", "no-bus", "-l", "perch: cannot connect to the system bus"),
    ("gracestop", "bus", "-h", "gracestop: cannot power off: logind is not running"),
    ("perch", "logind", "-l", "perch: cannot log out: no user session is active on seat0"),
    ("perch", "logind", "-s", "perch: cannot lock the session: no user session is active on "),
])
def test_tools_without_a_system_bus_logind_or_user(system_bus, tmp_path, request, tool, bus,
                                                   option, wanted):
    if bus == "logind":
        logind = request.getfixturevalue("logind").object(LOGIND_PATH)
        logind.AddSeat("seat0", dbus_interface=MOCK)
    address = f"unix:path={tmp_path}/no-bus" if bus == "no-bus" else system_bus.address
    result = run_tool(tool, address, option)
    assert result.returncode == 1 and wanted in result.stderr
    if bus == "logind":
        assert calls(logind, "TerminateSession") == calls(logind, "LockSession") == []


@pytest.mark.parametrize("tool", ["gracestop", "perch"])
@pytest.mark.parametrize("args", [[], ["-x"], ["-h", "-r"], ["-l", "-s"], ["--help"], ["l"]])
def test_bad_arguments_print_the_usage(tool, args):
    result = run_tool(tool, "unix:path=/nonexistent", *args)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith(f"usage: {tool} ")


def test_perch_switch_goes_through_the_display_manager(system_bus, logind):
    path = "/org/freedesktop/DisplayManager"
    manager = DbusMock(system_bus, DISPLAY_MANAGER, path=path, interface=DISPLAY_MANAGER)
    seat = path + "/Seat0"
    manager.object(path).AddObject(seat, DISPLAY_MANAGER + ".Seat", {"CanSwitch": True},
                                   [("SwitchToGreeter", "", "", "")], dbus_interface=MOCK)
    manager.object(path).AddProperty(DISPLAY_MANAGER, "Seats",
                                     dbus.Array([dbus.ObjectPath(seat)], signature="o"),
                                     dbus_interface=MOCK)
    logind.object(LOGIND_PATH).AddSession("c1", "seat0", dbus.UInt32(1000), "alice", True,
                                          dbus_interface=MOCK)
    try:
        result = run_tool("perch", system_bus.address, "-s")
        assert result.returncode == 0, result.stderr
        assert calls(manager.object(seat), "SwitchToGreeter") == [[]]
        assert calls(logind.object(LOGIND_PATH), "LockSession") == []
    finally:
        manager.stop()
