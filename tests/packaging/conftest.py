"""Fixtures: a system that boots, and the service in it."""

import signal

import pytest

from machine import Machine, refusal
from service import Service


def _end_like_an_interrupt(*_):
    raise KeyboardInterrupt


# So that what a scenario has made is removed in this case too.
signal.signal(signal.SIGTERM, _end_like_an_interrupt)


def pytest_report_header():
    reason = refusal()
    return f"no system can boot here ({reason}): the unit for systemd is verified, but not run" if reason else None


@pytest.fixture(scope="session")
def machine():
    """A running system on which the agent is installed as docs/SERVICE.md says."""
    if refusal():
        pytest.skip("no system can boot here")
    system = Machine()
    try:
        system.boot()
        Service.install(system)
        yield system
    finally:
        system.close()


@pytest.fixture
def service(machine):
    """The service with the application of these tests, not running yet."""
    unit = Service(machine, "kx_agent")
    unit.use_probe()
    yield unit
    unit.forget_probe()


@pytest.fixture(scope="session")
def dying(machine):
    """A second service, whose application dies whenever it starts; begun early because it takes two minutes to fail."""
    unit = Service.copy(machine, "dying")
    unit.start()
    return unit


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Shows with a failure what the system says about the service."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for unit in (item.funcargs.get(name) for name in ("service", "dying")):
            if unit:
                report.sections.append((f"{unit.name} as the system sees it", unit.evidence()))
