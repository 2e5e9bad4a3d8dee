"""Start-up, readiness, daemon mode, stop signals and exit statuses."""
import os
import re
import signal
import socket
import threading

import pytest

from harness import (BIN, READY_MARKER, REGISTRY_FILE, http_request, port_answers,
                     wait_for)

REGISTER = b'{"method": "register", "name": "svcA", "ip": "127.0.0.1", "port": 80}'


@pytest.mark.parametrize("sig", [signal.SIGINT, signal.SIGTERM])
def test_stop_signal_exits_zero_and_writes_the_registry(sandbox, sig):
    daemon = sandbox.start("-v", "1").wait_ready()
    daemon.request("POST", "/managerService/svcmgr", REGISTER)
    sandbox.write(REGISTRY_FILE, "stale\n")
    assert daemon.stop(sig) == 0
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,80\n"
    err = daemon.stderr_text()
    assert err.endswith(f"recv sig={int(sig)}\nmanager_svc exit(EXIT_SUCCESS).\n")
    assert sandbox.exists(READY_MARKER)


def test_log_lines_at_each_verbose_level(sandbox):
    quiet = sandbox.start().wait_ready()
    quiet.stop()
    assert "register_signal_handler()" not in quiet.stderr_text()
    assert "exit(EXIT_SUCCESS)" not in quiet.stderr_text()
    assert "recv sig=15\n" in quiet.stderr_text()

    warn = sandbox.start("-v", "1").wait_ready()
    warn.stop()
    text = warn.stderr_text()
    assert "execute_time  : [" in text and "register_signal_handler()\n" in text
    assert "svc_info_init" not in text

    debug = sandbox.start("-v", "2").wait_ready()
    debug.request("GET", "/managerService/svcmgr?method=get_info&name=x")
    debug.stop()
    text = debug.stderr_text()
    assert ("register_signal_handler()\nsvc_info_map.cpp:svc_info_init(129)\n"
            "svc_info_map.cpp:svc_info_restore(64)\n") in text
    assert "proc_svcmgr_get()\n" in text
    assert re.search(r"recv sig=15\nsvc_info_map.cpp:svc_info_uninit\(136\)\n"
                     r"svc_info_map.cpp:svc_info_write_back\(103\)\n"
                     r"svc_info_map.cpp:svc_info_write_back\(108\)\n"
                     r"svc_info_map.cpp:svc_info_destroy\(45\)\n"
                     r"manager_svc exit\(EXIT_SUCCESS\).\n$", text)


def test_ready_marker_comes_only_once_the_port_answers(sandbox):
    daemon = sandbox.start()
    assert wait_for(lambda: sandbox.exists(READY_MARKER), 10)
    assert port_answers(daemon.port)
    assert daemon.stop() == 0
    assert sandbox.exists(READY_MARKER)
    again = sandbox.start().wait_ready()
    assert again.stop() == 0


def find_daemon_pids(port):
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/cmdline", "rb") as src:
                words = src.read().split(b"\0")
        except OSError:
            continue
        if words and words[0] == BIN.encode() and str(port).encode() in words:
            found.append(int(entry))
    return found


def test_daemon_mode_detaches_and_still_serves(sandbox):
    daemon = sandbox.start("-d", "-v", "2")
    assert daemon.proc.wait(10) == 0          # the starting process returns
    daemon.wait_ready()
    assert http_request(daemon.port, "POST", "/managerService/svcmgr", REGISTER).status == 200
    text = daemon.stderr_text()
    assert "is_daemon     : [true]\n" in text
    assert "register_signal_handler" not in text
    pids = find_daemon_pids(daemon.port)
    assert len(pids) == 1
    os.kill(pids[0], signal.SIGTERM)
    assert wait_for(lambda: not os.path.exists(f"/proc/{pids[0]}"), 10)
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,80\n"


def test_port_in_use_ends_start_up_with_status_1(sandbox):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen(1)
        result = sandbox.run(["-p", taken.getsockname()[1]])
    assert result.returncode == 1
    assert not sandbox.exists(READY_MARKER)
    records = [line for line in sandbox.debug_log().splitlines() if "failed, ret=[" in line]
    assert len(records) == 1
    assert re.search(r"ssci_server_create failed, ret=\[-?\d+\] exit\.$", records[0])
    assert b"failed" not in result.stderr


def test_port_the_server_refuses_ends_start_up(sandbox):
    result = sandbox.run(["-p", "70000"])
    assert result.returncode == 1
    assert b"listen        : [" in result.stderr
    assert "ssci_server_create failed, ret=[-22] exit." in sandbox.debug_log()
    assert not sandbox.exists(READY_MARKER)


def test_any_thread_count_above_0_is_served(sandbox):
    daemon = sandbox.start("-t", "65").wait_ready()
    assert daemon.request("GET", "/managerService/svcmgr?method=get_info&name=a").status == 200
    assert daemon.stop() == 0


def test_second_instance_on_the_same_port_fails(sandbox):
    first = sandbox.start().wait_ready()
    second = sandbox.run(["-p", first.port])
    assert second.returncode == 1
    assert first.request("GET", "/managerService/svcmgr?method=get_info&name=a").status == 200
    assert first.stop() == 0


def test_sigterm_with_requests_in_flight(sandbox):
    daemon = sandbox.start("-t", "4").wait_ready()
    stop = threading.Event()
    acknowledged = []

    def client(index):
        count = 0
        while not stop.is_set():
            body = f'{{"method": "register", "name": "c{index}-{count}", "ip": "10.0.0.{index}", "port": {count}}}'
            try:
                reply = http_request(daemon.port, "POST", "/managerService/svcmgr", body, timeout=5)
            except OSError:
                return
            if reply.body == b'{ "return": 0 }':
                acknowledged.append(f"c{index}-{count},10.0.0.{index},{count}")
            count += 1

    clients = [threading.Thread(target=client, args=(i,)) for i in range(8)]
    for thread in clients:
        thread.start()
    assert wait_for(lambda: len(acknowledged) >= 50, 10)
    assert daemon.stop(signal.SIGTERM) == 0
    stop.set()
    for thread in clients:
        thread.join(10)
    lines = sandbox.read(REGISTRY_FILE).decode().splitlines()
    assert all(re.fullmatch(r"c\d-\d+,10\.0\.0\.\d,\d+", line) for line in lines)
    assert set(acknowledged) <= set(lines)


def test_awkward_registry_file_still_starts(sandbox):
    sandbox.write(REGISTRY_FILE, b"good,1.2.3.4,5\n\x00\xff junk\n,,,\n" + b"x" * 500
                  + b"\nlast,9.9.9.9,7")
    daemon = sandbox.start().wait_ready()
    for name, ip in [("good", "1.2.3.4"), ("last", "9.9.9.9")]:
        reply = daemon.request("GET", f"/managerService/svcmgr?method=get_info&name={name}")
        assert f'"ip": "{ip}"'.encode() in reply.body
    assert daemon.stop() == 0
    assert sandbox.read(REGISTRY_FILE) == b"good,1.2.3.4,5\nlast,9.9.9.9,7\n"
