# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the system tests. They run inside a sandbox:

    python3 lab/sandbox.py --out DIR -- /usr/bin/python3 -m pytest tests/system/test_boot.py"""
import os
import re

import pytest

if not os.path.isdir("/lab-src"):
    pytest.exit("the system tests run inside the lab: " + __doc__, 2)

from lab.device import Device
from lab.platform import Platform


def pytest_addoption(parser):
    parser.addoption("--skip-unavailable", action="store_true", help="skip what the kernel does not allow")


def pytest_configure(config):
    config.addinivalue_line("markers", "takes(is_possible, what): not every kernel allows it")


def pytest_runtest_setup(item):
    for mark in item.iter_markers("takes"):
        is_possible, what = mark.args
        if not is_possible():
            end = pytest.skip if item.config.getoption("--skip-unavailable") else pytest.fail
            end(f"the kernel does not allow {what}; ./dev test --skip-unavailable skips this")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "call":
        item.failed = outcome.get_result().failed


@pytest.fixture(scope="session")
def _platform():
    return Platform()


@pytest.fixture
def platform(_platform):
    """The cloud platform, without history."""
    _platform.reset()
    return _platform


@pytest.fixture
def device(platform, request):
    """A device out of the box, its daemon not yet started; call reset() for another one. Nothing
    of it is left after the test; of a failed test the logs and the platform's journal go to
    /lab-out/TEST."""
    one = Device()
    one.reset()
    yield one
    if getattr(request.node, "failed", False):
        folder = "/lab-out/" + re.sub(r"[^\w.-]+", "_", request.node.name)
        one.save(folder)
        with open(folder + "/requests.txt", "w", encoding="latin-1") as file:
            file.write(platform.journal_text())
    one.kill_all()
    assert not one.log_lines("no way from"), "nothing asks for a change of status that cannot be"


@pytest.fixture
def enrolled(platform, device):
    """A device that is registered already and has no agents, so it starts within seconds."""
    device.reset_enrolled(platform)
    return device


@pytest.fixture
def running(platform, device):
    """Such a device in mode "on", started and quiet again."""
    return device.start_enrolled(platform)
