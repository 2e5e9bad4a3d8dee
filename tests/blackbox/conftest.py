"""Fixtures of the black-box tests: a sandbox per test, or per module."""
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
