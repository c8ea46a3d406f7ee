"""The API socket seen from outside: its node and its framing limit. Every closing rule is a
unit case; hostile peers are the stress suite's."""

import os
import stat

from nightjar_client import DICT, GDBY, Client, bare_message, header, socket_path


def test_the_node_answers_and_goes_with_the_daemon(daemon, root):
    path = socket_path(root)
    assert stat.S_ISSOCK(os.stat(path).st_mode)
    assert stat.S_IMODE(os.stat(path).st_mode) == 0o777
    assert stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode) == 0o755
    with Client(path) as client:
        assert client.noop(7) == (7, b"")
        assert client.call("build.version") == {"status": 200, "response": "nightjard v3.7.3"}
    daemon.stop()
    assert not os.path.exists(path) and os.path.isdir(os.path.dirname(path))


def test_a_leaving_client_or_one_past_the_limit_is_closed_alone(daemon, root):
    path = socket_path(root)
    with Client(path) as bystander:
        # Past the limit, closed on the header alone.
        for number, message in enumerate((bare_message(GDBY, 1), header(DICT, 1, 102401))):
            with Client(path) as client:
                client.send_raw(message)
                assert client.is_closed_by_daemon(), message
            assert bystander.noop(number).identifier == number, message
