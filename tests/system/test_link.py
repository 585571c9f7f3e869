# SPDX-License-Identifier: Apache-2.0
"""The short form of lab/torture/link.py: one device behind a lossy line with less delay."""
import pytest

from lab.link import is_possible
from lab.torture.link import once


@pytest.mark.takes(is_possible, "the pair of Ethernet devices that the line is made of")
def test_lossy_line(platform, device):
    figures = once(device, platform, seed=1, delay=0.2, conn_timeout=5)
    assert not figures["wrong"], figures
    assert figures["lost"] > 10 and figures["local"] > 10
