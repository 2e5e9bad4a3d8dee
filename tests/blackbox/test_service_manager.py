"""The service-manager resource: each result code of register, get_info and unregister,
the server's own refusals, and the registry file kept and loaded back across a restart."""
import pytest

from harness import OK, REGISTRY_FILE, SVCMGR, register

REGISTER_A = '{"method": "register", "name": "svcA", "ip": "127.0.0.7", "port": 80}'
BIG_BODY = '{"method": "register", "name": "big", "port": 1}'.ljust(64 * 1024)


@pytest.fixture(scope="module")
def daemon(module_sandbox):
    daemon = module_sandbox.start("-v", "2").wait_ready()
    yield daemon
    assert daemon.stop() == 0, daemon.stderr_text()[-4000:]


# Walked in order against one daemon: method, path, body, status, reply.
WALK = [
    ("POST", SVCMGR, REGISTER_A, 200, OK),
    ("GET", SVCMGR + "?method=get_info&name=svcA", None, 200,
     b'{ "return": 0, "name": "svcA", "ip": "127.0.0.7", "port": 80 }'),
    ("GET", SVCMGR + "?method=get_info&name=nobody", None, 200,
     b'{ "return": -2, "name": "nobody", "ip": "", "port": 0 }'),
    ("GET", SVCMGR + "?method=get_info&name", None, 200,
     b'{ "return": -3, "name": "", "ip": "", "port": 0 }'),
    ("GET", SVCMGR + "?name=svcA", None, 200,
     b'{ "return": -1, "name": "svcA", "ip": "", "port": 0 }'),
    ("POST", SVCMGR, '{"method": "register", "name": ""}', 200, b'{ "return": -3 }'),
    ("POST", SVCMGR, '{"method": "unregister", "name": "svcA"}', 200, b'{ "return": -1 }'),
    ("POST", SVCMGR, "not json", 200, b'{ "return": -1 }'),
    ("POST", SVCMGR, '{"name": "svcA", "ip": "127.0.0.9", "port": 9}', 200, b'{ "return": -1 }'),
    ("DELETE", SVCMGR + "?method=register&name=svcA", None, 200, b'{ "return": -1 }'),
    ("DELETE", SVCMGR + "?method=unregister&name=", None, 200, b'{ "return": -3 }'),
    ("DELETE", SVCMGR + "?method=unregister&name=nobody", None, 200, b'{ "return": -2 }'),
    ("POST", SVCMGR, BIG_BODY + " ", 413, None),
    ("POST", SVCMGR, BIG_BODY, 200, OK),
    ("PUT", SVCMGR, "{}", 405, None),
    ("GET", "/managerService/nothing", None, 404, None),
    ("DELETE", SVCMGR + "?method=unregister&name=big", None, 200, OK),
]


@pytest.mark.parametrize("method, path, body, status, expected", WALK,
                         ids=[f"{i:02d}" for i in range(len(WALK))])
def test_result_codes(daemon, method, path, body, status, expected):
    reply = daemon.request(method, path, body)
    assert reply.status == status, reply
    if status == 200:
        assert (reply.headers["content-type"], reply.body) == ("application/json", expected)
    if status == 405:
        assert reply.headers["allow"] == "GET, POST, DELETE"


def test_registry_file_follows_every_change_and_loads_back(daemon, module_sandbox):
    assert module_sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.7,80\n"
    assert (f"get_content={REGISTER_A}\nparam_method=register\nparam_name=svcA\n"
            in daemon.stderr_text())
    module_sandbox.write(REGISTRY_FILE, b"left alone\n")
    assert daemon.request("POST", SVCMGR, REGISTER_A).body == OK
    assert module_sandbox.read(REGISTRY_FILE) == b"left alone\n"
    assert "Already exists, check content : svcA\n    Identical content, do nothing\n" in (
        daemon.stderr_text())
    for lines in ["get_content=not json\nparam_method=\nparam_name=\nparam_ip=\nparam_port=0\n",
                  "param_method=\nparam_name=svcA\nparam_ip=127.0.0.9\nparam_port=9\ndo register \n",
                  "proc_svcmgr_delete()\nparam_name=svcA\ndo delete\n"]:
        assert lines in daemon.stderr_text()
    assert module_sandbox.debug_log().count("param_name invalid : \n") == 3
    for name, port in [("b", 2), ("B", 1), ("svcA", 81)]:
        assert register(daemon, name, port) == OK
    assert module_sandbox.read(REGISTRY_FILE) == (b"B,127.0.0.1,1\nb,127.0.0.1,2\n"
                                                  b"svcA,127.0.0.1,81\n")
    assert daemon.stop() == 0
    module_sandbox.write(REGISTRY_FILE, b"x,127.0.0.4,5\nbroken\ny,127.0.0.9,7")
    again = module_sandbox.start().wait_ready()
    reply = again.request("GET", SVCMGR + "?method=get_info&name=y")
    assert reply.body == b'{ "return": 0, "name": "y", "ip": "127.0.0.9", "port": 7 }'
    assert again.stop() == 0
    assert module_sandbox.read(REGISTRY_FILE) == b"x,127.0.0.4,5\ny,127.0.0.9,7\n"
