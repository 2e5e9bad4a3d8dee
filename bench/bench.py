#!/usr/bin/env python3
"""Benchmarks of manager_svc, printed as figures (never asserted).

Measured in one run, interleaved round by round so that both sides see the
same machine: requests per second of the daemon (get_info, get_health_status
with 100 services, the monitor's index.html) against the bare libmicrohttpd
anchor (bench/anchor_server.c) serving the very same reply bytes with the
same thread pool, and the CPU time each server spends per request (steadier
than the rate, which the two cores shared with wrk make move); the time per registration with 10, 100 and 1000 services
registered; idle memory of both; the time from start to the ready marker.

usage: bench/bench.py [--build DIR] [--seconds S] [--rounds N] [--threads T]
                      [--only TEXT]
--only runs just the throughput cases whose label contains TEXT.
The daemon runs in the test sandbox (its registry file and marker stay off
the host). Needs wrk, and root for the sandbox.
"""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

from bench_support import ROOT, Sandboxes, parse_args

REGISTER_SCRIPT = """
counter = 0
request = function()
  counter = counter + 1
  local body = string.format(
    '{"method":"register","name":"bench%d","ip":"127.1.1.1","port":%d}', counter % 50, counter)
  return wrk.format("POST", "/managerService/svcmgr", {["Content-Type"]="application/json"}, body)
end
"""


# What the daemon serves against the anchor serving the same bytes, with
# 100 services registered.
RATIO_CASES = [
    ("get_info", "/managerService/svcmgr?method=get_info&name=svc0000"),
    ("get_health_status", "/managerService/svcmon?method=get_health_status"),
    ("web page index.html", "/managerService/svcmon/web/index.html"),
]


def wrk(port, path, connections, seconds, script=None):
    """Requests per second that wrk reaches; fails loudly on socket errors."""
    threads = min(2, connections)
    command = ["wrk", f"-t{threads}", f"-c{connections}", f"-d{seconds}s"]
    if script:
        command += ["-s", script]
    command.append(f"http://127.0.0.1:{port}{path}")
    out = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in out or "Socket errors" in out:
        print(out, file=sys.stderr)
    return float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))


class Anchor:
    """The bare server, serving `body` with `content_type`."""

    def __init__(self, build, threads, body, content_type):
        from harness import free_port
        self.port = free_port()
        self.body_file = tempfile.NamedTemporaryFile(delete=False)
        self.body_file.write(body)
        self.body_file.close()
        self.proc = subprocess.Popen([os.path.join(build, "bench", "anchor_server"),
                                      str(self.port), str(threads), self.body_file.name,
                                      content_type])
        from harness import port_answers, wait_for
        assert wait_for(lambda: port_answers(self.port), 5), "anchor did not start"

    def close(self):
        self.proc.terminate()
        self.proc.wait()
        os.unlink(self.body_file.name)


def cpu_seconds(pid):
    """User plus system CPU time of a process so far."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measured_run(pid, port, path, connections, seconds, cpu=cpu_seconds):
    """Requests per second, and the server's CPU microseconds per request
    (`cpu` reads the server's CPU seconds from its pid)."""
    before = cpu(pid)
    rps = wrk(port, path, connections, seconds)
    return rps, (cpu(pid) - before) * 1e6 / (rps * seconds)


def compare(daemon, anchor, path, connections, seconds, rounds):
    """Medians of requests/s and of CPU per request of daemon and anchor
    over interleaved rounds."""
    ours, theirs = [], []
    for _ in range(rounds):
        ours.append(measured_run(daemon.pid, daemon.port, path, connections, seconds))
        theirs.append(measured_run(anchor.proc.pid, anchor.port, path, connections, seconds))
    return [tuple(statistics.median(run[i] for run in runs) for i in (0, 1))
            for runs in (ours, theirs)]


def report_ratio(label, daemon, anchor, path, args):
    for connections in (32, 128):
        (ours, our_cpu), (theirs, their_cpu) = compare(daemon, anchor, path, connections,
                                                       args.seconds, args.rounds)
        print(f"{label:28} c={connections:<4} daemon {ours:10.0f} req/s   "
              f"anchor {theirs:10.0f} req/s   ratio {ours / theirs:.2f}   "
              f"CPU per request {our_cpu:.1f} / {their_cpu:.1f} us")


def register_many(daemon, count, prefix="svc"):
    for index in range(count):
        body = json.dumps({"method": "register", "name": f"{prefix}{index:04d}",
                           "ip": f"127.0.{index // 250}.{index % 250}", "port": 10000 + index})
        assert daemon.request("POST", "/managerService/svcmgr", body).status == 200


def registration_cost(sandbox_factory, args, script):
    """Microseconds per registration (each one an update that rewrites the
    registry file) with 10, 100 and 1000 services registered."""
    costs = {}
    for size in (10, 100, 1000):
        daemon = sandbox_factory().start("-t", str(args.threads)).wait_ready()
        register_many(daemon, size)
        rps = wrk(daemon.port, "/managerService/svcmgr", 1, args.seconds, script)
        costs[size] = 1e6 / rps
        daemon.stop()
    for size, cost in costs.items():
        print(f"registration with {size:5} services: {cost:8.1f} us  "
              f"({cost / costs[10]:.2f}x the cost at 10)")


def start_to_ready(sandbox_factory, runs=10):
    """Median milliseconds from starting the daemon to its ready marker and an
    answering port, and the sandbox's own start-up (running /bin/true in it),
    which the first figure includes."""
    from harness import READY_MARKER, SANDBOX_RUN, port_answers
    ready, overhead = [], []
    for _ in range(runs):
        box = sandbox_factory()
        began = time.perf_counter()
        subprocess.run([SANDBOX_RUN, box.root, "/bin/true"], check=True)
        overhead.append(time.perf_counter() - began)
        daemon = box.start()
        began = time.perf_counter()
        while not (box.exists(READY_MARKER) and port_answers(daemon.port)):
            time.sleep(0.0005)
        ready.append(time.perf_counter() - began)
        daemon.stop()
    print(f"start to ready: {statistics.median(ready) * 1000:.1f} ms "
          f"(of which sandbox set-up {statistics.median(overhead) * 1000:.1f} ms)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--threads", type=int, default=10)
    parser.add_argument("--only", help="only the throughput cases whose label has this text")
    args = parse_args(parser)
    with Sandboxes("bench") as sandboxes:
        new_sandbox = sandboxes.new
        web = os.path.join(ROOT, "web") + "/"
        daemon = new_sandbox().start("-t", str(args.threads), "-D", web).wait_ready()
        anchor = Anchor(args.build, args.threads, b"x", "text/plain")
        print(f"idle RSS: daemon {rss_kib(daemon.pid)} KiB, anchor {rss_kib(anchor.proc.pid)} KiB")
        anchor.close()
        register_many(daemon, 100)
        for label, path in RATIO_CASES:
            if args.only and args.only not in label:
                continue
            reply = daemon.request("GET", path)
            anchor = Anchor(args.build, args.threads, reply.body, reply.headers["content-type"])
            report_ratio(f"{label} ({len(reply.body)} B)", daemon, anchor, path, args)
            anchor.close()
        daemon.stop()
        if args.only:
            return
        with tempfile.NamedTemporaryFile("w", suffix=".lua", delete=False) as script:
            script.write(REGISTER_SCRIPT)
        registration_cost(new_sandbox, args, script.name)
        start_to_ready(new_sandbox)
        os.unlink(script.name)


if __name__ == "__main__":
    main()
