#!/usr/bin/env python3
"""The boot check's connection flood against the x86 device build.

Builds the device build for the host (static libraries of
scripts/device-deps.sh host) into build-device-host/, starts it in the test
sandbox, and runs the same flood as scripts/boot_check.py (4,000
connections holding 2 KiB, then 10 KiB partial heads, 20 s each, while a
fresh client asks every 0.25 s), with bench/conn_flood.c. Prints idle RSS,
the peak of each flood, RSS 30 s after, and the share of fresh requests
answered, against the same bounds (peak <= idle + 16 MiB, after <= idle +
2 MiB, answered >= 99 %). Prints figures; the bounds are reported, not
asserted (exit status 0 unless the daemon died).
"""
import os
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(REPO, "build-device-host")
os.environ["MANAGER_SVC_BIN"] = os.path.join(BUILD, "manager_svc")  # read by the harness
sys.path.insert(0, os.path.join(REPO, "scripts"))
sys.path.insert(0, os.path.join(REPO, "tests", "blackbox"))
from boot_check import (AFTER_BOUND_KIB, ANSWERED_BOUND, FLOOD_HEADS, PEAK_BOUND_KIB,  # noqa: E402
                        SETTLE_SECONDS, flood)
from harness import Sandbox  # noqa: E402


def build():
    deps = subprocess.run([os.path.join(REPO, "scripts", "device-deps.sh"), "host"], check=True,
                          stdout=subprocess.PIPE, text=True).stdout.split()[-1]
    subprocess.run(["cmake", "-S", REPO, "-B", BUILD, "-DMANAGER_SVC_DEVICE_BUILD=ON",
                    f"-DMANAGER_SVC_DEVICE_DEPS={deps}"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "-j2", "--target", "manager_svc"], check=True,
                    stdout=subprocess.DEVNULL)
    tool = os.path.join(BUILD, "conn_flood")
    subprocess.run(["cc", "-O2", "-Wall", "-o", tool, os.path.join(REPO, "bench", "conn_flood.c")],
                   check=True)
    return tool


def status_kib(pid, field):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith(field + ":"))


def main():
    tool = build()
    sandbox = Sandbox("device-flood")
    try:
        daemon = sandbox.start("-i", "127.0.0.1").wait_ready()
        idle = status_kib(daemon.pid, "VmRSS")
        print(f"idle RSS {idle} KiB, threads {status_kib(daemon.pid, 'Threads')}")
        for head in FLOOD_HEADS:
            with open(f"/proc/{daemon.pid}/clear_refs", "w") as refs:
                refs.write("5")
            answered, tries = flood(tool, daemon.port, head)
            peak = status_kib(daemon.pid, "VmHWM")
            print(f"{head}-byte heads: fresh client answered {answered} of {tries}, peak RSS "
                  f"{peak} KiB (idle + {peak - idle}, bound {PEAK_BOUND_KIB}); answered "
                  f"{'>=' if answered >= ANSWERED_BOUND * tries else '<'} 99 %")
        time.sleep(SETTLE_SECONDS)
        after = status_kib(daemon.pid, "VmRSS")
        print(f"RSS {SETTLE_SECONDS} s after: {after} KiB (idle + {after - idle}, "
              f"bound {AFTER_BOUND_KIB})")
        return 0 if daemon.alive() and daemon.stop() == 0 else 1
    finally:
        sandbox.cleanup()


if __name__ == "__main__":
    sys.exit(main())
