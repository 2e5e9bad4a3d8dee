"""The system-state relay answers with recStreamService's body, unchanged, or an empty
body when it fails. The daemon runs on the name-server port 10182 (in the test's own
network namespace) with one listener thread, which answers the relay's own look-up."""
import pytest

from fake_peer import FakePeer, answer
from harness import OK, register

SYS_STATE = "/managerService/sys_state"
LIMIT = 1024 * 1024


@pytest.fixture(scope="module")
def daemon(module_sandbox):
    return module_sandbox.start("-t", "1", add_port=False)


@pytest.mark.parametrize("status, body, relayed", [
    (None, b"", b""), (200, b"not json <at all>\x00\xff", b"not json <at all>\x00\xff"),
    (200, b"y" * LIMIT, b"y" * LIMIT), (200, b"z" * (LIMIT + 1), b""),
    (500, b'{"error": "busy"}', b""),
], ids=["unregistered", "any-bytes", "at-limit", "over-limit", "500"])
def test_relay(daemon, status, body, relayed):
    with FakePeer(answer(status, body, "text/plain")) as peer:
        if status:
            assert register(daemon, "recStreamService", peer.port) == OK
        reply = daemon.request("GET", SYS_STATE + "?method=x", headers={"X-Caller": "1"})
        assert (reply.status, reply.headers["content-type"], reply.body) == (
            200, "application/json", relayed)
        assert peer.requests[:1] == ([] if status is None else [
            f"GET /recStreamService/sys_state HTTP/1.1\r\nHost: 127.0.0.1:{peer.port}\r\n"
            "Accept: */*"])
