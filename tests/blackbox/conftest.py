"""Fixtures of the black-box tests: a sandbox per test, or per module. The tests run only in a
network namespace with loopback alone (tests/sandbox/loopback_only.sh, as ctest runs them): a
registered address outside loopback is then unreachable, never sent to."""
import socket

import pytest

from harness import Sandbox


@pytest.fixture
def sandbox(request):
    box = Sandbox(request.node.name)
    yield box
    box.cleanup()


@pytest.fixture(scope="module")
def module_sandbox(request):
    box = Sandbox(request.module.__name__)
    yield box
    box.cleanup()


def pytest_sessionstart(session):
    interfaces = [name for _, name in socket.if_nameindex()]
    if interfaces != ["lo"]:
        pytest.exit(f"network interfaces {interfaces}: run the black-box tests through "
                    "tests/sandbox/loopback_only.sh (ctest does)", returncode=3)
