"""Only the device drives the daemon: a page of another origin changes nothing (in headless
Chromium, and by hand with a foreign Origin, Sec-Fetch-Site or Host), while local clients and the
daemon's own pages are served as before, whatever Host they name and however they send their
body; an over-long body gets 413 even from BusyBox wget."""
import json
import shutil
import socket
import subprocess

import pytest

from browser import Browser
from fake_peer import FakePeer, answer
from harness import OK, REGISTRY_FILE, SCRIPTS, SERVICES, SVCMGR, SVCMON, deadline, wait_for

WEB = SVCMON + "/web"
CALLS = "/tmp/calls.log"
SEED = b"recStreamService,127.0.0.1,7000\n"
HIJACK = '{"method": "register", "name": "recStreamService", "ip": "127.0.0.66", "port": 6}'
STOP = '{"method": "stop"}'
REFUSED = "request refused ("
# Same-origin page: registers, looks up and unregisters "own", and asks for an
# unknown service-control method; notes the four replies.
OWN_PAGE = """<pre id="result"></pre><script>
const send = (method, path, body) => fetch(path, {method, body}).then((r) => r.text());
(async () => {
  const replies = [
    await send("POST", "/managerService/svcmgr",
               '{"method": "register", "name": "own", "ip": "127.0.0.1", "port": 9}'),
    await send("GET", "/managerService/svcmgr?method=get_info&name=own"),
    await send("DELETE", "/managerService/svcmgr?method=unregister&name=own"),
    await send("POST", "/managerService/services", '{"method": "none"}')];
  document.getElementById("result").textContent = JSON.stringify(replies);
})();
</script>"""
# Attacker page: for each target a no-cors fetch, a beacon and a text/plain form
# whose body reads as the JSON text; the forms post into frames.
ATTACK_PAGE = """<iframe name="f0"></iframe><iframe name="f1"></iframe><script>
const attempts = [["{base}/services", '{stop}'], ["{base}/svcmgr", '{hijack}']];
(async () => {{
  for (const [index, [url, body]] of attempts.entries()) {{
    await fetch(url, {{mode: "no-cors", method: "POST", body}}).catch(() => null);
    navigator.sendBeacon(url, body);
    const form = Object.assign(document.createElement("form"), {{
      method: "POST", enctype: "text/plain", action: url, target: "f" + index}});
    form.append(Object.assign(document.createElement("input"), {{
      name: body.slice(0, -1) + ', "x": "', value: '"}}'}}));
    document.body.append(form);
    form.submit();
  }}
}})();
</script>"""


@pytest.fixture(scope="module")
def daemon(module_sandbox):
    for path in SCRIPTS:
        module_sandbox.write(path, f'#!/bin/sh\necho "$0 $*" >> {CALLS}\n', mode=0o755)
    module_sandbox.write(REGISTRY_FILE, SEED)
    module_sandbox.write("/www/own.html", OWN_PAGE)
    return module_sandbox.start("-D", "/www/")


def refusals(sandbox):
    return sandbox.debug_log().count(REFUSED)


def script_runs(sandbox):
    return (sandbox.read(CALLS) or b"").count(b"\n")


def assert_nothing_changed(daemon, sandbox, runs_before):
    """The registry is as seeded and no init script ran; a local stop request
    then runs one, so the scripts were there to be run."""
    assert sandbox.read(REGISTRY_FILE) == SEED
    assert script_runs(sandbox) == runs_before
    assert daemon.request("POST", SERVICES, STOP).body == OK
    assert wait_for(lambda: script_runs(sandbox) == runs_before + 1)


# Each resource, with what a request there would change when served.
TARGETS = [(SVCMGR + "?method=unregister&name=recStreamService", HIJACK),
           (SVCMON + "?method=get_health_status", None), ("/managerService/sys_state", None),
           (SERVICES, STOP), (WEB + "/own.html", None), ("/managerService/nothing", STOP)]
CHANGES = ("POST", "DELETE", "PUT", "PATCH")
MISDIRECTED, FORBIDDEN = (421, b"421 Misdirected Request"), (403, b"403 Forbidden")
# Headers of a foreign request, the methods refused, the status and text.
FOREIGN = [({"Host": "attacker.example"}, ("GET", "HEAD", "OPTIONS") + CHANGES, MISDIRECTED),
           ({"Host": "attacker.example:{port}"}, ("GET",) + CHANGES, MISDIRECTED)] + [
    (headers, CHANGES, FORBIDDEN) for headers in (
        {"Origin": "http://attacker.example"}, {"Origin": "http://127.0.0.1:1"},
        {"Origin": "null"}, {"Sec-Fetch-Site": "cross-site"},
        {"Sec-Fetch-Site": "same-site", "Origin": "http://127.0.0.1:{port}"})]


def test_foreign_requests_are_refused_everywhere_and_change_nothing(daemon, module_sandbox):
    before, runs = refusals(module_sandbox), script_runs(module_sandbox)
    sent = 0
    for headers, methods, (status, text) in FOREIGN:
        headers = {k: v.format(port=daemon.port) for k, v in headers.items()}
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
    assert_nothing_changed(daemon, module_sandbox, runs)


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


LOCAL = [("GET", SVCMGR + "?method=get_info&name=recStreamService", b"",
          b'{ "return": 0, "name": "recStreamService", "ip": "127.0.0.1", "port": 7000 }'),
         ("POST", SVCMGR, b'{"method": "register", "name": "local", "ip": "127.0.0.1", "port": 5}', OK),
         ("DELETE", SVCMGR + "?method=unregister&name=local", b"", OK),
         ("POST", SERVICES, b'{"method": "none"}', b'{ "return": -1 }'),
         ("GET", WEB + "/own.html", b"", OWN_PAGE.encode())]


def test_local_clients_get_the_same_replies_whatever_host_they_name(daemon):
    first = {}  # each step's reply for the first host
    for host in (f"127.0.0.1:{daemon.port}", f"localhost:{daemon.port}",
                 f"[::1]:{daemon.port}", None):
        for method, path, body, expected in LOCAL:
            head = f"{method} {path} HTTP/1.0\r\n" + (f"Host: {host}\r\n" if host else "")
            reply = exchange(daemon.port, f"{head}Content-Length: {len(body)}\r\n\r\n".encode(),
                             body)
            assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), (host, reply)
            assert reply.endswith(b"\r\n\r\n" + expected), (host, reply)
            assert b"\r\nX-Content-Type-Options: nosniff\r\n" in reply
            assert first.setdefault((method, path), reply) == reply, host


def test_chunked_and_expect_continue_bodies_read_like_plain_ones(daemon, module_sandbox):
    body = b'{"method": "register", "name": "%s", "ip": "127.0.0.1", "port": 5}'
    head = f"POST {SVCMGR} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
    plain = exchange(daemon.port, f"{head}Content-Length: {len(body % b'p')}\r\n\r\n".encode(),
                     body % b"p")
    chunked = body % b"c"
    chunks = b"".join(b"%x\r\n%s\r\n" % (len(part), part)
                      for part in (chunked[:10], chunked[10:30], chunked[30:], b""))
    assert exchange(daemon.port, f"{head}Transfer-Encoding: chunked\r\n\r\n".encode(),
                    chunks) == plain
    waiting = f"{head}Expect: 100-continue\r\nContent-Length: {len(body % b'e')}\r\n\r\n"
    assert exchange(daemon.port, waiting.encode(), body % b"e", expect_continue=True) == plain
    assert plain.endswith(b"\r\n\r\n" + OK)
    for name in ("c", "e", "p"):
        assert daemon.request("DELETE", f"{SVCMGR}?method=unregister&name={name}").body == OK
    too_long = f"{head}Expect: 100-continue\r\nContent-Length: 70000\r\n\r\n"
    assert exchange(daemon.port, too_long.encode()).startswith(
        b"HTTP/1.1 413 Content Too Large\r\n")


def test_busybox_wget_posting_an_over_long_body_reads_413_every_time(daemon):
    url = f"http://127.0.0.1:{daemon.port}{SVCMGR}"
    for _ in range(5):
        done = subprocess.run([shutil.which("busybox"), "wget", "-q", "-O", "-", "--post-data",
                               "x" * 70000, url], capture_output=True, timeout=deadline(20))
        assert done.returncode == 1 and b"413 Content Too Large" in done.stderr, done


def test_a_page_of_another_origin_changes_nothing_and_the_own_page_works(daemon, module_sandbox):
    base = f"http://127.0.0.1:{daemon.port}/managerService"
    attack = ATTACK_PAGE.format(base=base, stop=STOP, hijack=HIJACK).encode()
    before, runs = refusals(module_sandbox), script_runs(module_sandbox)
    result = "document.getElementById('result').textContent"
    with FakePeer(answer(200, attack, "text/html")) as site, Browser(800, 600) as page:
        page.open(f"http://127.0.0.1:{site.port}/")
        assert wait_for(lambda: refusals(module_sandbox) - before == 6, 10), (
            module_sandbox.debug_log())
        assert_nothing_changed(daemon, module_sandbox, runs)
        page.open(f"{base}/svcmon/web/own.html")
        assert wait_for(lambda: page.js(result))
        assert json.loads(page.js(result)) == [
            '{ "return": 0 }', '{ "return": 0, "name": "own", "ip": "127.0.0.1", "port": 9 }',
            '{ "return": 0 }', '{ "return": -1 }']
    assert refusals(module_sandbox) - before == 6
