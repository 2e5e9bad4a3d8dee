"""Metrics for fleets: GET /managerService/metrics answers the Prometheus text format,
which promtool accepts even with quotes, backslashes and new lines in services' names,
and which counts what the daemon saw, control runs too."""
import re
import shutil
import subprocess
import time

import pytest

from fake_peer import FakePeer, answer
from harness import OK, SERVICES, free_port, register, wait_for

METRICS = "/managerService/metrics"


@pytest.mark.skipif(shutil.which("promtool") is None, reason="promtool (prometheus) missing")
def test_metrics_are_valid_and_count_what_happened(sandbox):
    with FakePeer(answer(200)) as peer:
        daemon = sandbox.start("-m", "1")
        assert register(daemon, 'q"uo\\te\nline', peer.port) == OK
        assert register(daemon, "gone", free_port()) == OK
        daemon.request("GET", "/nowhere")
        assert daemon.request("POST", SERVICES, '{"method": "start"}').body == OK  # no script: fails
        counted = ['result="up"} 1', 'state="down"} 0', 'name="q\\"uo\\\\te\\nline"',
                   'manager_svc_control_runs_total{method="start",outcome="failed"} 1\n',
                   "manager_svc_services 2\n",
                   'manager_svc_requests_total{resource="none",status="404"} 1\n',
                   'manager_svc_requests_total{resource="/managerService/svcmgr",status="200"} 2\n']

        def text():
            return daemon.request("GET", METRICS).body.decode()
        assert wait_for(lambda: all(line in text() for line in counted), 30), text()
        reply = daemon.request("GET", METRICS)
        assert reply.headers["content-type"] == "text/plain; version=0.0.4; charset=utf-8"
        checked = subprocess.run(["promtool", "check", "metrics"], input=reply.body,
                                 capture_output=True)
        assert checked.returncode == 0, checked.stdout + checked.stderr
        for name in ("process_resident_memory_bytes", "process_open_fds", "process_cpu_seconds_total"):
            assert re.search(rf"^{name} \d", reply.body.decode(), re.M), name
        started = float(re.search(r"^process_start_time_seconds (\S+)", reply.body.decode(), re.M)[1])
        assert abs(started - time.time()) < 60  # this daemon's start, not the machine's
