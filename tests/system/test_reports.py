# SPDX-License-Identifier: Apache-2.0
"""Reports on their way to the cloud, the periodic work, and pushed update configurations."""
import os
import time

import pytest

from lab.deployment import ACCOUNTS_SERVER, API_SERVER
from lab.device import ENROLLED, INI, NOT_OFFERED, read_text, wait_until, write_text
from lab.platform import DEVICE_ID, basic, coded

DEVICE = "/v1/devices/" + DEVICE_ID
READ, CHANGE, ACTIVATE, BIND = (line.format(DEVICE) for line in (
    "GET {}", "PUT {}", "POST {}/actions/activate", "POST {}/actions/bind"))
UPGRADES = "GET /v1/res/upgrade/apps/*"
REPORT, RETRY = "method=gw.boa.report", " try resend boa_report:"
NOTHING = "method=gw.config.get&id=80001"  # not answered
TICK, PAUSE = 31, 0.7  # seconds: a little more than a tick, and enough for some idle passes
APP_REPORT = 0x2100
PUSHED, NOTICE = "/var/tmp/cloud_upgrade.ini", b"download cloud file success"


def changes(platform, since=0):
    """What the device reported about itself, as it was sent."""
    return [one.target.partition("?")[2] for one in platform.requests(CHANGE, since)]


def test_report_of_the_web_server_goes_on_as_it_is(platform, device):
    device.start_enrolled(platform)
    before = platform.mark()
    long = REPORT + "&z=" + "z" * 200
    for text in (REPORT + "&x=1&y=a%20b", "x=0&" + REPORT, long):
        assert device.replies(text) == []
    assert changes(platform, before) == [REPORT + "&x=1&y=a%20b", REPORT, long]
    assert {one.headers["authorization"] for one in platform.requests(CHANGE, before)} == {
        basic("key-of-the-device:x-auth-device")}
    device.reset(settings=ENROLLED | {"cloudserver": "ums"}, agents=())
    device.start(faketime=True)
    before = platform.mark()
    assert device.replies(REPORT + "&x=1") == [], 'not in mode "ums"'
    device.shift_time(TICK)
    time.sleep(PAUSE)
    assert not platform.requests(since=before) and not device.log_lines(RETRY)


def test_report_outlives_an_outage(platform, device):
    """It is repeated on each tick, without a limit; a newer one takes its place, also by success."""
    device.start_enrolled(platform)
    before = platform.mark()
    platform.api.fail("refuse")
    platform.api.drop()
    for number in (1, 2):
        assert device.replies(f"{REPORT}&x={number}") == []
    for tick in range(1, 8):
        device.shift_time(tick * TICK)
        assert device.wait_log(RETRY, count=tick).endswith(f"{RETRY}{REPORT}&x=2")
        assert device.replies(NOTHING) == []  # the tick is over
    assert not platform.requests(since=before)
    platform.api.heal()
    device.shift_time(8 * TICK)
    platform.wait_request(CHANGE, since=before)
    platform.api.answer(CHANGE, coded(500), times=2)
    assert device.replies(f"{REPORT}&x=3") == []
    device.shift_time(9 * TICK)
    device.wait_log(RETRY + REPORT + "&x=3")
    assert device.replies(f"{REPORT}&x=4") == []
    device.shift_time(10 * TICK)
    time.sleep(PAUSE)
    assert changes(platform, before) == [f"{REPORT}&x={number}" for number in (2, 3, 3, 4)]


def test_app_report_of_the_agent(platform, device):
    """Not answered, whole whatever its length, and not repeated."""
    device.start_enrolled(platform, agents=["cloudae"])
    device.cloudae.wait_started()
    platform.api.answer(CHANGE, lambda one: coded(500) if "lost" in one.target else None)
    before = platform.mark()
    for count, text in enumerate(("app=phone&state=a%20b", "z" * 236, "lost=1"), 1):
        device.cloudae.send(APP_REPORT, text)
        platform.wait_request(CHANGE, since=before, count=count)
    device.shift_time(TICK)
    time.sleep(PAUSE)
    assert changes(platform, before) == ["app=phone&state=a%20b", "z" * 236, "lost=1"]
    assert not device.cloudae.messages(APP_REPORT)


# request that fails, how often, and the ticks on which it is tried behind the first
RETRIES = {"activation": (READ, 9, [2, 3, 4, 5, 6, 10, 20, 30]),
           "version report": (CHANGE + "?versions=", 3, [10, 20, 30])}


@pytest.mark.parametrize("what", RETRIES)
def test_retries_keep_their_ticks(platform, enrolled, what):
    """A report that fails for good shows each tick. A clock set back brings one too."""
    tried, failures, expected = RETRIES[what]

    def tries(since=0):
        return platform.requests(lambda one: f"{one.method} {one.target}".startswith(tried), since)
    platform.api.answer("*", lambda one: coded(500) if tries()[-1:] == [one] else None, failures)
    platform.api.answer(CHANGE, lambda one: coded(501) if REPORT in one.target else None)
    enrolled.start(faketime=True)
    wait_until(lambda: len(tries()) == failures - len(expected) + 1, what="the first tick")
    assert enrolled.replies(REPORT) == []
    ticks = []
    for tick in range(2, 43):
        before = platform.mark()
        enrolled.shift_time(TICK * (tick - 1) if tick < 42 else 0)
        enrolled.wait_log(RETRY, count=tick - 1)
        assert enrolled.replies(NOTHING) == []  # the tick is over
        ticks += [tick] * len(tries(before))
    assert ticks == expected


# -- pushed update configuration ------------------------------------------------------------------


def push(device, text, notice=NOTICE):
    """The tooling's file and its notice; done when the next request has been handled."""
    write_text(PUSHED, text)
    assert device.datagram(notice) == [] == device.replies(NOTHING)


NEW = {"cloudserver": "off", "active_token": "token-of-the-owner", "conn_timeout": "5",
       "api_server": "api2.example", "accounts_server": "accounts2.example", "loglevel": "8", "checkcycle": "60"}
EVERY_KEY = ("[Config]\naccounts_server=accounts2.example\napi_server=api2.example\nconn_timeout=5\n"
             "loglevel=0\nactive_token=token-of-the-owner\ncloudserver=off\n[Update]\ncheckcycle=60\n")
LINES = ["Update Config off,api2.example,accounts2.example", " cloudae off since autoupd update",
         " active_token changed since autoupd update", " conn_timeout change to 5 since autoupd update",
         " checkcycle change to 60 since autoupd update", " api_server change to api2.example since autoupd update",
         " accounts_server change to accounts2.example since autoupd update"]


@pytest.mark.parametrize("notice", [NOTICE, NOTICE + b"fully, says the tool", None])
def test_every_pushed_key(platform, device, notice):
    """On the notice, of which 27 bytes count, or (None) at the next start. The bind still goes to the
    old server; then connections and addresses of the old ones are given up. The hosts of the PBX
    service and of the downloads play the new ones."""
    platform.dns.names |= {"api2.example": ["127.0.0.13"], "accounts2.example": ["127.0.0.14"]}
    platform.pbx.answer("*", platform.cloud.answer_api)
    device.start_enrolled(platform, agents=["cloudae"])
    device.cloudae.wait_started()
    assert device.set(id80004="x", id80002="true")["code"] == 31
    pid = device.pid()
    push(device, EVERY_KEY, NOTICE[:-1])
    assert os.path.exists(PUSHED) and device.setting("api_server") is None
    if notice:
        push(device, EVERY_KEY, notice)
        assert device.pid() == pid
        logged = [device.log().find(one + "\n") for one in LINES]
        assert logged == sorted(logged) and logged[0] > 0 and device.log().count("since autoupd update") == 6
    else:
        device.kill_all()
        device.start(faketime=True)
        wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, what="the check")
    assert not os.path.exists(PUSHED) and not device.cloudae.pid()
    assert {key: device.setting(key, "Update" if key == "checkcycle" else "Config") for key in NEW} == NEW
    assert platform.wait_request(BIND).headers["host"] == API_SERVER and platform.cloud.device.bound
    before = platform.mark()
    assert device.get(80002)["code"] == 0 and device.set(id80004="x", id80002="true")["code"] == 31
    assert [one["status"] for one in device.get(80025)] == [NOT_OFFERED] * 3
    assert {(one.host, one.headers["host"]) for one in platform.requests(since=before)} == {
        ("pbx", "api2.example"), ("dl", "accounts2.example")}
    assert platform.pbx.connections == 2, "one of either thread"
    before = platform.mark()  # a cycle of a minute, below what a start accepts
    device.shift_time(70)
    platform.wait_request(UPGRADES, since=before)


def test_pushed_values_that_do_not_apply(platform, device):
    """Equal, empty and senseless ones are neither written nor logged; the file goes all the same."""
    platform.cloud.device.bound = True
    device.start_enrolled(platform, {"active_token": "unknown"})
    before, settings, connections = platform.mark(), read_text(INI), platform.api.connections
    for text in (f"[Config]\ncloudserver=on\nactive_token=unknown\nconn_timeout=15\napi_server={API_SERVER}\n"
                 f"accounts_server={ACCOUNTS_SERVER}\n[Update]\ncheckcycle=43200\n",
                 "[Config]\ncloudserver=\nactive_token=\nconn_timeout=0\napi_server=\naccounts_server=\n"
                 "[Update]\ncheckcycle=-5\n",
                 "[Config]\nconn_timeout=soon\ncheckcycle=60\n[Update]\ncheckcycle=\ncloudserver=off\n",
                 "", "[Config", "no ini at all\n", "[Config]\n" + "x" * 600 + "\n"):
        push(device, text)
        assert read_text(INI) == settings and not os.path.exists(PUSHED), text
    assert device.datagram(NOTICE) == [] == device.replies(NOTHING)
    assert device.log_lines(f"Update Config file {PUSHED} not exist") and not device.log_lines("autoupd")
    assert device.get(80002)["code"] == 0 and platform.api.connections == connections
    assert [one.line for one in platform.requests(since=before)] == [READ]


def test_pushed_files_that_others_may_have_written(platform, running):
    """None is taken, waited for or removed, and each is an error line. test_hostile has the start."""
    settings, other = read_text(INI), "/var/tmp/other"
    text, lines = "[Config]\nconn_timeout=7\n", 0
    for why, make in (
            ("others may have written it", lambda: os.chmod(PUSHED, 0o666)),
            ("others may have written it", lambda: os.chmod(PUSHED, 0o620)),
            ("others may have written it", lambda: os.link(PUSHED, other)),
            ("it is no regular file", lambda: (os.rename(PUSHED, other), os.symlink(other, PUSHED))),
            ("it is no regular file", lambda: (os.unlink(PUSHED), os.mkfifo(PUSHED))),
            ("it is no regular file", lambda: (os.unlink(PUSHED), os.symlink("/dev/zero", PUSHED))),
            ("it is too long", lambda: os.truncate(PUSHED, 2 ** 40)),
            ("it is too long", lambda: os.truncate(PUSHED, 256 * 1024 + 1))):
        write_text(PUSHED, text)
        make()
        assert running.datagram(NOTICE) == [] == running.replies(NOTHING)
        lines += 1
        assert os.path.lexists(PUSHED) and read_text(INI) == settings, why
        wait_until(lambda: running.errors().count(f"{PUSHED} is not read: ") == lines, what="the error line")
        assert running.errors().splitlines()[-1].endswith(f"{PUSHED} is not read: {why}")
        os.unlink(PUSHED)
        os.path.lexists(other) and os.unlink(other)
    push(running, text + "#" * (256 * 1024 - len(text)))
    assert running.setting("conn_timeout") == "7" and not os.path.exists(PUSHED)


def test_pushed_token_activates_and_binds_whatever_is_missing(platform, device):
    """Also an unchanged one; not before a registration has succeeded, nor in mode "disable"."""
    device.start_enrolled(platform)
    for token, requests in (("unknown", [BIND]), ("unknown", [BIND]), ("token-of-the-owner", [BIND]),
                            ("token-of-the-owner", []), ("$(touch /tmp/owned)';\"", [])):
        before = platform.mark()
        push(device, f"[Config]\nactive_token={token}\n")
        assert [one.line for one in platform.requests(since=before)] == requests, token
        assert device.setting("active_token") == token and not os.path.exists("/tmp/owned")
    assert len(device.log_lines(" bind failed by active_token, rc = 2202")) == 2
    platform.cloud.device.bound = False
    assert device.get(80002)["id80002"] == "false"
    before = platform.mark()
    push(device, "[Config]\ncloudserver=disable\nactive_token=other\n")
    assert device.log_lines(" bind failed by active_token, rc = 16") and not platform.requests(since=before)
    platform.api.answer(ACTIVATE, coded(500), times=2)
    device.reset(settings={"cloudserver": "on", "active_token": "token-of-the-owner"}, agents=())
    device.start(faketime=True)
    platform.wait_request(ACTIVATE, count=2)  # at the start and on the first tick
    assert device.replies(NOTHING) == []
    before = platform.mark()
    push(device, "[Config]\nactive_token=token-of-the-owner\n")
    # An upgrade check may slip in: nothing holds it back while a registration is under way.
    events = platform.requests(lambda one: "/res/" not in one.path, since=before)
    assert device.log_lines(" bind failed by active_token, rc = 500") and not events
    device.shift_time(TICK)
    platform.wait_request(BIND, since=before)


def test_pushed_run_mode_acts_on_cloudae_only(platform, device):
    """Only the exact "off" stops it; every other new mode starts it, without arguments. The daemon stays."""
    device.start_enrolled(platform, agents=["cloudae", "cloudsafety"])
    device.cloudae.wait_started()
    pid = device.pid()
    for starts, mode in ((1, "off"), (2, "offline"), (3, "ums"), (4, "disable"), (4, "disable"), (5, "on")):
        push(device, f"[Config]\ncloudserver={mode}\n")
        device.cloudae.wait_started(starts)
        assert len(device.cloudae.starts()) == starts and bool(device.cloudae.pid()) == (mode != "off"), mode
        assert device.setting("cloudserver") == mode and device.pid() == pid
    assert not device.cloudsafety.starts() and {len(one["argv"]) for one in device.cloudae.starts()} == {1}
