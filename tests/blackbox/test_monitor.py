"""The monitor resource: health status, history relayed from fake services, its error codes, and
the web pages (types, redirect, symlinks that stay inside the home path, 404 for anything outside
it or not a regular file, revalidation)."""
import os
import pathlib
import threading

import pytest

from fake_peer import FakePeer, answer
from harness import OK, SVCMON, device_path_of, free_port, register, svcmon

WEB = SVCMON + "/web"
NOT_FOUND = (404, "text/html", b"404 Not Found")
INDEX = b"<html>index</html>"


def history_service(peer, conn):
    """Answers only the history request that the service named "good" should get."""
    asked = peer.requests[-1].startswith("GET /good/svcmon?method=get_history HTTP/1.1")
    answer(200 if asked else 404, b'{"events": [1]}')(peer, conn)


@pytest.fixture(scope="module")
def monitor(module_sandbox):
    module_sandbox.write("/www/index.html", INDEX)
    module_sandbox.write("/www/app.js", b"let app = 1;")
    module_sandbox.write("/outside/secret.js", b"secret")
    for target, name in [("/outside/secret.js", "out.js"), ("../outside/secret.js", "up.js"),
                         ("index.html", "rel.html"), ("/www/index.html", "abs.html")]:
        os.symlink(target, module_sandbox.path("/www/" + name))
    os.mkfifo(module_sandbox.path("/www/pipe.html"))
    with FakePeer(history_service) as good, FakePeer(answer(500, b"{}")) as failing:
        daemon = module_sandbox.start("-v", "2", "-m", "1", "-D", "/www/")
        for name, port in [("good", good.port), ("failing", failing.port), ("closed", free_port())]:
            assert register(daemon, name, port) == OK
        yield daemon


PAGE = (200, "text/html", INDEX)
WALK = [(SVCMON + query, {}, (200, "application/json", body)) for query, body in [
    ("?method=get_history&name=good", b'{ "return": 0, "service_response": { "events": [ 1 ] } }'),
    ("?method=get_history&name=failing", b'{ "return": -5 }'),
    ("?method=get_history&name=nobody", b'{ "return": -2 }'),
    ("?method=get_history", b'{ "return": -6 }'), ("?method=GET_HEALTH_STATUS", b'{ "return": -1 }'),
    ("/other?method=get_health_status", b'{ "return": -4 }')]] + [
    (WEB, {}, (302, "text/plain", b"")), (WEB + "/rel.html", {}, PAGE), (WEB + "/abs.html", {}, PAGE),
    (WEB + "/app.js", {"Cookie": "c=" + "x" * 7800}, (200, "application/javascript", b"let app = 1;")),
] + [(WEB + page, {}, NOT_FOUND) for page in (
    "/missing.html", "/out.js", "/up.js", "/pipe.html", "/%2e%2e/outside/secret.js")]


@pytest.mark.parametrize("path, headers, expected", WALK, ids=[w[0] for w in WALK])
def test_result_codes_and_head(monitor, path, headers, expected):
    reply = monitor.request("GET", path, headers=headers)
    assert (reply.status, reply.headers["content-type"], reply.body) == expected
    if reply.status == 302:
        assert reply.headers["location"] == WEB + "/index.html"
    head = monitor.request("HEAD", path, headers=headers)
    if path.startswith(WEB):
        del head.headers["date"], reply.headers["date"]
        assert (head.status, head.body, head.headers) == (reply.status, b"", reply.headers)
    else:
        assert (head.status, head.headers["allow"]) == (405, "GET")


def test_a_matching_page_validator_gives_304_without_a_false_length(monitor):
    tag = monitor.request("GET", WEB + "/index.html").headers["etag"]
    again = monitor.request("GET", WEB + "/index.html", headers={"If-None-Match": tag})
    assert (again.status, again.body, again.headers["etag"]) == (304, b"", tag)
    assert again.headers.get("content-length") in (None, str(len(INDEX)))


def test_health_status_of_every_service(monitor):
    assert [(i["name"], i["health_status"]) for i in svcmon(monitor, "get_health_status")[
        "items"]] == [(name, "off-line") for name in ("closed", "failing", "good")]


def test_large_and_growing_pages_are_served_from_the_file(monitor):
    """Each reply is the file up to its length at open; once whole, all of its 8 MiB."""
    growing = device_path_of(monitor, "/www/growing.js")
    open(growing, "wb").close()

    def append():  # 8 MiB in numbered records of every byte value, as a log grows
        with open(growing, "ab", buffering=0) as log:
            for record in range(2048):
                log.write(b"%07d" % record + bytes(range(256)) * 16)
    writer = threading.Thread(target=append)
    writer.start()
    replies = []
    while writer.is_alive() or len(replies) < 3:
        replies.append(monitor.request("GET", WEB + "/growing.js"))
    final = pathlib.Path(growing).read_bytes()
    for reply in replies:
        assert (reply.status, reply.headers["content-length"]) == (200, str(len(reply.body)))
        assert final.startswith(reply.body)
    assert len({len(reply.body) for reply in replies}) > 1 and monitor.alive()
    assert monitor.request("GET", WEB + "/growing.js").body == final

