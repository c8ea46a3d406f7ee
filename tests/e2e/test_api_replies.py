"""Exact replies, each code, shape and validation text once (the dispatcher's unit tables
check every branch); the socket's node and framing limit (other closing rules: unit cases)."""

import os
import stat

from nightjar_client import (DICT, GDBY, OK, Client, authorization_form, bare_message, header,
                             process_start_time, socket_path)
from nightjar_harness import wait_until

AUTH = object()  # stands for this process's own authorization form
EVENT = {"uniqueid": "e1", "name": "one", "enabled": True,
         "trigger": {"type": "inactive", "secondsofinactivity": 600},
         "action": {"type": "sleep"}}


def error(code, reason, detail=None):
    return {"error": code, "reason": reason, **({} if detail is None else {"detail": detail})}


UNAUTHORIZED = error(500, "Request must be authorized")


def invalid(detail):
    return error(405, "Invalid parameter", detail)


def request(name, parameter=None, authorization=AUTH):
    message = {} if name is None else {"Request": name}
    if parameter is not None:
        message["Parameter"] = parameter
    if authorization is not None:
        message["Authorization"] = authorization_form() if authorization is AUTH \
            else authorization
    return message


def daily(days=("monday",), seconds=3600, **members):
    trigger = {"type": "daily", "secondsfrommidnight": seconds, "days": list(days)}
    return request("scheduler.set", dict(EVENT, trigger=trigger, **members))


def trigger_fault(**fault):
    return invalid({"event": {"trigger": fault}})


# (request, exact reply), in the order they are sent to one daemon.
CASES = [
    (request(None), error(401, "Request is required")),
    (request(5), error(401, "Request must be a CFString")),
    (request("scheduler", authorization=None), error(401, "Request must have 2 components")),
    (request("build.version"), {"status": 200, "response": "nightjard v3.7.3"}),
    (request("build.version", "x"), error(407, "Read only")),
    (request("Scheduler.Events"), error(402, "Unknown object requested")),
    (request("scheduler.Events"), error(403, "Unknown element requested")),
    (request("bogus.version"), UNAUTHORIZED),
    # A form that names this process wrongly, seen through the real /proc.
    (request("build.version", authorization=authorization_form(
        start_time=process_start_time() + 1)), UNAUTHORIZED),
    (request("scheduler.enabled"), {"status": 200, "response": True}),
    (request("scheduler.set", EVENT), OK),
    (request("scheduler.events"), {"status": 200, "response": [EVENT]}),
    (request("scheduler.setevents", [dict(EVENT, uniqueid="e3"),
                                     {k: v for k, v in EVENT.items() if k != "name"}]),
     {"status": 400, "response": [{"name": "Required but missing"}]}),
    (request("scheduler.remove", 7), invalid({"uniqueid": {"Element": "Must be a CFStringRef"}})),
    (request("scheduler.remove", "nobody"), {"status": 400}),
    (request("notifications.notifyperiod"), {"status": 200, "response": 900.0}),
    (request("notifications.delay"), error(404, "Parameter missing")),
    (request("notifications.delay", {}),
     invalid({"seconds": {"General": "DelayBySeconds is NULL."},
              "uniqueid": {"General": "ID is NULL."}})),
    (daily(seconds=86400), OK),
    (request("scheduler.set", {"uniqueid": "", "enabled": 1,
                               "trigger": {"type": "daily", "secondsfrommidnight": 86401,
                                           "days": ["monday", "someday"]},
                               "action": {"type": "dance"}}),
     invalid({"event": {"uniqueid": {"Element": "Below minimum length of 1"},
                        "enabled": "Must be a CFBooleanRef", "name": "Required but missing",
                        "trigger": {"secondsfrommidnight": "Above maximum of 86400",
                                    "days": {"Element": "Not a known value"}},
                        "action": {"type": {"Element": "Not a known value"}}}})),
    (daily([], 3600.5, uniqueid="\U0001F600" * 128),  # two UTF-16 units each
     invalid({"event": {"uniqueid": {"Element": "Exceeds maximum length of 255"},
                        "trigger": {"secondsfrommidnight": "Conversion to integer lost resolution",
                                    "days": "Less than 1 elements"}}})),
    (daily(["monday"] * 2, "1"), trigger_fault(secondsfrommidnight="Must be a CFNumberRef",
                                                days="Elements must be unique")),
    (daily(["monday"] * 8), trigger_fault(days="More than 7 elements")),
    (request("scheduler.set", dict(EVENT, trigger={"type": "daily", "days": "monday"})),
     trigger_fault(secondsfrommidnight="Required but missing", days="Must be a CFArrayRef")),
]


def test_every_request_gets_its_exact_reply(daemon, client):
    wrong = [(message.get("Request"), expected, got) for message, expected in CASES
             if (got := client.request(message)) != expected]
    assert wrong == []
    # One exchange line for every request, refused or not; never the authorization bytes.
    def exchanges():
        return [m for m in daemon.messages() if m.startswith("API: ")]
    assert wait_until(lambda: len(exchanges()) >= len(CASES))
    assert len(exchanges()) == len(CASES) and not any("NJAZ" in m for m in exchanges())
    assert daemon.wait_for_line("Authorization refused: quillon.nightjar.bogus.version")


def test_the_node_closes_a_leaving_client_or_one_past_the_limit_alone_and_goes_with_the_daemon(
        daemon, root):
    path = socket_path(root)
    assert stat.S_ISSOCK(os.stat(path).st_mode)
    assert stat.S_IMODE(os.stat(path).st_mode) == 0o777
    assert stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode) == 0o755
    with Client(path) as bystander:
        # Past the limit, closed on the header alone.
        for number, message in enumerate((bare_message(GDBY, 1), header(DICT, 1, 102401))):
            with Client(path) as client:
                client.send_raw(message)
                assert client.is_closed_by_daemon(), message
            assert bystander.noop(number) == (number, b""), message
    daemon.stop()
    assert not os.path.exists(path) and os.path.isdir(os.path.dirname(path))
