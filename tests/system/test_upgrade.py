# SPDX-License-Identifier: Apache-2.0
"""From an offer to an installed plug-in, and every way in which that goes wrong."""
import concurrent.futures
import contextlib
import fcntl
import glob
import json
import os
import random
import re
import signal
import subprocess
import time

import pytest

from lab.deployment import API_SERVER
from lab.device import (DOWNLOAD_FAILED, DOWNLOADED, ENROLLED, IDLE, INSTALL_FAILED, INSTALLING, NOT_OFFERED, RESTARTED,
                        UP_TO_DATE, VERSION_LIST, agent_program, device_processes, read_text, wait_until, write_text)
from lab.package import build, sign
from lab.platform import DEVICE_ID, Answer, basic

NAME, OLD, NEW = "cloud_phone", "1.0.0", "1.1.0"
DOWNLOADING, PARTIAL, NO_SIGNATURE, BAD_SIGNATURE = 2, 11, 12, 13
SCRIPT, LOCK = "/var/run/cloud_install.sh", "/var/run/cloud_install.lock"
AUTHORITY = "/etc/ssl/certs/ca-certificates.crt"
NOT_UNPACKED = f"upcompress /tmp/dl_cloud/{NAME}-{NEW}.tar.gz fail"


def package_path(package):
    return "/tmp/dl_cloud/" + package.file_name


def report(result, name=NAME, old=OLD, new=NEW):
    return f"app_name={name}&version={old}&to_version={new}&upgrade_result={result}"


def start(device):
    """With a clock that runs faster: most of an upgrade is waiting."""
    device.shift_time(0, rate=4)
    return device.start(faketime=True)


def offer(platform, device, package, **changes):
    platform.cloud.offer(package, **changes)
    start(device)
    device.wait_status(NAME, IDLE)
    wait_until(lambda: device.plugins()[NAME]["pluginNewVersion"] == NEW, what="the offer")


def update(device, name=NAME):
    assert device.action(pluginName=name, pluginAction="update") == {"result": "ok", "code": 0}


def offer_and_update(platform, device, package, **changes):
    offer(platform, device, package, **changes)
    update(device)


def update_again(device):
    assert device.get(80025), "a failed upgrade can be asked for again after a check"
    update(device)


# what is built; what is changed in the offer; status and report in the end
ENDINGS = {
    "good": ({}, {}, RESTARTED, "ok"),
    "in a folder": ({"layout": "folder"}, {}, RESTARTED, "ok"),
    "installer fails": ({"result": "fail", "message": "disk full"}, {}, INSTALL_FAILED, "disk full"),
    "result of size 2": ({"result": "restart", "message": "half"}, {}, PARTIAL, "half"),
    "no result": ({"result": None}, {}, INSTALL_FAILED, "fail"),
    "a package cut short": ({"padding": 300_000, "cut": 200_000}, {}, INSTALL_FAILED, NOT_UNPACKED),
    "its message a pipe": ({"commands": "printf 1 >up_stat; mkfifo up_msg; exit"}, {}, INSTALL_FAILED, ""),
    "no installer": ({"layout": "none"}, {}, INSTALL_FAILED, NOT_UNPACKED),
    "no signature": ({}, {"signature": ""}, NO_SIGNATURE, "not found signature"),
    "no signature asked for": ({"check_signature": 0}, {"signature": ""}, RESTARTED, "ok"),
    "another byte": ({"padding": 5000}, {"signature": lambda package: sign(package.data[:-1] + b"?", NEW)},
                     BAD_SIGNATURE, "signature not match"),
    "a byte too many": ({}, {"size": lambda package: len(package.data) + 1}, DOWNLOAD_FAILED, "download failed"),
}


@pytest.mark.parametrize("kind", ENDINGS)
def test_ending_of_an_upgrade(platform, enrolled, kind):
    made, changes, status, result = ENDINGS[kind]
    enrolled.write_settings(ENROLLED | {"check_signature": made.get("check_signature")})
    package = build(NAME, NEW, **{key: value for key, value in made.items() if key != "check_signature"})
    offer_and_update(platform, enrolled, package, **{
        key: value(package) if callable(value) else value for key, value in changes.items()})
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


def test_what_was_verified_is_what_is_installed(platform, enrolled):
    """A newer download under its name, as soon as it is verified, is neither looked at nor removed. By
    hand the name counts, whatever is open as 9."""
    package, other, by_hand = build(NAME, NEW), "/run/lab/other.tar.gz", "/run/lab/by_hand.tar.gz"
    for path in (other, by_hand):
        with open(path, "wb") as file:
            file.write(build(NAME, NEW, result="fail", message=path).data)
    offer(platform, enrolled, package)
    write_text(SCRIPT, read_text(SCRIPT).replace("\n", f'\nrm -f "$1"\ncp {other} "$1"\n', 1))
    update(enrolled)
    enrolled.wait_status(NAME, RESTARTED)
    assert os.path.getsize(package_path(package)) == os.path.getsize(other)
    enrolled.stop()
    enrolled.start()  # with a script of its own again
    subprocess.run(["/bin/sh", "-c", f"{SCRIPT} {by_hand} 8>/tmp/lock 9<{other}"], check=True)
    assert read_text("/tmp/up_cloud/up_msg").strip() == by_hand and not os.path.exists(by_hand)


def test_installer_finds_its_package(platform, enrolled):
    """Under its name; a program that the installer starts keeps neither its room nor the daemon's lock."""
    package = build(NAME, NEW, commands=f"""
        cp /tmp/dl_cloud/{NAME}-* /tmp/copy; ls -l /proc/self/fd >/tmp/open; sleep 60 &""")
    for count in (1, 2):
        if count == 1:
            offer_and_update(platform, enrolled, package)
        else:
            platform.cloud.offer(build(NAME, "1.2.0"))
            assert enrolled.get(80025)
            update(enrolled)
        enrolled.wait_status(NAME, RESTARTED)
        assert not os.path.exists(package_path(package))
    with open("/tmp/copy", "rb") as copy:
        assert copy.read() == package.data
    assert "dl_cloud" not in read_text("/tmp/open")


@pytest.mark.parametrize("wget", ["busybox", "gnu"])
@pytest.mark.parametrize("scheme, authority", [("https", None), ("http", None), ("https", AUTHORITY), ("http", AUTHORITY)])
def test_broken_download_is_repeated_by_wget(platform, enrolled, wget, scheme, authority):
    """Each failure changes the method, but what has to be verified is not left to wget."""
    package = build(NAME, NEW, padding=300_000)
    enrolled.write_settings(ENROLLED | {"tls_ca_file": authority})
    enrolled.wget(wget)
    platform.dl.answer("GET /packages/*", Answer(package.data, cut_after=100_000), times=1)
    offer_and_update(platform, enrolled, package, scheme=scheme)
    enrolled.wait_status(NAME, DOWNLOAD_FAILED)
    assert not os.path.exists(package_path(package))
    update_again(enrolled)
    enrolled.wait_status(NAME, RESTARTED)
    first, second = platform.requests("GET /packages/*")
    assert first.raw.startswith(f"GET {first.target} HTTP/1.0\r\nHost: ".encode())
    agent = second.headers.get("user-agent", "")
    assert ("wget" in agent.lower()) == (scheme == "http" or authority is None)
    assert platform.cloud.device.upgrades == [report("download failed"), report("ok")]


@pytest.mark.parametrize("wget", ["busybox", "gnu"])
def test_announced_size_is_a_limit_while_bytes_arrive(platform, enrolled, wget):
    """For either method; the rest, which would take half a minute, is not waited for."""
    package, sizes, limit = build(NAME, NEW, padding=3_000_000), [0], 100_000
    enrolled.wget(wget)
    platform.dl.answer("GET /packages/*", Answer(package.data, drip=10_000, drip_pause=0.1))

    def failed():
        sizes.append(0)
        with contextlib.suppress(FileNotFoundError):
            sizes[-1] = os.path.getsize(package_path(package))
        return len(sizes) % 20 == 0 and enrolled.plugins()[NAME]["status"] == DOWNLOAD_FAILED
    offer_and_update(platform, enrolled, package, size=limit)
    wait_until(failed, 20, "the end of the daemon's own download", 0.01)
    update_again(enrolled)
    wait_until(failed, 20, "the end of wget's", 0.01)
    assert max(sizes) == limit + 1 and not os.path.exists(package_path(package))


@contextlib.contextmanager
def missing(path):
    os.rename(path, path + ".away")
    try:
        yield
    finally:
        os.rename(path + ".away", path)


@pytest.mark.parametrize("program, status, result", [
    ("wget", DOWNLOAD_FAILED, "download failed"), ("tar", INSTALL_FAILED, NOT_UNPACKED), ("sh", INSTALL_FAILED, "fail")])
def test_missing_program(platform, enrolled, program, status, result):
    """A failure like others; the next try works when it is back. The first download fails for wget's turn."""
    package = build(NAME, NEW)
    os.replace("/bin/sh", "/bin/sh.busybox")  # which would need no tar
    os.symlink("/usr/bin/dash", "/bin/sh")
    try:
        platform.dl.answer("GET /packages/*", Answer(package.data, cut_after=100), times=1)
        offer_and_update(platform, enrolled, package)
        enrolled.wait_status(NAME, DOWNLOAD_FAILED)
        with missing("/bin/" + program):
            update_again(enrolled)
            wait_until(lambda: platform.cloud.device.upgrades[1:] == [report(result)], 20, "the report")
            enrolled.wait_status(NAME, status)
            assert not os.path.exists(package_path(package))
        update_again(enrolled)
        enrolled.wait_status(NAME, RESTARTED)
    finally:
        enrolled.kill_all()
        os.replace("/bin/sh.busybox", "/bin/sh")


def test_full_download_folder(platform, enrolled):
    """By either method the package fails and goes; there is room for a later one."""
    package, folder = build(NAME, NEW, padding=300_000), os.path.dirname(package_path(build(NAME, NEW)))
    os.mkdir(folder)
    subprocess.run(["/bin/mount", "-t", "tmpfs", "-o", "size=64k", "none", folder], check=True)
    try:
        offer(platform, enrolled, package)
        for count in (1, 2):
            update_again(enrolled)
            wait_until(lambda: platform.cloud.device.upgrades == [report("download failed")] * count, 20, "the report")
            enrolled.wait_status(NAME, DOWNLOAD_FAILED)
            assert os.listdir(folder) == []
        # BusyBox's repeats the options of the first time, of which a user's kernel refuses the owner.
        subprocess.run(["/usr/bin/mount", "-i", "-n", "-o", "remount,size=4m", "none", folder], check=True)
        update_again(enrolled)
        enrolled.wait_status(NAME, RESTARTED)
    finally:
        enrolled.kill_all()
        subprocess.run(["/bin/umount", folder], check=True)


def test_full_unpack_folder(platform, enrolled):
    """What did come out makes room for the reason, and its installer is not run."""
    os.mkdir("/tmp/up_cloud")
    subprocess.run(["/bin/mount", "-t", "tmpfs", "-o", "size=64k", "none", "/tmp/up_cloud"], check=True)
    try:
        offer_and_update(platform, enrolled, build(NAME, NEW, padding=300_000))
        enrolled.wait_status(NAME, INSTALL_FAILED)
        assert platform.cloud.device.upgrades == [report(NOT_UNPACKED)]
        assert sorted(os.listdir("/tmp/up_cloud")) == ["up_msg", "up_stat"]
    finally:
        enrolled.kill_all()
        subprocess.run(["/bin/umount", "/tmp/up_cloud"], check=True)


@pytest.mark.parametrize("redirects, status", [(4, RESTARTED), (5, DOWNLOAD_FAILED)])
def test_redirects_of_the_internal_client(platform, enrolled, redirects, status):
    package = build(NAME, NEW)
    offer_path = f"/packages/{package.file_name}"
    for number in range(redirects):
        following = offer_path if number == redirects - 1 else f"/hop{number + 1}"
        platform.dl.answer(f"GET /hop{number}", Answer(raw=f"HTTP/1.1 302\r\nLocation:{following}\r\n\r\n".encode()))
    host = platform.cloud.offer(package).link.removesuffix(offer_path)
    offer_and_update(platform, enrolled, package, link=host + "/hop0")
    enrolled.wait_status(NAME, status)


def test_forced_upgrade_needs_nobody_but_never_repeats_a_version(platform, enrolled):
    """A failed one waits for the next check."""
    platform.cloud.offer(build(NAME, NEW, result="fail"), force=True)
    start(enrolled)
    enrolled.wait_status(NAME, INSTALL_FAILED)
    platform.cloud.offer(build(NAME, NEW), force=True)
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, RESTARTED)
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, UP_TO_DATE)
    assert len(platform.requests("GET /packages/*")) == 2


def test_cancelled_install_blocks_later_ones_until_a_restart(platform, enrolled):
    enrolled.write_plugins({NAME: OLD, "cloud_fax": "1.0"})
    platform.cloud.offer(build("cloud_fax", "2.0"))
    package = build(NAME, NEW, slow=30, commands="sleep 30 &")
    offer_and_update(platform, enrolled, package)
    enrolled.wait_status(NAME, INSTALLING)
    wait_until(lambda: len(device_processes()) == 5, what="the installer's two programs")
    assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
    assert enrolled.plugins()[NAME]["status"] == IDLE
    wait_until(lambda: device_processes() == [enrolled.pid()], 2, "the end of all that the script has started")
    assert not os.path.exists(package_path(package)) and not glob.glob(SCRIPT[:-2] + "[jd]o*")
    update(enrolled, "cloud_fax")
    enrolled.wait_status("cloud_fax", DOWNLOADED)
    files = f"/proc/{enrolled.pid()}/fd/"
    assert not any("/tmp/" in os.readlink(files + number) for number in os.listdir(files)), "its room is free again"
    with pytest.raises(AssertionError):
        enrolled.wait_status("cloud_fax", RESTARTED, timeout=2)


# who is killed with the daemon; when the next one starts; the order of begin and end of the plug-in's
# installer (which leaves a program running unless it says so) and of another plug-in's
ORPHANS = {"runs on": ("", 0, {"bef"}), "has ended by then": ("", 4, {"bef"}),
           "is broken off": ("cloud_install.sh|install.sh|sleep", 0, {"bbef", "bfbe"}),
           "loses its shell": ("cloud_install.sh", 0, {"bebef", "befbe"})}


@pytest.mark.parametrize("kind", ORPHANS)
def test_installer_that_outlives_its_daemon(platform, enrolled, kind):
    """It is left alone, what it installs is not installed again, and other installs wait for it, but not for
    a program that it has started. One that was broken off is repeated."""
    killed, pause, orders = ORPHANS[kind]
    last = "1.1.1" if kind == "is broken off" else NEW  # of another file name
    enrolled.write_plugins({NAME: OLD, "cloud_fax": OLD})
    left_running = "" if kind == "loses its shell" else "sleep 60 &"
    first, again = (build(NAME, version, slow=3, padding=1000, commands=f"""
        {left_running} printf b >>/tmp/order; trap 'test -e padding && printf e >>/tmp/order' EXIT""")
                    for version in (NEW, last))
    platform.cloud.offer(first, force=True)
    start(enrolled)
    enrolled.wait_status(NAME, INSTALLING)
    platform.cloud.offer(build("cloud_fax", NEW, commands="printf f >>/tmp/order"), force=True)
    wait_until(lambda: read_text("/tmp/order"), what="the installer")
    enrolled.stop(signal.SIGKILL)
    for pid in device_processes():
        if killed and re.search(f"/({killed})|^({killed})", read_text(f"/proc/{pid}/cmdline").replace("\0", " ")):
            os.kill(pid, signal.SIGKILL)
    platform.cloud.offer(again, force=True)
    time.sleep(pause)
    start(enrolled)
    enrolled.wait_status("cloud_fax", RESTARTED)
    wait_until(lambda: enrolled.plugins()[NAME]["pluginVersion"] == last, 20, "the new version")
    assert read_text("/tmp/order") in orders
    assert {one["app_name"]: one["version_name"] for one in json.loads(read_text(VERSION_LIST))[:2]} == {
        NAME: again.file_name, "cloud_fax": f"cloud_fax-{NEW}.tar.gz"}
    assert os.listdir("/tmp/dl_cloud") == [] and not glob.glob(SCRIPT[:-2] + "[jd]o*")


def test_installer_that_never_ends_is_given_up(platform, enrolled):
    """After ten minutes; a stop ends the waiting at once."""
    with open(LOCK, "w") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        package = build(NAME, NEW)
        offer_and_update(platform, enrolled, package)
        enrolled.wait_log("an install has outlived its daemon, wait for it")
        enrolled.shift_time(0, rate=400)
        wait_until(lambda: platform.cloud.device.upgrades, what="the report")
        enrolled.shift_time(0, rate=4)
        enrolled.wait_status(NAME, INSTALL_FAILED)
        assert platform.cloud.device.upgrades == [report("fail")] and not os.path.exists(package_path(package))
        assert "does not end, give up" in enrolled.errors()
        update_again(enrolled)
        enrolled.wait_log("outlived its daemon, wait", count=2)
        threads = len(enrolled.threads())
        assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
        wait_until(lambda: len(enrolled.threads()) < threads, 2, "the end of the waiting")
        assert not os.path.exists(package_path(package))


def test_starts_and_stops_hammered(platform, enrolled):
    """Of two upgrades asked for at once one is refused. Whatever the instants of starts and stops, nothing
    is left running and the daemon lives; an install that was stopped waits for its restart."""
    names = (NAME, "cloud_fax")
    enrolled.write_plugins({name: OLD for name in names})
    packages = [build(name, NEW, padding=50_000, slow=0.4, result="fail") for name in names]
    for package in packages:
        platform.dl.answer(f"GET /packages/{package.name}*", Answer(package.data, drip=25_000, drip_pause=0.3))
        offer(platform, enrolled, package) if package is packages[-1] else platform.cloud.offer(package)
    wait_until(lambda: enrolled.plugins()["cloud_fax"]["pluginNewVersion"] == NEW, what="the other offer")
    tasks = f"/proc/{(pid := enrolled.pid())}/task"
    threads = len(os.listdir(tasks))

    def act(name, action="update"):
        return enrolled.action(pluginName=name, pluginAction=action)["code"]

    def hammer(seed):
        dice, codes, end = random.Random(seed), set(), time.monotonic() + 5
        while time.monotonic() < end:
            codes.add(act(dice.choice(names), dice.choice(("update", "update", "cancel"))))
            time.sleep(dice.choice((0, 0.05, 0.8)))
        return codes
    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        assert sorted(pool.map(act, names)) == [0, 41]
        assert set.union(*pool.map(hammer, range(3))) == {0, 41}
    assert [act(name, "cancel") for name in names] == [0, 0]
    wait_until(lambda: device_processes() == [pid], 20, "the end of all transfers")
    assert {enrolled.plugins()[name]["status"] for name in names} == {IDLE} and enrolled.pid() == pid
    wait_until(lambda: len(os.listdir(tasks)) == threads, 20, "the end of all threads of theirs")
    enrolled.kill_all()
    offer_and_update(platform, enrolled, packages[0])
    enrolled.wait_status(NAME, INSTALL_FAILED)


@contextlib.contextmanager
def free_memory(kilobytes):
    """What the device seems to have free."""
    write_text("/run/lab/meminfo", f"MemFree: {kilobytes} kB\n")
    subprocess.run(["/bin/mount", "--bind", "/run/lab/meminfo", "/proc/meminfo"], check=True)
    try:
        yield
    finally:
        subprocess.run(["/bin/umount", "/proc/meminfo"], check=True)


def test_running_downloads_count_in_the_memory_check(platform, enrolled):
    """And give theirs back when they end."""
    names, size = (NAME, "cloud_fax", "cloud_door"), 40 << 20
    enrolled.write_plugins({name: OLD for name in names})
    packages = {name: build(name, NEW, padding=50_000) for name in names}
    platform.dl.answer("GET /packages/*", Answer(b"x" * 50_000, drip=1_000, drip_pause=0.2))
    with free_memory((size >> 10) + 5 * 1024):
        for name in names:
            platform.cloud.offer(packages[name], size=size, force=True)
        start(enrolled)
        wait_until(lambda: len(platform.cloud.device.upgrades) == 2, 30, "two refusals")
        platform.wait_request("GET /packages/*")
        running = [name for name in names if enrolled.plugins()[name]["status"] == DOWNLOADING]
        assert len(running) == 1 and len(platform.requests("GET /packages/*")) == 1
        assert sorted(platform.cloud.device.upgrades) == sorted(
            report("no memory", name) for name in names if name not in running)
        assert enrolled.action(pluginName=running[0], pluginAction="cancel")["code"] == 0
        wait_until(lambda: device_processes() == [enrolled.pid()], 10, "the end of the transfer")
        for name in names:
            platform.cloud.offer(packages[name], size=size, force=name not in running)
        assert enrolled.get(80025)
        wait_until(lambda: len(platform.requests("GET /packages/*")) == 2, 30, what="another's turn")


def test_every_report_goes_out_once(platform, enrolled):
    names = [f"cloud_{number}" for number in range(8)]
    enrolled.write_plugins({name: OLD for name in names})
    platform.dl.answer("GET /packages/*", Answer(b"", cut_after=0))
    for name in names:
        platform.cloud.offer(build(name, NEW), force=True)
    start(enrolled)
    for name in names:
        enrolled.wait_status(name, DOWNLOAD_FAILED)
    assert sorted(platform.cloud.device.upgrades) == sorted(report("download failed", name) for name in names)


def test_update_right_after_a_cancel(platform, enrolled):
    """The old job, whose child has ended or is about to, says nothing of the new one's file, and no
    two children of theirs write it."""
    package = build(NAME, NEW, padding=60_000)
    platform.dl.answer("GET /packages/*", Answer(package.data, drip=20_000, drip_pause=0.06))
    offer(platform, enrolled, package, signature="wrong")
    for round_ in range(1, 11):
        update(enrolled)
        time.sleep(0.015 * round_)  # never as late as an install, whose stop blocks later ones
        assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
        update(enrolled)
        wait_until(lambda: enrolled.plugins()[NAME]["status"] in (DOWNLOAD_FAILED, BAD_SIGNATURE), what="its end")
        assert enrolled.plugins()[NAME]["status"] == BAD_SIGNATURE
    assert set(platform.cloud.device.upgrades) == {report("signature not match")}
    begins = ["new process" in line for line in enrolled.log_lines(" download /tmp/dl_cloud/") if "process" in line]
    assert begins == [True, False] * (len(begins) // 2)


def test_what_is_answered_ok_is_carried_out(platform, enrolled):
    """Also after a failure, without another check; one that comes in the same pass does not ask for it."""
    package = build(NAME, NEW)
    platform.dl.answer("GET /packages/*", Answer(package.data, cut_after=100), times=1)
    offer_and_update(platform, enrolled, package)
    enrolled.wait_status(NAME, DOWNLOAD_FAILED)
    update(enrolled)
    assert enrolled.get(80025)
    enrolled.wait_status(NAME, RESTARTED)


def test_own_upgrade_begins_no_other_install(platform, enrolled):
    """It would go on beside the daemon's successor, which begins it again. What runs already ends first."""
    enrolled.write_plugins({NAME: OLD, "cloud_fax": OLD, "pluginmgr": "1.0.0"})
    slow = build("cloud_fax", NEW, padding=40_000)
    platform.dl.answer("GET /packages/cloud_fax*", Answer(slow.data, drip=5_000, drip_pause=1))
    platform.cloud.offer(slow, force=True)
    other = build(NAME, NEW, padding=20_000, slow=20)
    platform.dl.answer(f"GET /packages/{NAME}*", Answer(other.data, drip=5_000, drip_pause=0.2))
    platform.cloud.offer(other, force=True)
    platform.cloud.offer(build("pluginmgr", "9.0.0", slow=2.5), force=True)
    start(enrolled)
    enrolled.wait_status(NAME, DOWNLOADED)
    assert enrolled.plugins()["pluginmgr"]["status"] == INSTALLING
    enrolled.wait_log("pluginmgr exit since upgrade")
    commands = [read_text(f"/proc/{pid}/cmdline") for pid in os.listdir("/proc") if pid.isdigit()]
    assert not [command for command in commands if "install.sh" in command]
    assert len(enrolled.log_lines("finish")) == 3, "of all downloads"


def test_own_upgrade_that_ends_during_a_check(platform, enrolled):
    """It is not restarted like a plug-in, by killing it, in the middle of the pass."""
    enrolled.write_plugins({NAME: OLD, "pluginmgr": "1.0.0"})
    platform.cloud.offer(build("pluginmgr", "9.0.0", slow=1.5), force=True)
    start(enrolled)
    enrolled.wait_status("pluginmgr", INSTALLING)
    platform.api.answer(f"GET /v1/res/upgrade/apps/{NAME}*", Answer({"status": "ok"}, delay=2))
    assert enrolled.get(80025)
    enrolled.wait_log("pluginmgr exit since upgrade")


def test_report_waits_for_the_platform(platform, enrolled):
    """What has not left the device goes out with the next check."""
    package = build(NAME, NEW)
    platform.dl.answer("GET /packages/*", Answer(package.data, cut_after=100), times=1)
    offer(platform, enrolled, package)
    platform.api.fail("refuse")
    platform.api.drop()
    update(enrolled)
    enrolled.wait_status(NAME, DOWNLOAD_FAILED)
    platform.api.heal()
    assert platform.cloud.device.upgrades == []
    for _ in range(2):
        assert enrolled.get(80025)
        assert platform.cloud.device.upgrades == [report("download failed")]


def test_refusals(platform, enrolled):
    platform.cloud.offer(build(NAME, NEW), size=50 << 20)
    platform.cloud.offer(build("pluginmgr", "1.2.10"))
    with free_memory(54 << 10):  # not one byte beyond the reserve
        start(enrolled)
        wait_until(lambda: enrolled.plugins()[NAME]["pluginNewVersion"] == NEW, what="the offer")
        for name, code in (("pluginmgr", 0), ("unknown", 0), ("", 0), (NAME, 42)):
            assert enrolled.action(pluginName=name, pluginAction="update")["code"] == code, name
        assert enrolled.action(pluginName=NAME, pluginAction="again") == {"result": "error", "code": 91}
        assert enrolled.action(pluginName=NAME) == {"result": "error", "code": 91}
        platform.cloud.offer(build(NAME, NEW), size=50 << 20, force=True)
        assert enrolled.get(80025)
        enrolled.wait_status(NAME, DOWNLOAD_FAILED)
        assert platform.cloud.device.upgrades == [report("no memory")] and not platform.requests("GET /packages/*")
        platform.cloud.offer(build(NAME, NEW), size=-1)  # fits anywhere, and is no package's
        assert enrolled.get(80025)
        update(enrolled)
        enrolled.wait_status(NAME, DOWNLOAD_FAILED)
        assert platform.cloud.device.upgrades[1:] == [report("download failed")]


def test_stop_during_a_slow_report_holds(platform, enrolled):
    """Also as a stopped install: later ones wait for the restart."""
    enrolled.write_plugins({NAME: OLD, "cloud_fax": OLD})
    platform.cloud.offer(build("cloud_fax", NEW))
    platform.api.answer("POST /v1/services/cloudwatch/metrics", lambda request:
                        Answer({"code": 0}, delay=1) if "agentUpgrade" in request.target else None)
    offer_and_update(platform, enrolled, build(NAME, NEW))
    platform.wait_request(lambda one: "agentUpgrade" in one.target)
    assert enrolled.action(pluginName=NAME, pluginAction="cancel")["code"] == 0
    wait_until(lambda: enrolled.plugins()[NAME]["pluginVersion"] == NEW, what="the new version")
    assert enrolled.plugins()[NAME]["status"] == IDLE
    update(enrolled, "cloud_fax")
    enrolled.wait_status("cloud_fax", DOWNLOADED)
    with pytest.raises(AssertionError):
        enrolled.wait_status("cloud_fax", RESTARTED, timeout=2)


def test_cloudae_upgrade_restarts_it_and_may_switch_the_cloud_on(platform, device):
    device.reset_enrolled(platform, {"cloudserver": "off"}, agents=["cloudae"])
    package = build("cloudae", "2.0.0", files={"/var/run/cloudae": agent_program("2.0.0")})
    platform.cloud.offer(package, force=True, fields={"cloudserver": "on"})
    start(device)
    asked = platform.wait_request("GET /v1/res/upgrade/apps/cloudae")
    assert asked.query == {"platform": "KQ900", "product_type": "KQ900", "language": "en",
                           "device_id": DEVICE_ID, "cloudserver": "off"}
    assert asked.raw.decode() == (
        f"GET {asked.target} HTTP/1.1\nHost: {API_SERVER}\n"
        f"Authorization: {basic('key-of-the-device:x-auth-device')}\n"
        "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\nAccept: */*\n"
        "Accept-Language: zh-cn\nAccept-Encoding: gzip, deflate\nConnection: keep-alive\n\r\n\r\n")
    device.wait_status("cloudae", RESTARTED)
    assert device.cloudae.wait_started(2)["version"] == "2.0.0"
    assert device.setting("cloudserver") == "on"
    assert platform.cloud.device.reported["cloud_server"] == "on"


def test_server_failure_skips_the_rest_of_the_pass(platform, enrolled):
    """The kept connection is gone and no new one is to be had: one line for the whole pass."""
    enrolled.write_plugins({NAME: OLD, "cloud_fax": "1.0"})
    start(enrolled)
    enrolled.wait_status("pluginmgr", NOT_OFFERED)  # the last of the list; nothing was on offer
    platform.api.fail("refuse")
    platform.api.drop()
    assert [one["status"] for one in enrolled.get(80025)] == [NOT_OFFERED] * 3
    assert [line.rpartition(" - ")[2] for line in enrolled.log_lines("update fail")] == [
        f"check {NAME} update fail, ret 15"]


def test_clock_steps_start_a_check(platform, enrolled):
    enrolled.reset(settings=ENROLLED, update={"checkcycle": 600}, agents=())
    enrolled.start(faketime=True)
    assert enrolled.get(80025)
    for clock, checks in ((-8, False), (-28, True), (672, True)):
        before = platform.mark()
        enrolled.shift_time(clock)
        if checks:
            platform.wait_request("GET /v1/res/upgrade/apps/pluginmgr", since=before)
        else:
            time.sleep(1)  # ten ticks of the upgrade thread
            assert not platform.requests("GET /v1/res/upgrade/apps/*", since=before)
