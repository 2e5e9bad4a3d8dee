"""Metrics for fleets: GET /managerService/metrics answers the Prometheus text format,
which promtool accepts even with quotes, backslashes and new lines in services' names,
and which counts what the daemon saw."""
import re
import shutil
import subprocess

import pytest

from fake_peer import FakePeer, answer
from harness import OK, free_port, register, wait_for

METRICS = "/managerService/metrics"


@pytest.mark.skipif(shutil.which("promtool") is None, reason="promtool (prometheus) missing")
def test_metrics_are_valid_and_count_what_happened(sandbox):
    with FakePeer(answer(200)) as peer:
        daemon = sandbox.start("-m", "1")
        odd = 'q"uo\\te\nline'
        assert register(daemon, odd, peer.port) == OK
        assert register(daemon, "gone", free_port()) == OK
        daemon.request("GET", "/nowhere")

        def text():
            return daemon.request("GET", METRICS).body.decode()
        assert wait_for(lambda: 'result="up"} 1' in text() and 'state="down"} 0' in text(), 5)
        reply = daemon.request("GET", METRICS)
        assert reply.headers["content-type"] == "text/plain; version=0.0.4; charset=utf-8"
        body = reply.body.decode()
        checked = subprocess.run(["promtool", "check", "metrics"], input=reply.body,
                                 capture_output=True)
        assert checked.returncode == 0, checked.stdout + checked.stderr
        assert 'name="q\\"uo\\\\te\\nline"' in body
        assert "manager_svc_services 2\n" in body
        assert 'manager_svc_requests_total{resource="none",status="404"} 1\n' in body
        assert re.search(r'manager_svc_requests_total\{resource="/managerService/svcmgr",'
                         r'status="200"\} 2\n', body)
        for name in ("process_resident_memory_bytes", "process_open_fds",
                     "process_start_time_seconds", "process_cpu_seconds_total"):
            assert re.search(rf"^{name} \d", body, re.M), name
