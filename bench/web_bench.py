#!/usr/bin/env python3
"""Web-page figures of manager_svc, printed (never asserted).

- against nginx: requests per second of the monitor page (web/index.html)
  from the daemon and from nginx serving the same file (Debian's
  nginx-light with its default configuration: sendfile on, tcp_nopush on,
  2 workers on this machine; only the access log is off), at 32 and 128
  connections, rounds interleaved; prints each round and the median ratio;
- slow readers: READERS connections each ask for one 4 MiB page written
  0.1 s before, then read nothing; once the daemon has answered all of
  them, prints its memory (VmRSS, and the peak VmHWM) against its idle
  figure; then the same with a file that is being appended to meanwhile;
- swap race: a writer inside the home directory keeps swapping a directory
  and a symlink to a directory outside it (bench/web_race.py) while
  a page below that name is requested TRIES times; prints how many replies
  carried the file from outside (must be 0), from inside, and 404.

usage: bench/web_bench.py [--build DIR] [--seconds S] [--rounds N]
                          [--threads T] [--tries N] [--readers N]
The daemon and nginx run in sandboxes of their own (overlays of "/"), on
loopback ports.
Needs wrk, nginx (package nginx-light) and root for the sandbox.
"""
import argparse
import os
import socket
import statistics
import subprocess
import tempfile
import threading
import time

from bench import cpu_seconds, measured_run
from bench_support import ROOT, Sandboxes, parse_args, proc_status

WEB = "/managerService/svcmon/web"
PAGE = "/index.html"
BIG_PAGE_SIZE = 4 * 1024 * 1024
# The big page is read this soon after it was written.
FRESH_SECONDS = 0.1
# The growing file gets lines of this size, up to this total.
LINE_SIZE = 4096
GROWTH_LIMIT = 256 * 1024 * 1024
READER_BUFFER = 4096
CONNECTIONS = (32, 128)
NGINX_CONF = """
worker_processes auto;
pid {dir}/nginx.pid;
error_log {dir}/error.log;
events {{ worker_connections 768; }}
http {{
    sendfile on;
    tcp_nopush on;
    types_hash_max_size 2048;
    include /etc/nginx/mime.types;
    default_type application/octet-stream;
    access_log off;
    gzip on;
    server {{ listen 127.0.0.1:{port}; root {root}; }}
}}
"""


class Nginx:
    """nginx serving the directory `root` on a free loopback port, in a
    sandbox of its own, so that it reads the page through the same overlay
    as the daemon."""

    def __init__(self, box, root):
        from harness import SANDBOX_RUN, free_port, port_answers, wait_for
        self.dir = tempfile.mkdtemp(prefix="web-bench-nginx.")
        self.port = free_port()
        conf = os.path.join(self.dir, "nginx.conf")
        with open(conf, "w") as out:
            out.write(NGINX_CONF.format(dir=self.dir, port=self.port, root=root))
        self.proc = subprocess.Popen([SANDBOX_RUN, box.root, "nginx", "-c", conf, "-e",
                                      os.path.join(self.dir, "error.log"), "-g", "daemon off;"])
        assert wait_for(lambda: port_answers(self.port), 10), "nginx did not start"

    def close(self):
        self.proc.terminate()
        self.proc.wait()
        subprocess.run(["rm", "-rf", self.dir], check=True)


def cpu_of_group(pid):
    """CPU seconds of a process and its children so far (nginx's workers)."""
    children = subprocess.run(["pgrep", "-P", str(pid)], capture_output=True, text=True).stdout
    return sum(cpu_seconds(int(child)) for child in [pid] + children.split())


def against_nginx(sandbox_factory, args):
    web = os.path.join(ROOT, "web")
    daemon = sandbox_factory().start("-t", str(args.threads), "-D", web + "/").wait_ready()
    nginx = Nginx(sandbox_factory(), web)
    mine = daemon.request("GET", WEB + PAGE).body
    with open(web + PAGE, "rb") as page:
        assert mine == page.read()
    for connections in CONNECTIONS:
        ratios, cpus = [], []
        for _ in range(args.rounds):
            ours, our_cpu = measured_run(daemon.pid, daemon.port, WEB + PAGE, connections,
                                         args.seconds)
            theirs, their_cpu = measured_run(nginx.proc.pid, nginx.port, PAGE, connections,
                                             args.seconds, cpu_of_group)
            ratios.append(ours / theirs)
            cpus.append(our_cpu / their_cpu)
            print(f"  {connections} conn.: daemon {ours:,.0f} req/s, nginx {theirs:,.0f} req/s, "
                  f"ratio {ours / theirs:.2f}; CPU per request {our_cpu:.1f} / {their_cpu:.1f} us")
        print(f"monitor page ({len(mine)} B) against nginx, {connections} connections: "
              f"median ratio {statistics.median(ratios):.2f}, "
              f"CPU per request {statistics.median(cpus):.2f} of nginx's")
    nginx.close()
    daemon.stop()


def swap_race(sandbox_factory, tries):
    from harness import device_path_of
    from web_race import INSIDE, OUTSIDE, Swapper
    box = sandbox_factory()
    box.write("/www/index.html", b"home")
    daemon = box.start("-D", "/www/").wait_ready()
    counts = {OUTSIDE: 0, INSIDE: 0, b"404 Not Found": 0}
    with Swapper(device_path_of(daemon, "/www"), device_path_of(daemon, "/outside")):
        for _ in range(tries):
            body = daemon.request("GET", WEB + Swapper.PAGE).body
            counts[body] = counts.get(body, 0) + 1
    daemon.stop()
    print(f"swap race, {tries} tries: {counts[OUTSIDE]} files from outside, "
          f"{counts[INSIDE]} from inside, {counts[b'404 Not Found']} not found")


def slow_reader(port, path):
    reader = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    reader.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, READER_BUFFER)
    reader.connect(("127.0.0.1", port))
    reader.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n".encode())
    return reader


class Appender:
    """Appends lines to a file on a thread of its own while active."""

    def __init__(self, path):
        self.path, self.stop = path, threading.Event()
        open(path, "wb").close()
        self.thread = threading.Thread(target=self.append)

    def append(self):
        with open(self.path, "ab", buffering=0) as out:
            for line in range(GROWTH_LIMIT // LINE_SIZE):
                if self.stop.is_set():
                    return
                out.write(b"%07d" % line + b"x" * (LINE_SIZE - 8) + b"\n")

    def __enter__(self):
        from harness import wait_for
        self.thread.start()  # readers come once it holds a big page's worth
        wait_for(lambda: os.path.getsize(self.path) >= BIG_PAGE_SIZE, 10)
        return self

    def __exit__(self, *_):
        self.stop.set()
        self.thread.join()


def memory_with_readers(daemon, name, readers):
    """VmRSS and VmHWM (KiB) once the daemon has answered every reader."""
    from harness import wait_for
    clients = [slow_reader(daemon.port, WEB + "/" + name) for _ in range(readers)]
    served = f"str_url=[/www//{name}]"
    answered = wait_for(lambda: daemon.stderr_text().count(served) >= readers, 20)
    figures = proc_status(daemon.pid, "VmRSS"), proc_status(daemon.pid, "VmHWM")
    for client in clients:
        client.close()
    return figures, answered


def slow_readers(sandbox_factory, readers):
    from harness import device_path_of
    box = sandbox_factory()
    box.write("/www/index.html", b"home")
    daemon = box.start("-v", "2", "-t", "10", "-D", "/www/").wait_ready()
    idle = proc_status(daemon.pid, "VmRSS")
    with open(device_path_of(daemon, "/www/big.html"), "wb") as page:
        page.write(os.urandom(BIG_PAGE_SIZE))
    time.sleep(FRESH_SECONDS)
    fresh = memory_with_readers(daemon, "big.html", readers)
    with Appender(device_path_of(daemon, "/www/growing.html")):
        growing = memory_with_readers(daemon, "growing.html", readers)
    daemon.stop()
    for label, ((rss, peak), answered) in (("a 4 MiB page written 0.1 s before", fresh),
                                           ("a file being appended to", growing)):
        note = "" if answered else " (not all answered in time)"
        print(f"{readers} slow readers of {label}: idle {idle / 1024:.1f} MiB, "
              f"with them {rss / 1024:.1f} MiB (peak {peak / 1024:.1f}), "
              f"growth {(rss - idle) / 1024:.1f} MiB{note}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--threads", type=int, default=10)
    parser.add_argument("--tries", type=int, default=20000)
    parser.add_argument("--readers", type=int, default=64)
    args = parse_args(parser, "sandbox-web-bench")
    with Sandboxes("web-bench") as sandboxes:
        against_nginx(sandboxes.new, args)
        slow_readers(sandboxes.new, args.readers)
        swap_race(sandboxes.new, args.tries)


if __name__ == "__main__":
    main()
