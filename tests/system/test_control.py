# SPDX-License-Identifier: Apache-2.0
"""The local control service, the agents' messages, signals, and what started programs inherit."""
import concurrent.futures
import hashlib
import hmac
import json
import os
import re
import signal
import socket
import struct
import time

import pytest

from lab.deployment import API_SERVER, VALUES, VERSION
from lab.device import (AGENT_INI, CONTROL_PORT, CONTROL_SOCKET, DAEMON, DEBUG_LOG, ERROR_LOG, HEADER,
                        LAB, MARKER, MESSAGE_LOG, device_processes, read_text, wait_until, write_text)
from lab.package import build
from lab.platform import DEVICE_ID, Answer

ENROLLED = {"active_state": "true", "device_key": "key-of-the-device", "cloudserver": "on"}
DEVICE = "/v1/devices/" + DEVICE_ID
UPGRADES = "GET /v1/res/upgrade/apps/"
NAME = "cloud_phone"
MODE = "method=gw.config.get&id=80000"
PLUGINS = "method=gw.config.get&id=80005"
TEXT_ROOM = 256 - HEADER.size
APP_REPORT, LOG_LEVEL, DEVICE_CODE, CLOUD_ADDRESS, ANSWER = 0x2100, 0x3200, 0x3101, 0x3100, 0x2000
INSTALLING, UP_TO_DATE, CHECK_FAILED = 5, 9, 10
LOG_LIMIT = 512 * 1024


@pytest.fixture
def enrolled(platform, device):
    """A device that is registered already and has no agents; it is quiet when the test begins."""
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED, agents=())
    device.start()
    platform.wait_request(lambda one: "versions" in one.query)
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == CHECK_FAILED, what="the check")
    return device


def start_alone(device, **settings):
    """Without the cloud, an id and agents it starts at once and stays quiet."""
    device.reset(settings={"cloudserver": "ums"} | settings, device_id=None, agents=())
    device.start()
    return device


@pytest.fixture
def alone(device):
    return start_alone(device)


def request(text, cookie=1, echo=0, marker=0, flag=0):
    return HEADER.pack(b"ignored!", cookie, 0x7F000001, 2, echo, marker, flag) + text.encode()


def answered(datagrams, last=99):
    """Sends datagrams and then one that is always answered; the (cookie, text) answered before."""
    replies = []
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.settimeout(10)
        for data in [*datagrams, request(PLUGINS, last)]:
            one.sendto(data, CONTROL_PORT)
        while True:
            raw = one.recv(65536)
            if HEADER.unpack_from(raw)[1] == last:
                return replies
            replies.append((HEADER.unpack_from(raw)[1], raw[HEADER.size:].decode()))


def tell(*messages, last=DEVICE_CODE, text=b"123456789012"):
    """Sends the control socket raw messages and then one that is always answered; all answers."""
    path, answers = LAB + "tell_ctl", []
    if os.path.lexists(path):
        os.unlink(path)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as one:
        one.bind(path)
        one.settimeout(10)
        for data in [*messages, struct.pack("=I16s", last, b"the last of them") + text]:
            one.sendto(data, CONTROL_SOCKET)
        while not (answers and answers[-1][4:20] == b"the last of them"):
            answers.append(one.recv(4096))
    return answers


def message(kind, text=""):
    return struct.pack("=I16s", kind, b"sixteen bytes...") + text.encode()


# -- requests -------------------------------------------------------------------------------------


def test_reply_header(alone):
    for cookie, echo, marker, flag, echoed in (
            (7, 0x12345678, MARKER, 0, True), (0xFFFFFFFF, 5, MARKER, 0, True), (0, 0, MARKER, 0, True),
            (7, 5, 0, 0, False), (8, 5, MARKER, 1, False), (9, 5, MARKER + 1, 0, False)):
        reply = alone.datagram(request(MODE, cookie, echo, marker, flag), 1, 5)[0]
        words = (echo, MARKER) if echoed else (0, 0)
        assert reply.raw[:HEADER.size] == HEADER.pack(b"", cookie, 0, 0, *words, 0)
        assert reply.text == ('{"result":"ok","code":0,"id80000":"ums","id80001":"fail",'
                              '"id80014":"","id80020":true}')


def padded(before, after, size=TEXT_ROOM):
    return before + "x" * (size - len(before + after)) + after


def test_which_queries_are_answered(alone):
    state, plugins = "{", "["
    cases = [
        (MODE, state), ("pad&" + MODE, state), (MODE + "&id=80005", state), (MODE + "x", state),
        ("method=gw.config.get&pid=80005&id=80000", plugins),
        ("id=80005&method=gw.config.get", plugins),
        (padded("method=gw.config.get&", "&id=80000"), state),     # 256 bytes: no NUL at the end
        (padded("method=gw.config.get&", "&id=800001", TEXT_ROOM + 1), state),  # cut to 80000
        (padded("method=gw.config.get&", "&id=80000", TEXT_ROOM + 1), None),    # cut to 8000
        ("", None), ("id=80000", None), ("method=", None), ("method=gw.config.get", None),
        ("method=gw.config.gets&id=80000", None), ("method=gw.config.ge&id=80000", None),
        ("METHOD=gw.config.get&id=80000", None), ("method=gw.config.get&id=", None),
        ("method=gw.config.get&id=80001", None), ("method=gw.config.get&id=80020", None),
        ("method=gw.config.get&id=-80000", None), ("method=gw.app.actions&pluginName=a", None),
        ("method=gw.app.action", None), ("method=nothing", None),
    ]
    replies = dict(answered(request(text, 1000 + n) for n, (text, _) in enumerate(cases)))
    assert {text: replies.get(1000 + n, "")[:1] or None for n, (text, _) in enumerate(cases)} == dict(cases)


def test_odd_datagrams_do_no_harm(alone):
    odd = [b"", b"k", b"d", b"keepclouda", b"\0", b"\xff" * 31, b"\0" * 32, b"\xff" * 256, b"k" * 3000,
           request("method=gw.config.get&id=" + "9" * 150), request("&" * 224), request("method=&" * 28),
           request("method=gw.app.action&pluginName=" + "%n" * 96)]
    assert [text for _, text in answered(odd)] == ['{"result":"error","code":91}']
    assert "UDP stack receive from (0)" in alone.errors()


def test_signs_of_life_are_compared_by_prefix(alone):
    for text, line in (("keepcloudae and more", "got keepcloudae"),
                       ("keepcloudsafety!", "got keepcloudsafety"),
                       ("keepcloudsafe", "pluginmgr rcv from boa - cookie=")):
        before = len(alone.log_lines(line))
        assert not answered([text.encode()])
        extra = line.startswith("pluginmgr")  # the request that answered() adds is one too
        assert len(alone.log_lines(line)) == before + 1 + extra, text


@pytest.mark.parametrize("mode, agent_state, shown", [
    ("on", 0, "ok"), ("on", 2, "connecting"), ("on", 1, "fail"), ("on", None, "fail"), ("ums", 0, "ok"),
    ("off", 0, "fail"), ("disable", 0, "fail")])
def test_mode_and_state_of_the_agent(device, mode, agent_state, shown):
    """Without id, so that no agent is started: the agent asked is the test's own."""
    device.reset(settings={"cloudserver": mode}, device_id=None, agents=())
    write_text(AGENT_INI, "[Config]\nUMS_SERVER=ums.example\n")
    device.start()
    queries = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as agent, \
            concurrent.futures.ThreadPoolExecutor() as pool:
        agent.bind("/var/run/cloudae_ctl")
        agent.settimeout(1)
        reply = pool.submit(device.get, 80000)
        try:
            data, sender = agent.recvfrom(4096)
            queries.append(data)
            if agent_state is not None:
                agent.sendto(struct.pack("=II12x", 0x1000, agent_state), sender)
        except TimeoutError:
            pass
        assert reply.result(7) == {"result": "ok", "code": 0, "id80000": mode, "id80001": shown,
                                   "id80014": "ums.example", "id80020": True}
    asked = mode in ("on", "ums")
    assert queries == [struct.pack("=I36x", 0x1000)] * asked
    assert not os.path.lexists("/tmp/pluginmgrGetStatus_ctl")


def test_plugins_and_their_notes(platform, enrolled):
    """80005 as the web pages get it; notes that do not fit are cut, all to one length."""
    note = "n" * 1600
    names = [NAME, "cloud_fax", "cloud_pad"]
    enrolled.kill_all()
    enrolled.write_plugins({name: "1.0.0" for name in names})
    for name in names:
        platform.cloud.offer(build(name, "1.1.0"), note=note if name != NAME else "short", size=5000)
    enrolled.start()
    known = {"pluginVersion": "1.0.0", "pluginNewVersion": "1.1.0", "pluginSpace": 5000, "status": 0}
    own = {"pluginName": "pluginmgr", "pluginVersion": VERSION, "pluginNewVersion": VERSION,
           "pluginNote": "null", "pluginSpace": 0, "status": CHECK_FAILED}
    wait_until(lambda: enrolled.plugins()["pluginmgr"]["status"] == CHECK_FAILED, what="the check")
    notes = ["short", note, note]
    assert enrolled.get(80005) == [{"pluginName": name, "pluginNote": text} | known
                                   for name, text in zip(names, notes)] + [own]
    platform.cloud.offer(build(NAME, "1.1.0"), note=note, size=5000)
    reply = enrolled.query("method=gw.config.get&id=80025")
    assert len(reply.raw) < 4096 and list(reply.json()[0]) == list(own)
    assert [one["pluginNote"] for one in reply.json()] == ["n" * 512] * 3 + ["null"]
    assert enrolled.log_lines("plugin release note is too long, limit to 512")


def test_check_in_the_language_asked_for(platform, enrolled):
    for more, language in (("", "en"), ("&language=chinese", "zh"), ("&language=klingon", "zh"),
                           ("&language=english", "en"), ("&language=chinese_tw&x=1", "zh")):
        before = platform.mark()
        assert [one["status"] for one in enrolled.get(80025, more)] == [CHECK_FAILED] * 2
        assert [(one.line, one.query["language"]) for one in platform.requests(UPGRADES + "*", before)] == [
            (UPGRADES + NAME, language), (UPGRADES + "pluginmgr", language)], more


@pytest.mark.parametrize("early, late", [(17, 22), (-17, -23)])
def test_check_without_an_upgrade_thread_times_out(device, early, late):
    device.reset(settings={"cloudserver": "disable"}, device_id=None, agents=())
    device.start(faketime=True)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        reply = pool.submit(device.get, 80025)
        for step in (0, early):
            device.shift_time(step)
            with pytest.raises(concurrent.futures.TimeoutError):
                reply.result(0.7)
        device.shift_time(late)
        assert [one["pluginName"] for one in reply.result(3)] == [NAME, "pluginmgr"]
    assert "check plugin update timeout" in device.errors()


# -- messages of the agent ------------------------------------------------------------------------


def test_app_report_is_forwarded(platform, enrolled):
    before = platform.mark()
    tell(message(APP_REPORT, "app=phone&state=a%20b"))
    sent = platform.requests(since=before)
    assert [(one.method, one.target) for one in sent] == [("PUT", DEVICE + "?app=phone&state=a%20b")]
    assert sent[0].headers["authorization"].startswith("Basic ")


def test_app_report_registers_first_when_that_is_due(platform, device):
    platform.cloud.device.active = True
    platform.api.answer(f"GET {DEVICE}", Answer({"code": 500}))
    device.reset(settings=ENROLLED, agents=())
    device.start()
    platform.wait_request(f"GET {DEVICE}", count=2)  # at the start and on the first tick
    answered([])
    platform.api.reset()
    before = platform.mark()
    tell(message(APP_REPORT, "a=1"), message(APP_REPORT, "a=2"))
    assert [one.method + " " + one.target.partition("?")[2][:3] for one in platform.requests(
        lambda one: "/res/" not in one.path, before)] == ["GET ", "PUT clo", "POST met", "PUT a=1", "PUT a=2"]


def test_nothing_is_reported_in_ums(platform, device):
    start_alone(device)
    tell(message(APP_REPORT, "a=1"))
    assert not platform.requests()


def device_code(text):
    digest = hmac.new(VALUES["DEVICE_CODE_KEY"].encode(),
                      text.encode() + VALUES["DEVICE_CODE_SALT"].encode(), hashlib.md5).hexdigest()
    return "-".join((digest[:8], digest[8:12], digest[12:16], digest[16:20], digest[20:]))


def test_device_code(alone):
    for text in ("001122aabbcc", "001122AABBCC", "%s%n-_.!~*12", "", "001122aabbc", "001122aabbccd", "1" * 236):
        wanted = message(ANSWER, device_code(text)) if len(text) == 12 else message(DEVICE_CODE)
        # a terminating NUL is no part of the text
        assert tell(message(DEVICE_CODE, text), message(DEVICE_CODE, text + "\0"))[:2] == [wanted] * 2, text


@pytest.mark.parametrize("state, given", [("true", True), ("truest", True), ("tru", False),
                                          ("false", False), (None, False)])
def test_cloud_address(device, state, given):
    start_alone(device, active_state=state, device_key="the-key")
    answer = tell(message(CLOUD_ADDRESS, "whatever"))[0]
    assert answer == (message(ANSWER, API_SERVER + " the-key") if given else message(CLOUD_ADDRESS))


def test_other_messages_are_ignored(platform, alone):
    odd = [b"\0", b"\x31", b"\x21\0", struct.pack("=I", 0), struct.pack("=I", 0xFFFFFFFF),
           struct.pack("=I", 0x1000), message(0x3102, "001122aabbcc"), message(ANSWER, "x"), b"\xff" * 3000]
    assert len(tell(*odd)) == 1 and not platform.requests()
    short = struct.pack("=I", DEVICE_CODE) + bytes(3)  # the rest of the header counts as zeros
    assert tell(short)[0] == struct.pack("=I16x", DEVICE_CODE)


def test_log_level_from_the_agent(alone):
    """Components 0 to 3 take any level; 4, whose sign is the traced query, only from 5 on."""
    def lines(level):
        tell(message(LOG_LEVEL, str(level)))
        before = {text: len(alone.log_lines(text)) for text in ("got keepcloudae", "response - ")}
        assert not answered([b"keepcloudae"])
        return [len(alone.log_lines(text)) - count for text, count in before.items()]
    assert [lines(level) for level in (8, 6, 4, 0, "7 or so")] == [[1, 1], [1, 0], [0, 0], [0, 0], [1, 1]]


# -- signals --------------------------------------------------------------------------------------


def test_sigpipe_from_outside_restarts(alone):
    first, began = alone.daemons()[0], time.monotonic()
    assert alone.stop(signal.SIGPIPE) == 0
    assert alone.log_lines(" SYSTEM:(247) -  get a signal - 13. exit!!!")
    assert alone.wait_new_pid(first) != first
    assert 2.9 < time.monotonic() - began and len(alone.daemons()) == 1
    assert alone.get(80000)["id80000"] == "ums"


def offer(platform, **made):
    package = build(NAME, "2.0", padding=100_000, **made)
    platform.cloud.offer(package, force=True)
    return package


def mute(platform, device):
    platform.api.fail("mute")
    return lambda: platform.api.connections


def download(platform, device):
    package = offer(platform)
    platform.dl.answer("GET *", Answer(package.data, drip=100))
    return lambda: platform.requests("GET /packages/*")


def install(platform, device):
    offer(platform, slow=30)
    return lambda: device.is_ready() and device.plugins()[NAME]["status"] == INSTALLING


PHASES = {
    "first lines": lambda platform, device: lambda: "Version " in device.log(),
    "agents": lambda platform, device: lambda: "will do action" in device.log(),
    "registration": mute, "download": download, "installation": install}


@pytest.mark.parametrize("phase", PHASES)
def test_sigterm_in_each_phase(platform, device, phase):
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED, agents=())
    is_reached = PHASES[phase](platform, device)
    child = device.start(ready=False)
    wait_until(is_reached, what=phase, pause=0.01)
    assert child.poll() is None and device.stop() == 0
    assert "get a signal - 15. exit!!!" in device.log()
    wait_until(lambda: not device.daemons(), 3, "the end of its download child")


def test_sigterm_among_requests(device):
    """The signal arrives in the middle of log lines and allocations; it must never hang."""
    device.reset(settings={"cloudserver": "ums"}, device_id=None, agents=())
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        for number in range(12):
            device.start()
            for _ in range(150 + 10 * number):
                one.sendto(request(PLUGINS), CONTROL_PORT)
            assert device.stop(timeout=5) == 0


# -- what programs inherit ------------------------------------------------------------------------


def descriptors(pid):
    folder, found = f"/proc/{pid}/fd", set()
    for number in os.listdir(folder):
        try:
            target = os.readlink(f"{folder}/{number}")
        except FileNotFoundError:
            continue
        if int(number) > 2:
            found.add(target)
    return found


def programs(device):
    """{name: pid} of what the daemon has started."""
    return {read_text(f"/proc/{pid}/cmdline").split("\0", 1)[0].rpartition("/")[2] or str(pid): pid
            for pid in device_processes() if os.readlink(f"/proc/{pid}/exe") != DAEMON}


def assert_clean(device, name):
    """Nothing blocked, SIGPIPE as usual (Python ignores it itself), no descriptor of the daemon."""
    pid = wait_until(lambda: programs(device).get(name), 20, name)
    status = dict(line.split(":\t", 1) for line in read_text(f"/proc/{pid}/status").splitlines())
    assert int(status["SigBlk"], 16) == 0, name
    assert name in ("python3", "cloudae") or int(status["SigIgn"], 16) == 0, name
    shared = descriptors(pid) & descriptors(device.daemons()[0])
    assert not shared, (name, shared)


def test_started_programs_inherit_nothing(platform, device):
    """An agent of the start-up, wget out of the download child, an installer under the install
    thread's shell, and a program that the upgrade thread starts after it."""
    platform.cloud.device.active = True
    program = b"#!/bin/sh\nexec /bin/sleep 1000\n"
    package = build(NAME, "2.0", files={"/var/run/" + NAME: program}, padding=100_000, slow=4)
    device.reset(settings=ENROLLED | {"cloudserver": "on"})
    platform.cloud.offer(package, "http")
    platform.dl.answer("GET *", Answer(package.data, drip=1000))
    platform.dl.answer("GET *", Answer(status=404), times=1)
    device.start()
    device.cloudae.wait_started()
    assert_clean(device, "python3" if "python3" in programs(device) else "cloudae")
    wait_until(lambda: device.plugins()[NAME]["pluginNewVersion"] == "2.0", what="the offer")
    assert device.action(pluginName=NAME, pluginAction="update")["code"] == 0
    device.wait_status(NAME, 3)
    assert device.get(80025) and device.action(pluginName=NAME, pluginAction="update")["code"] == 0
    assert_clean(device, "wget")
    device.wait_status(NAME, INSTALLING)
    assert_clean(device, "sh")
    device.wait_status(NAME, 7)
    assert_clean(device, "sleep")


# -- logs -----------------------------------------------------------------------------------------


def test_logs_of_the_previous_run_are_kept(device):
    kept = {DEBUG_LOG: ".bak", ERROR_LOG: ".bak", MESSAGE_LOG: ".1"}
    device.reset(settings={"cloudserver": "ums"}, device_id=None, agents=())
    for path, suffix in kept.items():
        write_text(path, "previous " + path)
        write_text(path + suffix, "older")
    child = device.start()
    assert {path: read_text(path + suffix) for path, suffix in kept.items()} == {
        path: "previous " + path for path in kept}
    assert "previous" not in device.log() + device.errors() + read_text(MESSAGE_LOG)
    stamp = r"\[\d\d/\d\d \d\d:\d\d:\d\d\.\d{6}\]"
    assert re.match(stamp + rf" SYSTEM: pid\({child.pid}\) - Version {re.escape(VERSION)}, .+\n", device.log())
    assert re.search(rf"^{stamp} \S+\(\d+\) - ERROR:cann't get device id$", device.log(), re.M)
    assert re.search(rf"^{stamp} \S+\(\d+\) - cann't get device id$", device.errors(), re.M)


@pytest.mark.parametrize("size, rotates", [(LOG_LIMIT, True), (LOG_LIMIT - 4000, False)])
def test_log_is_rotated_at_its_limit(alone, size, rotates):
    for number in (1, 2):
        with open(DEBUG_LOG, "a") as file:
            file.write(f"filler {number} ".ljust(size - file.tell() - 1) + "\n")
        answered([b"keepcloudae"])
        assert os.path.exists(DEBUG_LOG + ".1") == rotates
        assert (f"filler {number}" in alone.log()) != rotates
        if rotates:
            assert f"filler {number}" in read_text(DEBUG_LOG + ".1")
            assert "method=gw.config.get" in alone.log() and os.path.getsize(DEBUG_LOG) < 5000
    assert json.loads(alone.query(PLUGINS).text)
