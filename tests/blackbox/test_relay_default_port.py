"""The system-state relay: GET /managerService/sys_state is answered with the
body of the service registered as "recStreamService", unchanged.

The daemon finds services through the name server at localhost:10182. The
first group of tests runs the daemon on 10182, so that it is its own name
server and "recStreamService" (a fake peer) registers with it; the second
runs it on another port with a fake name server on 10182. Both need 10182
free on the host and are skipped otherwise.
"""
import json
import socket
import threading
import time

import pytest

from fake_peer import FakePeer, answer, flood, silent, trickle
from harness import DEFAULT_PORT, deadline, free_port, wait_for

SYS_STATE = "/managerService/sys_state"
SVCMGR = "/managerService/svcmgr"
PEER_PATH = "/recStreamService/sys_state"
REPLY_LIMIT = 1024 * 1024
# Each step of the relay may take 5 s; a silent peer must not hold the
# caller much longer than that.
SILENT_BOUND = 12

# Every daemon of a test must stop with status 0 (no sanitizer report).
pytestmark = pytest.mark.usefixtures("clean_exit")


def default_port_free():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", DEFAULT_PORT))
        except OSError:
            return False
    return True


@pytest.fixture
def name_server_daemon(sandbox):
    """The daemon on the default port, so its own name server (-t 6)."""
    if not default_port_free():
        pytest.skip(f"port {DEFAULT_PORT} is taken on this host")
    return sandbox.start("-v", "2", "-t", "6", add_port=False).wait_ready()


def register(daemon, name, port, ip="127.0.0.1"):
    body = json.dumps({"method": "register", "name": name, "ip": ip, "port": port})
    assert daemon.request("POST", SVCMGR, body).body == b'{ "return": 0 }'


def relay(daemon, target=SYS_STATE, **kwargs):
    reply = daemon.request("GET", target, timeout=SILENT_BOUND, **kwargs)
    assert (reply.status, reply.content_type) == (200, "application/json")
    return reply.body


@pytest.mark.parametrize("peer_body", [
    b'{"cpu": 12, "disk": [1, 2], "note": "\\u00e9"}',
    b"not json <at all>\x00\xff\r\n",
    b"",
    b"y" * REPLY_LIMIT,
], ids=["json", "not-json", "empty", "at-limit"])
def test_answer_comes_back_byte_for_byte(name_server_daemon, peer_body):
    with FakePeer(answer(200, peer_body, content_type="text/plain")) as peer:
        register(name_server_daemon, "recStreamService", peer.port)
        assert relay(name_server_daemon) == peer_body


def test_nothing_of_the_callers_request_is_passed_on(name_server_daemon):
    with FakePeer(answer(200, b'{"ok": 1}')) as peer:
        register(name_server_daemon, "recStreamService", peer.port)
        body = relay(name_server_daemon, SYS_STATE + "?method=get&name=x",
                     headers={"X-Caller": "1"}, body="{\"method\": \"x\"}")
        assert body == b'{"ok": 1}'
        assert peer.wait_requests(1)
        seen = peer.requests[0]
        assert (seen.method, seen.target, seen.body) == ("GET", PEER_PATH, b"")
        assert "x-caller" not in seen.headers
    text = name_server_daemon.stderr_text()
    assert "proc_sys_state_get()\n" in text


@pytest.mark.parametrize("behaviour", [
    answer(500, b'{"error": "busy"}'),
    answer(404, b"{}"),
    answer(200, b"z" * (REPLY_LIMIT + 1)),
    flood,
    silent,
    trickle(0.5),
], ids=["500", "404", "over-limit", "flood", "silent", "trickle"])
def test_failed_relay_gives_an_empty_body_in_bounded_time(name_server_daemon, behaviour):
    with FakePeer(behaviour) as peer:
        register(name_server_daemon, "recStreamService", peer.port)
        started = time.monotonic()
        assert relay(name_server_daemon) == b""
        assert time.monotonic() - started < deadline(SILENT_BOUND)
    assert name_server_daemon.alive()


def test_unregistered_or_unreachable_service_gives_an_empty_body(name_server_daemon):
    assert relay(name_server_daemon) == b""
    register(name_server_daemon, "recStreamservice", free_port())
    assert relay(name_server_daemon) == b""
    register(name_server_daemon, "recStreamService", free_port())
    assert relay(name_server_daemon) == b""
    register(name_server_daemon, "recStreamService", 80, ip="host/x?y")
    assert relay(name_server_daemon) == b""


@pytest.mark.parametrize("verb", ["POST", "PUT", "DELETE"])
def test_other_verbs_reach_no_handler(name_server_daemon, verb):
    reply = name_server_daemon.request(verb, SYS_STATE, "{}")
    assert reply.status == 405
    assert "proc_sys_state_get" not in name_server_daemon.stderr_text()


def test_relays_in_flight_do_not_block_registration(name_server_daemon):
    daemon = name_server_daemon
    results = []
    with FakePeer(silent) as peer:
        register(daemon, "recStreamService", peer.port)
        threads = [threading.Thread(target=lambda: results.append(relay(daemon)))
                   for _ in range(3)]
        for thread in threads:
            thread.start()
        # Every relay has reached its handler (each waits on a relay worker).
        assert wait_for(lambda: daemon.stderr_text().count("proc_sys_state_get()\n") == 3)
        for index in range(5):
            register(daemon, f"svc{index}", 1000 + index)
            reply = daemon.request("GET", f"{SVCMGR}?method=get_info&name=svc{index}")
            assert json.loads(reply.body)["port"] == 1000 + index
        assert any(thread.is_alive() for thread in threads), "relays ended too early"
        for thread in threads:
            thread.join(deadline(SILENT_BOUND))
    assert results == [b""] * 3


def test_single_listener_thread_relays_through_its_own_name_server(sandbox):
    """The relay waits on a worker, so the one listener thread answers the
    relay's own look-up meanwhile."""
    if not default_port_free():
        pytest.skip(f"port {DEFAULT_PORT} is taken on this host")
    daemon = sandbox.start("-t", "1", add_port=False).wait_ready()
    with FakePeer(answer(200, b'{"state": 1}')) as peer:
        register(daemon, "recStreamService", peer.port)
        assert relay(daemon) == b'{"state": 1}'


@pytest.fixture
def fake_name_server():
    """Starts a fake name server on 10182 answering with the given body."""
    servers = []

    def start(body):
        try:
            server = FakePeer(answer(200, body), port=DEFAULT_PORT)
        except OSError:
            pytest.skip(f"port {DEFAULT_PORT} is taken on this host")
        servers.append(server.__enter__())
        return server
    yield start
    for server in servers:
        server.stop()


def address_of(port, ip="127.0.0.1", result=0):
    return json.dumps({"return": result, "name": "recStreamService", "ip": ip,
                       "port": port}).encode()


def test_fake_name_server_is_asked_by_name(sandbox, fake_name_server):
    with FakePeer(answer(200, b'{"state": "ok"}')) as peer:
        name_server = fake_name_server(address_of(peer.port))
        daemon = sandbox.start("-v", "2").wait_ready()
        assert daemon.port != DEFAULT_PORT
        assert relay(daemon) == b'{"state": "ok"}'
        assert name_server.requests[0].target == (
            "/managerService/svcmgr?method=get_info&name=recStreamService")
        assert peer.requests[0].target == PEER_PATH


# Each answer would lead to a working peer but for one unusable member.
@pytest.mark.parametrize("make_answer", [
    lambda port: address_of(port, result=-2),
    lambda port: address_of(str(port)),
    lambda port: address_of(port + 65536),
    lambda port: address_of(port, ip=f"127.0.0.1:{port}/x"),
    lambda port: b"[" + address_of(port) + b"]",
    lambda port: address_of(port)[:-1],
    lambda port: b"",
], ids=["unknown", "port-text", "port-range", "bad-ip", "array", "not-json", "empty"])
def test_unusable_name_server_answer_gives_an_empty_body(sandbox, fake_name_server,
                                                         make_answer):
    with FakePeer(answer(200, b'{"state": "ok"}')) as peer:
        fake_name_server(make_answer(peer.port))
        daemon = sandbox.start("-v", "2").wait_ready()
        assert relay(daemon) == b""
        assert peer.requests == []
