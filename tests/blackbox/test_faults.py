"""A bad day for the registry file: a symbolic link planted at its path, a
full file system, and SIGKILL in the middle of registration churn."""
import http.client
import os
import random
import subprocess
import threading
import time

from harness import OK, REGISTRY_FILE, SVCMGR, deadline, device_path_of, register, wait_for

SEED = [f"s{index:03d},10.2.0.{index},{index}" for index in range(100)]


def test_symlink_at_the_registry_path_is_left_alone(sandbox):
    os.makedirs(sandbox.path("/tmp"))
    os.symlink("/tmp/target", sandbox.path(REGISTRY_FILE))
    daemon = sandbox.start().wait_ready()
    assert register(daemon, "svcA") == OK
    assert daemon.request("GET", SVCMGR + "?method=get_info&name=svcA").body.startswith(
        b'{ "return": 0')
    assert daemon.stop() == 0
    assert os.readlink(sandbox.path(REGISTRY_FILE)) == "/tmp/target"
    assert not sandbox.exists("/tmp/target")
    assert f"fopen({REGISTRY_FILE}) error(40)." in sandbox.debug_log()


def test_full_disk_keeps_the_old_file_whole(sandbox):
    daemon = sandbox.start().wait_ready()
    subprocess.run(["nsenter", "-t", str(daemon.pid), "-m", "-r", "mount", "-t", "tmpfs",
                    "-o", "size=64k", "small", "/tmp"], check=True)
    assert register(daemon, "first") == OK
    registry = device_path_of(daemon, REGISTRY_FILE)
    filler = device_path_of(daemon, "/tmp/filler")
    try:
        with open(filler, "wb") as fill:
            while fill.write(b"x" * 1024):
                fill.flush()
    except OSError:
        pass
    names = [f"{'n' * 28}{index:03d}" for index in range(100)]
    for count, name in enumerate(names):
        assert register(daemon, name, count) == OK
        if "old content kept." in sandbox.debug_log():
            break
    with open(registry, "rb") as src:
        kept = src.read()
    assert kept.endswith(b"\n") and len(kept.splitlines()) == count + 1
    assert register(daemon, "another") == OK
    with open(registry, "rb") as src:
        assert src.read() == kept
    os.unlink(filler)
    assert register(daemon, "last") == OK
    with open(registry, "rb") as src:
        assert len(src.read().splitlines()) == count + 4
    assert daemon.stop() == 0


def churn(daemon, client, stop):
    """Registers fresh names, unregisters every other one, until stopped."""
    for round_no in range(100000):
        name = f"k{client}-{round_no}"
        try:
            register(daemon, name, round_no)
            if round_no % 2:
                daemon.request("DELETE", f"{SVCMGR}?method=unregister&name={name}")
        except (OSError, http.client.HTTPException):
            return
        if stop.is_set():
            return


def test_killed_during_churn_keeps_every_seeded_service(sandbox):
    for _ in range(4):
        sandbox.write(REGISTRY_FILE, "".join(line + "\n" for line in SEED))
        daemon = sandbox.start("-t", "4").wait_ready()
        stop = threading.Event()
        clients = [threading.Thread(target=churn, args=(daemon, c, stop)) for c in range(4)]
        for thread in clients:
            thread.start()
        assert wait_for(lambda: b"\nk" in (sandbox.read(REGISTRY_FILE) or b""), 10)
        time.sleep(random.uniform(0, 0.2))
        daemon.proc.kill()
        daemon.proc.wait()
        stop.set()
        for thread in clients:
            thread.join(deadline(10))
        lines = sandbox.read(REGISTRY_FILE).decode().split("\n")
        assert set(SEED) <= set(lines)
    restarted = sandbox.start().wait_ready()
    assert restarted.request("GET", SVCMGR + "?method=get_info&name=s042").body == (
        b'{ "return": 0, "name": "s042", "ip": "10.2.0.42", "port": 42 }')
    assert restarted.stop() == 0
