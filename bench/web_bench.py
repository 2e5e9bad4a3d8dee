#!/usr/bin/env python3
"""Web-page figures of manager_svc, printed (never asserted).

- swap race: a writer inside the home directory keeps swapping a directory
  and a symlink to a directory outside it (bench/web_race.py) while
  a page below that name is requested TRIES times; prints how many replies
  carried the file from outside (must be 0), from inside, and 404;
- slow readers: READERS connections each ask for one 4 MiB page and then
  read nothing; once the daemon has answered all of them, prints its memory
  (VmRSS) against its idle figure.

usage: bench/web_bench.py [--build DIR] [--tries N] [--readers N]
The daemon runs in the test sandbox. Needs root for the sandbox.
"""
import argparse
import os
import socket
import time

from bench_support import Sandboxes, parse_args

WEB = "/managerService/svcmon/web"
BIG_PAGE_SIZE = 4 * 1024 * 1024
# Replies of a changed file are shared once it has not changed for this long
# (monitor/page_file.cpp); the big page is left alone that long first.
SETTLE_SECONDS = 2.5
READER_BUFFER = 4096


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


def slow_readers(sandbox_factory, readers):
    from bench_support import proc_status
    from harness import wait_for
    box = sandbox_factory()
    box.write("/www/big.html", os.urandom(BIG_PAGE_SIZE))
    daemon = box.start("-v", "2", "-t", "10", "-D", "/www/").wait_ready()
    time.sleep(SETTLE_SECONDS)
    idle = proc_status(daemon.pid, "VmRSS")
    served = "str_url=[/www//big.html]"
    clients = [slow_reader(daemon.port, WEB + "/big.html") for _ in range(readers)]
    answered = wait_for(lambda: daemon.stderr_text().count(served) >= readers, 10)
    busy = proc_status(daemon.pid, "VmRSS")
    for client in clients:
        client.close()
    daemon.stop()
    note = "" if answered else " (not all answered in time)"
    print(f"{readers} slow readers of a 4 MiB page: idle {idle / 1024:.1f} MiB, "
          f"with them {busy / 1024:.1f} MiB, growth {(busy - idle) / 1024:.1f} MiB{note}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tries", type=int, default=20000)
    parser.add_argument("--readers", type=int, default=64)
    args = parse_args(parser, "sandbox-web-bench")
    with Sandboxes("web-bench") as sandboxes:
        slow_readers(sandboxes.new, args.readers)
        swap_race(sandboxes.new, args.tries)


if __name__ == "__main__":
    main()
