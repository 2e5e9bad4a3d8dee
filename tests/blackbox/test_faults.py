"""A bad day for the registry file: a symbolic link or a FIFO planted at its path, and SIGKILL in
the middle of registration churn. (A full disk is simulated in the unit tests.)"""
import http.client
import os
import random
import threading
import time

import pytest

from harness import OK, REGISTRY_FILE, SVCMGR, deadline, register, wait_for

SEED = [f"s{index:03d},127.2.0.{index},{index}" for index in range(100)]


@pytest.mark.parametrize("plant, error", [(lambda path: os.symlink("/tmp/target", path), 40),
                                          (lambda path: os.mkfifo(path), 6)])
def test_symlink_or_fifo_at_the_registry_path_is_left_alone(sandbox, plant, error):
    os.makedirs(sandbox.path("/tmp"))
    plant(sandbox.path(REGISTRY_FILE))
    daemon = sandbox.start("-v", "1")
    assert f"{REGISTRY_FILE} does not exist." in daemon.stderr_text()
    assert register(daemon, "svcA") == OK
    assert daemon.stop() == 0
    assert not sandbox.exists("/tmp/target") and os.path.lexists(sandbox.path(REGISTRY_FILE))
    assert f"fopen({REGISTRY_FILE}) error({error})." in sandbox.debug_log()


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
        daemon = sandbox.start("-t", "4")
        clients = [threading.Thread(target=churn, args=(daemon, c)) for c in range(4)]
        for thread in clients:
            thread.start()
        assert wait_for(lambda: b"\nk" in (sandbox.read(REGISTRY_FILE) or b""), 10)
        time.sleep(random.uniform(0, 0.2))
        daemon.kill()
        for thread in clients:
            thread.join(deadline(10))
        assert set(SEED) <= set(sandbox.read(REGISTRY_FILE).decode().split("\n"))
    restarted = sandbox.start()
    assert restarted.request("GET", SVCMGR + "?method=get_info&name=s042").body == (
        b'{ "return": 0, "name": "s042", "ip": "127.2.0.42", "port": 42 }')
