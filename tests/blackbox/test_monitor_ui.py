"""The monitor page (web/) in headless Chromium, in a 390 px wide frame,
against a fake monitor serving web/ and canned replies: services up, down
and never checked, the runs' outcomes, then the daemon gone."""
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

from harness import deadline

WEB_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "web")
WEB = "/managerService/svcmon/web"
UP = {"reachable": True, "checked": "2026-11-23T08:00:05Z", "since": "2026-11-23T07:00:00Z",
      "latency_ms": 3, "failures": 0, "error": "", "ip": "127.0.0.1", "port": 7000}
SERVICES = [dict(UP, name="a_up"), dict(UP, name="b_down", reachable=False, latency_ms=None,
                                         failures=4, error="connection refused"),
            dict(UP, name="c<i>new", reachable=None, checked=None, since=None, latency_ms=None)]
RUN = {"method": "start", "command": "/etc/init.d/services.sh start", "signal": None,
       "started": "2026-11-23T07:59:01Z", "ended": "2026-11-23T07:59:02Z", "exit_status": 3}
REPLIES = {"get_health_status": {"return": 0, "items": SERVICES},
           "get_reachability": {"return": 0, "period": 5, "items": SERVICES},
           "get_control_runs": {"return": 0, "items": [RUN, dict(RUN, exit_status=None,
                                                                 signal=9)]}}
# The page in a 390 px frame; after 8 s (its first refresh answered, the
# next one not) it notes the rows, the title, the warning and its width.
PROBE = b"""<body style="margin:0"><iframe id="f" src="/managerService/svcmon/web/index.html"
style="width:390px;height:2000px;border:0"></iframe><pre id="result"></pre><script>
setTimeout(() => {
  const page = document.getElementById("f").contentDocument;
  const cells = (body) => Array.from(page.querySelectorAll(body + " tr"),
    (row) => Array.from(row.cells, (cell) => cell.textContent));
  document.getElementById("result").textContent = JSON.stringify({title: page.title,
    services: cells("#services"), runs: cells("#runs"), widest: page.documentElement.scrollWidth,
    stale: page.getElementById("stale").hidden || page.getElementById("stale").textContent});
}, 8000);
</script></body>"""


class FakeMonitor(http.server.BaseHTTPRequestHandler):
    """Serves web/, the probe and one round of replies, then drops every connection."""
    answers_left = len(REPLIES)

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        method = urllib.parse.parse_qs(url.query).get("method", [""])[0]
        if url.path.startswith(WEB + "/"):
            with open(os.path.join(WEB_DIR, os.path.basename(url.path)), "rb") as page:
                body = page.read()
        elif method in REPLIES and FakeMonitor.answers_left > 0:
            FakeMonitor.answers_left -= 1
            body = json.dumps(REPLIES[method]).encode()
        elif url.path == "/probe.html":
            body = PROBE
        else:
            self.close_connection = True
            return
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


def test_page_shows_states_runs_and_a_gone_daemon_in_a_phone_frame():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), FakeMonitor)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    with tempfile.TemporaryDirectory(prefix="monitor-ui-") as profile:
        done = subprocess.run(
            [shutil.which("chromium"), "--headless", "--no-sandbox", "--disable-gpu",
             "--no-first-run", f"--user-data-dir={profile}", "--virtual-time-budget=9000",
             "--dump-dom", f"http://127.0.0.1:{server.server_address[1]}/probe.html"],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=deadline(60))
    server.shutdown()
    dom = done.stdout.decode("utf-8", "replace")
    found = json.loads(html.unescape(re.search(r'<pre id="result">(.*?)</pre>', dom, re.S)[1]))
    assert [(row[0], row[2]) for row in found["services"]] == [
        ("a_up", "up"), ("b_down", "down"), ("c<i>new", "not checked yet")], found
    assert "connection refused (4 checks in a row)" in found["services"][1]
    assert found["title"] == "(1 down) Service monitor: 1 unreachable"
    assert [row[4] for row in found["runs"]] == ["failed: exit status 3",
                                                 "failed: ended by signal 9"]
    assert found["widest"] == 390
    assert found["stale"].startswith("The daemon is not answering")
