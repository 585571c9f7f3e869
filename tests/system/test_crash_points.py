# SPDX-License-Identifier: Apache-2.0
"""The short form of lab/torture/crash.py: the daemon dies right before each side-effecting call of a
settings change and of a log rotation, and each of them fails once; of an upgrade a choice of runs."""
import platform as machine

import pytest

from lab.torture.crash import torture
from lab.torture.tracer import is_possible

pytestmark = [pytest.mark.skipif(machine.machine() != "x86_64", reason="the tracer knows x86-64"),
              pytest.mark.takes(is_possible, "tracing a program")]
VERSION_LIST = "/var/config/cloud/cloud_plugin_version.json.new"


def wrong(results):
    return [(one["call"], one["target"], one["action"], one["wrong"]) for one in results if one["wrong"]]


@pytest.mark.parametrize("scenario", ["settings", "settings-shorter", "settings-new", "rotation"])
def test_every_point(platform, device, scenario):
    results = torture(scenario, device, platform, errors=1)
    assert len(results) > 20 and not wrong(results)


def test_a_choice_of_an_upgrade(platform, device):
    """Two kills while the version list is written, and what comes of every 50th run."""
    def choose(at, point, action):
        halfway = point["call"] in ("write", "rename") and point["target"] == VERSION_LIST
        return at % 50 == 25 or (halfway and action == "kill")
    results = torture("upgrade", device, platform, choose, errors=1)
    assert len(results) >= 5 and not wrong(results)
