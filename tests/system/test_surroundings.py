# SPDX-License-Identifier: Apache-2.0
"""A device that fails its daemon: full disks, an /etc/hosts that cannot be written, a clock that is set."""
import contextlib
import os
import re
import struct
import subprocess
import time

import pytest

from lab.device import DEBUG_LOG, HOSTS, INI, RESTARTED, VERSION_LIST, read_text, wait_until, write_text
from lab.package import build
from lab.platform import coded
from lab.torture.crash import whole_lines

SET = "method=gw.config.set&"
PUSHED = "/var/tmp/cloud_upgrade.ini"
LOG_LIMIT = 512 * 1024
SILENCE = 360  # seconds of patience with an agent
DAY = 86400


def run(*command):
    subprocess.run(command, check=True)


@contextlib.contextmanager
def small_disk(folder, size):
    """A disk of a few pages in place of a folder, with what is in it. What is yielded fills it and,
    called again, empties it."""
    disk, filler = "/run/lab/disk", folder + "/filler"
    os.makedirs(disk, exist_ok=True)

    def fill_or_empty():
        if os.path.exists(filler):
            return os.unlink(filler)
        with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while file.write(b"f" * 4096):
                pass
    run("/bin/mount", "-t", "tmpfs", "-o", f"size={size}", "none", disk)
    run("/bin/cp", "-a", folder + "/.", disk)
    run("/bin/mount", "--bind", disk, folder)
    try:
        yield fill_or_empty
    finally:
        run("/bin/umount", "-l", folder)
        run("/bin/umount", "-l", disk)


@contextlib.contextmanager
def read_only_hosts(*_):
    """As some containers have it: neither to be written nor to be replaced. Yields what ends it."""
    with contextlib.ExitStack() as mounted:
        run("/bin/mount", "--bind", HOSTS, HOSTS)
        mounted.callback(run, "/bin/umount", HOSTS)
        run("/bin/mount", "-o", "remount,bind,ro", HOSTS)
        yield mounted.close


def test_full_disk_keeps_settings_and_version_list(platform, enrolled):
    # so that any longer value needs another page
    missing = 4096 - len(read_text(INI))
    write_text(INI, read_text(INI) + ("#".ljust(99) + "\n") * (missing // 100) + "\n" * (missing % 100))
    with small_disk(os.path.dirname(INI), "64k") as turn:
        enrolled.start()
        platform.wait_request("GET /v1/res/upgrade/apps/pluginmgr*")
        turn()
        before = read_text(INI), read_text(VERSION_LIST)
        assert len(before[0]) == 4096
        write_text(PUSHED, "[Config]\nconn_timeout=7\n")
        enrolled.datagram(b"download cloud file success")
        assert enrolled.replies(SET + "id80037=pbx.lan|10.0.0.5&id80035=off")  # in effect all the same
        platform.cloud.offer(build("cloud_phone", "1.1.0"), force=True)
        assert enrolled.get(80025)
        enrolled.wait_status("cloud_phone", RESTARTED)
        assert (read_text(INI), read_text(VERSION_LIST)) == before and not os.path.exists(PUSHED)
        assert enrolled.setting("quorvel_service") is None and enrolled.get(80031)["id80035"] == "off"
        for key in ("quorvel_service", "conn_timeout"):
            assert f"{key} not written to {INI}" in enrolled.errors()
        assert "version list" not in enrolled.errors() and enrolled.log_lines("write version list to local")
        turn()
        assert enrolled.replies(SET + "id80035=off") and enrolled.setting("quorvel_service") == "off"
        platform.cloud.offer(build("cloud_phone", "1.2.0"), force=True)
        assert enrolled.get(80025)
        wait_until(lambda: "1.2.0" in read_text(VERSION_LIST), 30, "the version list")
        assert len(os.listdir(os.path.dirname(INI))) == 2
        enrolled.kill_all()


def test_full_disk_keeps_the_account(platform, device):
    """But for its password, which goes all the same; a status that cannot be stored is none."""
    account, status = "/var/config/cloud/sip.config", "/tmp/quorvelsip.status"
    config = "method=gw.app.action&quorvel_action=get_kq_config"
    device.start_enrolled(platform, {"quorvel_service": "on", "quorvel_token": "token-of-the-pbx"})
    assert device.replies(config)[0]["config"]["password"]
    before = read_text(account)
    with small_disk(os.path.dirname(INI), "64k") as turn, small_disk("/tmp", "64k") as turn_status:
        assert device.get(80031)["id80032"] == "true" and os.path.exists(status)
        turn()
        turn_status()
        assert "password" not in device.replies(config)[0]["config"] and read_text(account) == before
        assert f"{account} not written: No space left on device" in device.errors()
        assert device.get(80031)["id80032"] == "false" and not os.path.exists(status)
        assert f"{status} not written: No space left on device" in device.errors()
        turn()
        write_text(account, '{"user":"7","password":"secret"}')
        platform.pbx.answer("GET */config", coded(0, sip_config=None), times=1)
        turn()
        assert device.replies(config)[0]["config"] == {"user": "7", "password": "secret"}
        assert device.replies("") == [] and '"7"' in read_text(account) and "secret" not in read_text(account)
        device.kill_all()


@pytest.mark.parametrize("rotates", [False, True])
def test_full_disk_costs_log_lines_only(platform, device, rotates):
    """Also when the log is due to be rotated meanwhile; no half of a line is left in it."""
    device.start_enrolled(platform)
    device.kill_all()
    with small_disk("/var/log", "1m") as turn:
        device.start()
        assert device.plugins()
        if rotates:
            with open(DEBUG_LOG, "a") as log:
                log.write("old\n" * (LOG_LIMIT // 4))
        turn()
        room = os.path.getsize(DEBUG_LOG)
        for number in range(100):
            assert device.replies(SET + f"id80035=on{number}")
        assert (read_text(DEBUG_LOG + ".1").count("old\n") == LOG_LIMIT // 4) == rotates
        assert rotates or 0 <= os.path.getsize(DEBUG_LOG) - room <= 4096
        turn()
        assert device.replies(SET + "id80035=seen")
        device.wait_log("id80035=seen, len=4")
        whole_lines(DEBUG_LOG)
        device.kill_all()


@pytest.mark.parametrize("trouble", [small_disk, read_only_hosts])
def test_hosts_file_that_cannot_be_written(platform, device, trouble):
    device.start_enrolled(platform)
    assert device.replies(SET + "id80037=old.lan|10.0.0.9")
    before, files = read_text(HOSTS), os.listdir("/etc")
    assert "10.0.0.9 old.lan old.lan\n" in before
    with trouble("/etc", "4m") as turn:
        turn() if trouble is small_disk else None
        assert device.replies(SET + "id80037=new.lan|10.0.0.5") == [{"result": "ok", "code": 0}]
        assert read_text(HOSTS) == before and device.setting("user_sipserver") == "new.lan|10.0.0.5"
        for command in ("sed -i '/10.0.0.9/'d /etc/hosts", "echo 10.0.0.5 new.lan new.lan >> /etc/hosts"):
            assert re.search(f"/etc/hosts not changed, .*: {re.escape(command)}\n", device.errors())
        turn()
        assert sorted(os.listdir("/etc")) == sorted(files)
        assert device.replies(SET + "id80037=old.lan|10.0.0.9")
        assert device.replies(SET + "id80037=new.lan|10.0.0.5")
        assert read_text(HOSTS) == before.replace("10.0.0.9 old.lan old.lan", "10.0.0.5 new.lan new.lan")
        device.kill_all()


def test_time_zone_that_changes(platform, device):
    """The log follows /etc/localtime, also where there was none before."""
    device.start_enrolled(platform)
    for number, minutes in enumerate((570, -210), 1):
        zone = (b"TZif" + bytes(16) + struct.pack(">6l", 0, 0, 0, 0, 1, 4) +  # one kind of time, no changes
                struct.pack(">lBB", minutes * 60, 0, 0) + b"LAB\0")
        with open("/etc/localtime.new", "wb") as file:
            file.write(zone)
        os.replace("/etc/localtime.new", "/etc/localtime")
        time.sleep(1.1)  # it is looked at once a second
        assert device.replies(SET + f"id80035=zone{number}")
        stamp = device.wait_log(f"id80035=zone{number}, len=5")[1:15]
        utc = time.time() + minutes * 60
        assert stamp in [time.strftime("%m/%d %H:%M:%S", time.gmtime(utc - ago)) for ago in range(10)]
    os.unlink("/etc/localtime")


def test_clock_that_is_set_back_and_forth(platform, device):
    """A step may cost a healthy agent one restart, for its last sign of life seems long ago. After
    its next one it is watched as ever; queries, checks and reports go on."""
    device.start_enrolled(platform, agents=["cloudae"])
    agent = device.cloudae
    agent.wait_started()
    for step in (DAY, -DAY, 3650 * DAY, 0):
        starts, signs, mark = len(agent.starts()), len(device.log_lines("got keepcloudae")), platform.mark()
        agent.behave(keepalive=0.1)
        device.shift_time(step)
        platform.wait_request("GET /v1/res/upgrade/apps/pluginmgr*", since=mark)
        wait_until(lambda: len(device.log_lines("got keepcloudae")) > signs + 5, 20, "signs of life")
        assert len(agent.starts()) <= starts + 1
        agent.behave(keepalive=0)
        starts = len(agent.starts())
        assert device.get(80000)["id80000"] == "on" and device.get(80025)
        device.shift_time(step + SILENCE + 60)
        agent.wait_started(starts + 1)
    assert device.get(80002)["code"] == 0
