"""Service control: each method runs its init script (fakes in the sandbox), the
runs are listed with their outcome and output, at most 32 run at once, and SIGINT
stops the daemon while a script still runs."""
import os
import pathlib
import re
import signal

from harness import OK, SCRIPTS, SERVICES, svcmon, wait_for

CALLS = "/tmp/calls.log"
# Notes its command line; "start" fails with 3, "stop" kills the shell that runs it (the
# daemon's child), "restart" prints one byte (fdr) or waits 10 s.
SCRIPT = f"""#!/bin/sh
echo "$0 $*" >> {CALLS}
[ "$1" = start ] && exit 3
[ "$1" = stop ] && kill -9 $PPID && exit
[ "$1" = restart ] && [ "$0" = {SCRIPTS[1]} ] && printf . && exit 0
sleep 10
"""


def post(daemon, body):
    return daemon.request("POST", SERVICES, body).body


def outcomes(daemon):
    return [(r["command"].split("/")[-1], r["exit_status"], r["signal"], r["ended"] is None,
             r["output"]) for r in svcmon(daemon, "get_control_runs")["items"]]


def test_methods_runs_and_stop_while_a_script_runs(sandbox):
    for path in SCRIPTS:
        sandbox.write(path, SCRIPT, mode=0o755)
    daemon = sandbox.start("-v", "2")
    for body in ['{"method": "Start"}', '{"method": 1}', '["start"]', ""]:
        assert post(daemon, body) == b'{ "return": -1 }', body
    for count, method in enumerate(("start", "fdr_restart", "stop"), start=1):
        assert post(daemon, f'{{"method": "{method}"}}') == OK
        assert wait_for(lambda: len(outcomes(daemon)) == count)
    assert wait_for(lambda: outcomes(daemon)[0][2] == 9)
    index = svcmon(daemon, "get_control_runs")["index"]
    assert post(daemon, '{"method": "restart"}') == OK
    # A run's start wakes a waiting poll; the script goes on for 10 s.
    woken = svcmon(daemon, f"get_control_runs&index={index}&wait=5")
    assert woken["index"] > index and woken["items"][0]["ended"] is None
    assert wait_for(lambda: outcomes(daemon) == [
        ("services.sh restart", None, None, True, ""), ("services.sh stop", None, 9, False, ""),
        ("fdr_services.sh restart", 0, None, False, "."), ("services.sh start", 3, None, False, "")])
    assert wait_for(lambda: sorted(sandbox.read(CALLS).decode().splitlines()) == [
        f"{SCRIPTS[1]} restart", f"{SCRIPTS[0]} restart", f"{SCRIPTS[0]} start",
        f"{SCRIPTS[0]} stop"])
    assert daemon.stop(signal.SIGINT, timeout=3) == 0


def start_runs(daemon):
    text = daemon.request("GET", "/managerService/metrics").body.decode()
    return {outcome: int(n) for outcome, n in
            re.findall(r'control_runs_total\{method="start",outcome="(\w+)"\} (\d+)', text)}


def test_output_kept_default_oom_score_and_at_most_32_scripts_at_once(sandbox):
    """Each script prints its output, then waits until the test lets it end (at
    most a minute: a failed test leaves no script polling)."""
    go = "/tmp/go"  # written in place: the sandbox's overlay may not see a new file
    sandbox.write(go, "")
    sandbox.write(SCRIPTS[0], "#!/bin/sh\necho out; echo err >&2\n"
                  "head -c 5000 /dev/zero | tr '\\0' x\ncat /proc/self/oom_score_adj\n"
                  f"i=0; until grep -q go {go} || [ $i = 1200 ]; do sleep 0.05; i=$((i+1)); done\n",
                  mode=0o755)
    score = pathlib.Path("/proc/self/oom_score_adj")
    saved = score.read_text()
    score.write_text("500")  # inherited by the daemon, which lowers its own only where allowed
    daemon = sandbox.start()
    score.write_text(saved)
    for _ in range(40):
        assert post(daemon, '{"method": "start"}') == OK
    assert wait_for(lambda: start_runs(daemon) == {"not_started": 8})
    refused = f"service command [{SCRIPTS[0]} start] not run: too many scripts running"
    assert wait_for(lambda: sandbox.debug_log().count(refused) == 8)
    # A started run is recorded by its worker thread, a refused one at once: in any order.
    runs = svcmon(daemon, "get_control_runs")["items"]
    assert {r["error"] for r in runs} == {None, "too many scripts running"}
    sandbox.write(go, "go")
    assert wait_for(lambda: start_runs(daemon) == {"not_started": 8, "succeeded": 32}, 10)
    runs = svcmon(daemon, "get_control_runs")["items"]
    assert {(r["exit_status"], r["output"]) for r in runs if r["error"] is None} == {
        (0, "x" * (4096 - 2) + "0\n")}
    # Every place is free again once the runs are seen ended, a refused run's too.
    fds = len(os.listdir(f"/proc/{daemon.pid}/fd"))
    sandbox.write(go, "")
    for _ in range(33):
        assert post(daemon, '{"method": "start"}') == OK
    assert start_runs(daemon) == {"not_started": 9, "succeeded": 32}
    sandbox.write(go, "go")
    assert wait_for(lambda: start_runs(daemon) == {"not_started": 9, "succeeded": 64}, 10)
    assert wait_for(lambda: len(os.listdir(f"/proc/{daemon.pid}/fd")) <= fds)  # none leaked
