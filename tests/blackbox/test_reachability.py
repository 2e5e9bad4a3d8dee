"""Reachability as an operator sees it: refused ports are "down", answering ones "up" with
their status, and one outside loopback "network unreachable" (the tests run where only
loopback is up: nothing is sent to it); latency belongs to the service, not to the names'
order; outages and moves are kept as events, and a service back up has no failures left and
its two changes counted; a check ends with an orderly close; the prober adds nothing to the
console. (A hung service's "no answer": test_long_poll_concurrency.py.)"""
import contextlib
import socket
import statistics

from fake_peer import FakePeer, answer
from harness import (OK, SVCMGR, SVCMON, free_port, reachability, reachability_items, register,
                     svcmon, wait_for)


def svc_events(daemon):
    return [(e["event"], e["from"], e["to"]) for e in svcmon(daemon, "get_events")["items"]
            if e["name"] == "svc"]


def head_then_end(peer, conn):
    conn.sendall(b"HTTP/1.0 404 Not Found\r\n")
    try:
        peer.endings.append(conn.recv(1024))
    except ConnectionResetError:
        peer.endings.append("reset")


def console_without_requests(daemon):
    return [line for line in daemon.stderr_text().splitlines() if line not in (
        "proc_svcmon_get()", f"str_req_path=[{SVCMON}]")]


def test_answering_refused_and_outside_services_and_the_reply(sandbox):
    with FakePeer(head_then_end) as partial:
        daemon = sandbox.start("-m", "1")
        for name, port, *ip in [("partial", partial.port), ("refused", 1),  # the lowest port
                                ("outside", 80, "192.0.2.1")]:  # a documentation address
            assert register(daemon, name, port, *ip) == OK
        assert wait_for(lambda: len(partial.endings) >= 3, 10)
        assert partial.endings[:3] == [b""] * 3  # orderly closes (EOF), not resets
        found = reachability_items(daemon)
        assert [(found[n]["state"], found[n]["reachable"], found[n]["http_status"])
                for n in ("partial", "refused")] == [("up", True, 404), ("down", False, None)]
        assert [found[n]["error"] for n in ("refused", "outside")] == [
            "connection refused", "network unreachable"]
        assert partial.checks[-1] == "OPTIONS * HTTP/1.0" and partial.requests == []
        reply = reachability(daemon)
        assert (reply["version"], reply["period"], reply["started"][-1]) == ("1.0.0", 1, "Z")


def test_latency_follows_the_service_and_outage_and_move_are_kept_silently(sandbox):
    port, names = free_port(), [f"s{i:02d}" for i in range(40)]
    with FakePeer(answer(200)) as peer, FakePeer(answer(200), port=port):
        daemon = sandbox.start("-v", "2", "-m", "1")
        for name, to in [(name, peer.port) for name in names] + [("svc", port)]:
            assert register(daemon, name, to) == OK
        console = console_without_requests(daemon)
        assert wait_for(lambda: all(i["checks"] >= 3
                                    for i in reachability_items(daemon).values()), 10)
        found = reachability_items(daemon)
        first = statistics.median(found[n]["latency_ms"] for n in names[:10])
        last = statistics.median(found[n]["latency_ms"] for n in names[-10:])
        assert first <= 3 * last and last <= 3 * first, (first, last)
    assert wait_for(lambda: reachability_items(daemon)["svc"]["state"] == "down", 5)
    with FakePeer(answer(200), port=port), FakePeer(answer(200)) as moved:
        assert wait_for(lambda: reachability_items(daemon)["svc"]["state"] == "up", 5)
        assert reachability_items(daemon)["svc"]["failures"] == 0
        metrics = daemon.request("GET", "/managerService/metrics").body.decode()
        assert f'transitions_total{{name="svc",ip="127.0.0.1",port="{port}"}} 2\n' in metrics
        assert f"reachability of svc at 127.0.0.1:{port}: up -> down" in sandbox.debug_log()
        assert f"proc_svcmon_get()\nstr_req_path=[{SVCMON}]\n" in daemon.stderr_text()
        assert console_without_requests(daemon) == console
        assert register(daemon, "svc", moved.port) == OK
        # Newest first: the first check at the new address, the move, the outage, the registration.
        assert wait_for(lambda: svc_events(daemon)[0] == ("state", None, "up"), 5)
        assert svc_events(daemon)[1:4] == [("moved", None, None), ("state", "down", "up"),
                                           ("state", "up", "down")]
        assert svc_events(daemon)[-1][0] == "registered"
        index = reachability(daemon)["index"]  # an unregistration wakes a waiting poll
        assert daemon.request("DELETE", f"{SVCMGR}?method=unregister&name=s00").body == OK
        assert reachability(daemon, f"&index={index}&wait=5")["index"] != index


def test_a_round_longer_than_the_period_is_logged_once_a_minute(sandbox):
    """65 services (one more than are checked at once) that accept and never answer
    make each full round two check timeouts long; while they refused, rounds were short."""
    with contextlib.ExitStack() as stack:
        listeners = [stack.enter_context(socket.socket()) for _ in range(65)]
        for listener in listeners:
            listener.bind(("127.0.0.1", 0))  # bound, not listening: refused
        daemon = sandbox.start("-m", "1")
        for i, listener in enumerate(listeners):
            assert register(daemon, f"s{i:02d}", listener.getsockname()[1]) == OK
        assert wait_for(lambda: {i["state"] for i in reachability_items(daemon).values()}
                        == {"down"})
        for listener in listeners:
            listener.listen(8)
        record = "prober round of 65 services took"
        assert wait_for(lambda: record in sandbox.debug_log(), 10)
        checks = reachability_items(daemon)["s00"]["checks"]
        assert wait_for(lambda: reachability_items(daemon)["s00"]["checks"] >= checks + 2, 10)
        assert sandbox.debug_log().count(record) == 1
