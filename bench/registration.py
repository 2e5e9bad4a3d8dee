#!/usr/bin/env python3
"""Registration cost of two builds of manager_svc, interleaved.

Time per registration (each one an update, so each one rewrites the
registry file) with 10, 100 and 1000 services registered, for the build
under test and for an anchor build (for example main's commit built in a
directory of its own), taken in turn round by round so that both see the
same machine. Prints the medians and their ratio, for the wall-clock time
and for the daemon's own CPU time (utime + stime, which a loaded machine
disturbs less); asserts nothing.

usage: bench/registration.py --anchor DIR [--build DIR] [--seconds S] [--rounds N]
Needs wrk, and root for the sandbox.
"""
import argparse
import os
import statistics
import sys
import tempfile

from bench import REGISTER_SCRIPT, register_many, wrk
from bench_support import parse_args

SIZES = (10, 100, 1000)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def cost_us(harness, binary, size, args, script):
    """Wall-clock and daemon CPU microseconds per registration, of one fresh
    daemon of `binary`."""
    harness.BIN = binary
    box = harness.Sandbox("registration")
    try:
        daemon = box.start("-t", str(args.threads)).wait_ready()
        register_many(daemon, size)
        cpu_before = cpu_seconds(daemon.pid)
        rps = wrk(daemon.port, "/managerService/svcmgr", 1, args.seconds, script)
        cpu = cpu_seconds(daemon.pid) - cpu_before
        daemon.stop()
        return 1e6 / rps, cpu * 1e6 / (rps * args.seconds)
    finally:
        box.cleanup()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--anchor", required=True, help="build directory to compare with")
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--threads", type=int, default=10)
    args = parse_args(parser)
    import harness

    builds = {"build": args.build, "anchor": args.anchor}
    costs = {(name, size): [] for name in builds for size in SIZES}
    with tempfile.NamedTemporaryFile("w", suffix=".lua", delete=False) as script:
        script.write(REGISTER_SCRIPT)
    try:
        for _ in range(args.rounds):
            for size in SIZES:
                for name, build in builds.items():
                    binary = os.path.join(build, "manager_svc")
                    costs[(name, size)].append(cost_us(harness, binary, size, args, script.name))
    finally:
        os.unlink(script.name)
    for size in SIZES:
        for index, what in enumerate(("wall", "cpu")):
            ours = statistics.median(cost[index] for cost in costs[("build", size)])
            theirs = statistics.median(cost[index] for cost in costs[("anchor", size)])
            print(f"registration with {size:5} services, {what:4}: build {ours:8.1f} us   "
                  f"anchor {theirs:8.1f} us   ratio {ours / theirs:.2f}")


if __name__ == "__main__":
    sys.exit(main())
