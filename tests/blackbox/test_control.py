"""The service-control resource: init scripts run on their own threads.

Fake init scripts at the fixed script paths record their command lines in
CALLS (a file in the sandbox); the tests read it from the sandbox's upper
directory.
"""
import json
import os
import re
import signal
import threading
import uuid

import pytest

from harness import deadline, wait_for

SERVICES = "/managerService/services"
SERVICES_SCRIPT = "/etc/init.d/services.sh"
FDR_SCRIPT = "/etc/init.d/fdr_services.sh"
CALLS = "/tmp/calls.log"
ACCEPTED = b'{ "return": 0 }'
REFUSED = b'{ "return": -1 }'

RECORD = '#!/bin/sh\necho "$0 $*" >> ' + CALLS + "\n"

# Every daemon of a test must stop with status 0 (no sanitizer report).
pytestmark = pytest.mark.usefixtures("clean_exit")


def start_with_scripts(sandbox, script=RECORD):
    for path in (SERVICES_SCRIPT, FDR_SCRIPT):
        sandbox.write(path, script, mode=0o755)
    return sandbox.start("-v", "2").wait_ready()


def post(daemon, body):
    if not isinstance(body, (str, bytes)):
        body = json.dumps(body)
    return daemon.request("POST", SERVICES, body)


def calls(sandbox):
    data = sandbox.read(CALLS)
    return data.decode() if data else ""


def wait_calls(sandbox, count, timeout=5):
    return wait_for(lambda: calls(sandbox).count("\n") >= count, timeout)


@pytest.mark.parametrize("method, command", [
    ("start", "/etc/init.d/services.sh start"),
    ("stop", "/etc/init.d/services.sh stop"),
    ("restart", "/etc/init.d/services.sh restart"),
    ("fdr_restart", "/etc/init.d/fdr_services.sh restart"),
])
def test_each_method_runs_its_command_line(sandbox, method, command):
    daemon = start_with_scripts(sandbox)
    reply = post(daemon, {"method": method, "other": "ignored"})
    assert (reply.status, reply.content_type, reply.body) == (200, "application/json", ACCEPTED)
    assert wait_calls(sandbox, 1)
    assert calls(sandbox) == command + "\n"
    assert daemon.wait_stderr(f"proc_services_post()\nparam_method={method}\n")


NOTHING_RUNS = [
    ({"method": "Start"}, "Start"),
    ({"method": "START"}, "START"),
    ({"method": "start "}, "start "),
    ({"method": " stop"}, " stop"),
    ({"method": ""}, ""),
    ({"method": "restart" * 5}, ("restart" * 5)[:31]),
    ({"method": 1}, ""),
    ({"method": None}, ""),
    ({"method": ["start"]}, ""),
    ({"name": "start"}, ""),
    (["start"], ""),
    ("start", ""),
    ('{"method": "start"', ""),
    ("", ""),
]


def test_bodies_without_a_recognised_method_run_nothing(sandbox):
    daemon = start_with_scripts(sandbox)
    for body, logged in NOTHING_RUNS:
        reply = post(daemon, body)
        assert (reply.status, reply.content_type, reply.body) == (
            200, "application/json", REFUSED), body
        assert f"param_method={logged}\n" in daemon.stderr_text(), body
    # A recognised request last: once its line is there, anything the
    # refused ones had started would have shown up before it.
    assert post(daemon, {"method": "stop"}).body == ACCEPTED
    assert wait_calls(sandbox, 1)
    assert calls(sandbox) == SERVICES_SCRIPT + " stop\n"


# Each script notes its start, waits (bounded) until two scripts have
# started, then notes whether it saw the other one.
WAIT_FOR_PARTNER = f"""#!/bin/sh
echo "begin $1" >> {CALLS}
i=0
while [ "$(grep -c begin {CALLS})" -lt 2 ] && [ $i -lt 200 ]; do
    sleep 0.05
    i=$((i + 1))
done
if [ $i -lt 200 ]; then echo "together $1" >> {CALLS}; else echo "alone $1" >> {CALLS}; fi
"""


def test_two_requests_run_two_scripts_at_once(sandbox):
    daemon = start_with_scripts(sandbox, WAIT_FOR_PARTNER)
    assert post(daemon, {"method": "stop"}).body == ACCEPTED
    assert post(daemon, {"method": "start"}).body == ACCEPTED
    assert wait_calls(sandbox, 4, timeout=15)
    lines = sorted(calls(sandbox).splitlines())
    assert lines == ["begin start", "begin stop", "together start", "together stop"]


# Notes its start, waits (bounded) for a gate file, then notes its end.
# The gate lives in /dev/shm, which the sandbox shares with the host.
def gated_script(gate):
    return f"""#!/bin/sh
echo "begin $1" >> {CALLS}
i=0
while [ ! -e {gate} ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i + 1)); done
echo "end $1" >> {CALLS}
"""


@pytest.fixture
def gate():
    path = f"/dev/shm/manager_svc-gate-{uuid.uuid4().hex}"
    yield path
    if os.path.exists(path):
        os.unlink(path)


def test_reply_does_not_wait_for_the_script(sandbox, gate):
    daemon = start_with_scripts(sandbox, gated_script(gate))
    assert post(daemon, {"method": "restart"}).body == ACCEPTED
    assert wait_calls(sandbox, 1)
    # The script is still waiting, yet the daemon keeps answering.
    assert post(daemon, {"method": "bogus"}).body == REFUSED
    assert calls(sandbox) == "begin restart\n"
    open(gate, "w").close()
    assert wait_calls(sandbox, 2)
    assert calls(sandbox) == "begin restart\nend restart\n"


def test_missing_script_changes_nothing_in_the_reply(sandbox):
    daemon = sandbox.start("-v", "2").wait_ready()
    for method in ("start", "stop", "restart", "fdr_restart"):
        assert post(daemon, {"method": method}).body == ACCEPTED
    assert post(daemon, {"method": "nope"}).body == REFUSED
    assert daemon.alive()


# Exits 3 for "start", waits for the gate otherwise.
def outcome_script(gate):
    return f"""#!/bin/sh
echo "$0 $*" >> {CALLS}
[ "$1" = start ] && exit 3
i=0
while [ ! -e {gate} ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i + 1)); done
"""


def children(pid):
    found = []
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/children") as listed:
            found += [int(child) for child in listed.read().split()]
    return found


def control_runs(daemon):
    reply = daemon.request("GET", "/managerService/svcmon?method=get_control_runs")
    assert (reply.status, reply.content_type) == (200, "application/json")
    runs = json.loads(reply.body)
    assert runs["return"] == 0
    return runs["items"]


def outcomes(daemon):
    return [(run["method"], run["command"], run["exit_status"], run["signal"], run["ended"] is None)
            for run in control_runs(daemon)]


def test_each_run_is_logged_with_its_outcome_newest_first(sandbox, gate):
    daemon = start_with_scripts(sandbox, outcome_script(gate))
    assert post(daemon, {"method": "start"}).body == ACCEPTED
    exited = ("start", SERVICES_SCRIPT + " start", 3, None, False)
    assert wait_for(lambda: outcomes(daemon) == [exited]), outcomes(daemon)
    for method, command in [("stop", SERVICES_SCRIPT + " stop"),
                            ("fdr_restart", FDR_SCRIPT + " restart")]:
        assert post(daemon, {"method": method}).body == ACCEPTED
        assert wait_for(lambda: outcomes(daemon)[0] == (method, command, None, None, True))
    # The shell of the first waiting run ends by a signal, the other normally.
    assert wait_for(lambda: len(children(daemon.pid)) == 2)
    os.kill(min(children(daemon.pid)), signal.SIGKILL)
    assert wait_for(lambda: outcomes(daemon)[1] == (
        "stop", SERVICES_SCRIPT + " stop", None, signal.SIGKILL, False)), outcomes(daemon)
    open(gate, "w").close()
    assert wait_for(lambda: outcomes(daemon)[0][2:] == (0, None, False)), outcomes(daemon)
    runs = control_runs(daemon)
    assert list(runs[0]) == ["method", "command", "started", "ended", "exit_status", "signal"]
    assert all(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", run[when])
               for run in runs for when in ("started", "ended"))


def test_sigint_stops_the_daemon_while_a_script_runs(sandbox, gate):
    daemon = start_with_scripts(sandbox, gated_script(gate))
    assert post(daemon, {"method": "restart"}).body == ACCEPTED
    assert wait_calls(sandbox, 1)
    assert daemon.stop(signal.SIGINT, timeout=2) == 0


# Shell built-ins only: while dash forks a command it blocks every signal
# for a moment, so a forked grep could see that passing mask.
RECORD_SIGNAL_MASK = f"""#!/bin/sh
while read -r name value; do
    case $name in SigBlk:|SigIgn:) echo "$name $value" >> {CALLS} ;; esac
done < /proc/$$/status
"""

def signal_bits(*signals):
    return sum(1 << (sig - 1) for sig in signals)


def test_scripts_run_with_no_blocked_signals_and_sigpipe_ignored(sandbox):
    # Started under nohup: the daemon inherits SIGHUP ignored, its scripts not.
    plain_command = sandbox.command
    sandbox.command = lambda args: ["nohup"] + plain_command(args)
    daemon = start_with_scripts(sandbox, RECORD_SIGNAL_MASK)
    assert post(daemon, {"method": "start"}).body == ACCEPTED
    assert wait_calls(sandbox, 2)
    blocked_name, blocked, ignored_name, ignored = calls(sandbox).split()
    assert (blocked_name, blocked, ignored_name) == ("SigBlk:", "0" * 16, "SigIgn:")
    # glibc's two internal signals (32, 33) stay ignored; no ordinary one but SIGPIPE.
    assert int(ignored, 16) & (signal_bits(*range(1, 32)) | signal_bits(
        *range(34, signal.SIGRTMAX + 1))) == signal_bits(signal.SIGPIPE)


def test_many_requests_at_once_each_run_their_script(sandbox):
    daemon = start_with_scripts(sandbox)
    replies = []

    def client():
        replies.append(post(daemon, {"method": "restart"}).body)

    threads = [threading.Thread(target=client) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(deadline(10))
    assert replies == [ACCEPTED] * 8
    assert wait_calls(sandbox, 8)
    assert calls(sandbox) == (SERVICES_SCRIPT + " restart\n") * 8


@pytest.mark.parametrize("verb", ["GET", "PUT", "DELETE"])
def test_other_verbs_reach_no_handler(sandbox, verb):
    daemon = start_with_scripts(sandbox)
    reply = daemon.request(verb, SERVICES, json.dumps({"method": "start"}))
    assert reply.status == 405
    assert "proc_services_post" not in daemon.stderr_text()
    assert post(daemon, {"method": "stop"}).body == ACCEPTED
    assert wait_calls(sandbox, 1)
    assert calls(sandbox) == SERVICES_SCRIPT + " stop\n"
