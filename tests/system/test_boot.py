# SPDX-License-Identifier: Apache-2.0
"""From power-on to a registered device, one copy only, and a clean end."""
import fcntl
import os
import re
import signal

import pytest

from lab.deployment import API_SERVER, VERSION
from lab.device import PID_FILE, VERSION_LIST, read_text, write_text
from lab.platform import DEVICE_ID, DEVICE_MAC, basic

DEVICE = "/v1/devices/" + DEVICE_ID
ACTIVATE, BIND = f"POST {DEVICE}/actions/activate", f"POST {DEVICE}/actions/bind"
READ, CHANGE = f"GET {DEVICE}", f"PUT {DEVICE}"
METRIC = "POST /v1/services/cloudwatch/metrics"
REFUSED = 255
OWNER = {"active_token": "token-of-the-owner"}
ENROLLED = {"active_state": "true", "device_key": "key-of-the-device"}


def registration(platform):
    """What the device asked the API server for, up to its boot report."""
    platform.wait_request(METRIC)
    lines = [request.line for request in platform.requests(lambda one: "/res/" not in one.path)]
    return lines[:lines.index(METRIC) + 1]


def test_first_boot_registers_and_reports(platform, device):
    device.reset(settings=OWNER | {"cloudserver": "on"})
    device.start()
    assert registration(platform) == [ACTIVATE, BIND, READ, CHANGE, METRIC]

    verdict = platform.cloud.verdicts[0]
    assert verdict.ok and verdict.mac == DEVICE_MAC
    versions = platform.wait_request(lambda one: "versions" in one.query).query["versions"]
    expected = {"pluginmgr:" + VERSION, "cloudae:1.0.30", "cloud_phone:1.0.0"}
    assert expected <= set(versions.split(","))

    record = platform.cloud.device
    assert record.active and record.bound
    assert len(record.uptimes) == 1 and float(record.uptimes[0]) > 0
    assert record.reported | {"versions": ""} == {
        "cloud_server": "on", "product_type": "KQ900", "platform": "KQ900",
        "product_version": "53.20.1", "versions": ""}
    assert device.setting("device_key") == record.key and device.setting("active_state") == "true"
    assert device.cloudae.wait_started()["env"]["INTERNAL_DNS1"] == "127.0.0.1"
    assert device.get(80000) | {"id80014": ""} == {
        "result": "ok", "code": 0, "id80000": "on", "id80001": "ok", "id80014": "", "id80020": True}
    assert device.plugins()["pluginmgr"]["pluginVersion"] == VERSION
    assert '"app_name": "cloud_phone"' in re.sub(r'":\s*', '": ', read_text(VERSION_LIST))


def test_requests_keep_their_line_ends_and_one_connection(platform, device):
    device.reset(settings=OWNER)
    device.start()
    activation, binding = platform.wait_request(ACTIVATE), platform.wait_request(BIND)
    first_lines = f"POST {activation.target} HTTP/1.1\nHost: {API_SERVER}\n"
    assert activation.raw.startswith(first_lines.encode())
    assert binding.raw.decode() == (
        f"{BIND} HTTP/1.1\nHost: {API_SERVER}\nAuthorization: {basic('token-of-the-owner:')}\n"
        "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n"
        "Content-Type:application/x-www-form-urlencoded\nConnection: keep-alive\r\n\r\n")
    platform.wait_request(METRIC)
    assert {one.connection for one in platform.requests(DEVICE + "*")} == {1}


@pytest.mark.parametrize("settings, known, expected", [
    pytest.param({}, False, [ACTIVATE, READ, CHANGE, METRIC], id="no token: not bound"),
    pytest.param(ENROLLED, True, [READ, CHANGE, METRIC], id="enrolled: not activated again"),
    pytest.param(ENROLLED | OWNER, True, [READ, BIND, CHANGE, METRIC], id="enrolled, found unbound"),
    pytest.param(ENROLLED, False, [READ, ACTIVATE, READ, CHANGE, METRIC], id="forgotten: activated again"),
])
def test_registration_does_what_is_missing(platform, device, settings, known, expected):
    platform.cloud.device.active = known
    device.reset(settings=settings)
    device.start()
    assert registration(platform) == expected


def test_without_flash_content_no_agent_starts(platform, device):
    device.reset(mac=None, device_id=None)
    device.start()
    assert "cann't get device id" in device.errors()
    assert "cann't get device mac address" in device.log() + device.errors()
    assert not platform.requests() and not device.cloudsafety.starts()


def test_second_copy_refuses(device):
    first = device.start()
    before = read_text(PID_FILE)
    assert before == f"{first.pid}\0"
    assert device.start(ready=False).wait(5) == REFUSED
    assert read_text(PID_FILE) == before and device.daemons() == [first.pid]
    device.kill_all()
    os.unlink(PID_FILE)
    os.mkdir(PID_FILE)
    assert device.start(ready=False).wait(5) == REFUSED, "nor is there one without its file"


def test_a_lock_that_anybody_may_have_prevents_no_start(device):
    first = device.start()
    device.kill_all()
    with open(PID_FILE) as file:
        fcntl.lockf(file, fcntl.LOCK_SH)
        second = device.start()
        assert read_text(PID_FILE) == f"{second.pid}\0" != f"{first.pid}\0"
        assert os.stat(PID_FILE).st_mode == 0o100644 and not os.path.exists(PID_FILE + ".new")
        assert device.start(ready=False).wait(5) == REFUSED and device.daemons() == [second.pid]


def test_stale_pid_file_does_not_block(device):
    write_text(PID_FILE, "a longer text of a copy that was killed")
    assert device.start().pid == device.pid()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGSEGV])
def test_signal_ends_the_daemon_in_order(device, number):
    device.start()
    assert device.stop(number) == 0
    assert device.log_lines(f" get a signal - {int(number)}. exit!!!")
