"""Service control: each method runs its init script (fakes in the sandbox), the
runs are listed with their outcome and output, at most 32 run at once, and SIGINT
stops the daemon while a script still runs."""
import contextlib
import os
import re
import signal

from harness import OK, SCRIPTS, SERVICES, svcmon, wait_for

CALLS = "/tmp/calls.log"
# Notes its command line; "start" fails with 3, "stop" and "restart" wait 10 s.
SCRIPT = f"""#!/bin/sh
echo "$0 $*" >> {CALLS}
[ "$1" = start ] && exit 3
[ "$1" = restart ] && [ "$0" = {SCRIPTS[1]} ] && exit 0
sleep 10
"""


def post(daemon, body):
    return daemon.request("POST", SERVICES, body).body


def outcomes(daemon):
    return [(r["command"].split("/")[-1], r["exit_status"], r["signal"], r["ended"] is None)
            for r in svcmon(daemon, "get_control_runs")["items"]]


def shells(pid):
    found = []
    for task in os.listdir(f"/proc/{pid}/task"):
        with contextlib.suppress(FileNotFoundError):  # a thread that ended meanwhile
            found += map(int, open(f"/proc/{pid}/task/{task}/children").read().split())
    return found


def test_methods_runs_and_stop_while_a_script_runs(sandbox):
    for path in SCRIPTS:
        sandbox.write(path, SCRIPT, mode=0o755)
    daemon = sandbox.start("-v", "2")
    for body in ['{"method": "Start"}', '{"method": 1}', '["start"]', ""]:
        assert post(daemon, body) == b'{ "return": -1 }', body
    for count, method in enumerate(("start", "fdr_restart", "stop"), start=1):
        assert post(daemon, f'{{"method": "{method}"}}') == OK
        assert wait_for(lambda: len(outcomes(daemon)) == count)
    # The stop script is killed once it has noted its call.
    assert wait_for(lambda: len(shells(daemon.pid)) == 1 and sandbox.exists(CALLS)
                    and len(sandbox.read(CALLS).splitlines()) == 3)
    os.kill(shells(daemon.pid)[0], signal.SIGKILL)
    assert wait_for(lambda: outcomes(daemon)[0][2] == 9)
    index = svcmon(daemon, "get_control_runs")["index"]
    assert post(daemon, '{"method": "restart"}') == OK
    # A run's start wakes a waiting poll; the script goes on for 10 s.
    woken = svcmon(daemon, f"get_control_runs&index={index}&wait=5")
    assert woken["index"] > index and woken["items"][0]["ended"] is None
    assert wait_for(lambda: outcomes(daemon) == [
        ("services.sh restart", None, None, True), ("services.sh stop", None, 9, False),
        ("fdr_services.sh restart", 0, None, False), ("services.sh start", 3, None, False)])
    assert wait_for(lambda: sorted(sandbox.read(CALLS).decode().splitlines()) == [
        f"{SCRIPTS[1]} restart", f"{SCRIPTS[0]} restart", f"{SCRIPTS[0]} start",
        f"{SCRIPTS[0]} stop"])
    assert daemon.stop(signal.SIGINT, timeout=3) == 0


def set_oom_score(value):
    """Sets this process's score when allowed; returns the one it had."""
    with open("/proc/self/oom_score_adj") as score:
        saved = score.read().strip()
    with contextlib.suppress(PermissionError), open("/proc/self/oom_score_adj", "w") as score:
        score.write(value)
    return saved


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
    saved = set_oom_score("-500")  # where allowed, the daemon inherits a low score
    daemon = sandbox.start()
    set_oom_score(saved)
    index = svcmon(daemon, "get_control_runs")["index"]
    for _ in range(40):
        assert post(daemon, '{"method": "start"}') == OK
    assert svcmon(daemon, f"get_control_runs&index={index}&wait=10")["index"] > index
    assert wait_for(lambda: start_runs(daemon) == {"not_started": 8})
    runs = svcmon(daemon, "get_control_runs")["items"]
    assert [r["error"] for r in runs[:9]] == ["too many scripts running"] * 8 + [None]
    sandbox.write(go, "go")
    assert wait_for(lambda: start_runs(daemon) == {"not_started": 8, "succeeded": 32}, 10)
    assert outcomes(daemon)[8] == ("services.sh start", 0, None, False)
    run = svcmon(daemon, "get_control_runs")["items"][8]
    assert run["output"] == "x" * (4096 - 2) + "0\n" and run["error"] is None
    for _ in range(300):  # every post is run, or recorded as not started
        assert post(daemon, '{"method": "start"}') == OK
    assert wait_for(lambda: sum(start_runs(daemon).values()) == 340, 30), start_runs(daemon)
    # Ended scripts free their places: some of the 300 ran.
    assert set(start_runs(daemon)) == {"not_started", "succeeded"}
    assert start_runs(daemon)["succeeded"] > 32
