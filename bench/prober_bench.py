#!/usr/bin/env python3
"""Benchmark of the reachability prober, printed as figures (never asserted).

With 1000 registered services (half on closed ports, 50 on a silent port
whose accept queue is full, the rest on ports that accept) and -m 1:
- the duration of the prober's full rounds (its DEBUG lines) against the
  period, and the rounds that overran (its WARN lines);
- the daemon's CPU use while nobody asks it anything, in % of one core;
- get_info throughput of that daemon against the same daemon whose prober
  is quiet (-m 3600: one round at start, then asleep) and against the bare
  anchor (bench/anchor_server.c) serving the same bytes, interleaved round by
  round; the daemon not being measured is held with SIGSTOP meanwhile.

usage: bench/prober_bench.py [--build DIR] [--seconds S] [--rounds N] [--idle S]
Needs wrk, and root for the sandbox.
"""
import argparse
import os
import re
import selectors
import signal
import socket
import statistics
import threading
import time

from bench_support import Sandboxes, parse_args

SERVICES = 1000
CLOSED = 500
SILENT = 50
ACCEPTING_PORTS = 10
GET_INFO = "/managerService/svcmgr?method=get_info&name=svc0000"
ROUND_LINE = re.compile(r"prober round: (\d+) services in (\d+) ms")


class Peers:
    """Listening ports that accept and close at once, and one silent port."""

    def __init__(self):
        self.selector = selectors.DefaultSelector()
        self.accepting = []
        for _ in range(ACCEPTING_PORTS):
            server = socket.socket()
            server.bind(("127.0.0.1", 0))
            server.listen(1024)
            server.setblocking(False)
            self.selector.register(server, selectors.EVENT_READ)
            self.accepting.append(server)
        self.silent = socket.socket()
        self.silent.bind(("127.0.0.1", 0))
        self.silent.listen(0)
        self.filler = socket.create_connection(self.silent.getsockname())
        self.running = True
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while self.running:
            for key, _ in self.selector.select(0.2):
                try:
                    key.fileobj.accept()[0].close()
                except BlockingIOError:
                    pass

    def registry_text(self):
        from harness import free_port
        lines = []
        for index in range(SERVICES):
            if index < CLOSED:
                port = free_port()
            elif index < CLOSED + SILENT:
                port = self.silent.getsockname()[1]
            else:
                port = self.accepting[index % ACCEPTING_PORTS].getsockname()[1]
            lines.append(f"svc{index:04d},127.0.0.1,{port}\n")
        return "".join(lines)

    def close(self):
        self.running = False
        self.thread.join()
        for server in self.accepting + [self.silent, self.filler]:
            server.close()


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def start_daemon(new_sandbox, registry, *args):
    from harness import REGISTRY_FILE
    box = new_sandbox()
    box.write(REGISTRY_FILE, registry)
    return box.start("-t", "10", *args).wait_ready()


def idle_figures(new_sandbox, registry, idle_seconds):
    daemon = start_daemon(new_sandbox, registry, "-m", "1", "-v", "2")
    time.sleep(3)  # the first rounds and the start-up settle
    skip = len(daemon.stderr_text())
    began, cpu = time.monotonic(), cpu_seconds(daemon.pid)
    time.sleep(idle_seconds)
    used = (cpu_seconds(daemon.pid) - cpu) / (time.monotonic() - began)
    log = daemon.stderr_text()[skip:]
    rounds = [int(ms) for count, ms in ROUND_LINE.findall(log) if int(count) == SERVICES]
    overruns = log.count("longer than the period")
    daemon.stop()
    print(f"prober rounds of {SERVICES} services, period 1000 ms: {len(rounds)} rounds in "
          f"{idle_seconds} s, median {statistics.median(rounds)} ms, max {max(rounds)} ms, "
          f"{overruns} over the period")
    print(f"idle CPU with the prober at -m 1: {used * 100:.2f} % of one core")


def throughput(new_sandbox, registry, args):
    from bench import Anchor, wrk
    busy = start_daemon(new_sandbox, registry, "-m", "1")
    quiet = start_daemon(new_sandbox, registry, "-m", "3600")
    reply = busy.request("GET", GET_INFO)
    anchor = Anchor(args.build, 10, reply.body, reply.headers["content-type"])
    daemons = {"busy": busy, "quiet": quiet}
    try:
        for connections in (32, 128):
            rates = {"busy": [], "quiet": [], "anchor": []}
            for _ in range(args.rounds):
                for name, daemon in daemons.items():
                    other = daemons["quiet" if name == "busy" else "busy"]
                    os.kill(other.pid, signal.SIGSTOP)
                    rates[name].append(wrk(daemon.port, GET_INFO, connections, args.seconds))
                    os.kill(other.pid, signal.SIGCONT)
                for daemon in daemons.values():
                    os.kill(daemon.pid, signal.SIGSTOP)
                rates["anchor"].append(wrk(anchor.port, GET_INFO, connections, args.seconds))
                for daemon in daemons.values():
                    os.kill(daemon.pid, signal.SIGCONT)
            busy_rate, quiet_rate, anchor_rate = (statistics.median(rates[name])
                                                  for name in ("busy", "quiet", "anchor"))
            print(f"get_info c={connections:<4} prober -m 1 {busy_rate:9.0f} req/s "
                  f"({busy_rate / anchor_rate:.2f} of anchor)   prober quiet {quiet_rate:9.0f} "
                  f"req/s ({quiet_rate / anchor_rate:.2f})   anchor {anchor_rate:9.0f} req/s   "
                  f"drop {(1 - busy_rate / quiet_rate) * 100:+.1f} %")
    finally:
        anchor.close()
        busy.stop()
        quiet.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--idle", type=int, default=20)
    args = parse_args(parser)
    peers = Peers()
    try:
        with Sandboxes("prober-bench") as sandboxes:
            registry = peers.registry_text()
            idle_figures(sandboxes.new, registry, args.idle)
            throughput(sandboxes.new, registry, args)
    finally:
        peers.close()


if __name__ == "__main__":
    main()
