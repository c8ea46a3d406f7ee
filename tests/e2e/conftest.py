"""Fixtures shared by every end-to-end test: see nightjar_harness for the pieces."""

import re

import pytest

from nightjar_harness import (BroadcastListener, Daemon, DbusMock, PrivateBus, install_rights,
                              make_root)


@pytest.fixture
def root(tmp_path):
    return make_root(tmp_path)


@pytest.fixture
def system_bus(tmp_path):
    bus = PrivateBus(tmp_path)
    yield bus
    bus.stop()


def on_the_bus(name, make):
    """A fixture of `make(system_bus)`, stopped after the test."""
    def serve(system_bus):
        served = make(system_bus)
        yield served
        served.stop()
    return pytest.fixture(serve, name=name)


logind = on_the_bus("logind", lambda bus: DbusMock(bus, "logind"))
polkitd = on_the_bus("polkitd", lambda bus: DbusMock(bus, "polkitd"))
broadcasts = on_the_bus("broadcasts", BroadcastListener)


@pytest.fixture
def start_daemon(root, system_bus):
    """Starts nightjard on the temporary root and the private bus; stops it after the test."""
    started = []

    def start(*args, bus=True, extra_env=None, nofile=None, running=False):
        # A daemon that is to run gets the rights installed first, as `nightjard -i` would.
        if not args:
            install_rights(root)
        daemon = Daemon(root, system_bus.address if bus else None, args, extra_env, nofile)
        started.append(daemon)
        assert not running or daemon.wait_running()
        return daemon

    yield start
    for daemon in started:
        daemon.stop()
    # A sanitizer build's report (leak, overflow, undefined behaviour) fails the test.
    for daemon in started:
        text = "\n".join(daemon.lines())
        if re.search(r"ERROR: (Address|Leak)Sanitizer|runtime error:", text):
            pytest.fail("nightjard: sanitizer report\n" + text[-8000:])


@pytest.fixture
def daemon(start_daemon):
    """A daemon with its rights installed, running (READY=1 said)."""
    return start_daemon(running=True)


@pytest.fixture
def client(daemon):
    """One connection to the running `daemon`'s socket."""
    with daemon.client() as connection:
        yield connection
