"""The monitor page (web/) in headless Chromium, driven over the DevTools
protocol: against the real daemon with an up, a hung and a down service
(problems first, a service stopped while the page is open, a control run
with its confirmation, outcome and output, the history under its row, the
daemon stopped and restarted), on a phone with 220 services, and against a
fake daemon that lacks the newer methods. With MANAGER_SVC_SCREENSHOTS set
to a folder, the desktop and phone views are saved there as PNG files."""
import base64
import http.server
import json
import os
import select
import shutil
import subprocess
import tempfile
import threading
import time
import urllib.parse

import pytest

from fake_peer import FakePeer, answer, silent
from harness import SVCMON, deadline, device_path_of, free_port, register, wait_for

WEB_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "web")
HOME = "/home/httpd/manager_svc"
PAGE = SVCMON + "/web/index.html"
SHOTS = os.environ.get("MANAGER_SVC_SCREENSHOTS")
SCRIPTS = ("/etc/init.d/services.sh", "/etc/init.d/fdr_services.sh")
GO = "/tmp/go"
# Says what it does, then waits until the test lets it end.
SCRIPT = f"""#!/bin/sh
echo "$0 $* begins"
echo "stopping the services"
while [ ! -e {GO} ]; do sleep 0.05; done
echo "$0 $* done"
"""
# The services shown, as [name, state] pairs in page order.
ROWS = """Array.from(document.querySelectorAll('#services tr.service'))
  .filter((tr) => tr.getClientRects().length > 0)
  .map((tr) => [tr.querySelector('button.name').textContent, tr.querySelector('.state').textContent])"""
# The most lines of any service card (cells that wrap count as two).
CARD_LINES = """Math.max(...Array.from(document.querySelectorAll('tr.service'), (tr) => {
  const shown = Array.from(tr.cells, (td) => td.getBoundingClientRect()).filter((box) => box.height);
  const line = parseFloat(getComputedStyle(tr).lineHeight);
  return new Set(shown.map((box) => box.top)).size + shown.filter((box) => box.height > 1.6 * line).length;
}))"""
# The fewest checks in any service's strip.
RECENT_CHECKS = "Math.min(...Array.from(document.querySelectorAll('.strip'), (s) => s.children.length))"
LAST_ROW = "document.querySelector('#services tbody:last-of-type')"
RUNS = "Array.from(document.querySelectorAll('#runs li'), (li) => li.innerText)"


class Browser:
    """Headless Chromium on a DevTools pipe (--remote-debugging-pipe reads
    commands on its descriptor 3 and writes answers on 4), one page."""

    def __init__(self, width, height, mobile=False):
        self.profile = tempfile.mkdtemp(prefix="monitor-ui-")
        commands_in, self.commands = os.pipe()
        self.answers, answers_out = os.pipe()

        def wire():
            os.dup2(commands_in, 3)
            os.dup2(answers_out, 4)
        self.proc = subprocess.Popen(
            [shutil.which("chromium"), "--headless", "--no-sandbox", "--disable-gpu",
             "--no-first-run", "--hide-scrollbars", f"--user-data-dir={self.profile}",
             "--remote-debugging-pipe", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            close_fds=False, preexec_fn=wire)
        os.close(commands_in)
        os.close(answers_out)
        self.buffer, self.last_id, self.session = b"", 0, None
        page = next(t for t in self.send("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self.session = self.send("Target.attachToTarget", targetId=page["targetId"],
                                 flatten=True)["sessionId"]
        self.send("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=mobile)

    def send(self, method, **params):
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        while True:
            reply = self.receive()
            if reply.get("id") == self.last_id:
                assert "error" not in reply, (method, reply["error"])
                return reply["result"]

    def receive(self):
        while b"\0" not in self.buffer:
            assert select.select([self.answers], [], [], deadline(30))[0], "chromium is silent"
            chunk = os.read(self.answers, 1 << 16)
            assert chunk, "chromium closed its pipe"
            self.buffer += chunk
        message, _, self.buffer = self.buffer.partition(b"\0")
        return json.loads(message)

    def js(self, expression):
        result = self.send("Runtime.evaluate", expression=expression, returnByValue=True,
                           awaitPromise=True)
        assert "exceptionDetails" not in result, result["exceptionDetails"]
        return result["result"].get("value")

    def open(self, url):
        self.send("Page.navigate", url=url)
        assert wait_for(lambda: self.js("document.readyState === 'complete' && location.href") == url)

    def shoot(self, name, whole=False):
        """Saves the view (or the whole page) as name.png in the screenshot
        folder, when there is one."""
        clip = {}
        if whole:
            size = self.send("Page.getLayoutMetrics")["cssContentSize"]
            clip = {"captureBeyondViewport": True, "clip": {
                "x": 0, "y": 0, "width": size["width"], "height": size["height"], "scale": 1}}
        data = base64.b64decode(self.send("Page.captureScreenshot", format="png", **clip)["data"])
        assert data.startswith(b"\x89PNG")
        if SHOTS:
            with open(os.path.join(SHOTS, name + ".png"), "wb") as out:
                out.write(data)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.proc.kill()
        self.proc.wait()
        os.close(self.commands)
        os.close(self.answers)
        shutil.rmtree(self.profile, ignore_errors=True)


def start_daemon(sandbox, *args, port=None):
    """The daemon with the page of web/ at its default home path."""
    for name in ("index.html", "app.js"):
        with open(os.path.join(WEB_DIR, name), "rb") as page:
            sandbox.write(f"{HOME}/{name}", page.read())
    return sandbox.start(*args, port=port)


def press(page, selector):
    page.js(f"document.querySelector({json.dumps(selector)}).click()")


def stop_button(attribute):
    return f"document.querySelector('#controls button[value=stop]').getAttribute('{attribute}')"


def test_console_shows_problems_a_stopped_service_history_runs_and_a_gone_daemon(sandbox):
    """The daemon at -m 1 with an up, a hung, a down and a leaving service, fake
    init scripts, and a desktop browser."""
    for script in SCRIPTS:
        sandbox.write(script, SCRIPT, mode=0o755)
    with FakePeer(answer(200, b'{"events": [1]}')) as up, FakePeer(silent) as hung, \
            Browser(1280, 800) as page:
        daemon = start_daemon(sandbox, "-m", "1")
        for name, port in [("svc_up", up.port), ("svc_hung", hung.port), ("svc_down", free_port())]:
            register(daemon, name, port)
        with FakePeer(answer(200)) as leaving:
            register(daemon, "svc_leaving", leaving.port)
            page.open(f"http://127.0.0.1:{daemon.port}{PAGE}")
            # Problems first, each state in words.
            expected = [["svc_down", "down"], ["svc_hung", "no answer"], ["svc_leaving", "up"],
                        ["svc_up", "up"]]
            assert wait_for(lambda: page.js(ROWS) == expected, 10), page.js(ROWS)
            assert page.js("document.title") == "(2) Service monitor: 1 down, 1 no answer"
            assert "svc_hung not checked yet \u2192 no answer" in page.js(
                "document.getElementById('events').innerText")
            page.js(f"window.upRow = {LAST_ROW}; upRow.querySelector('button.name').focus();"
                    "getSelection().selectAllChildren(upRow.querySelector('td.address'))")
        # A service stopped while the page is open is down within 2 s: its row
        # moves among the problems; the others keep their nodes, the focus and
        # the selection.
        began = time.monotonic()
        assert wait_for(lambda: ["svc_leaving", "down"] in page.js(ROWS)[:3], 10), page.js(ROWS)
        took = time.monotonic() - began
        assert page.js("document.activeElement === upRow.querySelector('button.name') && "
                       f"upRow === {LAST_ROW}")
        assert page.js("getSelection().toString()") == \
            page.js("upRow.querySelector('td.address').textContent")
        assert took <= deadline(2), f"shown down after {took:.1f} s"
        # The history opens under its row, takes the focus and is announced.
        assert page.js(f"{LAST_ROW}.querySelector('button.name').getAttribute('aria-label')") \
            == "Show history of svc_up"
        page.js(f"{LAST_ROW}.querySelector('button.name').click()")
        assert wait_for(lambda: '"events"' in page.js(
            f"{LAST_ROW}.querySelector('tr.service + tr.history pre').textContent"))
        assert page.js(f"document.activeElement === {LAST_ROW}.querySelector('.history-box')")
        assert wait_for(lambda: page.js("document.getElementById('announce').textContent")
                        == "History of svc_up shown.")

        # A control run: confirmation, "running" with the button disabled, then
        # the outcome and the output's last lines.
        press(page, "#controls button[value=stop]")
        assert "runs /etc/init.d/services.sh stop: stops the device's services" in \
            page.js("document.getElementById('confirm').open && "
                    "document.getElementById('confirm-text').textContent")
        press(page, "#confirm-run")
        assert wait_for(lambda: page.js(RUNS)[:1] and page.js(RUNS)[0].startswith("running stop"))
        assert page.js(stop_button("aria-disabled")) == "true"
        with open(device_path_of(daemon, GO), "w"):
            pass
        assert wait_for(lambda: page.js(RUNS)[0].startswith("ok (exit status 0) stop"))
        assert page.js(RUNS)[0].endswith(
            "stopping the services\n/etc/init.d/services.sh stop done"), page.js(RUNS)
        assert page.js(stop_button("aria-disabled")) == "false"
        assert wait_for(lambda: page.js(RECENT_CHECKS) >= 5, 10)
        page.shoot("monitor-desktop", whole=True)
        # The daemon stops: the page says so, greyed; a new daemon is a restart.
        assert daemon.stop() == 0
        assert wait_for(lambda: "daemon not answering since" in page.js("document.title"), 3)
        assert page.js("document.body.classList.contains('stale-view') && "
                       "!document.getElementById('stale').hidden")
        start_daemon(sandbox, "-m", "1", port=daemon.port)
        assert wait_for(lambda: page.js("document.getElementById('restarted').hidden") is False)
        assert "events and runs from before the restart are gone" in \
            page.js("document.getElementById('restarted').textContent")
        assert wait_for(lambda: not page.js("document.body.classList.contains('stale-view')"))





def test_phone_shows_220_services_as_cards_of_at_most_three_lines(sandbox, capsys):
    with FakePeer(answer(200)) as up, FakePeer(silent) as hung, Browser(390, 844, True) as page:
        daemon = start_daemon(sandbox, "-m", "2")
        # Of every 22 services one is hung, six are down (a closed port), 15 up.
        kinds = [hung.port] + [free_port()] * 6 + [up.port] * 15
        for number in range(220):
            register(daemon, f"svc{number:03}", kinds[number % 22])
        page.open(f"http://127.0.0.1:{daemon.port}{PAGE}")

        def problems_first():
            states = [state for _, state in page.js(ROWS)]
            return sorted(states[:70]) == ["down"] * 60 + ["no answer"] * 10 and \
                states[70:] == ["up"] * 150
        assert wait_for(problems_first, 20), page.js(ROWS)
        assert page.js("document.getElementById('count').textContent") == "60 down, 10 no answer"
        height = page.js("document.documentElement.scrollHeight")
        with capsys.disabled():
            print(f"\nphone page height with 220 services: {height} px")
        assert page.js("document.documentElement.scrollWidth") == 390
        assert page.js(CARD_LINES) == 3
        # A few checks in every strip, and one screen of each state.
        assert wait_for(lambda: page.js(RECENT_CHECKS) >= 4, 20)
        page.js("const filter = document.getElementById('filter'); filter.value = 'svc02';"
                "filter.dispatchEvent(new Event('input'));"
                "document.getElementById('services-heading').scrollIntoView()")
        assert wait_for(lambda: [state for _, state in page.js(ROWS)]
                        == ["no answer"] + ["down"] * 6 + ["up"] * 3), page.js(ROWS)
        page.shoot("monitor-phone")


class OlderDaemon(http.server.BaseHTTPRequestHandler):
    """A daemon of an older build: no events, reachability without index or
    states (or none, when the test says), control runs without output, a
    system state; it stops answering when told."""
    answering = True
    REPLIES = {
        "get_health_status": {"return": 0, "items": []},
        "get_events": {"return": -1},
        "get_reachability": {"return": 0, "period": 1, "items": [
            {"name": "a_up", "ip": "127.0.0.1", "port": 7, "reachable": True, "failures": 0,
             "error": "", "since": "2026-11-23T07:00:00Z", "latency_ms": 0.5},
            {"name": "b<i>down", "ip": "127.0.0.1", "port": 8, "reachable": False, "failures": 4,
             "error": "connection refused", "since": None, "latency_ms": None}]},
        "get_control_runs": {"return": 0, "items": [
            {"method": "start", "command": "/etc/init.d/services.sh start", "signal": None,
             "started": "2026-11-23T07:59:01Z", "ended": "2026-11-23T07:59:02Z",
             "exit_status": 3}]}}

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        method = urllib.parse.parse_qs(url.query).get("method", [""])[0]
        if not OlderDaemon.answering:
            self.close_connection = True
            return
        if url.path == "/managerService/sys_state":
            body = b'{"cpu": [3, 4]}'
        elif url.path.startswith(SVCMON + "/web/"):
            with open(os.path.join(WEB_DIR, os.path.basename(url.path)), "rb") as page:
                body = page.read()
        else:
            body = json.dumps(self.REPLIES.get(method, {"return": -1})).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def test_older_daemon_gets_unknown_and_polling_then_a_stale_page():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), OlderDaemon)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        with Browser(390, 844, True) as page:
            page.open(f"http://127.0.0.1:{server.server_address[1]}{PAGE}")
            assert wait_for(lambda: page.js(ROWS) == [["b<i>down", "down"], ["a_up", "up"]])
            assert "connection refused (4 checks in a row)" in page.js(
                "document.querySelector('#services tbody').textContent")
            assert wait_for(lambda: page.js("document.getElementById('events-note').textContent")
                            == "Unknown: the daemon does not report events.")
            assert page.js("document.getElementById('live').textContent") == "(asking every 1 s)"
            assert page.js(RUNS)[0].startswith("failed: exit status 3 start")
            assert page.js("document.documentElement.scrollWidth") == 390
            press(page, "#sys-state-box summary")
            assert wait_for(lambda: page.js("document.getElementById('sys-state').textContent")
                            == '{\n  "cpu": [\n    3,\n    4\n  ]\n}')
            # Without reachability at all, the list comes from the health status.
            OlderDaemon.REPLIES["get_health_status"]["items"] = [
                {"name": "c_only", "ip": "127.0.0.1", "port": 9, "health_status": "off-line"}]
            OlderDaemon.REPLIES["get_reachability"] = {"return": -1}
            assert wait_for(lambda: page.js(ROWS) == [["c_only", "unknown"]])
            assert page.js("document.title") == "Service monitor: state unknown"
            OlderDaemon.answering = False
            assert wait_for(lambda: page.js("document.getElementById('count').textContent")
                            .startswith("daemon not answering since"), 3)
    finally:
        server.shutdown()
