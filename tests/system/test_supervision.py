# SPDX-License-Identifier: Apache-2.0
"""The agents of each run mode, and the periodic work, under a clock that the test moves."""

import pytest

from lab.device import AGENTS, read_text, wait_until
from lab.platform import DEVICE_ID, Answer

READ = "GET /v1/devices/" + DEVICE_ID
UPGRADES = "GET /v1/res/upgrade/apps/*"
TICK, SILENCE, YEAR = 30, 360, 31536000   # seconds between two runs of the periodic work; patience with an agent
SWITCHES = 4              # of the control thread, in which at least one idle pass has begun


def idle_pass(device):
    """Returns when the control thread, idle before, has done its periodic work at least once. It
    sleeps twice in an idle pass, and an answer comes only between two passes."""
    control = f"/proc/{device.pid()}/task/{device.threads()[1]}/status"

    def switches():
        return int(read_text(control).split("\nvoluntary_ctxt_switches:")[1].split()[0])
    device.plugins()
    before = switches()
    wait_until(lambda: switches() >= before + SWITCHES, 20, "an idle pass", 0.02)
    device.plugins()


def later(device, seconds):
    """Sets the clock so far from the start and lets the daemon find out."""
    device.shift_time(seconds)
    idle_pass(device)


def calls(agent):
    """The arguments of each start."""
    return [start["argv"][1:] for start in agent.starts()]


# mode as set and as told; arguments of cloudae; is cloudsafety started, the cloud asked, upgrades
@pytest.mark.parametrize("mode, told, cloudae, cloudsafety, cloud, upgrades", [
    ("on1", "on1", [[]], False, True, True), ("ums", "ums", [["--ums"]], False, False, False),
    ("", "off", [], True, True, True), ("ON", "off", [], True, True, True),
    ("disable it", "disable it", [], True, False, False)])
def test_modes_at_start(platform, device, mode, told, cloudae, cloudsafety, cloud, upgrades):
    device.reset_enrolled(platform, {"cloudserver": mode}, AGENTS)
    device.start()
    assert device.get(80000)["id80000"] == told
    if upgrades:
        platform.wait_request(UPGRADES)
    (device.cloudsafety if cloudsafety else device.cloudae).wait_started()
    idle_pass(device)
    assert calls(device.cloudae) == cloudae and calls(device.cloudsafety) == [[]] * cloudsafety
    reports = platform.requests(lambda one: "versions" in one.query)
    assert bool(platform.requests(READ)) == bool(reports) == cloud
    assert bool(platform.requests(UPGRADES)) == upgrades
    assert len(device.threads()) == 2 + upgrades
    assert ("cloud service is disabled, enter disabled mode" in device.errors()) == told.startswith("disable")


# mode, its agent, the arguments that it is started with; what else it is told when it never speaks
@pytest.mark.parametrize("mode, watched, arguments, mute", [
    ("on", "cloudae", [], None), ("ums", "cloudae", ["--ums"], None), ("off", "cloudsafety", [], None),
    ("disable", "cloudsafety", [], None), ("on", "cloudae", [], {"version": "1.0.24"}),
    ("off", "cloudsafety", [], {"enable": False})])
def test_silent_agent_is_restarted(device, mode, watched, arguments, mute):
    """Only the agent of the mode, only after the time is up, and on every tick until it speaks; one
    that never speaks is left alone."""
    device.reset(settings={"cloudserver": mode})
    for agent in (device.cloudae, device.cloudsafety):
        agent.behave(keepalive=0)
    agent = getattr(device, watched)
    agent.behave(**mute or {})
    device.start(faketime=True)
    agent.wait_started()
    idle_pass(device)
    later(device, SILENCE * 2 if mute else SILENCE - 20)
    assert len(agent.starts()) == 1
    if mute:
        return
    for count, seconds in ((2, SILENCE + 15), (3, SILENCE + 50)):
        later(device, seconds)
        agent.wait_started(count)
    assert calls(agent) == [arguments] * 3 and agent.pid() == agent.starts()[-1]["pid"]
    agent.behave(keepalive=0.2)
    device.wait_log(f"got keep{watched}")
    agent.behave(keepalive=0)
    later(device, SILENCE + 50 + SILENCE - 40)
    assert len(calls(device.cloudae) + calls(device.cloudsafety)) == 3
    later(device, -YEAR)  # from then on its silence counts anew
    later(device, -YEAR + SILENCE + 15)
    agent.wait_started(4)


def test_when_the_periodic_work_is_due(platform, enrolled):
    """After 30 seconds, and at once when the clock goes back; never between requests."""
    platform.api.answer(READ, Answer({"code": 500}))
    enrolled.start(faketime=True)
    idle_pass(enrolled)
    for clock, runs in ((0, False), (20, False), (40, True), (60, False), (35, True), (-90000, True),
                        (-89980, False)):
        before = len(platform.requests(READ))
        later(enrolled, clock)
        assert len(platform.requests(READ)) - before == runs, clock
    enrolled.shift_time(10 * TICK)
    for _ in range(200):
        enrolled.plugins()
    assert len(platform.requests(READ)) == before
    idle_pass(enrolled)
    assert len(platform.requests(READ)) == before + 1
