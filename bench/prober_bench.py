#!/usr/bin/env python3
"""Benchmark of the reachability prober, printed as figures (never asserted).

- Idle CPU of the daemon while nobody asks it anything, in % of one core, at
  the default -m 10 with 20 services and at -m 1 with 1000 (half on closed
  ports, 50 on a silent port whose accept queue is full, the rest on ports
  that answer HTTP), for this build and, with --before DIR, another build's
  daemon, measured in turns (before, after, before, after...).
- With --throughput: get_info throughput of the daemon with 1000 services at
  -m 1 against the same daemon whose prober is quiet (-m 3600: one round at
  start, then asleep) and against the bare anchor (bench/anchor_server.c)
  serving the same bytes, interleaved round by round; the daemon not being
  measured is held with SIGSTOP meanwhile.

usage: bench/prober_bench.py [--build DIR] [--before DIR] [--idle S] [--turns N]
                             [--throughput [--seconds S] [--rounds N]]
Needs wrk (for --throughput), and root for the sandbox.
"""
import argparse
import os
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
IDLE_CASES = ((10, 20), (1, SERVICES))  # (period in seconds, services)
ANSWER = b"HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n"


class Peers:
    """Listening ports that answer any request with a 404 and close, and one
    silent port."""

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
                if key.fileobj in self.accepting:
                    self._accept(key.fileobj)
                else:
                    self._answer(key.fileobj)

    def _accept(self, server):
        try:
            conn = server.accept()[0]
        except BlockingIOError:
            return
        conn.setblocking(False)
        self.selector.register(conn, selectors.EVENT_READ)

    def _answer(self, conn):
        self.selector.unregister(conn)
        try:
            if conn.recv(4096):
                conn.send(ANSWER)
        except OSError:
            pass
        conn.close()

    def registry_text(self, services=SERVICES):
        from harness import free_port
        lines = []
        for index in range(services):
            if services < SERVICES:
                index = CLOSED + SILENT + index  # all on answering ports
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


def idle_cpu(new_sandbox, binary, registry, period, idle_seconds):
    """% of one core that the daemon used over idle_seconds, once settled."""
    os.environ["MANAGER_SVC_BIN"] = binary
    daemon = start_daemon(new_sandbox, registry, "-m", str(period))
    time.sleep(3)  # the first round and the start-up settle
    began, cpu = time.monotonic(), cpu_seconds(daemon.pid)
    time.sleep(idle_seconds)
    used = (cpu_seconds(daemon.pid) - cpu) / (time.monotonic() - began)
    daemon.stop()
    return used * 100


def idle_figures(new_sandbox, peers, args):
    builds = {"after": os.path.join(args.build, "manager_svc")}
    if args.before:
        builds = {"before": os.path.join(args.before, "manager_svc"), **builds}
    for period, services in IDLE_CASES:
        registry = peers.registry_text(services)
        figures = {name: [] for name in builds}
        for _ in range(args.turns):
            for name, binary in builds.items():
                figures[name].append(idle_cpu(new_sandbox, binary, registry, period, args.idle))
        print(f"idle CPU, -m {period}, {services} services, {args.idle} s x {args.turns}: " +
              "   ".join(f"{name} {statistics.median(values):.2f} % of one core "
                         f"({' '.join(f'{v:.2f}' for v in values)})"
                         for name, values in figures.items()))
    os.environ["MANAGER_SVC_BIN"] = builds["after"]


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
    parser.add_argument("--turns", type=int, default=2)
    parser.add_argument("--before", help="another build directory, measured in turns")
    parser.add_argument("--throughput", action="store_true")
    args = parse_args(parser)
    peers = Peers()
    try:
        with Sandboxes("prober-bench") as sandboxes:
            idle_figures(sandboxes.new, peers, args)
            if args.throughput:
                throughput(sandboxes.new, peers.registry_text(), args)
    finally:
        peers.close()


if __name__ == "__main__":
    main()
