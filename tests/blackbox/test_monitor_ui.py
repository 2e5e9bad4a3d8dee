"""The default monitor UI (web/) in headless Chromium.

Against the real daemon: the page lists the registered services (their
names as text, never markup). Against a fake monitor (a small HTTP server
serving web/ and canned JSON for every method), which can give states the
daemon may not produce on demand: services up, down and never checked, runs
that failed, the daemon gone, and a 390 px wide window."""
import html
import http.server
import json
import os
import re
import shutil
import subprocess
import tempfile
import threading
import urllib.parse

import pytest

from harness import deadline

WEB_DIR = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                        "..", "..", "web"))
WEB = "/managerService/svcmon/web"
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
]


def run_chromium(url, *flags):
    browser = shutil.which("chromium")
    assert browser, "chromium is missing: run scripts/setup.sh"
    profile = tempfile.mkdtemp(prefix="monitor-ui-")
    try:
        done = subprocess.run([browser, *CHROMIUM_FLAGS, *flags, f"--user-data-dir={profile}",
                               url], stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=deadline(60))
    finally:
        shutil.rmtree(profile, ignore_errors=True)
    assert done.returncode == 0, done.stderr.decode("utf-8", "replace")
    return done.stdout.decode("utf-8", "replace")


def dump_dom(url, virtual_ms=3000):
    return run_chromium(url, f"--virtual-time-budget={virtual_ms}", "--dump-dom")


def table_rows(dom, body_id):
    """The cell texts of each row of one tbody (tags stripped, unescaped)."""
    body = re.search(rf'<tbody id="{body_id}">(.*?)</tbody>', dom, re.S).group(1)
    return [[html.unescape(re.sub(r"<[^>]+>", "", cell)) for cell in
             re.findall(r"<td[^>]*>(.*?)</td>", row, re.S)]
            for row in re.findall(r"<tr[^>]*>(.*?)</tr>", body, re.S)]


def register(daemon, name, port):
    body = json.dumps({"method": "register", "name": name, "ip": "127.0.0.1", "port": port})
    assert daemon.request("POST", "/managerService/svcmgr", body).body == b'{ "return": 0 }'


def test_page_lists_the_registered_services(sandbox):
    daemon = sandbox.start("-D", WEB_DIR + "/").wait_ready()
    register(daemon, "alpha_svc", 1001)
    register(daemon, "beta<b>svc", 1002)
    dom = dump_dom(f"http://127.0.0.1:{daemon.port}{WEB}/index.html")
    rows = table_rows(dom, "services")
    assert [row[:2] for row in rows] == [["alpha_svc", "127.0.0.1:1001"],
                                         ["beta<b>svc", "127.0.0.1:1002"]], dom
    assert "beta&lt;b&gt;svc" in dom
    # Whether or not this daemon probes, nothing is shown as up.
    assert {row[2] for row in rows} <= {"unknown", "not checked yet", "down"}, rows
    assert re.search(r'id="last-updated">(?!never)[^<]+<', dom), dom


SERVICES = [("a_up", 7001), ("b_down", 7002), ("c_new", 7003)]
REACHABILITY = [
    {"reachable": True, "checked": "2026-11-23T08:00:05Z", "since": "2026-11-23T07:00:00Z",
     "latency_ms": 3, "failures": 0, "error": ""},
    {"reachable": False, "checked": "2026-11-23T08:00:05Z", "since": "2026-11-23T07:59:00Z",
     "latency_ms": None, "failures": 4, "error": "connection refused"},
    {"reachable": None, "checked": None, "since": None, "latency_ms": None, "failures": 0,
     "error": ""},
]
RUNS = [
    {"method": "restart", "command": "/etc/init.d/b_down restart", "started":
     "2026-11-23T08:00:01Z", "ended": None, "exit_status": None, "signal": None},
    {"method": "start", "command": "/etc/init.d/b_down start", "started": "2026-11-23T07:59:01Z",
     "ended": "2026-11-23T07:59:02Z", "exit_status": 3, "signal": None},
    {"method": "stop", "command": "/etc/init.d/a_up stop", "started": "2026-11-23T07:58:01Z",
     "ended": "2026-11-23T07:58:09Z", "exit_status": None, "signal": 9},
    {"method": "start", "command": "/etc/init.d/a_up start", "started": "2026-11-23T07:57:01Z",
     "ended": "2026-11-23T07:57:02Z", "exit_status": 0, "signal": None},
]
HISTORY = {"events": [{"at": "07:59", "what": "crashed"}]}


def canned_replies():
    items = [{"name": name, "ip": "127.0.0.1", "port": port} for name, port in SERVICES]
    return {
        "get_health_status": {"return": 0, "items": [dict(item, health_status="off-line")
                                                     for item in items]},
        "get_reachability": {"return": 0, "period": 5,
                             "items": [dict(item, **probe)
                                       for item, probe in zip(items, REACHABILITY)]},
        "get_control_runs": {"return": 0, "items": RUNS},
        "get_history": {"return": 0, "service_response": HISTORY},
    }


# A page of the test's own: the monitor page in a 390 px wide frame; once it
# has filled its table, it measures the layout, refreshes with the keyboard
# focus on a service, filters by name, picks a service by its button and
# reports what it saw as JSON.
PROBE_PAGE = b"""<!DOCTYPE html><html><body style="margin:0">
<iframe id="f" src="/managerService/svcmon/web/index.html"
        style="width:390px;height:2000px;border:0"></iframe><pre id="result"></pre>
<script>
const frame = document.getElementById("f");
const result = {};
function measure(page) {
  result.title = page.title;
  result.widest = page.documentElement.scrollWidth;
  result.outside = [];
  for (const node of page.querySelectorAll("td, button, input, h1, h2")) {
    const box = node.getBoundingClientRect();
    if (box.right > 390 || box.left < 0) { result.outside.push(node.textContent); }
  }
  page.querySelector("#services tr[data-name=a_up] button").focus();
  page.getElementById("refresh-now").click();
  setTimeout(() => filterAndPick(page), 500);
}
function filterAndPick(page) {
  result.focused = page.activeElement.textContent;
  const filter = page.getElementById("filter");
  filter.value = "DOWN";
  filter.dispatchEvent(new Event("input"));
  result.filtered = Array.from(page.querySelectorAll("#services tr"), (r) => r.dataset.name);
  page.querySelector("#services button.name").click();
  setTimeout(() => {
    result.history = page.getElementById("history").textContent;
    result.fetched = page.getElementById("history-fetched").textContent;
    document.getElementById("result").textContent = JSON.stringify(result);
  }, 500);
}
function wait() {
  const page = frame.contentDocument;
  if (page && page.querySelector("#services tr[data-name]")) { measure(page); }
  else { setTimeout(wait, 50); }
}
wait();
</script></body></html>"""


class FakeMonitor(http.server.ThreadingHTTPServer):
    """Serves web/ below the web prefix, the probe page, and a canned reply
    per method; once `answers_left` method replies are spent it drops every
    further connection, as a daemon that went away."""

    def __init__(self, answers_left=None):
        super().__init__(("127.0.0.1", 0), FakeMonitorHandler)
        self.replies = canned_replies()
        self.answers_left = answers_left
        self.thread = threading.Thread(target=self.serve_forever, daemon=True)
        self.thread.start()

    def url(self, path):
        return f"http://127.0.0.1:{self.server_address[1]}{path}"

    def close(self):
        self.shutdown()
        self.server_close()


class FakeMonitorHandler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def send(self, body, content_type):
        self.send_response(200)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        if url.path == "/probe.html":
            return self.send(PROBE_PAGE, "text/html")
        if url.path.startswith(WEB + "/"):
            name = os.path.basename(url.path)
            with open(os.path.join(WEB_DIR, name), "rb") as page:
                kind = "application/javascript" if name.endswith(".js") else "text/html"
                return self.send(page.read(), kind)
        if self.server.answers_left is not None:
            if self.server.answers_left == 0:
                self.close_connection = True
                return None
            self.server.answers_left -= 1
        method = urllib.parse.parse_qs(url.query).get("method", [""])[0]
        reply = self.server.replies.get(method, {"return": -1})
        return self.send(json.dumps(reply).encode(), "application/json")


@pytest.fixture
def fake_monitor():
    servers = []

    def start(**options):
        servers.append(FakeMonitor(**options))
        return servers[-1]
    yield start
    for server in servers:
        server.close()


def test_page_shows_reachability_and_control_runs(fake_monitor):
    dom = dump_dom(fake_monitor().url(f"{WEB}/index.html"))
    services = table_rows(dom, "services")
    assert [(row[0], row[2], row[5], row[6]) for row in services] == [
        ("a_up", "up", "3 ms", "\u2014"),
        ("b_down", "down", "\u2014", "connection refused (4 checks in a row)"),
        ("c_new", "not checked yet", "\u2014", "\u2014"),
    ], services
    assert re.search(r'<span class="state down">down</span>', dom)
    assert "<title>(1 down) Service monitor: 1 unreachable</title>" in dom
    assert '<span id="down-count" role="status" class="alarm">1 unreachable</span>' in dom
    outcomes = [(row[1], row[4]) for row in table_rows(dom, "runs")]
    assert outcomes == [("restart", "running"), ("start", "failed: exit status 3"),
                        ("stop", "failed: ended by signal 9"), ("start", "ok (exit status 0)")]


def test_page_without_the_new_methods_says_unknown(fake_monitor):
    monitor = fake_monitor()
    del monitor.replies["get_reachability"], monitor.replies["get_control_runs"]
    dom = dump_dom(monitor.url(f"{WEB}/index.html"))
    assert {row[2] for row in table_rows(dom, "services")} == {"unknown"}
    assert table_rows(dom, "runs") == [["Unknown: the daemon does not report its runs."]]
    assert "<title>Service monitor</title>" in dom


def test_page_warns_when_the_daemon_is_gone(fake_monitor):
    # The first refresh asks three methods; the next one finds nobody.
    dom = dump_dom(fake_monitor(answers_left=3).url(f"{WEB}/index.html"), virtual_ms=8000)
    assert re.search(r'<div id="stale" role="alert">The daemon is not answering', dom), dom
    assert re.search(r'id="last-updated">(?!never)[^<]+<', dom), dom
    assert [row[0] for row in table_rows(dom, "services")] == ["a_up", "b_down", "c_new"]


def test_page_fits_a_phone_keeps_focus_filters_and_shows_history(fake_monitor):
    dom = dump_dom(fake_monitor().url("/probe.html"))
    found = json.loads(html.unescape(re.search(r'<pre id="result">(.*?)</pre>', dom,
                                               re.S).group(1)))
    assert found["widest"] <= 390 and found["outside"] == [], found
    assert found["focused"] == "a_up"
    assert found["filtered"] == ["b_down"]
    assert found["history"] == json.dumps(HISTORY, indent=2)
    assert found["fetched"].startswith("Fetched at ")
