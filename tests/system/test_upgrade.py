# SPDX-License-Identifier: Apache-2.0
"""From an offer to an installed plug-in, and every way in which that goes wrong."""
import json
import os
import time

import pytest

from lab.device import INI, VERSION_LIST, agent_program, device_processes, read_text, wait_until
from lab.package import build
from lab.platform import DEVICE_ID, Answer, redirect

NAME, OLD, NEW = "cloud_phone", "1.0.0", "1.1.0"
ENROLLED = {"active_state": "true", "device_key": "key-of-the-device", "cloudserver": "on"}
IDLE, DOWNLOAD_FAILED, INSTALLING, INSTALL_FAILED, RESTARTED = 0, 3, 5, 6, 7
UP_TO_DATE, CHECK_FAILED, PARTIAL, NO_SIGNATURE, BAD_SIGNATURE = 9, 10, 11, 12, 13


def package_path(package):
    return "/tmp/dl_cloud/" + package.file_name


def report(result, name=NAME, old=OLD, new=NEW):
    return f"app_name={name}&version={old}&to_version={new}&upgrade_result={result}"


@pytest.fixture
def enrolled(platform, device):
    """A device that is registered already and has no cloudae, so it starts within seconds."""
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED, agents=())
    return device


def offer_and_update(platform, device, package, **changes):
    platform.cloud.offer(package, **changes)
    device.start()
    device.wait_status(NAME, IDLE)
    wait_until(lambda: device.plugins()[NAME]["pluginNewVersion"] == NEW, what="the offer")
    assert device.action(pluginName=NAME, pluginAction="update") == {"result": "ok", "code": 0}


def flip_last_byte(package):
    package.data = package.data[:-1] + bytes([package.data[-1] ^ 1])


# what is built; what is changed in the offer; status and report in the end
ENDINGS = {
    "good": ({}, {}, RESTARTED, "ok"),
    "in a folder": ({"layout": "folder"}, {}, RESTARTED, "ok"),
    "installer fails": ({"result": "fail", "message": "disk full"}, {}, INSTALL_FAILED, "disk full"),
    "result of size 2": ({"result": "restart", "message": "half"}, {}, PARTIAL, "half"),
    "no result": ({"result": None}, {}, INSTALL_FAILED, "fail"),
    "no installer": ({"layout": "none"}, {}, INSTALL_FAILED,
                     f"upcompress /tmp/dl_cloud/{NAME}-{NEW}.tar.gz fail"),
    "no signature": ({}, {"signature": ""}, NO_SIGNATURE, "not found signature"),
    "foreign signature": ({}, {"signature": "0" * 40}, BAD_SIGNATURE, "signature not match"),
    "a byte too many": ({}, {"size": 1}, DOWNLOAD_FAILED, "download failed"),
}


@pytest.mark.parametrize("kind", ENDINGS)
def test_ending_of_an_upgrade(platform, enrolled, kind):
    made, changes, status, result = ENDINGS[kind]
    package = build(NAME, NEW, **made)
    if "size" in changes:
        changes = {"size": len(package.data) + changes["size"]}
    offer_and_update(platform, enrolled, package, **changes)
    entry = enrolled.wait_status(NAME, status)
    wait_until(lambda: platform.cloud.device.upgrades == [report(result)], what="the report")
    assert not os.path.exists(package_path(package))
    installed = NEW if status == RESTARTED else OLD
    assert entry["pluginVersion"] == installed and entry["pluginNewVersion"] == NEW
    versions = {one["app_name"]: one.get("version") for one in json.loads(read_text(VERSION_LIST))}
    assert versions[NAME] == installed
    if status == RESTARTED:
        assert f"{NAME}:{NEW}\n" in read_text("/var/log/versions/cloud")
        assert json.loads(read_text(VERSION_LIST))[0]["version_name"] == package.file_name


def test_flipped_byte_is_refused(platform, enrolled):
    package = build(NAME, NEW, padding=5000)
    flip_last_byte(package)
    offer_and_update(platform, enrolled, package)
    enrolled.wait_status(NAME, BAD_SIGNATURE)
    assert not os.path.exists(package_path(package))


def test_signature_is_not_asked_for_when_switched_off(platform, enrolled):
    enrolled.reset(settings=ENROLLED | {"check_signature": 0}, agents=())
    offer_and_update(platform, enrolled, build(NAME, NEW), signature="")
    enrolled.wait_status(NAME, RESTARTED)


@pytest.mark.parametrize("wget", ["busybox", "gnu"])
@pytest.mark.parametrize("scheme", ["https", "http"])
def test_broken_download_is_repeated_by_wget(platform, enrolled, wget, scheme):
    """Each failure changes the method; both come through redirects and both kinds of link."""
    package = build(NAME, NEW, padding=300_000)
    enrolled.wget(wget)
    platform.dl.answer("GET /packages/*", Answer(package.data, cut_after=100_000), times=1)
    offer_and_update(platform, enrolled, package, scheme=scheme)
    enrolled.wait_status(NAME, DOWNLOAD_FAILED)
    assert not os.path.exists(package_path(package))
    assert enrolled.get(80025), "a failed upgrade can be asked for again after a check"
    assert enrolled.action(pluginName=NAME, pluginAction="update")["code"] == 0
    enrolled.wait_status(NAME, RESTARTED)
    first, second = platform.requests("GET /packages/*")
    assert first.raw.startswith(f"GET {first.target} HTTP/1.0\r\nHost: ".encode())
    assert "wget" in second.headers["user-agent"].lower()
    assert platform.cloud.device.upgrades == [report("download failed"), report("ok")]


@pytest.mark.parametrize("redirects, status", [(4, RESTARTED), (5, DOWNLOAD_FAILED)])
def test_redirects_of_the_internal_client(platform, enrolled, redirects, status):
    package = build(NAME, NEW)
    offer_path = f"/packages/{package.file_name}"
    for number in range(redirects):
        following = offer_path if number == redirects - 1 else f"/hop{number + 1}"
        platform.dl.answer(f"GET /hop{number}", redirect(following))
    host = platform.cloud.offer(package).link.removesuffix(offer_path)
    offer_and_update(platform, enrolled, package, link=host + "/hop0")
    enrolled.wait_status(NAME, status)


def test_forced_upgrade_needs_nobody_but_never_repeats_a_version(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW), force=True)
    enrolled.start()
    enrolled.wait_status(NAME, RESTARTED)
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, UP_TO_DATE)
    assert len(platform.requests("GET /packages/*")) == 1


def test_failed_forced_upgrade_waits_for_the_next_check(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW, result="fail"), force=True)
    enrolled.start()
    enrolled.wait_status(NAME, INSTALL_FAILED)
    platform.cloud.offer(build(NAME, NEW), force=True)
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, RESTARTED)


def test_cancelled_download_stops_at_once_and_one_upgrade_at_a_time(platform, enrolled):
    package, other = build(NAME, NEW, padding=200_000), build("cloud_fax", "2.0")
    enrolled.write_plugins({NAME: OLD, "cloud_fax": "1.0"})
    platform.cloud.offer(other)
    platform.dl.answer("GET /packages/cloud_phone*", Answer(package.data, drip=2000, drip_pause=0.2))
    offer_and_update(platform, enrolled, package)
    platform.wait_request("GET /packages/*")
    assert enrolled.action(pluginName="cloud_fax", pluginAction="update")["code"] == 41
    assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
    wait_until(lambda: len(device_processes()) == 1, 3, "the end of the transfer")
    assert enrolled.plugins()[NAME]["status"] == IDLE
    assert enrolled.action(pluginName="cloud_fax", pluginAction="update")["code"] == 0
    enrolled.wait_status("cloud_fax", RESTARTED)
    assert platform.cloud.device.upgrades == [report("ok", "cloud_fax", "1.0", "2.0")]


def test_cancelled_install_blocks_later_ones_until_a_restart(platform, enrolled):
    enrolled.write_plugins({NAME: OLD, "cloud_fax": "1.0"})
    platform.cloud.offer(build("cloud_fax", "2.0"))
    offer_and_update(platform, enrolled, build(NAME, NEW, slow=30))
    enrolled.wait_status(NAME, INSTALLING)
    assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
    assert enrolled.plugins()[NAME]["status"] == IDLE
    assert enrolled.action(pluginName="cloud_fax", pluginAction="update")["code"] == 0
    enrolled.wait_status("cloud_fax", 4)
    with pytest.raises(AssertionError):
        enrolled.wait_status("cloud_fax", RESTARTED, timeout=2)


def test_refusals_of_the_control_service(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW), size=-1)  # no device has that much memory
    platform.cloud.offer(build("pluginmgr", "1.2.10"))
    enrolled.start()
    wait_until(lambda: enrolled.plugins()[NAME]["pluginNewVersion"] == NEW, what="the offer")
    for name, code in (("pluginmgr", 0), ("unknown", 0), ("", 0), (NAME, 42)):
        assert enrolled.action(pluginName=name, pluginAction="update")["code"] == code, name
    assert enrolled.action(pluginName=NAME, pluginAction="again") == {"result": "error", "code": 91}
    assert enrolled.action(pluginName=NAME) == {"result": "error", "code": 91}
    assert not platform.requests("GET /packages/pluginmgr*")


def test_offer_too_big_for_memory_is_reported(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW), size=-1, force=True)
    enrolled.start()
    enrolled.wait_status(NAME, DOWNLOAD_FAILED)
    assert platform.cloud.device.upgrades == [report("no memory")]
    assert not platform.requests("GET /packages/*")


def test_stop_during_a_slow_report_holds(platform, enrolled):
    platform.api.answer("POST /v1/services/cloudwatch/metrics", lambda request:
                        Answer({"code": 0}, delay=2.5) if "agentUpgrade" in request.target else None)
    offer_and_update(platform, enrolled, build(NAME, NEW))
    platform.wait_request(lambda one: "agentUpgrade" in one.target)
    assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
    wait_until(lambda: enrolled.plugins()[NAME]["pluginVersion"] == NEW, what="the new version")
    assert enrolled.plugins()[NAME]["status"] == IDLE


def test_version_name_never_leaves_its_folder(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW), file_name="../../var/config/cloud/pluginmgr.ini", force=True)
    before = read_text(INI)
    enrolled.start()
    enrolled.wait_status(NAME, CHECK_FAILED)
    assert read_text(INI) == before and not platform.requests("GET /packages/*")


def test_cloudae_upgrade_restarts_it_and_may_switch_the_cloud_on(platform, device):
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED | {"cloudserver": "off"})
    package = build("cloudae", "2.0.0", files={"/var/run/cloudae": agent_program("2.0.0")})
    platform.cloud.offer(package, force=True, fields={"cloudserver": "on"})
    device.start()
    asked = platform.wait_request("GET /v1/res/upgrade/apps/cloudae")
    assert asked.query == {"platform": "KQ900", "product_type": "KQ900", "language": "en",
                           "device_id": DEVICE_ID, "cloudserver": "off"}
    assert asked.raw.endswith(b"Accept-Encoding: gzip, deflate\nConnection: keep-alive\n\r\n\r\n")
    device.wait_status("cloudae", RESTARTED)
    assert device.cloudae.wait_started(2)["version"] == "2.0.0"
    assert device.setting("cloudserver") == "on"
    assert platform.cloud.device.reported["cloud_server"] == "on"


def test_daemon_upgrades_itself(platform, enrolled):
    package = build("pluginmgr", "1.2.11", files={"/var/run/pluginmgr": "/lab-build/lab/pluginmgr_next"})
    platform.cloud.offer(package, force=True)
    old = enrolled.start().pid
    assert enrolled.wait_new_pid(old, 40) != old
    wait_until(enrolled.is_ready, 20, "the new daemon")
    assert enrolled.plugins()["pluginmgr"]["pluginVersion"] == "1.2.11"


def test_server_failure_skips_the_rest_of_the_pass(platform, enrolled):
    """The kept connection is gone and no new one is to be had: one line for the whole pass."""
    enrolled.write_plugins({NAME: OLD, "cloud_fax": "1.0"})
    enrolled.start()
    enrolled.wait_status("pluginmgr", CHECK_FAILED)  # the last of the list; nothing was on offer
    platform.api.fail("refuse")
    platform.api.drop()
    assert [one["status"] for one in enrolled.get(80025)] == [CHECK_FAILED] * 3
    assert [line.rpartition(" - ")[2] for line in enrolled.log_lines("update fail")] == [
        f"check {NAME} update fail, ret 15"]
    platform.api.heal()
    platform.cloud.offer(build(NAME, NEW))
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, IDLE)


@pytest.mark.parametrize("shift, checks", [(-8, False), (-20, True), (700, True)])
def test_clock_steps_start_a_check(platform, enrolled, shift, checks):
    enrolled.reset(settings=ENROLLED, update={"checkcycle": 600}, agents=())
    enrolled.start(faketime=True)
    platform.wait_request("GET /v1/res/upgrade/apps/pluginmgr")
    before = platform.mark()
    enrolled.shift_time(shift)
    if checks:
        platform.wait_request("GET /v1/res/upgrade/apps/*", timeout=5, since=before)
    else:
        time.sleep(3)  # thirty ticks of the upgrade thread
        assert not platform.requests("GET /v1/res/upgrade/apps/*", since=before)
