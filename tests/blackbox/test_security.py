"""Only the device drives the daemon: a request with a foreign Host, Origin or Sec-Fetch-Site, or
the head Chromium sends from a page of another origin, changes nothing (which values are foreign,
and which Host names are this device's, the unit tests judge); local clients are served as before,
even naming no Host, however they send their body, and an over-long body gets 413 even when sent
whole before reading. (The monitor's own page drives the daemon from Chromium: test_monitor_ui.py.)"""
import socket

import pytest

from harness import OK, REGISTRY_FILE, SCRIPTS, SERVICES, SVCMGR, SVCMON, deadline, wait_for

WEB = SVCMON + "/web"
CALLS = "/tmp/calls.log"
SEED = b"recStreamService,127.0.0.1,7000\n"
HIJACK = '{"method": "register", "name": "recStreamService", "ip": "127.0.0.66", "port": 6}'
STOP = '{"method": "stop"}'
REFUSED = "request refused ("


@pytest.fixture(scope="module")
def daemon(module_sandbox):
    for path in SCRIPTS:
        module_sandbox.write(path, f'#!/bin/sh\necho "$0 $*" >> {CALLS}\n', mode=0o755)
    module_sandbox.write(REGISTRY_FILE, SEED)
    module_sandbox.write("/www/own.html", "<p>own page</p>")
    return module_sandbox.start("-D", "/www/")


def refusals(sandbox):
    return sandbox.debug_log().count(REFUSED)


def script_runs(sandbox):
    return (sandbox.read(CALLS) or b"").count(b"\n")


# Each resource, with what a request there would change when served.
TARGETS = [(SVCMGR + "?method=unregister&name=recStreamService", HIJACK),
           (SVCMON + "?method=get_health_status", None), ("/managerService/sys_state", None),
           (SERVICES, STOP), (WEB + "/own.html", None), ("/managerService/nothing", STOP)]
MISDIRECTED, FORBIDDEN = (421, b"421 Misdirected Request"), (403, b"403 Forbidden")
# What Chromium sends with a no-cors fetch of a text body from a page on another port of this host.
BROWSER = {"Origin": "http://127.0.0.1:1", "Sec-Fetch-Site": "same-site", "Sec-Fetch-Mode": "no-cors",
           "Content-Type": "text/plain;charset=UTF-8"}
# Headers of a foreign request, the methods sent, the status and text.
FOREIGN = [({"Host": "attacker.example"}, ("GET", "HEAD", "OPTIONS", "POST"), MISDIRECTED)] + [
    (headers, ("POST", "DELETE", "PUT", "PATCH"), FORBIDDEN)
    for headers in ({"Origin": "null"}, {"Sec-Fetch-Site": "cross-site"}, BROWSER)]


def test_foreign_requests_are_refused_everywhere_and_change_nothing(daemon, module_sandbox):
    before, runs = refusals(module_sandbox), script_runs(module_sandbox)
    sent = 0
    for headers, methods, (status, text) in FOREIGN:
        for path, body in TARGETS:
            for method in methods:
                reply = daemon.request(method, path, body if method != "GET" else None, headers)
                expected = b"" if method == "HEAD" else text
                assert (reply.status, reply.headers["content-type"], reply.body) == (
                    status, "text/plain", expected), (method, path, headers)
                assert reply.headers["x-content-type-options"] == "nosniff", reply
                assert not [h for h in reply.headers if h.startswith("access-control-")], reply
                sent += 1
    assert refusals(module_sandbox) - before == sent
    assert "Host not served): GET /managerService/sys_state Host: attacker.example " in (
        module_sandbox.debug_log())
    # Nothing changed: the registry is as seeded and no init script ran; a local stop
    # request then runs one, so the scripts were there to be run.
    assert module_sandbox.read(REGISTRY_FILE) == SEED
    assert script_runs(module_sandbox) == runs
    assert daemon.request("POST", SERVICES, STOP).body == OK
    assert wait_for(lambda: script_runs(module_sandbox) == runs + 1)


def exchange(port, head, body=b"", expect_continue=False):
    """Sends a raw request (head, then body, after the 100 when asked to wait for it);
    returns the reply up to the close, without its Date line."""
    with socket.create_connection(("127.0.0.1", port), timeout=deadline(10)) as sock:
        sock.sendall(head)
        if expect_continue:
            assert sock.recv(100) == b"HTTP/1.1 100 Continue\r\n\r\n"
        sock.sendall(body)
        reply = sock.makefile("rb").read()
    return b"".join(line for line in reply.splitlines(True) if not line.startswith(b"Date: "))


def test_a_local_client_naming_no_host_registers_however_it_sends_its_body(daemon):
    body = b'{"method": "register", "name": "c", "ip": "127.0.0.1", "port": 5}'
    no_host = f"POST {SVCMGR} HTTP/1.0\r\nContent-Length: {len(body)}\r\n\r\n"
    plain = exchange(daemon.port, no_host.encode(), body)
    assert plain.startswith(b"HTTP/1.1 200 OK\r\n") and plain.endswith(b"\r\n\r\n" + OK), plain
    head = f"POST {SVCMGR} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
    chunks = b"".join(b"%x\r\n%s\r\n" % (len(part), part)
                      for part in (body[:10], body[10:30], body[30:], b""))
    assert exchange(daemon.port, f"{head}Transfer-Encoding: chunked\r\n\r\n".encode(), chunks) == plain
    waiting = f"{head}Expect: 100-continue\r\nContent-Length: {len(body)}\r\n\r\n"
    assert exchange(daemon.port, waiting.encode(), body, expect_continue=True) == plain
    assert daemon.request("DELETE", f"{SVCMGR}?method=unregister&name=c").body == OK
    for expect, sent in (("Expect: 100-continue\r\n", b""), ("", b"x" * 70000)):
        too_long = f"{head}{expect}Content-Length: 70000\r\n\r\n"
        assert exchange(daemon.port, too_long.encode(), sent).startswith(
            b"HTTP/1.1 413 Content Too Large\r\n"), expect

