"""The monitor resource over HTTP: health status, history relayed from fake
peers, the method and path errors, and the log lines of each outcome."""
import json
import os
import time

import pytest

from fake_peer import FakePeer, answer, delayed, flood, silent
from harness import deadline, free_port

SVCMON = "/managerService/svcmon"
HISTORY_QUERY = "method=get_history"


def register(daemon, name, port, ip="127.0.0.1"):
    body = json.dumps({"method": "register", "name": name, "ip": ip, "port": port})
    assert daemon.request("POST", "/managerService/svcmgr", body).body == b'{ "return": 0 }'


def monitor(daemon, query, path=SVCMON, timeout=10):
    reply = daemon.request("GET", f"{path}?{query}" if query else path, timeout=timeout)
    assert (reply.status, reply.content_type) == (200, "application/json")
    return reply


def history(daemon, name="svcA"):
    return monitor(daemon, f"method=get_history&name={name}")


def peak_memory_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    raise AssertionError("no VmHWM")


def test_health_status_lists_services_in_name_order(daemon):
    assert monitor(daemon, "method=get_health_status").body == b'{ "return": 0, "items": [ ] }'
    register(daemon, "b", 20)
    register(daemon, "a", 10, ip="10.0.0.1")
    assert monitor(daemon, "method=get_health_status").body == (
        b'{ "return": 0, "items": [ '
        b'{ "name": "a", "ip": "10.0.0.1", "port": 10, "health_status": "off-line" }, '
        b'{ "name": "b", "ip": "127.0.0.1", "port": 20, "health_status": "off-line" } ] }')


def health_ports(daemon):
    items = json.loads(monitor(daemon, "method=get_health_status").body)["items"]
    return {item["name"]: item["port"] for item in items}


def test_health_status_follows_every_registry_change(sandbox):
    daemon = sandbox.start().wait_ready()
    register(daemon, "a", 10)
    assert health_ports(daemon) == {"a": 10}
    register(daemon, "a", 11)
    assert health_ports(daemon) == {"a": 11}
    register(daemon, "b", 20)
    assert health_ports(daemon) == {"a": 11, "b": 20}
    daemon.request("DELETE", "/managerService/svcmgr?method=unregister&name=a")
    assert health_ports(daemon) == {"b": 20}
    assert daemon.stop() == 0
    restarted = sandbox.start().wait_ready()
    assert health_ports(restarted) == {"b": 20}


@pytest.mark.parametrize("path, query, expected", [
    (SVCMON, "", b'{ "return": -1 }'),
    (SVCMON, "method=", b'{ "return": -1 }'),
    (SVCMON, "method=GET_HEALTH_STATUS", b'{ "return": -1 }'),
    (SVCMON, "method=get_info", b'{ "return": -1 }'),
    (SVCMON, "method=get_history", b'{ "return": -6 }'),
    (SVCMON, "method=get_history&name=", b'{ "return": -6 }'),
    (SVCMON, "method=get_history&name=nobody", b'{ "return": -2 }'),
    (SVCMON, "method=get_history&name=" + "n" * 3000, b'{ "return": -2 }'),
    (SVCMON + "/", "method=get_health_status", b'{ "return": -4 }'),
    (SVCMON + "/other", "method=get_health_status", b'{ "return": -4 }'),
    (SVCMON + "/we", "method=get_health_status", b'{ "return": -4 }'),
    (SVCMON + "/x/web", "", b'{ "return": -4 }'),
])
def test_method_and_path_errors(daemon, path, query, expected):
    assert monitor(daemon, query, path=path).body == expected


@pytest.mark.parametrize("status, body, expected", [
    (200, b'{"events": [1, 2], "ok": true}',
     b'{ "return": 0, "service_response": { "events": [ 1, 2 ], "ok": true } }'),
    (200, b'[]', b'{ "return": 0, "service_response": [ ] }'),
    (200, b"plain text, not json", b'{ "return": 0, "service_response": null }'),
    (200, b"", b'{ "return": 0, "service_response": null }'),
    (200, b"[" * 100000, b'{ "return": 0, "service_response": null }'),
])
def test_history_embeds_the_service_answer(daemon, status, body, expected):
    with FakePeer(answer(status, body)) as peer:
        register(daemon, "svcA", peer.port)
        assert history(daemon).body == expected
        assert [r.target for r in peer.requests] == ["/svcA/svcmon?method=get_history"]
        assert peer.requests[0].method == "GET"


@pytest.mark.parametrize("status, code", [(302, 302), (404, 404), (500, 4), (201, 4)])
def test_history_of_a_failing_status(daemon, status, code):
    with FakePeer(answer(status, b'{"a": 1}')) as peer:
        register(daemon, "svcA", peer.port)
        assert history(daemon).body == b'{ "return": -5 }'
    assert daemon.wait_stderr(f"svcmon_handler.cpp curl_easy_perform() failed, "
                              f"http_code=[{status}]\n")
    assert daemon.wait_stderr(f"proc_get_history() do_curl_GET_request = {code}\n")


def test_history_of_a_closed_port(daemon):
    register(daemon, "svcA", free_port())
    assert history(daemon).body == b'{ "return": -5 }'
    assert daemon.wait_stderr("proc_get_history() do_curl_GET_request = 3\n")
    assert "svcmon_handler.cpp curl_easy_perform() failed: " in daemon.stderr_text()


def test_history_of_a_silent_service_ends_after_two_seconds(daemon):
    with FakePeer(silent) as peer:
        register(daemon, "svcA", peer.port)
        started = time.monotonic()
        assert history(daemon).body == b'{ "return": -5 }'
        elapsed = time.monotonic() - started
    # Generous bounds around the 2-second transfer limit.
    assert 1.5 <= elapsed < deadline(6), elapsed
    assert daemon.wait_stderr("svcmon_handler.cpp curl_easy_perform() failed: "
                              "Timeout was reached\n")


def test_history_of_a_slow_service_within_the_limit(daemon):
    with FakePeer(delayed(0.5, answer(200, b'{"slow": 1}'))) as peer:
        register(daemon, "svcA", peer.port)
        assert history(daemon).body == b'{ "return": 0, "service_response": { "slow": 1 } }'


def test_history_of_a_flooding_service_is_cut_off(daemon):
    register(daemon, "svcA", 1)
    assert history(daemon).body == b'{ "return": -5 }'
    before = peak_memory_kib(daemon.pid)
    with FakePeer(flood) as peer:
        register(daemon, "svcA", peer.port)
        assert history(daemon).body == b'{ "return": -5 }'
        assert history(daemon).body == b'{ "return": -5 }'
    # The reply cap is 1 MiB; an uncapped client would take hundreds.
    assert peak_memory_kib(daemon.pid) - before < 32 * 1024
    assert daemon.wait_stderr("proc_get_history() do_curl_GET_request = 3\n")
    assert daemon.alive()



def test_daemon_exits_cleanly_after_every_kind_of_monitor_request(sandbox):
    sandbox.write("/www/index.html", b"page")
    daemon = sandbox.start("-v", "2", "-D", "/www/").wait_ready()
    with FakePeer(answer(200, b'{"a": [1, {"b": null}]}')) as peer:
        register(daemon, "svcA", peer.port)
        register(daemon, "svcB", free_port())
        assert json.loads(history(daemon, "svcA").body)["return"] == 0
        assert history(daemon, "svcB").body == b'{ "return": -5 }'
    monitor(daemon, "method=get_health_status")
    monitor(daemon, "")
    assert daemon.request("GET", "/managerService/svcmon/web/index.html").body == b"page"
    assert daemon.request("GET", "/managerService/svcmon/web/none.js").status == 404
    assert daemon.request("GET", "/managerService/svcmon/web").status == 302
    # Sanitizer builds report leaks and errors through the exit status.
    assert daemon.stop() == 0
