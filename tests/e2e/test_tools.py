"""gracestop and perch against python3-dbusmock's logind on the private bus."""

import os
import subprocess

import dbus
import pytest

from nightjar_harness import BUILD_DIR, LOGIND_MANAGER as MANAGER, LOGIND_PATH, MOCK, PYTHON, \
    wait_until

DISPLAY_MANAGER = "org.freedesktop.DisplayManager"
DM_PATH = "/org/freedesktop/DisplayManager"
DM_SEAT = "org.freedesktop.DisplayManager.Seat"


def run_tool(name, bus_address, *args):
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus_address)
    return subprocess.run([str(BUILD_DIR / "tools" / name), *args], env=env,
                          capture_output=True, text=True, timeout=30)


def calls(mock_object, method):
    """The argument lists of every recorded call of `method`, as Python values."""
    return [[arg for arg in args]
            for _, args in mock_object.GetMethodCalls(method, dbus_interface=MOCK)]


def refuse(logind, method, signature, error_name, message):
    code = f"raise dbus.exceptions.DBusException({message!r}, name={error_name!r})"
    logind.object(LOGIND_PATH).AddMethod(MANAGER, method, signature, "", code,
                                        dbus_interface=MOCK)


def add_session(logind, session_id="c1", user="alice", uid=1000):
    logind.object(LOGIND_PATH).AddSession(session_id, "seat0", dbus.UInt32(uid), user, True,
                                          dbus_interface=MOCK)


@pytest.fixture
def display_manager(system_bus):
    """A display manager offering org.freedesktop.DisplayManager with one seat."""
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=system_bus.address)
    process = subprocess.Popen([PYTHON, "-m", "dbusmock", "--system", DISPLAY_MANAGER, DM_PATH,
                                DISPLAY_MANAGER], env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    bus = dbus.bus.BusConnection(system_bus.address)
    try:
        assert wait_until(lambda: bus.name_has_owner(DISPLAY_MANAGER), timeout=15)
        manager = bus.get_object(DISPLAY_MANAGER, DM_PATH)
        seat_path = DM_PATH + "/Seat0"
        manager.AddObject(seat_path, DM_SEAT, {"CanSwitch": True},
                          [("SwitchToGreeter", "", "", "")], dbus_interface=MOCK)
        manager.AddProperty(DISPLAY_MANAGER, "Seats",
                            dbus.Array([dbus.ObjectPath(seat_path)], signature="o"),
                            dbus_interface=MOCK)
        yield bus.get_object(DISPLAY_MANAGER, seat_path)
    finally:
        process.terminate()
        process.wait(timeout=10)
        bus.close()


@pytest.mark.parametrize("option, method", [("-h", "PowerOff"), ("-r", "Reboot")])
def test_gracestop_asks_logind_without_interaction_and_reports_a_refusal(
        system_bus, logind, option, method):
    result = run_tool("gracestop", system_bus.address, option)
    assert result.returncode == 0, result.stderr
    assert calls(logind.object(LOGIND_PATH), method) == [[False]]
    refuse(logind, method, "b", "org.freedesktop.login1.BlockedByInhibitorLock",
           "Operation denied due to active block inhibitor")
    result = run_tool("gracestop", system_bus.address, option)
    assert result.returncode == 1
    assert "gracestop: cannot" in result.stderr
    assert "Operation denied due to active block inhibitor" in result.stderr


def test_gracestop_without_logind(system_bus):
    result = run_tool("gracestop", system_bus.address, "-h")
    assert result.returncode == 1
    assert "gracestop: cannot power off: logind is not running" in result.stderr


def test_tools_without_a_system_bus(tmp_path):
    for tool, option in (("gracestop", "-r"), ("perch", "-l")):
        result = run_tool(tool, f"unix:path={tmp_path}/no-bus", option)
        assert result.returncode == 1
        assert f"{tool}: cannot connect to the system bus" in result.stderr


@pytest.mark.parametrize("tool", ["gracestop", "perch"])
@pytest.mark.parametrize("args", [[], ["-x"], ["-h", "-r"], ["-l", "-s"], ["--help"], ["l"]])
def test_bad_arguments_print_the_usage(tool, args):
    result = run_tool(tool, "unix:path=/nonexistent", *args)
    assert result.returncode == 2
    assert result.stderr.startswith(f"usage: {tool} ")
    assert result.stdout == ""


@pytest.mark.parametrize("option, method", [("-l", "TerminateSession"), ("-s", "LockSession")])
def test_perch_acts_on_the_active_session_and_reports_a_refusal(
        system_bus, logind, option, method):
    add_session(logind, "c1", "alice", 1000)
    add_session(logind, "c2", "bob", 1001)  # now the active one
    result = run_tool("perch", system_bus.address, option)  # -s: no display manager runs
    assert result.returncode == 0, result.stderr
    assert calls(logind.object(LOGIND_PATH), method) == [["c2"]]
    refuse(logind, method, "s", "org.freedesktop.DBus.Error.AccessDenied", "Permission denied")
    result = run_tool("perch", system_bus.address, option)
    assert result.returncode == 1
    assert "perch: cannot" in result.stderr and "Permission denied" in result.stderr


def test_perch_without_a_user_at_the_console(system_bus, logind):
    logind.object(LOGIND_PATH).AddSeat("seat0", dbus_interface=MOCK)
    for option in ("-l", "-s"):
        result = run_tool("perch", system_bus.address, option)
        assert result.returncode == 1
        assert "no user session is active on seat0" in result.stderr
    assert calls(logind.object(LOGIND_PATH), "TerminateSession") == []
    assert calls(logind.object(LOGIND_PATH), "LockSession") == []


def test_perch_switch_goes_through_the_display_manager(system_bus, logind, display_manager):
    add_session(logind)
    result = run_tool("perch", system_bus.address, "-s")
    assert result.returncode == 0, result.stderr
    assert calls(display_manager, "SwitchToGreeter") == [[]]
    assert calls(logind.object(LOGIND_PATH), "LockSession") == []
