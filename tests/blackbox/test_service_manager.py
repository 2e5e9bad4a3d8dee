"""The service-manager resource: each result code of register, get_info and unregister,
the server's own refusals, its console lines (a line loaded at start-up's too), and the
registry file after each change and at stop, and left alone when a symbolic link or a FIFO
is planted at its path (loading it at start-up: test_lifecycle.py; a full disk, and a crash
at every step of a rewrite: the unit tests)."""
import os
import re

import pytest

from harness import OK, REGISTRY_FILE, SVCMGR, register

REGISTER_A = '{"method": "register", "name": "svcA", "ip": "127.0.0.7", "port": 80}'
CUT = '{"method": "register", "name": "@", "ip": "127.0.0.1", "port": 5}'
BIG_BODY = '{"method": "register", "name": "big", "port": 1}'.ljust(64 * 1024)


@pytest.fixture(scope="module")
def daemon(module_sandbox):
    module_sandbox.write(REGISTRY_FILE, "B,127.0.0.1,1\n")
    return module_sandbox.start("-v", "2")


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
    ("POST", SVCMGR, "not json", 200, b'{ "return": -1 }'),
    ("DELETE", SVCMGR + "?method=register&name=svcA", None, 200, b'{ "return": -1 }'),
    ("DELETE", SVCMGR + "?method=unregister&name=", None, 200, b'{ "return": -3 }'),
    ("DELETE", SVCMGR + "?method=unregister&name=nobody", None, 200, b'{ "return": -2 }'),
    ("POST", SVCMGR, BIG_BODY + " ", 413, None), ("POST", SVCMGR, BIG_BODY, 200, OK),
    ("PUT", SVCMGR, "{}", 405, None), ("HEAD", SVCMGR, None, 405, None),
    ("GET", "/managerService/nothing", None, 404, None),
    ("DELETE", SVCMGR + "?method=unregister&name=big", None, 200, OK),
    # A name cut to its buffer stays UTF-8: no half of the euro sign is kept, so it unregisters.
    ("POST", SVCMGR, CUT.replace("@", "a" * 29 + "\u20ac"), 200, OK),
    ("DELETE", SVCMGR + "?method=unregister&name=" + "a" * 29, None, 200, OK),
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


def test_registry_file_follows_every_change_and_the_console_tells_each(daemon, module_sandbox):
    assert module_sandbox.read(REGISTRY_FILE) == b"B,127.0.0.1,1\nsvcA,127.0.0.7,80\n"
    module_sandbox.write(REGISTRY_FILE, b"left alone\n")
    assert daemon.request("POST", SVCMGR, REGISTER_A).body == OK
    assert module_sandbox.read(REGISTRY_FILE) == b"left alone\n"
    for lines in ["svc_info_map.cpp:svc_info_restore(74) str_readline=[B,127.0.0.1,1\n]\n"
                  "    name=[B], ip=[127.0.0.1], port=[1]\n",
                  f"get_content={REGISTER_A}\nparam_method=register\nparam_name=svcA\n"
                  "param_ip=127.0.0.7\nparam_port=80\ndo register \n",
                  "Already exists, check content : svcA\n    Identical content, do nothing\n",
                  "get_content=not json\nparam_method=\nparam_name=\nparam_ip=\nparam_port=0\n"
                  "do register \n",
                  "proc_svcmgr_delete()\nparam_name=svcA\ndo delete\n",
                  "proc_svcmgr_get()\nfind, do get info : svcA\n", "get info failed : nobody\n",
                  "can not find, delete failed : nobody\n", "find, do delete : big\n"]:
        assert lines in daemon.stderr_text()
    assert module_sandbox.debug_log().count("param_name invalid : \n") == 3
    for name, port in [("b", 2), ("B", 1), ("svcA", 81)]:
        assert register(daemon, name, port) == OK
    assert module_sandbox.read(REGISTRY_FILE) == b"B,127.0.0.1,1\nb,127.0.0.1,2\nsvcA,127.0.0.1,81\n"



def test_stop_writes_the_registry_back_and_releases_each_record(daemon):
    assert daemon.stop() == 0
    here = "svc_info_map.cpp:svc_info_"
    tail = (f"recv sig=15\n{here}uninit(136)\n{here}write_back(103)\n{here}write_back(108)\n"
            f"{here}write_back(116) B,127.0.0.1,1\n{here}write_back(116) b,127.0.0.1,2\n"
            f"{here}write_back(116) svcA,127.0.0.1,81\n{here}destroy(45)\n"
            + f"{here}destroy(52) delete(0x@)\n" * 3 + "manager_svc exit(EXIT_SUCCESS).\n")
    assert re.search(re.escape(tail).replace("@", "[0-9a-f]+") + r"\Z", daemon.stderr_text())


@pytest.mark.parametrize("plant, error", [(lambda path: os.symlink("/tmp/target", path), 40),
                                          (lambda path: os.mkfifo(path), 6)])
def test_symlink_or_fifo_at_the_registry_path_is_left_alone(sandbox, plant, error):
    os.makedirs(sandbox.path("/tmp"))
    plant(sandbox.path(REGISTRY_FILE))
    daemon = sandbox.start("-v", "1")
    assert f"{REGISTRY_FILE} does not exist." in daemon.stderr_text()
    assert register(daemon, "svcA") == OK
    assert not sandbox.exists("/tmp/target") and os.path.lexists(sandbox.path(REGISTRY_FILE))
    assert f"fopen({REGISTRY_FILE}) error({error})." in sandbox.debug_log()

