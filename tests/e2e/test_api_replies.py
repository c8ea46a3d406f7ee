"""Requests over the socket and their exact replies: every refusal a client can meet."""

import datetime
import os

from nightjar_client import authorization_form, process_start_time
from nightjar_harness import wait_until

AUTH = object()  # stands for this process's own authorization form


def error(code, reason, detail=None):
    reply = {"error": code, "reason": reason}
    if detail is not None:
        reply["detail"] = detail
    return reply


def request(name, parameter=None, authorization=AUTH):
    message = {} if name is None else {"Request": name}
    if parameter is not None:
        message["Parameter"] = parameter
    if authorization is not None:
        message["Authorization"] = authorization_form() if authorization is AUTH \
            else authorization
    return message


EVENT = {"uniqueid": "e1", "name": "one", "enabled": True,
         "trigger": {"type": "inactive", "secondsofinactivity": 600},
         "action": {"type": "sleep"}}
TWO_COMPONENTS = error(401, "Request must have 2 components")
UNAUTHORIZED = error(500, "Request must be authorized")
READ_ONLY = error(407, "Read only")
MISSING = error(404, "Parameter missing")


def invalid(detail):
    return error(405, "Invalid parameter", detail)


# (request, exact reply), in the order they are sent to one daemon.
CASES = [
    (request(None), error(401, "Request is required")),
    (request(None, authorization=None), error(401, "Request is required")),
    (request(5), error(401, "Request must be a CFString")),
    (request(["build", "version"]), error(401, "Request must be a CFString")),
    (request("scheduler"), TWO_COMPONENTS),
    (request("scheduler", authorization=None), TWO_COMPONENTS),
    (request(""), TWO_COMPONENTS),
    (request("scheduler.events.now"), TWO_COMPONENTS),
    (request("build.version"), {"status": 200, "response": "nightjard v3.7.3"}),
    (request("build.version", "x"), READ_ONLY),
    # The right is checked on the lowercased name, objects and actions exactly.
    (request("Scheduler.Events"), error(402, "Unknown object requested")),
    (request("Build.version"), error(402, "Unknown object requested")),
    (request("scheduler.Events"), error(403, "Unknown element requested")),
    (request("notifications.notify"), error(403, "Unknown element requested")),
    (request("build.Version"), error(403, "Unknown element requested")),
    # Rights that are not installed, and authorization forms that are not good.
    (request("bogus.version"), UNAUTHORIZED),
    (request("scheduler.frobnicate"), UNAUTHORIZED),
    (request("scheduler.\u00e9vents"), UNAUTHORIZED),
    (request("build.version", authorization=None), UNAUTHORIZED),
    (request("build.version", authorization="x" * 32), UNAUTHORIZED),
    (request("build.version", authorization=authorization_form()[:31]), UNAUTHORIZED),
    (request("build.version", authorization=authorization_form() + b"\0"), UNAUTHORIZED),
    (request("build.version", authorization=authorization_form(magic=b"XXXX")),
     UNAUTHORIZED),
    (request("build.version", authorization=authorization_form(version=2)), UNAUTHORIZED),
    (request("build.version", authorization=authorization_form(
        start_time=process_start_time() + 1)), UNAUTHORIZED),
    (request("build.version", authorization=authorization_form(pid=0x7FFFFFF0)),
     UNAUTHORIZED),
    (request("build.version", authorization=authorization_form(uid=os.getuid() + 1000)),
     UNAUTHORIZED),
    # Each kind of reply once over the wire; the dispatcher's unit tests check every parameter.
    (request("scheduler.events"), {"status": 200, "response": []}),
    (request("scheduler.events", []), READ_ONLY),
    (request("scheduler.enabled"), {"status": 200, "response": True}),
    (request("scheduler.set", EVENT), {"status": 200}),
    (request("scheduler.set", EVENT), {"status": 200}),
    (request("scheduler.events"), {"status": 200, "response": [EVENT]}),
    (request("scheduler.remove", 7), invalid({"uniqueid": {"Element": "Must be a CFStringRef"}})),
    (request("scheduler.remove", "nobody"), {"status": 400}),
    (request("scheduler.remove", "e1"), {"status": 200}),
    (request("scheduler.remove", "e1"), {"status": 400}),
    (request("notifications.pending"), {"status": 200, "response": []}),
    (request("notifications.notifyperiod"), {"status": 200, "response": 900.0}),
    (request("notifications.setnotifyperiod", 300), {"status": 200}),
    (request("notifications.notifyperiod"), {"status": 200, "response": 300.0}),
    (request("notifications.cancel", "nobody"), {"status": 200}),
    (request("notifications.reset", "nobody"), {"status": 200}),
    (request("notifications.delay"), MISSING),
    (request("notifications.delay", {}),
     invalid({"seconds": {"General": "DelayBySeconds is NULL."},
              "uniqueid": {"General": "ID is NULL."}})),
    (request("notifications.delay", {"seconds": 60, "uniqueid": "nobody"}), {"status": 200}),
]


def test_every_request_gets_its_exact_reply(daemon, client):
    wrong = []
    for message, expected in CASES:
        got = client.request(message)
        if got != expected:
            wrong.append((message.get("Request"), expected, got))
    assert wrong == []
    # One exchange line for every request, refused or not; never the authorization bytes.
    def exchanges():
        return [m for m in daemon.messages() if m.startswith("API: ")]

    assert wait_until(lambda: len(exchanges()) >= len(CASES))
    assert len(exchanges()) == len(CASES)
    assert not any("NJAZ" in line for line in exchanges())


def test_setevents_is_all_or_nothing(client):
    second = dict(EVENT, uniqueid="e2", name="two")
    assert client.call("scheduler.setevents", [EVENT, second]) == {"status": 200}
    bad_one = dict(EVENT, uniqueid="")
    bad_two = {k: v for k, v in EVENT.items() if k != "name"}
    reply = client.call("scheduler.setevents", [dict(EVENT, uniqueid="e3"), bad_one,
                                                    bad_two])
    assert reply["status"] == 400
    assert len(reply["response"]) == 2
    assert reply["response"][1] == {"name": "Required but missing"}
    listed = client.call("scheduler.events")["response"]
    assert [e["uniqueid"] for e in listed] == ["e1", "e2"]
    assert client.call("scheduler.setevents", []) == {"status": 200}
    assert client.call("scheduler.events") == {"status": 200, "response": []}


def test_refusals_harm_nothing_and_a_refused_right_is_logged_by_name(daemon, client):
    # Requests that are not dictionaries, and a parameter of the wrong kind.
    for message in (["build.version"], "build.version", 7):
        assert client.request(message) == error(401, "Request is required"), message
    assert client.request({"Request": {"a": "b"}}) == error(401, "Request must be a CFString")
    assert client.call("notifications.delay", ["a", 60]) == \
        invalid({"Parameter": "Must be a CFDictionaryRef"})
    assert client.call("bogus.thing") == UNAUTHORIZED
    assert daemon.wait_for_line("Authorization refused: quillon.nightjar.bogus.thing")
    assert client.call("scheduler.\u00e9vents") == UNAUTHORIZED
    assert not any("Authorization refused" in m and "vents" in m for m in daemon.messages())


def test_names_count_and_sort_by_utf16_code_units(client):
    emoji = "\U0001F600"  # two UTF-16 code units
    longest = dict(EVENT, uniqueid=emoji * 127 + "x", name="\uff21 wide")
    assert client.call("scheduler.set", longest) == {"status": 200}
    too_long = dict(EVENT, uniqueid=emoji * 128)
    assert client.call("scheduler.set", too_long) == \
        invalid({"event": {"uniqueid": {"Element": "Exceeds maximum length of 255"}}})
    for uniqueid, name in (("e2", emoji + " face"), ("e3", "Zebra"), ("e4", "apple"),
                           ("e5", "Apple")):
        assert client.call("scheduler.set", dict(EVENT, uniqueid=uniqueid, name=name)) == \
            {"status": 200}
    names = [e["name"] for e in client.call("scheduler.events")["response"]]
    # Upper case before lower case; a surrogate pair (0xD83D...) before U+FF21.
    assert names == ["Apple", "Zebra", "apple", emoji + " face", "\uff21 wide"]


def plistlib_date():
    return datetime.datetime(2999, 1, 1, 12, 0, 0)


def daily(**trigger):
    base = {"type": "daily", "secondsfrommidnight": 3600, "days": ["monday"]}
    base.update(trigger)
    return dict(EVENT, trigger={k: v for k, v in base.items() if v is not None})


def trigger_fault(**fault):
    return invalid({"event": {"trigger": fault}})


SET_CASES = [
    (daily(secondsfrommidnight=86400), {"status": 200}),
    (daily(secondsfrommidnight=-1), {"status": 200}),
    (daily(secondsfrommidnight=3600.0), {"status": 200}),
    (daily(secondsfrommidnight=86401), trigger_fault(secondsfrommidnight="Above maximum of 86400")),
    (daily(secondsfrommidnight=3600.5),
     trigger_fault(secondsfrommidnight="Conversion to integer lost resolution")),
    (daily(secondsfrommidnight="1"), trigger_fault(secondsfrommidnight="Must be a CFNumberRef")),
    (daily(secondsfrommidnight=None), trigger_fault(secondsfrommidnight="Required but missing")),
    (daily(days=None), trigger_fault(days="Required but missing")),
    (daily(days="monday"), trigger_fault(days="Must be a CFArrayRef")),
    (daily(days=[]), trigger_fault(days="Less than 1 elements")),
    (daily(days=["monday", "monday"]), trigger_fault(days="Elements must be unique")),
    (daily(days=["monday", "monday", "someday"]),
     trigger_fault(days={"Element": "Not a known value"})),
    (daily(days=[1, "someday"]), trigger_fault(days={"Element": "Not a known value"})),
    (daily(days=["Monday"]), trigger_fault(days={"Element": "Not a known value"})),
    (daily(days=["monday", "tuesday", "wednesday", "thursday", "friday", "saturday", "sunday",
                 "someday"]), trigger_fault(days="More than 7 elements")),
    (dict(EVENT, trigger={"type": "once", "date": plistlib_date(), "days": "x"}),
     {"status": 200}),
    (dict(EVENT, trigger={"type": 5}), trigger_fault(type={"Element": "Must be a CFStringRef"})),
    (dict(EVENT, trigger={"type": "inactive", "secondsofinactivity": 86401}),
     trigger_fault(secondsofinactivity="Above maximum of 86400")),
    ({"uniqueid": "", "enabled": 1, "trigger": {"type": "daily", "secondsfrommidnight": 86401,
                                                "days": ["monday", "someday"]},
      "action": {"type": "dance"}},
     invalid({"event": {"uniqueid": {"Element": "Below minimum length of 1"},
                        "enabled": "Must be a CFBooleanRef", "name": "Required but missing",
                        "trigger": {"secondsfrommidnight": "Above maximum of 86400",
                                    "days": {"Element": "Not a known value"}},
                        "action": {"type": {"Element": "Not a known value"}}}})),
]


def test_event_validation_over_the_socket(client):
    wrong = []
    for event, expected in SET_CASES:
        got = client.call("scheduler.set", event)
        if got != expected:
            wrong.append((event, expected, got))
    assert wrong == []
    # Extra members are kept as they were sent.
    listed = client.call("scheduler.events")["response"]
    assert listed[0]["trigger"]["days"] == "x"
