# SPDX-License-Identifier: Apache-2.0
"""What seldom fails on a device, each failure once: it is told, and the daemon goes on."""
import contextlib
import dataclasses
import os
import socket
import subprocess
import time

import pytest

from lab.deployment import DOWNLOAD_SERVER
from lab.device import (CONTROL_PORT, DOWNLOAD_FAILED, DOWNLOADED, FLASH, HOSTS, INSTALL_FAILED, INSTALLING,
                        RESTARTED, VERSION_FILE, VERSION_LIST, read_text, wait_until, write_text)
from lab.package import build
from lab.platform import Reply, coded
from lab.platform.certificates import FOLDER

NAME, NEW = "cloud_phone", "1.1.0"
SCRIPT, VERSIONS, REVISION = "/var/run/cloud_install.sh", "/var/log/versions", "/var/log/version"
CHECK, ACTIVATE = "GET /v1/res/upgrade/apps/*", "POST /v1/devices/*/actions/activate"
PBX_PAGE = "method=gw.config.get&id=80037&x=device_vcode,get_kq_config,80031,80035,80036"

# what is wrong at the start, and what the error log says about it
STARTS = {
    "no list of versions": (lambda: os.unlink(VERSION_LIST), "file not exist or isn't json format"),
    "a list that is none": (lambda: write_text(VERSION_LIST, "{}"), "invalid local version list"),
    "an entry that is none": (lambda: write_text(VERSION_LIST, '[5, null, {"app_name": "a"}]'),
                              "parse local app info error"),
    "a folder for the installer": (lambda: os.mkdir(SCRIPT), f"create file {SCRIPT} error: Is a directory"),
    "a link to nowhere": (lambda: (os.mkdir(VERSIONS), os.symlink("/nowhere", VERSIONS + "/a")), ""),
    "a file for the versions": (lambda: write_text(VERSIONS, ""), f"{VERSIONS}/cloud not written"),
    "a folder for a version": (lambda: os.makedirs(VERSIONS + "/cloud"), f"{VERSIONS}/cloud not written"),
}


@pytest.mark.parametrize("kind", STARTS)
def test_start_in_spite_of(platform, enrolled, kind):
    spoil, error = STARTS[kind]
    spoil()
    enrolled.start()
    assert error in enrolled.errors() and "pluginmgr" in enrolled.plugins()

    def told():
        return [one for one in platform.requests() if "pluginmgr:" in one.query.get("versions", "")]
    if os.path.isfile(VERSIONS + "/cloud"):
        wait_until(told, what="the report of the versions")
    else:
        time.sleep(0.5)  # it would come in the first idle pass
        assert not told()


def test_control_port_that_is_taken(platform, enrolled):
    """Nobody can ask, but checks and upgrades go on."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(CONTROL_PORT)
        enrolled.start(ready=False)
        platform.wait_request(CHECK)
        assert "socket binding error rc=-1" in enrolled.errors() and enrolled.stop() == 0


def test_no_revision_no_check(platform, enrolled):
    """It is looked for once a minute."""
    os.unlink(REVISION)
    enrolled.shift_time(0, rate=20)
    enrolled.start(faketime=True)
    assert enrolled.plugins() and not platform.requests(CHECK)
    write_text(REVISION, VERSION_FILE)
    assert platform.wait_request(CHECK).query["product_type"] == "KQ900"


def test_no_id_in_the_answer(platform, device):
    """The PBX page tries again."""
    platform.api.answer(ACTIVATE, coded(0), times=3)
    device.reset(settings={"cloudserver": "on"}, agents=())
    os.truncate(FLASH, 1000)  # the MAC address comes before, the id behind
    device.start()
    assert f"Failed reading {FLASH}" in device.errors() and "havn't device_id" in device.errors()
    before = platform.mark()
    assert device.query(PBX_PAGE)
    assert platform.requests(ACTIVATE, before)


def test_flash_that_cannot_be_read(platform, device):
    device.start_enrolled(platform, {"quorvel_service": "on"}, rate=20)
    activate = "method=gw.app.action&device_vcode=" + next(iter(platform.cloud.vcodes))
    for spoil, error in ((lambda: os.truncate(FLASH, 10), "Failed reading"), (lambda: os.unlink(FLASH), "Can't open")):
        spoil()
        assert device.replies(activate) == [{"result": "error", "code": 23}] and error in device.errors()
    device.write_flash()
    assert device.replies(activate)[0]["code"] == 0


def test_certificate_of_an_address(platform, device):
    device.start_enrolled(platform, {"tls_ca_file": FOLDER + "/ca.pem", "quorvel_service": "on",
                                     "quorvel_server": platform.pbx.address})
    assert device.replies("method=gw.app.action&device_vcode=1") == [{"result": "error", "code": 14}]


def test_downloads_that_fail(platform, device):
    """By the daemon itself and by wget in turn; a wrong address in the hosts file is put right before
    wget is started."""
    device.start_enrolled(platform)
    write_text(HOSTS, f"127.0.0.1 localhost\n127.0.0.19 {DOWNLOAD_SERVER}\n")
    platform.dns.answer(Reply(["127.0.0.14"], cut_after=20), name="half.example")
    refused = {"link": f"http://{DOWNLOAD_SERVER}:9/a"}
    os.makedirs(in_the_way := f"/tmp/dl_cloud/{NAME}-{NEW}.tar.gz")
    for count, change in enumerate(({}, refused, {"link": "https://nowhere.example/a"}, refused,
                                    {"link": "http://half.example/a"}, refused, refused, refused,
                                    {"link": "ftp://half.example/a"}), 1):
        platform.cloud.offer(build(NAME, NEW), force=True, **change)
        assert device.get(80025)
        wait_until(lambda: len(platform.cloud.device.upgrades) == count, 20, "the report")
        assert platform.cloud.device.upgrades[-1].endswith("upgrade_result=download failed")
        device.wait_status(NAME, DOWNLOAD_FAILED)
        if os.path.isdir(in_the_way):
            os.rmdir(in_the_way)
    assert f"127.0.0.14 {DOWNLOAD_SERVER}" in read_text(HOSTS)
    for error in ("Connect 127.0.0.14:9 Error: Connection refused", "failed connect https://nowhere.example/a"):
        assert error in device.errors()


def test_package_that_is_gone_before_its_turn(platform, device):
    device.reset_enrolled(platform, plugins={NAME: "1.0.0", "other": "1.0.0"})
    for name in (NAME, "other"):
        platform.cloud.offer(build(name, NEW, slow=4), force=True)
    device.start()

    def one_waits():
        status = {name: entry["status"] for name, entry in device.plugins().items() if name != "pluginmgr"}
        return sorted(status.values()) == [DOWNLOADED, INSTALLING] and max(status, key=status.get), min(
            status, key=status.get)
    installing, waiting = wait_until(lambda: one_waits()[0] and one_waits(), 20, "two packages")
    os.unlink(f"/tmp/dl_cloud/{waiting}-{NEW}.tar.gz")
    device.wait_status(installing, RESTARTED)
    device.wait_status(waiting, INSTALL_FAILED)


def test_request_during_a_check_counts(platform, device):
    platform.cloud.offer(build(NAME, NEW))
    device.start_enrolled(platform)
    platform.api.answer(CHECK, lambda one: dataclasses.replace(platform.cloud.answer_api(one), delay=2), times=2)
    before = platform.mark()
    device.shift_time(50_000)
    platform.wait_request(lambda one: NAME in one.path, since=before)
    assert device.action(pluginName=NAME, pluginAction="update")["code"] == 0
    assert device.action(pluginName="unknown", pluginAction="cancel")["code"] == 0
    device.wait_status(NAME, RESTARTED)


def test_no_proc_files_and_too_many_plugins(platform, device):
    """Memory that is not known is enough; the list of versions gets too long for the agent only."""
    device.reset_enrolled(platform, plugins={NAME: "1.0.0"} | {f"plugin_{n}": "1.0.0" for n in range(40)})
    platform.cloud.offer(build(NAME, NEW), force=True)
    with contextlib.ExitStack() as mounted:
        for path in ("/proc/meminfo", "/proc/uptime"):
            subprocess.run(["/bin/mount", "--bind", "/dev/null", path], check=True)
            mounted.callback(subprocess.run, ["/bin/umount", path], check=True)
        device.start()
        device.wait_status(NAME, RESTARTED)
        assert not platform.cloud.device.uptimes and "bug: message is" in device.errors() and len(device.plugins()) > 20
