#!/usr/bin/env python3
"""Relays and connection floods against manager_svc, printed as figures
(never asserted).

1. History relays: the daemon with its default 10 listener threads and a
   registered service that accepts connections and never answers; N = 0, 10,
   100 and 400 get_history requests sent at once, each on a connection of its
   own. Meanwhile a probe sends get_info on a fresh connection every 10 ms:
   its latency p50 / p99 / max. Also how long the N relays took in all, how
   many were answered at once (within 0.5 s: those beyond the pool's bounds),
   and the daemon's thread count at idle, at its peak and how long it took to
   come back to idle.
2. The same with the system-state relay: the daemon on port 10182 (so its
   own name server) with "recStreamService" registered at a silent peer.
3. Connection floods: 600 connections that each send one header line every
   4 s, then separately 2000 idle connections (both reconnect when the
   daemon drops them); a probe sends get_info every 0.2 s: success rate and
   latency.

usage: bench/relay_bench.py [--build DIR] [--seconds S] [--only history|sys_state|floods]
The daemon runs in the test sandbox. Needs root for the sandbox and port
10182 free for part 2.
"""
import argparse
import json
import multiprocessing
import select
import socket
import statistics
import threading
import time

from bench_support import parse_args

GET_INFO = "/managerService/svcmgr?method=get_info&name=silent"
HISTORY = "/managerService/svcmon?method=get_history&name=silent"
SYS_STATE = "/managerService/sys_state"
RELAY_COUNTS = (0, 10, 100, 400)
PROBE_EVERY_RELAY = 0.01
PROBE_EVERY_FLOOD = 0.2
PROBE_TIMEOUT = 5
# Answered this soon after being sent: refused at once, not relayed.
AT_ONCE_SECONDS = 0.5
BACK_TO_IDLE_LIMIT = 15
SLOW_HEADER_CLIENTS = 600
SLOW_HEADER_EVERY = 4.0
IDLE_CLIENTS = 2000


def percentile(values, share):
    if not values:
        return float("nan")
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Probe:
    """Sends get_info on a fresh connection every `interval` seconds until
    stopped; keeps the latencies of the answered ones and counts failures."""

    def __init__(self, port, interval):
        from harness import http_request
        self.latencies, self.failures = [], 0
        self._stop = threading.Event()

        def run():
            while not self._stop.is_set():
                began = time.perf_counter()
                try:
                    ok = http_request(port, "GET", GET_INFO, timeout=PROBE_TIMEOUT).status == 200
                except OSError:
                    ok = False
                if ok:
                    self.latencies.append(time.perf_counter() - began)
                else:
                    self.failures += 1
                self._stop.wait(interval)
        self._thread = threading.Thread(target=run)
        self._thread.start()

    def stop(self):
        self._stop.set()
        self._thread.join()
        return self

    def summary(self):
        total = len(self.latencies) + self.failures
        ms = [value * 1000 for value in self.latencies]
        return (f"get_info {len(ms)}/{total} ok ({100.0 * len(ms) / max(total, 1):.1f} %), "
                f"p50 {percentile(ms, 0.5):.2f} ms, p99 {percentile(ms, 0.99):.2f} ms, "
                f"max {max(ms, default=float('nan')):.2f} ms")


def readable(sockets, timeout):
    """The sockets that have something to read (poll: descriptors may pass
    select's 1024)."""
    poller = select.poll()
    by_fd = {sock.fileno(): sock for sock in sockets}
    for fd in by_fd:
        poller.register(fd, select.POLLIN)
    return [by_fd[fd] for fd, _ in poller.poll(timeout * 1000)]


def send_requests(port, target, count):
    sockets = []
    for _ in range(count):
        sock = socket.create_connection(("127.0.0.1", port))
        sock.sendall(f"GET {target} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n".encode())
        sockets.append(sock)
    return sockets


def wait_answers(sockets, began, on_tick):
    """Seconds after `began` at which each socket's answer was complete."""
    done, pending = [], list(sockets)
    while pending:
        for sock in readable(pending, 0.05):
            try:
                more = sock.recv(65536)
            except ConnectionResetError:
                more = b""
            if not more:
                done.append(time.perf_counter() - began)
                pending.remove(sock)
                sock.close()
        on_tick()
    return done


def threads_of(daemon):
    from bench_support import proc_status
    return proc_status(daemon.pid, "Threads")


def relay_round(daemon, target, count):
    idle = threads_of(daemon)
    peak = [idle]
    probe = Probe(daemon.port, PROBE_EVERY_RELAY)
    began = time.perf_counter()
    if count == 0:
        time.sleep(2)
        answers = []
    else:
        sockets = send_requests(daemon.port, target, count)
        answers = wait_answers(sockets, began,
                               lambda: peak.append(threads_of(daemon)))
    probe.stop()
    settled = time.perf_counter()
    while threads_of(daemon) != idle and time.perf_counter() - settled < BACK_TO_IDLE_LIMIT:
        time.sleep(0.05)
    back = time.perf_counter() - settled
    at_once = sum(1 for seconds in answers if seconds < AT_ONCE_SECONDS)
    print(f"  N={count:<4} {probe.summary()}; relays done in {max(answers, default=0):.2f} s, "
          f"{at_once} at once; threads idle {idle}, peak {max(peak)}, "
          f"back to idle after {back:.1f} s")


def register(daemon, name, port):
    body = json.dumps({"method": "register", "name": name, "ip": "127.0.0.1", "port": port})
    assert daemon.request("POST", "/managerService/svcmgr", body).status == 200


def relays(sandbox, target, name, port=None):
    from fake_peer import FakePeer, silent
    start = {"add_port": False} if port is not None else {}
    daemon = sandbox.start(**start).wait_ready()
    with FakePeer(silent) as peer:
        register(daemon, name, peer.port)
        for count in RELAY_COUNTS:
            relay_round(daemon, target, count)
    daemon.stop()


class Flood:
    """`count` connections held open, reconnected when the daemon drops
    them; a slow-header one sends a request line, then one header line
    every SLOW_HEADER_EVERY seconds."""

    def __init__(self, port, count, slow_header):
        self.port, self.slow_header = port, slow_header
        self.sockets = [self._connect() for _ in range(count)]
        self.dropped = 0

    def _connect(self):
        sock = socket.create_connection(("127.0.0.1", self.port))
        if self.slow_header:
            sock.sendall(f"GET {GET_INFO} HTTP/1.1\r\n".encode())
        return sock

    def tend(self, send_line):
        for sock in readable(self.sockets, 0):
            index = self.sockets.index(sock)
            sock.close()
            self.sockets[index] = self._connect()
            self.dropped += 1
        if send_line:
            for sock in self.sockets:
                try:
                    sock.sendall(b"X-Slow: 1\r\n")
                except OSError:
                    pass

    def close(self):
        for sock in self.sockets:
            sock.close()


def run_flood(port, count, slow_header, seconds, ready, dropped):
    """The flood, in a process of its own so that it never slows the probe."""
    flood = Flood(port, count, slow_header)
    ready.set()
    began = last_line = time.perf_counter()
    while time.perf_counter() - began < seconds:
        now = time.perf_counter()
        send_line = slow_header and now - last_line >= SLOW_HEADER_EVERY
        last_line = now if send_line else last_line
        flood.tend(send_line)
        time.sleep(0.05)
    flood.close()
    dropped.value = flood.dropped


def flood_round(daemon, count, slow_header, seconds):
    ready, dropped = multiprocessing.Event(), multiprocessing.Value("i", 0)
    flood = multiprocessing.Process(target=run_flood, args=(daemon.port, count, slow_header,
                                                            seconds, ready, dropped))
    flood.start()
    ready.wait()
    probe = Probe(daemon.port, PROBE_EVERY_FLOOD)
    flood.join()
    probe.stop()
    kind = "slow-header" if slow_header else "idle"
    print(f"  {count} {kind} connections, {seconds} s: {probe.summary()}; "
          f"{dropped.value} dropped by the daemon and reopened")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seconds", type=int, default=30)
    parser.add_argument("--only", choices=["history", "sys_state", "floods"])
    args = parse_args(parser)
    from harness import DEFAULT_PORT, Sandbox
    sandbox = Sandbox("relay-bench")
    try:
        if args.only in (None, "history"):
            print("history relays to a silent service (-t 10):")
            relays(sandbox, HISTORY, "silent")
        if args.only in (None, "sys_state"):
            print("system-state relays to a silent recStreamService (-t 10, port 10182):")
            relays(sandbox, SYS_STATE, "recStreamService", port=DEFAULT_PORT)
        if args.only in (None, "floods"):
            print("connection floods (-t 10):")
            daemon = sandbox.start().wait_ready()
            flood_round(daemon, SLOW_HEADER_CLIENTS, True, args.seconds)
            flood_round(daemon, IDLE_CLIENTS, False, args.seconds)
            daemon.stop()
    finally:
        sandbox.cleanup()


if __name__ == "__main__":
    main()
