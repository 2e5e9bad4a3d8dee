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
    assert daemon.stop() == 0
    assert os.readlink(sandbox.path(REGISTRY_FILE)) == "/tmp/target"
    assert not sandbox.exists("/tmp/target")
    assert f"fopen({REGISTRY_FILE}) error(40)." in sandbox.debug_log()


def test_full_disk_keeps_the_old_file_whole(sandbox):
    daemon = sandbox.start().wait_ready()
    subprocess.run(["nsenter", "-t", str(daemon.pid), "-m", "-r", "mount", "-t", "tmpfs",
                    "-o", "size=64k", "small", "/tmp"], check=True)
    assert register(daemon, "first") == OK
    registry = open(device_path_of(daemon, REGISTRY_FILE), "rb")
    filler = device_path_of(daemon, "/tmp/filler")
    subprocess.run(["dd", "if=/dev/zero", f"of={filler}", "bs=1k"], capture_output=True)
    for count in range(100):
        assert register(daemon, f"{'n' * 28}{count:03d}", count) == OK
        if "old content kept." in sandbox.debug_log():
            break
    kept = registry.read()
    assert kept.endswith(b"\n") and len(kept.splitlines()) == count + 1
    assert register(daemon, "another") == OK
    assert os.pread(registry.fileno(), 65536, 0) == kept
    os.unlink(filler)
    assert register(daemon, "last") == OK
    assert len(os.pread(registry.fileno(), 65536, 0).splitlines()) == count + 4
    registry.close()
    assert daemon.stop() == 0


def churn(daemon, client):
    """Registers fresh names, unregisters every other one, until the daemon is gone."""
    for round_no in range(100000):
        name = f"k{client}-{round_no}"
        try:
            register(daemon, name, round_no)
            if round_no % 2:
                daemon.request("DELETE", f"{SVCMGR}?method=unregister&name={name}")
        except (OSError, http.client.HTTPException):
            return


def test_killed_during_churn_keeps_every_seeded_service(sandbox):
    for _ in range(4):
        sandbox.write(REGISTRY_FILE, "".join(line + "\n" for line in SEED))
        daemon = sandbox.start("-t", "4").wait_ready()
        clients = [threading.Thread(target=churn, args=(daemon, c)) for c in range(4)]
        for thread in clients:
            thread.start()
        assert wait_for(lambda: b"\nk" in (sandbox.read(REGISTRY_FILE) or b""), 10)
        time.sleep(random.uniform(0, 0.2))
        daemon.kill()
        for thread in clients:
            thread.join(deadline(10))
        assert set(SEED) <= set(sandbox.read(REGISTRY_FILE).decode().split("\n"))
    restarted = sandbox.start().wait_ready()
    assert restarted.request("GET", SVCMGR + "?method=get_info&name=s042").body == (
        b'{ "return": 0, "name": "s042", "ip": "10.2.0.42", "port": 42 }')
    assert restarted.stop() == 0
