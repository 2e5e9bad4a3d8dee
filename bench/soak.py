#!/usr/bin/env python3
"""Soak: one daemon under mixed load for a fixed number of requests.

The mix (bench/soak.lua, rotated over by every connection): get_info,
register/unregister churn, get_health_status with 100 services registered,
the monitor's start page, get_history against a fake service answering JSON,
and "start" posts against a fake init script that exits at once. wrk keeps
--connections keep-alive connections busy and runs in chunks of
--sample-every requests; after each chunk the daemon's RSS is sampled.

Limits (exit status 1 when one is broken): no error (a non-200 reply, a
JSON reply whose "return" is not 0, a socket error); RSS growth after the
first half of the run (the warm-up) under 1 MiB, on long runs of the plain
build only; open descriptors and threads back to their idle count once the
load stops (polled, detached script threads included); exit status 0 on
SIGTERM.

usage: bench/soak.py [--build DIR] [--requests N] [--connections C]
                     [--threads T] [--sample-every N]
Loopback only; bounded in count and, per chunk, in time. Needs wrk, and
root for the sandbox.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import time

from bench_support import ROOT, parse_args

from bench import register_many, rss_kib  # noqa: E402

SCRIPT = os.path.join(ROOT, "bench", "soak.lua")
HISTORY = b'{"history": [{"time": 1, "event": "started"}]}'
FAST_SCRIPT = "#!/bin/sh\nexit 0\n"
INIT_SCRIPTS = ("/etc/init.d/services.sh", "/etc/init.d/fdr_services.sh")
RSS_GROWTH_LIMIT_KIB = 1024
# The warm-up is the first half of the run: until then the allocator's
# per-thread arenas (one per listener and worker thread, up to glibc's
# limit) and the cached stacks of ended threads are still growing to their
# high-water mark; with MALLOC_ARENA_MAX=1 most of that growth is gone, so it
# is the allocator filling up, not a leak. Sanitizer builds keep shadow
# memory and quarantines, and a short run ends before the arenas are full:
# their RSS is printed but not held to the limit.
SANITIZED = bool(os.environ.get("MANAGER_SVC_SANITIZE"))
RSS_WARM_UP_MIN_REQUESTS = 500_000
# wrk's own bound on one chunk, and how long descriptors and threads may
# take to return to idle (past the server's 10 s idle cut-off).
CHUNK_SECONDS_LIMIT = 600
SETTLE_SECONDS = 30
WRK_THREADS = 2
# Samples wanted over a short run, where a chunk of --sample-every would
# leave no room after the warm-up.
MIN_SAMPLES = 10


class Chunk:
    """What one wrk run reports."""

    def __init__(self, out):
        head = re.search(r"SOAK requests (\d+) duration_us (\d+) bad (\d+) socket (\d+) "
                         r"status (\d+) max_us (\d+)", out)
        if head is None:
            raise RuntimeError("wrk gave no summary:\n" + out)
        (self.requests, self.duration_us, self.bad, self.socket_errors,
         self.status_errors, self.max_us) = map(int, head.groups())
        self.quantiles = [int(q) for q in re.findall(r"SOAK q (\d+)", out)]
        first = re.search(r"SOAK first_bad (.*)", out)
        self.first_bad = first.group(1) if first else ""

    @property
    def errors(self):
        return self.bad + self.socket_errors + self.status_errors


def run_chunk(port, requests, connections):
    """One wrk run of `requests` replies. Every wrk thread says on its
    standard error when it has its quota; then SIGINT makes wrk report."""
    per_thread = -(-requests // WRK_THREADS)
    command = ["wrk", f"-t{WRK_THREADS}", f"-c{connections}", f"-d{CHUNK_SECONDS_LIMIT}s",
               "--timeout", "10s", "-s", SCRIPT, f"http://127.0.0.1:{port}",
               "--", str(per_thread)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True) as run:
        finished = 0
        for line in run.stderr:
            finished += line.startswith("SOAK thread done")
            if finished == WRK_THREADS:
                run.send_signal(signal.SIGINT)
                break
        out, err = run.communicate(timeout=60)
    if run.returncode != 0:
        raise RuntimeError(f"wrk failed ({run.returncode}):\n{out}{err}")
    return Chunk(out)


def proc_counts(pid):
    """(open descriptors, threads) of a process."""
    from bench_support import open_fds, proc_status
    return open_fds(pid), proc_status(pid, "Threads")


def settled_counts(pid, at_most=None, seconds=SETTLE_SECONDS):
    """Counts once they hold still for a moment (and, if given, are no
    higher than at_most), or the last counts seen at the deadline."""
    from harness import deadline
    end = time.monotonic() + deadline(seconds)
    last = proc_counts(pid)
    while time.monotonic() < end:
        time.sleep(0.2)
        now = proc_counts(pid)
        fits = at_most is None or all(n <= m for n, m in zip(now, at_most))
        if now == last and fits:
            return now
        last = now
    return last


def pooled_percentile(chunks, fraction):
    """Percentile over all chunks, pooling each chunk's quantile function
    (0.1 % steps) weighted by its request count."""
    points = sorted((q, c.requests) for c in chunks for q in c.quantiles)
    total = sum(weight for _, weight in points)
    seen = 0
    for value, weight in points:
        seen += weight
        if seen >= fraction * total:
            return value
    return points[-1][0]


def start_daemon(args, peer_port):
    from harness import Sandbox, http_request
    sandbox = Sandbox("soak")
    for script in INIT_SCRIPTS:
        sandbox.write(script, FAST_SCRIPT, mode=0o755)
    web = os.path.join(ROOT, "web") + "/"
    daemon = sandbox.start("-t", str(args.threads), "-D", web).wait_ready()
    register_many(daemon, 100)
    historian = ('{"method":"register","name":"historian","ip":"127.0.0.1","port":%d}'
                 % peer_port)
    reply = http_request(daemon.port, "POST", "/managerService/svcmgr", historian)
    assert reply.body == b'{ "return": 0 }', reply
    return sandbox, daemon


def soak(daemon, peer, args):
    """Runs the chunks; returns them with the RSS after each (KiB)."""
    chunks, rss = [], []
    left = args.requests
    sample_every = min(args.sample_every, max(1, args.requests // MIN_SAMPLES))
    done = 0
    while left > 0:
        chunk = run_chunk(daemon.port, min(sample_every, left), args.connections)
        peer.requests.clear()  # the peer keeps what it was asked; not needed here
        chunks.append(chunk)
        rss.append(rss_kib(daemon.pid))
        done += chunk.requests
        left -= chunk.requests
        print(f"{done:9d} requests  RSS {rss[-1]:6d} KiB  errors {chunk.errors}  "
              f"{chunk.requests * 1e6 / chunk.duration_us:8.0f} req/s", flush=True)
        if chunk.first_bad:
            print(f"          first bad reply: {chunk.first_bad}")
    return chunks, rss


def report(chunks, rss, idle, after, exit_status):
    """Prints the figures; returns the list of broken limits."""
    requests = sum(c.requests for c in chunks)
    seconds = sum(c.duration_us for c in chunks) / 1e6
    errors = sum(c.errors for c in chunks)
    warm = rss[len(rss) // 2 - 1] if len(rss) > 1 else rss[0]
    growth = rss[-1] - warm
    p50, p90, p99 = (pooled_percentile(chunks, f) / 1000 for f in (0.50, 0.90, 0.99))
    print(f"requests {requests} in {seconds:.1f} s: {requests / seconds:.0f} req/s")
    print(f"errors {errors} (bad replies {sum(c.bad for c in chunks)}, socket "
          f"{sum(c.socket_errors for c in chunks)}, status {sum(c.status_errors for c in chunks)})")
    print(f"latency ms: p50 {p50:.2f}  p90 {p90:.2f}  p99 {p99:.2f}  "
          f"max {max(c.max_us for c in chunks) / 1000:.2f}")
    held = not SANITIZED and requests // 2 >= RSS_WARM_UP_MIN_REQUESTS
    print(f"RSS KiB per chunk: {rss}; growth after warm-up {growth} KiB"
          + ("" if held else " (run too short or sanitized: not held to the limit)"))
    print(f"idle fds/threads before {idle}, after {after}; exit status {exit_status}")
    broken = []
    if errors:
        broken.append(f"{errors} errors")
    if growth >= RSS_GROWTH_LIMIT_KIB and held:
        broken.append(f"RSS grew {growth} KiB after warm-up")
    if any(n > m for n, m in zip(after, idle)):
        broken.append(f"fds/threads {after} did not return to idle {idle}")
    if exit_status != 0:
        broken.append(f"exit status {exit_status}")
    return broken


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--requests", type=int, default=1_000_000)
    parser.add_argument("--connections", type=int, default=128)
    parser.add_argument("--threads", type=int, default=8)
    parser.add_argument("--sample-every", type=int, default=100_000)
    args = parse_args(parser, "sandbox-soak")
    from fake_peer import FakePeer, answer

    with FakePeer(answer(200, HISTORY)) as peer:
        sandbox, daemon = start_daemon(args, peer.port)
        try:
            idle = settled_counts(daemon.pid)
            chunks, rss = soak(daemon, peer, args)
            after = settled_counts(daemon.pid, at_most=idle)
            broken = report(chunks, rss, idle, after, daemon.stop())
        finally:
            sandbox.cleanup()
    for limit in broken:
        print(f"LIMIT BROKEN: {limit}", file=sys.stderr)
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
