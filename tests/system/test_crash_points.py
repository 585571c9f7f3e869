# SPDX-License-Identifier: Apache-2.0
"""The short form of lab/torture/crash.py: the daemon dies right before each side-effecting call
of a settings change and of a log rotation, and at a choice of those of an upgrade; a choice of
calls fails as well."""
import platform as machine

import pytest

from lab.torture.crash import torture

pytestmark = pytest.mark.skipif(machine.machine() != "x86_64", reason="the tracer knows x86-64")
VERSION_LIST = "/var/config/cloud/cloud_plugin_version.json.new"


def wrong(results):
    return [(one["call"], one["target"], one["action"], one["wrong"]) for one in results if one["wrong"]]


@pytest.mark.parametrize("scenario", ["settings", "settings-shorter", "settings-new", "rotation"])
def test_every_point(platform, device, scenario):
    results = torture(scenario, device, platform, errors=1)
    assert len(results) > 10 and not wrong(results)


def test_points_of_the_version_list(platform, device):
    results = torture("upgrade", device, platform, modes=("kill",),
                      only=lambda point: point["target"] == VERSION_LIST)
    assert len(results) == 4 and not wrong(results)


def test_a_choice_of_download_and_install(platform, device):
    results = torture("upgrade", device, platform, errors=1, every=40)
    assert len(results) >= 3 and not wrong(results)
