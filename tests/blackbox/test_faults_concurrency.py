"""Fault injection about threads: a stop signal amid 128 registering
clients, clients that stall or vanish, and a storm of service-control posts.
Also runs against the ThreadSanitizer build."""
import http.client
import json
import re
import socket
import threading

from harness import (REGISTRY_FILE, deadline, http_request, open_fds, proc_status,
                     wait_for)

SVCMGR = "/managerService/svcmgr"
OK = b'{ "return": 0 }'
REGISTER_CLIENTS = 128
ACKS_BEFORE_STOP = 500
MAX_ROUNDS = 1000
WHOLE_LINE = re.compile(r"c\d+-\d+,10\.3\.\d+\.\d+,\d+")
# The server drops a connection that sends nothing for 10 s; its
# descriptor must be gone a little after that.
IDLE_DROP_SECONDS = 15
STALLED_CLIENTS = 60
# A descriptor limit of 700 leaves the server 350 connections; past 7/8 of
# them (306) the longest waiting are closed until 3/4 (258) are left.
GUARDED_NOFILE = 700
IDLE_CLIENTS = 400
IDLE_CLOSED_FIRST = 40
IDLE_KEPT = 40
# A request head must be complete within 10 s.
TRICKLE_CUT_SECONDS = 15
STORM_POSTS = 1000
STORM_CLIENTS = 20
STORM_SCRIPT = "#!/bin/sh\nsleep 2\necho ran >> /tmp/storm.count\n"


def register_body(name, ip, port):
    return json.dumps({"method": "register", "name": name, "ip": ip, "port": port})


def keep_registering(port, client, acked):
    """Registers fresh names until the daemon is gone; notes each one that
    was acknowledged with its registry-file line."""
    for round_no in range(MAX_ROUNDS):
        line = f"c{client}-{round_no},10.3.{client}.{round_no % 250},{round_no}"
        name, ip, service_port = line.split(",")
        try:
            reply = http_request(port, "POST", SVCMGR, register_body(name, ip, int(service_port)))
        except (OSError, http.client.HTTPException):
            return
        if reply.body == OK:
            acked.append(line)


def test_sigterm_while_128_clients_register(sandbox):
    daemon = sandbox.start("-t", "8").wait_ready()
    acked = []
    clients = [threading.Thread(target=keep_registering, args=(daemon.port, c, acked))
               for c in range(REGISTER_CLIENTS)]
    for thread in clients:
        thread.start()
    assert wait_for(lambda: len(acked) >= ACKS_BEFORE_STOP, 30)
    assert daemon.stop() == 0
    for thread in clients:
        thread.join(deadline(30))
    assert not any(thread.is_alive() for thread in clients)

    content = sandbox.read(REGISTRY_FILE).decode()
    assert content.endswith("\n")
    lines = content.splitlines()
    assert [line for line in lines if not WHOLE_LINE.fullmatch(line)] == []
    assert set(acked) <= set(lines)


def stall(port, kind):
    """A client that misbehaves in one way; returns its socket (still open
    where the misbehaviour is to hold it)."""
    sock = socket.create_connection(("127.0.0.1", port))
    if kind == "half request":
        sock.sendall(b"GET /managerService/svcmgr?method=get_info&name=x HTTP/1.1\r\nHost: d\r\n")
    elif kind == "half body":
        sock.sendall(b"POST /managerService/svcmgr HTTP/1.1\r\nHost: d\r\n"
                     b"Content-Length: 100\r\n\r\n{\"method\":")
    elif kind == "gone mid-reply":
        sock.sendall(b"GET /managerService/svcmon?method=get_health_status HTTP/1.1\r\n"
                     b"Host: d\r\n\r\n")
        # Reset instead of an orderly close, while the reply is on its way.
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        sock.close()
    return sock


def settled_counts(pid):
    """(descriptors, threads) once they hold still between two looks."""
    seen = [None]

    def still():
        now = open_fds(pid), proc_status(pid, "Threads")
        same, seen[0] = now == seen[0], now
        return same
    assert wait_for(still, 5, interval=0.2)
    return seen[0]


def dropped_by_server(sock):
    sock.settimeout(deadline(1))
    try:
        return sock.recv(4096) == b""
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


def test_stalled_and_vanishing_clients_lose_no_thread(sandbox):
    daemon = sandbox.start("-t", "4").wait_ready()
    for index in range(50):
        assert http_request(daemon.port, "POST", SVCMGR,
                            register_body(f"s{index}", "10.0.0.1", index)).body == OK
    idle = settled_counts(daemon.pid)
    kinds = ["nothing", "half request", "half body", "gone mid-reply"]
    held = [stall(daemon.port, kinds[index % len(kinds)]) for index in range(STALLED_CLIENTS)]
    try:
        # Every stalled client holds a descriptor; others are served meanwhile.
        still_open = [sock for sock in held if sock.fileno() >= 0]
        assert wait_for(lambda: open_fds(daemon.pid) >= idle[0] + len(still_open))
        reply = http_request(daemon.port, "GET", f"{SVCMGR}?method=get_info&name=s7")
        assert json.loads(reply.body)["port"] == 7
        assert wait_for(lambda: open_fds(daemon.pid) <= idle[0], IDLE_DROP_SECONDS), \
            f"descriptors {open_fds(daemon.pid)}, idle {idle[0]}"
        assert proc_status(daemon.pid, "Threads") == idle[1]
        assert all(dropped_by_server(sock) for sock in still_open)
    finally:
        for sock in held:
            sock.close()
    assert daemon.stop() == 0


def closed_by_server(sock):
    try:
        return sock.recv(1, socket.MSG_DONTWAIT) == b""
    except BlockingIOError:
        return False
    except ConnectionResetError:
        return True


def test_connections_that_never_finish_a_request_make_room(sandbox):
    """With a small descriptor limit (so a connection limit of 350), idle
    clients past 7/8 of it lose their connections oldest first, a header
    trickler is cut off after 10 s, and others are answered throughout."""
    daemon = sandbox.start(nofile=GUARDED_NOFILE).wait_ready()
    idle = [socket.create_connection(("127.0.0.1", daemon.port)) for _ in range(IDLE_CLIENTS)]
    trickler = socket.create_connection(("127.0.0.1", daemon.port))
    try:
        assert wait_for(lambda: all(closed_by_server(sock) for sock in idle[:IDLE_CLOSED_FIRST]))
        assert not any(closed_by_server(sock) for sock in idle[-IDLE_KEPT:])
        reply = http_request(daemon.port, "GET", f"{SVCMGR}?method=get_info&name=x")
        assert json.loads(reply.body)["return"] == -2
        trickler.sendall(b"GET /managerService/svcmgr?method=get_info&name=x HTTP/1.1\r\n")

        def trickle():
            trickler.sendall(b"X-Slow: 1\r\n")
            return closed_by_server(trickler)
        assert wait_for(trickle, TRICKLE_CUT_SECONDS, interval=1), "header trickler kept"
    finally:
        trickler.close()
        for sock in idle:
            sock.close()
    assert daemon.stop() == 0


def post_starts(port, count, replies):
    for _ in range(count):
        reply = http_request(port, "POST", "/managerService/services", '{"method": "start"}')
        replies.append(reply.body)


def test_service_control_storm(sandbox):
    sandbox.write("/etc/init.d/services.sh", STORM_SCRIPT, mode=0o755)
    daemon = sandbox.start("-t", "8").wait_ready()
    idle_threads = proc_status(daemon.pid, "Threads")
    replies, peak = [], [idle_threads]
    posters = [threading.Thread(target=post_starts,
                                args=(daemon.port, STORM_POSTS // STORM_CLIENTS, replies))
               for _ in range(STORM_CLIENTS)]
    for thread in posters:
        thread.start()
    # The daemon stays responsive to others throughout the storm.
    while any(thread.is_alive() for thread in posters):
        reply = http_request(daemon.port, "GET", f"{SVCMGR}?method=get_info&name=none")
        assert json.loads(reply.body)["return"] == -2
        peak.append(proc_status(daemon.pid, "Threads"))
    for thread in posters:
        thread.join()
    assert replies == [OK] * STORM_POSTS

    def all_ran():
        peak.append(proc_status(daemon.pid, "Threads"))
        count = sandbox.read("/tmp/storm.count") or b""
        return count.count(b"ran\n") == STORM_POSTS
    assert wait_for(all_ran, 60), "not every accepted start ran its script"
    assert wait_for(lambda: proc_status(daemon.pid, "Threads") == idle_threads, 10)
    print(f"threads: idle {idle_threads}, peak {max(peak)}")
    assert daemon.stop() == 0
