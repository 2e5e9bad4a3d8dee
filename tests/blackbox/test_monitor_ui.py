"""The monitor page (web/) in headless Chromium: against the real daemon (problems
first, a service stopped while the page is open, a control run with its confirmation,
outcome and output, the history under its row, the daemon stopped and restarted), on a
phone with 220 services, and against a fake daemon that lacks the newer methods."""
import json
import os
import pathlib
import urllib.parse

from browser import Browser
from fake_peer import FakePeer, answer, silent
from harness import SCRIPTS, SVCMON, device_path_of, free_port, register, wait_for

WEB_DIR = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", "web"))
PAGE = SVCMON + "/web/index.html"
GO = "/tmp/go"
# Says what it does, then waits until the test lets it end (at most a minute).
SCRIPT = f"""#!/bin/sh
echo "stopping the services"
i=0; while [ ! -e {GO} ] && [ $i != 1200 ]; do sleep 0.05; i=$((i+1)); done
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
RUN = "document.querySelector('#runs li')?.innerText ?? ''"  # the newest control run
STOP_DISABLED = "document.querySelector('#controls button[value=stop]').ariaDisabled"


def text(page, element_id, member="textContent"):
    return page.js(f"document.getElementById('{element_id}').{member}")


def test_console_shows_problems_a_stopped_service_history_runs_and_a_gone_daemon(sandbox):
    sandbox.write(SCRIPTS[0], SCRIPT, mode=0o755)
    with FakePeer(answer(200, b'{"events": [1]}')) as up, FakePeer(silent) as hung, \
            Browser(1280, 800) as page:
        daemon = sandbox.start("-m", "1", "-D", WEB_DIR)
        for name, port in [("svc_up", up.port), ("svc_hung", hung.port), ("svc_down", free_port())]:
            register(daemon, name, port)
        with FakePeer(answer(200)) as leaving:
            register(daemon, "svc_leaving", leaving.port)
            page.open(f"http://127.0.0.1:{daemon.port}{PAGE}")
            expected = [["svc_down", "down"], ["svc_hung", "no answer"], ["svc_leaving", "up"],
                        ["svc_up", "up"]]
            assert wait_for(lambda: page.js(ROWS) == expected, 10), page.js(ROWS)
            assert page.js("document.title") == "(2) Service monitor: 1 down, 1 no answer"
            assert "svc_hung not checked yet \u2192 no answer" in text(page, "events", "innerText")
            page.js(f"window.upRow = {LAST_ROW}; upRow.querySelector('button.name').focus();"
                    "getSelection().selectAllChildren(upRow.querySelector('td.address'))")
        # A service stopped while the page is open is down within 2 s: its row moves among the
        # problems; the others keep their nodes, the focus and the selection.
        assert wait_for(lambda: ["svc_leaving", "down"] in page.js(ROWS)[:3], 2), page.js(ROWS)
        assert page.js("document.activeElement === upRow.querySelector('button.name') && "
                       f"upRow === {LAST_ROW}")
        assert page.js("getSelection().toString() === upRow.querySelector('td.address').textContent")
        assert page.js("upRow.querySelector('button.name').ariaLabel") == "Show history of svc_up"
        page.js("upRow.querySelector('button.name').click()")
        assert wait_for(lambda: '"events"' in page.js(
            "upRow.querySelector('tr.service + tr.history pre').textContent"))
        assert page.js("document.activeElement === upRow.querySelector('.history-box')")
        assert wait_for(lambda: text(page, "announce") == "History of svc_up shown.")

        page.js("document.querySelector('#controls button[value=stop]').click()")
        assert text(page, "confirm", "open") and "runs /etc/init.d/services.sh stop: stops the " \
            "device's services" in text(page, "confirm-text")
        page.js("document.getElementById('confirm-run').click()")
        assert wait_for(lambda: page.js(RUN).startswith("running stop"))
        assert page.js(STOP_DISABLED) == "true"
        pathlib.Path(device_path_of(daemon, GO)).touch()
        assert wait_for(lambda: page.js(RUN).startswith("ok (exit status 0) stop"))
        assert page.js(RUN).endswith("stopping the services\n/etc/init.d/services.sh stop done")
        assert page.js(STOP_DISABLED) == "false"
        assert wait_for(lambda: page.js(RECENT_CHECKS) >= 5, 10)
        page.shoot("monitor-desktop")
        assert daemon.stop() == 0
        assert wait_for(lambda: "daemon not answering since" in page.js("document.title"), 3)
        assert page.js("document.body.classList.contains('stale-view') && "
                       "!document.getElementById('stale').hidden")
        sandbox.start("-m", "1", "-D", WEB_DIR, port=daemon.port)
        assert wait_for(lambda: text(page, "restarted", "hidden") is False)
        assert "events and runs from before the restart are gone" in text(page, "restarted")
        assert wait_for(lambda: not page.js("document.body.classList.contains('stale-view')"))


def test_phone_shows_220_services_as_cards_of_at_most_three_lines(sandbox):
    with FakePeer(answer(200)) as up, FakePeer(silent) as hung, Browser(390, 844, True) as page:
        daemon = sandbox.start("-m", "2", "-D", WEB_DIR)
        # Of every 22 services one is hung, six are down (a closed port), 15 up.
        kinds = [hung.port] + [free_port()] * 6 + [up.port] * 15
        for number in range(220):
            register(daemon, f"svc{number:03}", kinds[number % 22])
        page.open(f"http://127.0.0.1:{daemon.port}{PAGE}")
        assert wait_for(lambda: text(page, "count") == "60 down, 10 no answer", 20), page.js(ROWS)
        assert len(page.js(ROWS)) == 220
        assert page.js("document.documentElement.scrollWidth") == 390
        assert page.js(CARD_LINES) == 3
        assert wait_for(lambda: page.js(RECENT_CHECKS) >= 4, 20)
        page.js("const filter = document.getElementById('filter'); filter.value = 'svc02';"
                "filter.dispatchEvent(new Event('input'))")
        assert wait_for(lambda: [state for _, state in page.js(ROWS)]
                        == ["no answer"] + ["down"] * 6 + ["up"] * 3), page.js(ROWS)
        page.shoot("monitor-phone")


# A daemon of an older build: no events, reachability without index or
# states (or none, when the test says), control runs without output.
OLDER_REPLIES = {
    "get_health_status": {"return": 0, "items": []}, "get_events": {"return": -1},
    "get_reachability": {"return": 0, "period": 1, "items": [
        {"name": "a_up", "ip": "127.0.0.1", "port": 7, "reachable": True, "failures": 0,
         "error": "", "since": "2026-11-23T07:00:00Z", "latency_ms": 0.5},
        {"name": "b<i>down", "ip": "127.0.0.1", "port": 8, "reachable": False, "failures": 4,
         "error": "connection refused", "since": None, "latency_ms": None}]},
    "get_control_runs": {"return": 0, "items": [
        {"method": "start", "command": "/etc/init.d/services.sh start", "signal": None,
         "started": "2026-11-23T07:59:01Z", "ended": "2026-11-23T07:59:02Z", "exit_status": 3}]}}


def older_daemon(peer, conn):
    url = urllib.parse.urlsplit(peer.requests[-1].split()[1])
    method = urllib.parse.parse_qs(url.query).get("method", [""])[0]
    if url.path == "/managerService/sys_state":
        body = b'{"cpu": [3, 4]}'
    elif url.path.startswith(SVCMON + "/web/"):
        body = pathlib.Path(WEB_DIR, os.path.basename(url.path)).read_bytes()
    else:
        body = json.dumps(OLDER_REPLIES.get(method, {"return": -1})).encode()
    kind = {".html": "text/html", ".js": "text/javascript"}.get(pathlib.Path(url.path).suffix)
    answer(200, body, kind or "application/json")(peer, conn)


def test_older_daemon_gets_unknown_and_polling():
    with FakePeer(older_daemon) as older, Browser(390, 844, True) as page:
        page.open(f"http://127.0.0.1:{older.port}{PAGE}")
        assert wait_for(lambda: page.js(ROWS) == [["b<i>down", "down"], ["a_up", "up"]])
        assert "connection refused (4 checks in a row)" in page.js(
            "document.querySelector('#services tbody').textContent")
        assert wait_for(lambda: text(page, "events-note")
                        == "Unknown: the daemon does not report events.")
        assert text(page, "live") == "(asking every 1 s)"
        assert wait_for(lambda: page.js(RUN).startswith("failed: exit status 3 start")), page.js(RUN)
        page.js("document.querySelector('#sys-state-box summary').click()")
        assert wait_for(lambda: text(page, "sys-state") == '{\n  "cpu": [\n    3,\n    4\n  ]\n}')
        # Without reachability at all, the list comes from the health status.
        OLDER_REPLIES["get_health_status"]["items"] = [
            {"name": "c_only", "ip": "127.0.0.1", "port": 9, "health_status": "off-line"}]
        OLDER_REPLIES["get_reachability"] = {"return": -1}
        assert wait_for(lambda: page.js(ROWS) == [["c_only", "unknown"]])
        assert page.js("document.title") == "Service monitor: state unknown"

