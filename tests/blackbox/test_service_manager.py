"""The service-manager resource over HTTP, with the registry file it keeps."""
import json
import os

import pytest

from harness import REGISTRY_FILE

SVCMGR = "/managerService/svcmgr"


def register(daemon, name, ip="127.0.0.1", port=80, method="register"):
    body = json.dumps({"method": method, "name": name, "ip": ip, "port": port})
    return daemon.request("POST", SVCMGR, body)


def get_info(daemon, query):
    return daemon.request("GET", f"{SVCMGR}?{query}")


def unregister(daemon, name, method="unregister"):
    return daemon.request("DELETE", f"{SVCMGR}?method={method}&name={name}")


def test_round_trip_replies_and_registry_file(daemon, sandbox):
    reply = register(daemon, "svcA")
    assert (reply.status, reply.content_type, reply.body) == (200, "application/json",
                                                              b'{ "return": 0 }')
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,80\n"

    reply = get_info(daemon, "method=get_info&name=svcA")
    assert reply.body == b'{ "return": 0, "name": "svcA", "ip": "127.0.0.1", "port": 80 }'

    reply = unregister(daemon, "svcA")
    assert reply.body == b'{ "return": 0 }'
    assert sandbox.read(REGISTRY_FILE) == b""
    assert unregister(daemon, "svcA").body == b'{ "return": -2 }'


def test_registry_file_follows_name_order_and_updates(daemon, sandbox):
    for name, port in [("abc", 3), ("B", 1), ("ab", 2), ("a", 4)]:
        assert register(daemon, name, port=port).body == b'{ "return": 0 }'
    assert sandbox.read(REGISTRY_FILE) == (b"B,127.0.0.1,1\na,127.0.0.1,4\n"
                                           b"ab,127.0.0.1,2\nabc,127.0.0.1,3\n")
    assert register(daemon, "ab", ip="10.0.0.01", port=2).body == b'{ "return": 0 }'
    assert b"ab,10.0.0.01,2\n" in sandbox.read(REGISTRY_FILE)
    assert "    UPDATE : [ab]=[127.0.0.1:2]->[10.0.0.01:2]\n" in daemon.stderr_text()


def test_identical_registration_leaves_the_file_alone(daemon, sandbox):
    register(daemon, "svcA")
    sandbox.write(REGISTRY_FILE, "edited by hand\n")
    assert register(daemon, "svcA").body == b'{ "return": 0 }'
    assert sandbox.read(REGISTRY_FILE) == b"edited by hand\n"
    assert "    Identical content, do nothing\n" in daemon.stderr_text()
    register(daemon, "svcA", port=81)
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,81\n"


@pytest.mark.parametrize("query, expected", [
    ("method=get_info&name=nobody", b'{ "return": -2, "name": "nobody", "ip": "", "port": 0 }'),
    ("method=get_info", b'{ "return": -3, "name": "", "ip": "", "port": 0 }'),
    ("method=get_info&name=", b'{ "return": -3, "name": "", "ip": "", "port": 0 }'),
    ("name=svcA", b'{ "return": -1, "name": "svcA", "ip": "", "port": 0 }'),
    ("method=GET_INFO&name=svcA", b'{ "return": -1, "name": "svcA", "ip": "", "port": 0 }'),
    ("method=get_info%20&name=svcA", b'{ "return": -1, "name": "svcA", "ip": "", "port": 0 }'),
])
def test_get_info_failures(daemon, query, expected):
    register(daemon, "svcA")
    reply = get_info(daemon, query)
    assert (reply.status, reply.content_type, reply.body) == (200, "application/json", expected)


@pytest.mark.parametrize("body", [
    b"", b"not json", b"[1, 2]", b"42", b'"register"', b"{", b"\x00\xff\xfe",
    b'{"method": 7, "name": "x", "ip": "1.2.3.4", "port": 1}',
    b'{"method": ["register"], "name": "x"}',
    b'{"method": "unregister", "name": "x", "ip": "1.2.3.4", "port": 1}',
    b'{"method": "get_info", "name": "x"}',
    b'{"method": "Register", "name": "x"}',
])
def test_register_bodies_that_are_refused(daemon, sandbox, body):
    reply = daemon.request("POST", SVCMGR, body)
    assert (reply.status, reply.body) == (200, b'{ "return": -1 }')
    assert sandbox.read(REGISTRY_FILE) is None


@pytest.mark.parametrize("members, line", [
    ({"name": "noip", "port": 5}, b"noip,,5\n"),
    ({"name": "noport", "ip": "1.2.3.4"}, b"noport,1.2.3.4,0\n"),
    ({"name": "badport", "ip": "1.2.3.4", "port": "80"}, b"badport,1.2.3.4,0\n"),
    ({"name": "badip", "ip": 1234, "port": 1}, b"badip,,1\n"),
    ({"name": "n" * 40, "ip": "i" * 40, "port": 1}, b"n" * 31 + b"," + b"i" * 31 + b",1\n"),
])
def test_register_keeps_what_it_can_read(daemon, sandbox, members, line):
    reply = daemon.request("POST", SVCMGR, json.dumps({"method": "register", **members}))
    assert reply.body == b'{ "return": 0 }'
    assert sandbox.read(REGISTRY_FILE) == line


def test_empty_names_are_refused_and_logged(daemon, sandbox):
    assert register(daemon, "").body == b'{ "return": -3 }'
    assert daemon.request("POST", SVCMGR, b'{"method": "register"}').body == b'{ "return": -3 }'
    assert unregister(daemon, "").body == b'{ "return": -3 }'
    assert sandbox.debug_log().count("param_name invalid : \n") == 3
    assert sandbox.read(REGISTRY_FILE) is None


def test_each_verb_accepts_only_its_own_method(daemon):
    register(daemon, "svcA")
    reply = unregister(daemon, "svcA", method="register")
    assert reply.body == b'{ "return": -1 }'
    assert "param_name=svcA\ndo delete\n" in daemon.stderr_text()
    assert register(daemon, "svcA", method="get_info").body == b'{ "return": -1 }'
    assert get_info(daemon, "method=unregister&name=svcA").body.startswith(b'{ "return": -1')
    assert get_info(daemon, "method=get_info&name=svcA").body.startswith(b'{ "return": 0')


def test_register_logs_its_parameters(daemon):
    body = '{"method": "register", "name": "svcA", "ip": "127.0.0.1", "port": 80}'
    daemon.request("POST", SVCMGR, body)
    assert (f"proc_svcmgr_post()\nget_content={body}\nparam_method=register\n"
            "param_name=svcA\nparam_ip=127.0.0.1\nparam_port=80\ndo register \n"
            ) in daemon.stderr_text()


def test_verbs_without_handler_and_oversized_bodies(daemon, sandbox):
    reply = daemon.request("PUT", SVCMGR, b"{}")
    assert reply.status == 405
    assert reply.headers["allow"] == "GET, POST, DELETE"
    big = json.dumps({"method": "register", "name": "big", "ip": "x" * 70000, "port": 1})
    assert daemon.request("POST", SVCMGR, big).status == 413
    exact = b'{"method": "register", "name": "fits", "port": 1}'
    exact += b" " * (64 * 1024 - len(exact))
    assert daemon.request("POST", SVCMGR, exact).body == b'{ "return": 0 }'
    assert sandbox.read(REGISTRY_FILE) == b"fits,,1\n"


def test_registry_survives_a_restart(sandbox):
    first = sandbox.start().wait_ready()
    register(first, "svcB", port=2)
    register(first, "svcA", ip="10.0.0.7", port=10182)
    assert first.stop() == 0
    second = sandbox.start().wait_ready()
    assert get_info(second, "method=get_info&name=svcA").body == (
        b'{ "return": 0, "name": "svcA", "ip": "10.0.0.7", "port": 10182 }')
    assert get_info(second, "method=get_info&name=svcB").body.startswith(b'{ "return": 0')
    assert second.stop() == 0
    assert sandbox.read(REGISTRY_FILE) == b"svcA,10.0.0.7,10182\nsvcB,127.0.0.1,2\n"


def test_unwritable_registry_file_fails_no_request(sandbox):
    os.makedirs(sandbox.path(REGISTRY_FILE))
    daemon = sandbox.start().wait_ready()
    assert register(daemon, "svcA").body == b'{ "return": 0 }'
    assert get_info(daemon, "method=get_info&name=svcA").body.startswith(b'{ "return": 0')
    assert ("svc_info_map.cpp:svc_info_write_back(123) fopen(/tmp/.manager_svc.inf) error(21)."
            in sandbox.debug_log())
    assert daemon.stop() == 0
