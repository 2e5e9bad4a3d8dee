"""The default monitor UI (web/) in headless Chromium: the page served by the
daemon fills its table with the registered services."""
import json
import os
import re
import shutil
import subprocess
import tempfile

from harness import deadline

WEB_DIR = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                        "..", "..", "web")) + "/"
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--virtual-time-budget=3000", "--dump-dom",
]


def dump_dom(url):
    browser = shutil.which("chromium")
    assert browser, "chromium is missing: run scripts/setup.sh"
    profile = tempfile.mkdtemp(prefix="monitor-ui-")
    try:
        done = subprocess.run([browser, *CHROMIUM_FLAGS, f"--user-data-dir={profile}", url],
                              stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=deadline(60))
    finally:
        shutil.rmtree(profile, ignore_errors=True)
    assert done.returncode == 0, done.stderr.decode("utf-8", "replace")
    return done.stdout.decode("utf-8", "replace")


def register(daemon, name, port):
    body = json.dumps({"method": "register", "name": name, "ip": "127.0.0.1", "port": port})
    assert daemon.request("POST", "/managerService/svcmgr", body).body == b'{ "return": 0 }'


def test_page_lists_the_registered_services(sandbox):
    daemon = sandbox.start("-D", WEB_DIR).wait_ready()
    register(daemon, "alpha_svc", 1001)
    register(daemon, "beta<b>svc", 1002)
    dom = dump_dom(f"http://127.0.0.1:{daemon.port}/managerService/svcmon/web/index.html")
    rows = re.findall(r"<tr[^>]*><td>([^<]*)</td><td>([^<]*)</td><td>([^<]*)</td>"
                      r"<td>([^<]*)</td></tr>", dom)
    assert rows == [("alpha_svc", "127.0.0.1", "1001", "off-line"),
                    ("beta&lt;b&gt;svc", "127.0.0.1", "1002", "off-line")], dom
    assert re.search(r'id="last-updated">(?!never)[^<]+<', dom), dom
