"""pytest fixtures shared by the black-box tests."""
import pytest

from harness import Sandbox


@pytest.fixture
def sandbox(request):
    """A fresh scratch device root; removed after a passing test, kept after a
    failing one (its path is in the test's output) for a look."""
    box = Sandbox(request.node.name)
    yield box
    failed = getattr(request.node, "rep_call", None)
    if failed is not None and failed.failed:
        for daemon in box.daemons:
            daemon.kill()
        print(f"sandbox kept at {box.root}")
    else:
        box.cleanup()


@pytest.fixture
def daemon(sandbox):
    """A ready daemon on a free port at verbose level 2."""
    return sandbox.start("-v", "2").wait_ready()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    setattr(item, "rep_" + report.when, report)
