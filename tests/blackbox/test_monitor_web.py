"""The monitor's web pages over HTTP: redirects, files with their content
types, the 404 page, the paths that must never leave the home path (also
while a writer swaps a directory for a symlink), and the validators that
let a browser revalidate a page (ETag, Last-Modified, 304)."""
import os

import pytest

from harness import device_path_of
from web_race import INSIDE, OUTSIDE, Swapper

WEB = "/managerService/svcmon/web"
ZERO_BYTES = b"a\x00b\x00\x00c"

FILES = {
    "index.html": b"<html>index</html>",
    "app.js": b"let app = 1;",
    "page.htm": b"<p>htm</p>",
    "app.JS": b"capital",
    "style.css": b"body {}",
    "logo.png": b"\x89PNG",
    "noext": b"plain",
    "zero.js": ZERO_BYTES,
    "empty.js": b"",
    "foo.js": b"foo",
    "sub/inner.html": b"inner",
    "dir.d/noext": b"dotted dir",
}


@pytest.fixture
def web(sandbox):
    for name, content in FILES.items():
        sandbox.write("/www/" + name, content)
    sandbox.write("/outside/secret.js", b"secret")
    os.symlink("/outside/secret.js", sandbox.path("/www/out.js"))
    os.symlink("/outside", sandbox.path("/www/outdir"))
    return sandbox.start("-v", "2", "-D", "/www/").wait_ready()


@pytest.mark.parametrize("path", [WEB, WEB + "/", WEB + "/?method=get_health_status"])
def test_bare_prefix_redirects_to_the_start_page(web, path):
    reply = web.request("GET", path)
    assert (reply.status, reply.body) == (302, b"")
    assert reply.headers["location"] == WEB + "/index.html"
    assert reply.content_type == "text/plain"
    assert web.wait_stderr(f"Proc 302 Found: str_req_path=[{path.split('?')[0]}]\n")


@pytest.mark.parametrize("name, content_type", [
    ("index.html", "text/html"),
    ("app.js", "application/javascript"),
    ("page.htm", "text/html"),
    ("app.JS", "text/html"),
    ("style.css", "text/html"),
    ("logo.png", "text/html"),
    ("noext", "text/html"),
    ("zero.js", "application/javascript"),
    ("empty.js", "application/javascript"),
    ("sub/inner.html", "text/html"),
    ("dir.d/noext", "text/html"),
])
def test_files_are_served_whole_with_their_type(web, name, content_type):
    reply = web.request("GET", f"{WEB}/{name}")
    assert (reply.status, reply.content_type, reply.body) == (200, content_type, FILES[name])


def test_served_file_logs_request_and_absolute_path(web):
    assert web.request("GET", f"{WEB}/index.html?method=get_history").body == FILES["index.html"]
    assert web.wait_stderr(f"str_url=[{WEB}/index.html]\nstr_related_path=[/index.html]\n"
                           "str_abs_path=[/www//index.html]\nstr_url=[/www//index.html]\n")


def test_prefix_without_slash_joins_the_home_path(web):
    reply = web.request("GET", "/managerService/svcmon/webfoo.js")
    assert (reply.status, reply.content_type, reply.body) == (200, "application/javascript",
                                                              b"foo")


@pytest.mark.parametrize("path", [
    "/missing.html",
    "/sub",
    "/sub/",
    "/out.js",
    "/outdir/secret.js",
    "/../outside/secret.js",
    "/%2e%2e/outside/secret.js",
    "/%2E%2E%2Foutside%2Fsecret.js",
    "/sub/../index.html",
    "/sub/%2e%2e/index.html",
    "/sub/..",
    "/" + "x" * 3000 + ".js",
])
def test_what_is_not_a_servable_file_gets_the_404_page(web, path):
    reply = web.request("GET", WEB + path)
    assert (reply.status, reply.content_type, reply.body) == (404, "text/html",
                                                              b"404 Not Found")
    assert web.wait_stderr("Proc 404 Not Found : str_url=[")
    assert web.alive()


def test_default_home_path_is_read_with_a_doubled_slash(sandbox):
    sandbox.write("/home/httpd/manager_svc/index.html", b"default home")
    daemon = sandbox.start("-v", "2").wait_ready()
    assert daemon.request("GET", WEB + "/index.html").body == b"default home"
    assert daemon.wait_stderr("str_abs_path=[/home/httpd/manager_svc//index.html]\n")


def test_repeated_request_with_the_validators_gets_304(web, sandbox):
    page = f"{WEB}/index.html"
    first = web.request("GET", page)
    tag, modified = first.headers["etag"], first.headers["last-modified"]
    assert (first.status, first.body, first.headers["cache-control"]) == (
        200, FILES["index.html"], "no-cache")
    for validators in ({"If-None-Match": tag}, {"If-None-Match": f'"x", W/{tag}'},
                       {"If-Modified-Since": modified}):
        again = web.request("GET", page, headers=validators)
        assert (again.status, again.body, again.headers["etag"]) == (304, b"", tag), validators
    assert web.request("GET", page, headers={"If-None-Match": '"x"',
                                             "If-Modified-Since": modified}).status == 200
    # A page changed on the device is served at once, with a new tag.
    with open(device_path_of(web, "/www/index.html"), "wb") as changed:
        changed.write(b"<html>INDEX</html>")
    fresh = web.request("GET", page, headers={"If-None-Match": tag})
    assert (fresh.status, fresh.body) == (200, b"<html>INDEX</html>")
    assert fresh.headers["etag"] != tag


def test_swapping_a_directory_for_a_symlink_never_serves_a_file_outside(web):
    with Swapper(device_path_of(web, "/www"), device_path_of(web, "/outside/swapped")):
        bodies = {web.request("GET", WEB + Swapper.PAGE).body for _ in range(400)}
    assert OUTSIDE not in bodies
    assert bodies <= {INSIDE, b"404 Not Found"}
