"""Relays to a silent service run within the pool's bounds, never on a listener;
near the connection limit the longest waiting connections make room; a header
trickler is cut off. Also runs against the ThreadSanitizer build."""
import socket

from fake_peer import FakePeer, silent
from harness import OK, REGISTRY_FILE, SVCMGR, SVCMON, answered, connect, register, wait_for

HISTORY = (f"GET {SVCMON}?method=get_history&name=quiet HTTP/1.1\r\nHost: 127.0.0.1\r\n"
           "Connection: close\r\n\r\n").encode()
GET_INFO = f"GET {SVCMGR}?method=get_info&name=x HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n".encode()
FAILED = b'{ "return": -5 }'
RUNNING, WAITING, BEYOND = 64, 128, 10
# Of the 256 connections, above 224 open the longest waiting are closed until 192 are left.
IDLE, FIRST_CLOSED, KEPT = 300, 40, 40


def body_of(sock):
    """The body of the answer, "" when the server closed without one."""
    sock.settimeout(30)
    with sock, sock.makefile("rb") as stream:
        try:
            return stream.read().partition(b"\r\n\r\n")[2]
        except ConnectionResetError:
            return b""


def closed_by_server(sock):
    try:
        return sock.recv(4096, socket.MSG_DONTWAIT) == b""
    except BlockingIOError:
        return False
    except ConnectionResetError:
        return True


def test_relays_beyond_the_bounds_fail_at_once_and_stop_ends_them(sandbox):
    daemon = sandbox.start("-t", "2")
    with FakePeer(silent) as peer:
        assert register(daemon, "quiet", peer.port) == OK
        flood = [connect(daemon.port, HISTORY) for _ in range(RUNNING + WAITING + BEYOND)]
        assert wait_for(lambda: len(peer.requests) == RUNNING), "relays missing at the service"
        assert wait_for(lambda: len(answered(flood)) == BEYOND, 15)
        early = answered(flood)
        assert [body_of(sock) for sock in early] == [FAILED] * BEYOND
        pending = [sock for sock in flood if sock not in early]
        assert register(daemon, "other", 7) == OK
        assert answered(pending) == [] and len(peer.requests) == RUNNING
        assert daemon.stop() == 0
    assert {body_of(sock) for sock in pending} <= {FAILED, b""}
    assert sandbox.debug_log().count("relay refused (no room or stopping)") >= BEYOND
    assert sandbox.read(REGISTRY_FILE) == f"other,127.0.0.1,7\nquiet,127.0.0.1,{peer.port}\n".encode()


def test_waiting_connections_make_room_and_a_trickler_is_cut_off(sandbox):
    daemon = sandbox.start()
    with FakePeer(silent) as peer:
        assert register(daemon, "quiet", peer.port) == OK
        relays = [connect(daemon.port, HISTORY) for _ in range(20)]
        assert wait_for(lambda: len(peer.requests) == 20)
        idle = []
        for _ in range(IDLE):
            idle.append(connect(daemon.port, GET_INFO))
            assert b'"return": -2' in idle[-1].recv(4096)
        assert wait_for(lambda: all(closed_by_server(s) for s in idle[:FIRST_CLOSED]))
        assert not any(closed_by_server(sock) for sock in idle[-KEPT:])
    assert [body_of(sock) for sock in relays] == [FAILED] * 20
    trickler = connect(daemon.port, GET_INFO.split(b"\r\n")[0] + b"\r\n")
    assert wait_for(lambda: trickler.sendall(b"X-Slow: 1\r\n") or closed_by_server(trickler),
                    15, interval=1), "header trickler kept"
