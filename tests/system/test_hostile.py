# SPDX-License-Identifier: Apache-2.0
"""Foreign values that would like to be commands, paths, lines or headers, through every door."""
import hashlib
import json
import os
import re
import shutil
import subprocess

import pytest

from lab.deployment import DOWNLOAD_SERVER
from lab.device import (AGENT_INI, ENROLLED, HOSTS, INI, RESTARTED, VERSION_LIST, install, read_text, wait_until,
                        write_text)
from lab.package import build, sign
from lab.platform import DEVICE_ID, Answer, coded

DEVICE = "/v1/devices/" + DEVICE_ID
READ = "GET " + DEVICE
GET, SET, ACTION = "method=gw.config.get&id=", "method=gw.config.set&", "method=gw.app.action&"
APP_REPORT = 0x2100
OVER = {3, 6, 7, 9, 10, 11, 12, 13}  # statuses of an upgrade that has ended

OWNED = "touch /tmp/owned"
SECOND = "\r\nX-Evil: 1\r\n\r\nGET /evil HTTP/1.1\r\nHost: evil\r\n\r\n"
VALUES = {
    "list": f"; {OWNED};", "substitution": f"$({OWNED})", "back-ticks": f"`{OWNED}`", "pipe": f"x|{OWNED}&",
    "quote": f"';{OWNED};'", "double quote": f'";{OWNED};"', "parent": "..", "traversal": "../../../etc/passwd",
    "absolute": "/etc/passwd", "option": "-O/etc/passwd", "second request": "x" + SECOND,
    "line feed": "x HTTP/1.1\nX-Evil: 1\n\nGET /evil HTTP/1.1\n\n", "continued": "x+",
    "second setting": "x\ncloudserver=disable\n[Evil]\n", "format": "%n%s%n%s%999999d", "long": "x" * 10_000,
    "zero byte": "x\0y;" + OWNED, "control": "\x01\x1a\x0c\x7f\xff"}
HEADERS = {"host", "authorization", "user-agent", "accept", "accept-language", "accept-encoding", "connection",
           "content-type", "content-length", "range", "icy-metadata"}
WATCHED = ("/etc", "/var/config", "/var/bin", "/var/lib", "/var/run", "/root", "/bin")
WRITTEN = {INI, AGENT_INI, VERSION_LIST, HOSTS, "/var/config/cloud/sip.config", "/etc/resolv.conf",
           "/var/run/cloud_install.lock"}


def fingerprints():
    """{path: hash or kind} of the folders in which nothing but WRITTEN may change."""
    found = {}
    for top in WATCHED:
        for folder, _folders, names in os.walk(top):
            for path in (os.path.join(folder, name) for name in names):
                if path not in WRITTEN and not path.startswith("/var/run/pluginmgr") and os.path.isfile(path):
                    with open(path, "rb") as file:
                        found[path] = "link" if os.path.islink(path) else hashlib.md5(file.read()).hexdigest()
    return found


class Watch:
    """What has to hold after each hostile value."""

    def __init__(self, platform, device):
        self.platform, self.device, self.pid = platform, device, device.pid()
        self.files, self.mark = fingerprints(), platform.mark()

    def check(self, what, mode="on"):
        assert not os.path.exists("/tmp/owned"), what
        assert fingerprints() == self.files, what
        for path in (INI, AGENT_INI):
            lines = [line.strip() for line in read_text(path).splitlines() if line.strip()]
            keys = [re.match(r"(\w+)=", line)[1] for line in lines if not line.startswith("[")]
            assert len(set(keys)) == len(keys) and "[Evil]" not in lines, (what, lines)
        assert self.device.setting("cloudserver") == mode, what
        lines = read_text(HOSTS).splitlines()
        assert lines[0] == "127.0.0.1 localhost" and all(
            re.fullmatch(r"(127|10)\.[\d.]+ [\w. -]+", line) for line in lines[1:]), (what, lines)
        for request in self.platform.requests(since=self.mark):
            head = request.raw.decode("latin-1").replace("\r\n", "\n").partition("\n\n")[0].split("\n")
            assert re.fullmatch(r"(GET|PUT|POST|DELETE) /[^\x00-\x1f\x7f]* HTTP/1\.[01]", head[0]), (what, head)
            names = [line.partition(":")[0].lower() for line in head[1:]]
            assert set(names) <= HEADERS and len(set(names)) == len(names), (what, head)
            assert request.path != "/evil", (what, head)
        self.mark = self.platform.mark()
        assert self.device.daemons() == [self.pid] and self.device.query(GET + "80000"), what


def test_answers_of_the_cloud(platform, running):
    """Also when they come back to it: the authorisation code in a path, the key in a credential."""
    watch = Watch(platform, running)
    for name, value in VALUES.items():
        value = value[:400]
        everything = {key: value for key in (
            "message", "device_key", "active_state", "bind_status", "user_id", "device_authcode", "grantee_id")}
        platform.api.answer("*", Answer({"code": 0} | everything))
        platform.api.answer(READ, coded(1004), times=1)
        assert running.query(GET + "80011"), name
        assert running.replies(ACTION + "authcode=create&pluginName=x")
        assert running.replies(ACTION + "authcode=delete&pluginName=x")
        stored = value.partition("\0")[0]
        refused = re.search("[\r\n\x0c\x1a]", stored)
        line = stored + "+\n" * stored.endswith("+")
        assert refused or len(value) > 63 or read_text(INI).count(f"\nactive_state={line}\n") == 1, name
        assert not refused or running.log_lines("value of device_key would not read back as it is"), name
        watch.check(name)
        platform.api.reset()


@pytest.mark.parametrize("name", ["substitution", "traversal", "second request", "long", "control"])
def test_device_id_of_the_cloud(platform, device, name):
    platform.api.answer("POST *activate", coded(0, device_id=VALUES[name][:400]))
    device.reset(settings=ENROLLED, device_id=None, agents=())
    device.start(faketime=True)
    watch = Watch(platform, device)
    platform.wait_request("POST *activate")
    device.shift_time(31)
    platform.wait_request(count=2)
    watch.check(name)


INSTALLED = ("list", "substitution", "quote", "second request", "continued", "format", "control")  # 2 s each


def hostile_offers(platform, field):
    """A plug-in for each value, each on offer with that value in the field; the names of all."""
    plugins = {}
    for value in (VALUES[name][:600] for name in (INSTALLED if field == "to_version" else VALUES)):
        package = build(f"plug{len(plugins):02}", "1.1.0")
        link = f"https://{DOWNLOAD_SERVER}/packages/{package.file_name}"
        fields = {"version_name": {"version_name": value}, "link": {"link": value}, "path": {"link": link + value},
                  "host": {"link": f"http://{DOWNLOAD_SERVER}{value}/x"},
                  "to_version": {"to_version": "1.1.0." + value, "signature": sign(package.data, "1.1.0." + value)},
                  "others": dict.fromkeys(("signature", "rel_info", "app_name", "cloudserver"), value)}[field]
        platform.cloud.offer(package, force=True, fields=fields)
        plugins[package.name] = "1.0.0"
    return plugins


@pytest.mark.parametrize("field", ["version_name", "link", "path", "host", "to_version", "others"])
def test_offers(platform, device, field):
    plugins = hostile_offers(platform, field)
    device.reset_enrolled(platform, plugins=plugins)
    device.shift_time(0, rate=4)
    device.start(faketime=True)
    watch = Watch(platform, device)

    def over():
        status = {one["status"] for name, one in device.plugins().items() if name in plugins}
        return status <= OVER
    wait_until(over, 60, "the end of all upgrades", 0.5)
    watch.check(field)
    assert set(os.listdir("/tmp")) <= {"dl_cloud", "up_cloud"}
    lines = read_text("/var/log/versions/cloud").splitlines()
    assert {line.partition(":")[0] for line in lines} == {*plugins, "pluginmgr"}, lines


def test_names_in_the_version_list(platform, device):
    """What is no name is left out: it is neither shown nor asked for, upgraded, run or written back."""
    names = ("../../tmp/evil", "evil now", "-evil", "evil;x")
    device.reset_enrolled(platform, plugins=dict.fromkeys((*names, "good"), "1.0.0"))
    for path in ("/tmp/evil", "/var/run/evil"):
        install(path, f"#!/bin/sh\n{OWNED}\n".encode())
    for plugin in ("plug", "good"):
        platform.cloud.offer(build(plugin, "1.1.0"), force=True)
    offer = {"status": "ok", "data": platform.cloud.offers["plug"].json()}
    platform.api.answer("GET /v1/res/upgrade/apps/*evil*", Answer(offer))
    device.shift_time(0, rate=4)
    device.start(faketime=True)
    device.wait_status("good", RESTARTED)
    assert set(device.plugins()) == {"good", "pluginmgr"} and not os.path.exists("/tmp/owned")
    assert [one["app_name"] for one in json.loads(read_text(VERSION_LIST))] == ["good", "pluginmgr"]
    for name in names:
        assert device.errors().count(f"{name} is no name of a plug-in, leave it out") == 1


def test_endless_list_of_plugins(platform, device):
    """What programs are told of it fits in their environment, or none would start."""
    names = [f"plugin_{number:05}" for number in range(10_000)]
    device.reset_enrolled(platform, plugins=[{"app_name": one, "version": "1.0.0"} for one in names],
                          agents=("cloudae",))
    device.start()
    environment = read_text(f"/proc/{device.cloudae.wait_started()['pid']}/environ").split("\0")
    told = next(one for one in environment if one.startswith("cloud_version=")).partition("=")[2]
    assert 60_000 < len(told) <= 65_536
    versions = json.loads(told)
    assert [one["app_name"] for one in versions] == names[:len(versions)]
    assert device.errors().count("cloud_version is too long, ") == 1


def test_links_pipes_and_endless_files_of_others(device):
    """In /tmp and in the place of what is read at the start: not written through, not waited for."""
    archive = b"pages of the firmware"
    os.makedirs("/run/lab/pages/web/cloud", exist_ok=True)
    os.makedirs("/run/lab/pages/web/js", exist_ok=True)
    write_text("/run/lab/pages/web/js/load_r.js", "static/web/kq20")
    write_text("/run/lab/pages/web/cloud/load_r.kq20.js", "of kq20")
    write_text("/run/lab/pages/web/cloud/index.htm", archive.decode())
    write_text("/run/lab/pages/web/js/a.js", "script")
    for kind in ("gz", "bz2", None):
        device.reset(agents=())
        victims = {f"/root/{name}": f"kept {name}" for name in ("index", "tar", "bz2", "script", "js/load_r.js")}
        for path, text in victims.items():
            write_text(path, text)
        if kind:
            subprocess.run(["/bin/tar", "cf", "/run/lab/web.tar", "-C", "/run/lab/pages", "web"], check=True)
            packed = subprocess.check_output(["/bin/" + {"gz": "gzip", "bz2": "bzip2"}[kind], "-c", "/run/lab/web.tar"])
            with open(f"/var/bin/cloud_web.tar.{kind}", "wb") as file:
                file.write(packed)
        os.makedirs("/tmp/web/cloud")
        write_text("/tmp/web/cloud/index.htm", archive.decode())
        os.symlink("/root/index", "/tmp/web/index.htm")
        os.symlink("/root/js", "/tmp/web/js")
        os.symlink("/root/tar", "/tmp/cloud_web.tar")
        os.symlink("/root/bz2", "/tmp/cloud_web.tar.bz2")
        os.symlink("/root/script", "/var/run/cloud_install.sh")
        os.mkfifo("/var/tmp/cloud_upgrade.ini")
        os.unlink("/var/log/version")
        os.mkfifo("/var/log/version")
        os.unlink(AGENT_INI) if os.path.exists(AGENT_INI) else None
        os.mkfifo(AGENT_INI)
        os.unlink(VERSION_LIST)
        os.symlink("/dev/zero", VERSION_LIST)
        device.start()
        assert {path: read_text(path) for path in victims} == victims and os.listdir("/root/js") == ["load_r.js"]
        assert os.stat("/var/run/cloud_install.sh", follow_symlinks=False).st_mode == 0o100755
        assert read_text("/tmp/web/index.htm") == archive.decode() and not os.path.islink("/tmp/web/index.htm")
        assert not kind or (read_text("/tmp/web/js/load_r.js"), read_text("/tmp/web/js/a.js")) == ("of kq20", "script")
        assert not os.path.lexists("/tmp/cloud_web.tar") and not os.path.lexists("/tmp/cloud_web.tar.bz2")
        for path in ("/var/tmp/cloud_upgrade.ini", "/var/log/version", AGENT_INI):
            assert device.errors().count(f"{path} is not read: it is no regular file") == 1, path
        assert "parse local version list faild" in device.errors()
        device.kill_all()
        shutil.rmtree("/root/js")
    device.reset(agents=())
    os.makedirs("/var/lib/pages/cloud")
    write_text("/var/lib/pages/cloud/index.htm", "page")
    os.symlink("/var/lib/pages", "/tmp/web")
    device.start()
    assert os.listdir("/var/lib/pages") == ["cloud"] and not os.path.lexists("/tmp/web")
    device.reset(agents=())
    os.makedirs("/tmp/web/cloud")
    write_text("/tmp/web/cloud/index.htm", "page")
    os.mkfifo("/tmp/web/index.htm")
    device.start()
    assert read_text("/tmp/web/index.htm") == "page"


@pytest.mark.parametrize("kind", ["pipe", "endless", "long"])
def test_settings_that_cannot_be_read(device, kind):
    """The defaults hold, with one error line; nothing is written over what is there."""
    os.unlink(INI)
    if kind == "pipe":
        os.mkfifo(INI)
    elif kind == "endless":
        os.symlink("/dev/zero", INI)
    else:
        write_text(INI, "[Config]\ncloudserver=on\n")
        os.truncate(INI, 200 << 20)
    device.start()
    assert device.errors().count(f"{INI} is not read: ") == 1
    assert device.set(id80035="off") == {"result": "ok", "code": 0}
    assert f"quorvel_service not written to {INI}, code -10" in device.errors()
    with open(f"/proc/{device.pid()}/status") as file:
        assert int(re.search(r"VmHWM:\s+(\d+) kB", file.read())[1]) < 60_000
    assert not os.path.isfile(INI) or kind == "long" and os.path.getsize(INI) == 200 << 20


WEB_KEYS = ["id80000=", "id80002=", "id80002=true&id80007=", "id80003=a&id80002=true&id80004=",
            "id80004=a&id80002=true&id80003=", "id80035=", "id80037=", "id80038=", "id80037=a.lan|",
            "id80038=10.0.0.9|10.0.0.9"]
FOR_HOSTS = {"hosts line": "x\n6.6.6.6 evil", "echo": "-e\\n6.6.6.6", "pattern": ".*", "sed": "/d;1,$d;#",
             "write": "6/w /tmp/owned", "blank": "a 6.6.6.6", "redirection": "a>/tmp/owned"}


def test_requests_of_the_web_server(platform, running):
    os.makedirs("/tmp/web")
    watch = Watch(platform, running)
    for name, value in (VALUES | FOR_HOSTS).items():
        for key in WEB_KEYS:
            running.replies(SET + key + value)
        running.replies(SET + f"id80037={value}|10.0.0.6&id80038=")
        for text in ("method=gw.boa.report&", ACTION + "pluginAction=update&pluginName=", GET, "",
                     ACTION + "pluginName=pluginmgr&pluginAction=", ACTION + "device_vcode=", GET + "80036&next=",
                     ACTION + "quorvel_action=", ACTION + "quorvel_action=check_kq_qrcode&active_toekn=",
                     GET + "80005&language=", ACTION + "authcode="):
            running.replies(text + value)
        running.message(APP_REPORT, value[:900], timeout=0.02)
        running.replies(SET + "id80035=off&id80037=&id80038=")
        watch.check(name)


def test_server_of_the_agent(platform, device):
    """In mode "ums", in which it can change without a restart."""
    device.reset(settings=ENROLLED | {"cloudserver": "ums"}, agents=())
    device.shift_time(0, 5)
    device.start(faketime=True)
    watch = Watch(platform, device)
    for name in ("list", "substitution", "quote", "second setting", "continued", "long"):
        device.replies(f"{SET}id80007={VALUES[name]}&id80014={VALUES[name]}")
        watch.check(name, "ums")


@pytest.mark.parametrize("name", ["substitution", "quote", "traversal", "second request", "format", "long", "control"])
def test_files_at_the_start(platform, device, name):
    """Settings, the version list and the firmware's version file, all with the value at once."""
    value = VALUES[name]
    keys = ("active_token", "language", "quorvel_token", "quorvel_server", "quorvel_service", "accounts_server",
            "user_apiserver", "user_sipserver", "device_key")
    one_line = re.sub("[\r\n\x1a\x0c]", "", value[:480])
    device.reset_enrolled(platform, dict.fromkeys(keys, one_line), plugins=[
        dict.fromkeys(("version_name", "version", "rel_info"), value) | {"app_name": app}
        for app in (value, "cloud_phone")])
    write_text("/var/log/version", f"HW_REVISION=V1.0 KQ{one_line}-A\nSW_REVISION=REL {one_line}\n")
    device.start()
    watch = Watch(platform, device)
    platform.wait_request("GET /v1/res/upgrade/apps/pluginmgr*")
    for text in (GET + "80005", GET + "80031", ACTION + "device_vcode=1", SET + "id80004=a&id80003=b&id80002=true"):
        device.query(text)
    watch.check(name)
