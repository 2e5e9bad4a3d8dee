"""History requests wait on a silent service on the relay workers, never on
a listener thread: other clients are answered meanwhile, the requests beyond
the pool's bounds are answered at once, and a stop with relays in flight
still ends cleanly. Also runs against the ThreadSanitizer build."""
import json
import select
import socket

from fake_peer import FakePeer, silent
from harness import REGISTRY_FILE, proc_status, wait_for

SVCMGR = "/managerService/svcmgr"
HISTORY = "/managerService/svcmon?method=get_history&name=quiet"
FAILED = b'{ "return": -5 }'
RELAYS_AT_ONCE = 64
RELAYS_WAITING = 256
BEYOND_BOUNDS = 10
REFUSED_LINE = "relay refused (no room or stopping)"


def register(daemon, name, port, ip="127.0.0.1"):
    body = json.dumps({"method": "register", "name": name, "ip": ip, "port": port})
    assert daemon.request("POST", SVCMGR, body).body == b'{ "return": 0 }'


def send_histories(port, count):
    """Sends `count` history requests, each on its own connection, without
    waiting for any answer; returns the sockets."""
    sockets = []
    for _ in range(count):
        sock = socket.create_connection(("127.0.0.1", port))
        sock.sendall(f"GET {HISTORY} HTTP/1.1\r\nHost: d\r\nConnection: close\r\n\r\n".encode())
        sockets.append(sock)
    return sockets


def answered(sockets):
    """The sockets that have something to read (an answer or the end)."""
    readable, _, _ = select.select(sockets, [], [], 0)
    return readable


def body_of(sock):
    """The body of the answer on the socket, read to the end ("" when the
    server closed it without one, also with a reset: a request still in the
    listen queue when the daemon exits is reset by the kernel)."""
    sock.settimeout(30)
    data = b""
    try:
        while chunk := sock.recv(65536):
            data += chunk
    except ConnectionResetError:
        pass
    sock.close()
    return data.partition(b"\r\n\r\n")[2]


def test_flood_of_history_requests_to_a_silent_service(sandbox):
    daemon = sandbox.start().wait_ready()
    idle_threads = proc_status(daemon.pid, "Threads")
    with FakePeer(silent) as peer:
        register(daemon, "quiet", peer.port)
        flood = send_histories(daemon.port, RELAYS_AT_ONCE + RELAYS_WAITING + BEYOND_BOUNDS)
        assert peer.wait_requests(RELAYS_AT_ONCE), "the relays did not all reach the service"
        # Those beyond the bounds are answered at once as failed...
        assert wait_for(lambda: len(answered(flood)) == BEYOND_BOUNDS)
        early = answered(flood)
        assert [body_of(sock) for sock in early] == [FAILED] * BEYOND_BOUNDS
        pending = [sock for sock in flood if sock not in early]
        # ...and registration and look-up while every other one still waits.
        register(daemon, "other", 7, ip="10.0.0.2")
        info = daemon.request("GET", f"{SVCMGR}?method=get_info&name=other")
        assert json.loads(info.body)["port"] == 7
        assert answered(pending) == []
        assert len(peer.requests) == RELAYS_AT_ONCE
    # The service gone, every relay fails quickly.
    assert [body_of(sock) for sock in pending] == [FAILED] * len(pending)
    assert sandbox.debug_log().count(REFUSED_LINE) == BEYOND_BOUNDS
    # Idle relay workers end.
    assert wait_for(lambda: proc_status(daemon.pid, "Threads") == idle_threads, 10)
    assert daemon.stop() == 0


def test_stop_with_relays_in_flight(sandbox):
    daemon = sandbox.start().wait_ready()
    with FakePeer(silent) as peer:
        register(daemon, "quiet", peer.port)
        flood = send_histories(daemon.port, RELAYS_AT_ONCE + RELAYS_WAITING)
        assert peer.wait_requests(RELAYS_AT_ONCE)
        # Running relays end within their time limit, waiting ones are
        # answered as failed; the registry is written back; status 0 (also
        # no sanitizer report).
        assert daemon.stop() == 0
    assert {body_of(sock) for sock in flood} <= {FAILED, b""}
    assert sandbox.read(REGISTRY_FILE) == f"quiet,127.0.0.1,{peer.port}\n".encode()
