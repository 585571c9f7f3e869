# SPDX-License-Identifier: Apache-2.0
"""The agents of each run mode, and the periodic work, under a clock that the test moves."""
import os

import pytest

from lab.device import read_text, wait_until
from lab.platform import DEVICE_ID, Answer

ENROLLED = {"active_state": "true", "device_key": "key-of-the-device"}
READ, CHANGE = f"GET /v1/devices/{DEVICE_ID}", f"PUT /v1/devices/{DEVICE_ID}"
UPGRADES = "GET /v1/res/upgrade/apps/*"
TICK, SILENCE = 30, 360   # seconds between two runs of the periodic work; patience with an agent
SWITCHES = 4              # of the control thread, in which at least one idle pass has begun
REFUSED = Answer({"code": 500})


def idle_pass(device):
    """Returns when the control thread, idle before, has done its periodic work at least once. It
    sleeps twice in an idle pass, and an answer comes only between two passes."""
    tasks = f"/proc/{device.pid()}/task"
    control = sorted(map(int, os.listdir(tasks)))[1]

    def switches():
        return int(read_text(f"{tasks}/{control}/status").split("\nvoluntary_ctxt_switches:")[1].split()[0])
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


def versions(platform):
    return platform.requests(lambda one: "versions" in one.query)


# mode as set and as told; arguments of cloudae; is cloudsafety started, the cloud asked, upgrades
@pytest.mark.parametrize("mode, told, cloudae, cloudsafety, cloud, upgrades", [
    ("on1", "on1", [[]], False, True, True), ("ums", "ums", [["--ums"]], False, False, False),
    ("", "off", [], True, True, True), ("ON", "off", [], True, True, True),
    ("disable it", "disable it", [], True, False, False)])
def test_modes_at_start(platform, device, mode, told, cloudae, cloudsafety, cloud, upgrades):
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED | {"cloudserver": mode})
    child = device.start()
    assert device.get(80000)["id80000"] == told
    if upgrades:
        platform.wait_request(UPGRADES)
    (device.cloudsafety if cloudsafety else device.cloudae).wait_started()
    idle_pass(device)
    assert calls(device.cloudae) == cloudae and calls(device.cloudsafety) == [[]] * cloudsafety
    assert bool(platform.requests(READ)) == bool(versions(platform)) == cloud
    assert bool(platform.requests(UPGRADES)) == upgrades
    assert len(os.listdir(f"/proc/{child.pid}/task")) == 2 + upgrades
    assert ("cloud service is disabled, enter disabled mode" in device.errors()) == told.startswith("disable")


@pytest.mark.parametrize("mode, watched, arguments", [
    ("on", "cloudae", []), ("ums", "cloudae", ["--ums"]), ("off", "cloudsafety", []),
    ("disable", "cloudsafety", [])])
def test_silent_agent_is_restarted(device, mode, watched, arguments):
    """Only the agent of the mode, only after the time is up, and on every tick until it speaks."""
    device.reset(settings={"cloudserver": mode})
    for agent in (device.cloudae, device.cloudsafety):
        agent.behave(keepalive=0)
    agent = getattr(device, watched)
    device.start(faketime=True)
    agent.wait_started()
    idle_pass(device)
    later(device, SILENCE - 20)
    assert len(agent.starts()) == 1
    for count, seconds in ((2, SILENCE + 15), (3, SILENCE + 50)):
        later(device, seconds)
        agent.wait_started(count)
    assert calls(agent) == [arguments] * 3 and agent.pid() == agent.starts()[-1]["pid"]
    agent.behave(keepalive=0.2)
    device.wait_log(f"got keep{watched}")
    agent.behave(keepalive=0)
    later(device, SILENCE + 50 + SILENCE - 40)
    assert len(calls(device.cloudae) + calls(device.cloudsafety)) == 3


@pytest.mark.parametrize("mode, watched, orders", [
    ("on", "cloudae", {"version": "1.0.24"}), ("off", "cloudsafety", {"enable": False})])
def test_agent_that_never_speaks_is_left_alone(device, mode, watched, orders):
    device.reset(settings={"cloudserver": mode})
    agent = getattr(device, watched)
    agent.behave(keepalive=0, **orders)
    device.start(faketime=True)
    agent.wait_started()
    idle_pass(device)
    later(device, 2 * SILENCE)
    assert len(agent.starts()) == 1


@pytest.fixture
def start_ticking(platform, device):
    """Starts a registered device without agents, under a clock that can be moved."""
    def start():
        platform.cloud.device.active = True
        device.reset(settings=ENROLLED | {"cloudserver": "on"}, agents=())
        device.start(faketime=True)
        idle_pass(device)
        return device
    return start


def ticks_2_to_20(platform, device):
    """Lets 19 ticks pass; the platform recovers before the tenth of all."""
    for tick in range(2, 21):
        if tick == 10:
            platform.api.reset()
        later(device, tick * (TICK + 1))
        yield tick


def test_activation_is_retried_on_its_ticks(platform, start_ticking):
    """On ticks 1 to 6 and every tenth. Nothing else reaches the cloud until it succeeds; the
    versions are due again ten ticks later."""
    platform.api.answer(READ, REFUSED)
    device = start_ticking()
    counts = [(len(platform.requests(READ)), len(versions(platform))) for _ in ticks_2_to_20(platform, device)]
    reads = [3, 4, 5, 6, 7, 7, 7, 7] + [8] * 11  # after one at the start and one on tick 1
    assert counts == list(zip(reads, [0] * 18 + [1]))
    assert len(platform.requests("POST */metrics")) == 1 and platform.requests(UPGRADES)


def test_version_report_is_repeated_until_it_succeeds(platform, start_ticking):
    platform.api.answer(CHANGE, lambda request: REFUSED if "versions" in request.query else None)
    device = start_ticking()
    counts = [len(versions(platform)) for _ in ticks_2_to_20(platform, device)]
    assert counts == [1] * 8 + [2] * 11
    assert "pluginmgr:" in platform.cloud.device.reported["versions"]


def test_when_the_periodic_work_is_due(platform, start_ticking):
    """After 30 seconds, and at once when the clock goes back; never between requests."""
    platform.api.answer(READ, REFUSED)
    device = start_ticking()
    for clock, runs in ((0, False), (20, False), (40, True), (60, False), (35, True), (-90000, True),
                        (-89980, False)):
        before = len(platform.requests(READ))
        later(device, clock)
        assert len(platform.requests(READ)) - before == runs, clock
    device.shift_time(10 * TICK)
    for _ in range(200):
        device.plugins()
    assert len(platform.requests(READ)) == before
    idle_pass(device)
    assert len(platform.requests(READ)) == before + 1
