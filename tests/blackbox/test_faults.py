"""A bad day for the registry file: a symbolic link or a FIFO planted at its path. (A full disk,
and a crash at every step of a rewrite, are simulated in the unit tests.)"""
import os

import pytest

from harness import OK, REGISTRY_FILE, register


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

