"""Fixtures: a throw-away installation per scenario, under a name of its own."""

import itertools
import os
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from agentbox import Installation, sanitizer_options

# A suite that a shell runs in the background starts with these ignored, and so would every agent.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGQUIT, signal.SIG_DFL)

SUPPORT = Path(__file__).resolve().parents[1] / "support"

_numbers = itertools.count(1)


def _new_name():
    return f"app{os.getpid()}_{next(_numbers)}"


@pytest.fixture
def installation(tmp_path):
    """An installation whose application name no other scenario uses, in this run or in one beside it."""
    box = Installation(tmp_path, _new_name())
    yield box
    box.close()


@pytest.fixture
def install():
    """Makes installations at places of the scenario's choice: `install(folder)`."""
    boxes = []

    def make(folder):
        boxes.append(Installation(folder, _new_name()))
        return boxes[-1]

    yield make
    for box in boxes:
        box.close()


@pytest.fixture
def public_installation():
    """An installation that every user may read, but only root may change; `home` in it belongs to nobody."""
    root = tempfile.mkdtemp(prefix="kx_agent_test")
    os.chmod(root, 0o755)
    box = Installation(root, _new_name())
    box.home = box.root / "home"
    box.home.mkdir()
    os.chown(box.home, 65534, 65534)
    yield box
    box.close()
    shutil.rmtree(root)


@pytest.fixture
def open_installation():
    """An installation that every user may read, write and run; see `agentbox.UNPRIVILEGED`."""
    root = tempfile.mkdtemp(prefix="agent_blackbox_")
    os.chmod(root, 0o777)
    box = Installation(root, f"app{os.getpid()}_{next(_numbers)}")
    box.work.mkdir()
    os.chmod(box.work, 0o777)
    yield box
    box.close()
    shutil.rmtree(root)


def _preloading(folder, source):
    """Makes environments in which the library of this source is preloaded into the agent, with settings for it."""
    library = folder / f"{source}.so"
    compiler = "c++" if source.endswith(".cpp") else "cc"
    subprocess.run([compiler, "-shared", "-fPIC", "-o", library, SUPPORT / source, "-ldl"], check=True)

    def environment(*more_sanitizer_options, **settings):
        changes = {"LD_PRELOAD": str(library), **{name: str(value) for name, value in settings.items()}}
        return sanitizer_options("verify_asan_link_order=0", *more_sanitizer_options) | changes

    return environment


@pytest.fixture(scope="session")
def preloaded(tmp_path_factory):
    """Environments in which the agent's system calls do as they are told: `preloaded(TEST_FORK=1)`."""
    return _preloading(tmp_path_factory.mktemp("preloaded"), "preloaded_calls.c")


@pytest.fixture(scope="session")
def disturbed(tmp_path_factory):
    """Environments in which one of the agent's calls that change files goes wrong: `disturbed(TEST_CHANGE=1)`."""
    return _preloading(tmp_path_factory.mktemp("disturbed"), "changing_calls.c")


@pytest.fixture(scope="session")
def throwing(tmp_path_factory):
    """Environments in which the agent's wait for a child throws: `throwing(TEST_THROW="int")`."""
    return _preloading(tmp_path_factory.mktemp("throwing"), "throwing_waitpid.cpp")


def _printable(value):
    if isinstance(value, str):
        return value.encode("utf-8", "backslashreplace").decode("utf-8")
    if isinstance(value, dict):
        return {key: _printable(each) for key, each in value.items()}
    if isinstance(value, (list, tuple)):
        return type(value)(_printable(each) for each in value)
    return value


def pytest_collection_modifyitems(items):
    """Slow scenarios come first, so that a parallel run does not end with one worker waiting for another."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.hookimpl(hookwrapper=True)
def pytest_report_to_serializable():
    """Lets a parallel run report a failure that shows bytes which are no text."""
    outcome = yield
    outcome.force_result(_printable(outcome.get_result()))
