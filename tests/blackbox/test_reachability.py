"""The reachability prober seen through the monitor's "get_reachability"
method: a listening service, a closed port, a name instead of an address and
a port out of range, each judged within a few seconds of registering; a
service that stops listening; a service that unregisters."""
import json
import re
import socket
import time

import pytest

from harness import free_port, wait_for

SVCMON = "/managerService/svcmon"
SVCMGR = "/managerService/svcmgr"
UTC_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")
ITEM_MEMBERS = ["name", "ip", "port", "reachable", "checked", "since", "latency_ms",
                "failures", "error"]

pytestmark = pytest.mark.usefixtures("clean_exit")


def register(daemon, name, ip, port):
    body = json.dumps({"method": "register", "name": name, "ip": ip, "port": port})
    assert daemon.request("POST", SVCMGR, body).body == b'{ "return": 0 }'


def reachability(daemon):
    reply = daemon.request("GET", SVCMON + "?method=get_reachability")
    assert (reply.status, reply.content_type) == (200, "application/json")
    return json.loads(reply.body)


def items_by_name(daemon):
    return {item["name"]: item for item in reachability(daemon)["items"]}


def wait_item(daemon, name, condition, timeout=3):
    """The service's item once `condition` holds for it (polled)."""
    found = {}

    def holds():
        item = items_by_name(daemon).get(name)
        found["item"] = item
        return item is not None and condition(item)
    assert wait_for(holds, timeout), found.get("item")
    return found["item"]


@pytest.fixture
def listener():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as server:
        server.bind(("127.0.0.1", 0))
        server.listen(64)
        yield server


# name, ip, port (a number, or which of the test's ports), reachable, error
SERVICES = [
    ("closed", "127.0.0.1", "free", False, "connection refused"),
    ("named", "localhost", "listening", False, "not a numeric address"),
    ("port0", "127.0.0.1", 0, False, "invalid port"),
    ("port70000", "127.0.0.1", 70000, False, "invalid port"),
    ("up", "127.0.0.1", "listening", True, ""),
    ("up6", "::1", "listening6", True, ""),
]


def test_each_service_is_judged_and_follows_its_listener(sandbox, listener):
    listener6 = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
    listener6.bind(("::1", 0))
    listener6.listen(8)
    ports = {"free": free_port(), "listening": listener.getsockname()[1],
             "listening6": listener6.getsockname()[1]}
    daemon = sandbox.start("-m", "1", "-v", "2").wait_ready()
    for name, ip, port, _, _ in SERVICES:
        register(daemon, name, ip, ports.get(port, port))
    assert daemon.wait_stderr(f"prober round: {len(SERVICES)} services in ")
    for name, ip, port, reachable, error in SERVICES:
        item = wait_item(daemon, name, lambda i: i["reachable"] is not None)
        assert list(item) == ITEM_MEMBERS
        assert (item["ip"], item["port"]) == (ip, ports.get(port, port))
        assert (item["reachable"], item["error"]) == (reachable, error), name
        assert UTC_TIME.fullmatch(item["checked"]) and UTC_TIME.fullmatch(item["since"])
        assert isinstance(item["latency_ms"], float) if reachable else item["latency_ms"] is None
        assert item["failures"] == 0 if reachable else item["failures"] >= 1
    reply = reachability(daemon)
    assert (reply["return"], reply["period"]) == (0, 1)
    assert [item["name"] for item in reply["items"]] == sorted(s[0] for s in SERVICES)
    listener6.close()

    # Down once the listener is gone: since moves to the check that saw it.
    first = items_by_name(daemon)["up"]
    assert wait_for(lambda: time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()) > first["since"])
    listener.close()
    down = wait_item(daemon, "up", lambda i: i["reachable"] is False)
    assert (down["error"], down["latency_ms"], down["failures"]) == ("connection refused", None, 1)
    assert first["since"] < down["since"] == down["checked"]

    # Failures count up while it stays down; unregistering drops it at once.
    wait_item(daemon, "closed", lambda i: i["failures"] >= 3, timeout=5)
    reply = daemon.request("DELETE", SVCMGR + "?method=unregister&name=closed")
    assert reply.body == b'{ "return": 0 }'
    assert "closed" not in items_by_name(daemon)
