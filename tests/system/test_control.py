# SPDX-License-Identifier: Apache-2.0
"""The local control service, the agents' messages, signals, what started programs inherit, logs."""
import concurrent.futures
import contextlib
import hashlib
import hmac
import os
import re
import select
import signal
import socket
import struct
import time

import pytest

from lab.deployment import API_SERVER, VALUES, VERSION
from lab.device import (CONTROL_PORT, CONTROL_SOCKET, DAEMON, DEBUG_LOG, ERROR_LOG, HEADER, INSTALLING, LAB, MARKER,
                        MESSAGE_LOG, NOT_OFFERED, RESTARTED, device_processes, read_text, wait_until, write_text)
from lab.package import build
from lab.platform import DEVICE_ID, Answer

DEVICE, UPGRADES = "/v1/devices/" + DEVICE_ID, "GET /v1/res/upgrade/apps/"
NAME = "cloud_phone"
MODE, PLUGINS = "method=gw.config.get&id=80000", "method=gw.config.get&id=80005"
TEXT_ROOM = 256 - HEADER.size
APP_REPORT, LOG_LEVEL, DEVICE_CODE, CLOUD_ADDRESS, ANSWER = 0x2100, 0x3200, 0x3101, 0x3100, 0x2000
QUERY_SOCKET = "/tmp/pluginmgrGetStatus_ctl"


@pytest.fixture
def alone(device):
    return start_alone(device)


def start_alone(device, mode="ums", faketime=False, **settings):
    """Without an id, agents and (in ums) the cloud it starts at once and stays quiet."""
    device.reset(settings={"cloudserver": mode} | settings, device_id=None, agents=())
    device.start(faketime=faketime)
    return device


def request(text, cookie=1, echo=0, marker=0, flag=0):
    return HEADER.pack(b"ignored!", cookie, 0x7F000001, 2, echo, marker, flag) + text.encode()


def answered(datagrams=(), last=99):
    """Sends datagrams and then one that is always answered; {cookie: text} of what came before."""
    replies = {}
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.settimeout(10)
        for data in [*datagrams, request(PLUGINS, last)]:
            one.sendto(data, CONTROL_PORT)
        while last not in replies:
            raw = one.recv(65536)
            replies[HEADER.unpack_from(raw)[1]] = raw[HEADER.size:].decode()
    del replies[last]
    return replies


def readable(one):
    return bool(select.select([one], [], [], 0)[0])


def message(kind, text="", rest=b"sixteen bytes..."):
    return struct.pack("=I16s", kind, rest) + text.encode()


def tell(*messages):
    """Sends the control socket messages and then one that is always answered; what came before."""
    path, answers, last = LAB + "tell_ctl", [], b"the last of them"
    if os.path.lexists(path):
        os.unlink(path)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as one:
        one.bind(path)
        one.settimeout(10)
        for data in [*messages, message(DEVICE_CODE, "0" * 12, last)]:
            one.sendto(data, CONTROL_SOCKET)
        while not answers or last not in answers[-1]:
            answers.append(one.recv(4096))
    return answers[:-1]


# -- requests --------------------------------------------------------------------------------------


def test_reply_header(alone):
    for cookie, echo, marker, flag, echoed in (
            (7, 0x12345678, MARKER, 0, True), (0xFFFFFFFF, 5, MARKER, 0, True),
            (7, 5, 0, 0, False), (8, 5, MARKER, 1, False), (9, 5, MARKER + 1, 0, False)):
        reply = alone.datagram(request(MODE, cookie, echo, marker, flag), 1, 5)[0]
        words = (echo, MARKER) if echoed else (0, 0)
        assert reply.raw == HEADER.pack(b"", cookie, 0, 0, *words, 0) + (
            b'{"result":"ok","code":0,"id80000":"ums","id80001":"fail","id80014":"","id80020":true}')


def padded(before, after, size=TEXT_ROOM):
    return before + "x" * (size - len(before + after)) + after


def test_which_queries_are_answered(alone):
    state, refused, plugins = '{"result":"ok"', '{"result":"err', '[ { "pluginNam'
    method, action = "method=gw.config.get", "method=gw.app.action&"
    cases = {MODE: state, "pad&" + MODE: state, MODE + "&id=80005": state, MODE + "x": state,
             method + "&pid=80005&id=80000": plugins, "id=80005&" + method: plugins,
             padded(method + "&", "&id=80000"): state,                    # 256 bytes, no NUL at the end
             padded(method + "&", "&id=800001", TEXT_ROOM + 1): state,    # cut to 80000
             padded(method + "&", "&id=80000", TEXT_ROOM + 1): None,      # cut to 8000
             action + "pluginName=a": refused, action + "pluginName=a&pluginAction=updates": refused,
             action + "pluginName=a&pluginAction=": refused, action + "pluginAction=update": None}
    cases |= dict.fromkeys(["", "id=80000", "method=", "method=nothing", method, method + "s&id=80000",
                            method[:-1] + "&id=80000", "METHOD=gw.config.get&id=80000", method + "&id=",
                            method + "&id=80001", method + "&id=80020", method + "&id=-80000",
                            "method=gw.app.action", "method=gw.app.actions&pluginName=a"])
    replies = answered(request(text, 1000 + n) for n, text in enumerate(cases))
    assert {text: replies.get(1000 + n, "")[:14] or None for n, text in enumerate(cases)} == cases


def test_odd_datagrams_do_no_harm(alone):
    odd = [b"", b"k", b"d", b"keepclouda", b"\0", b"\xff" * 31, b"\0" * 32, b"\xff" * 256, b"k" * 3000,
           request(MODE[:-5] + "9" * 150), request("&" * 224), request("method=&" * 28),
           request("method=gw.app.action&pluginName=" + "%n" * 96, 5)]
    assert answered(odd) == {5: '{"result":"error","code":93}'}
    assert "UDP stack receive from (0)" in alone.errors()


def test_signs_of_life_are_compared_by_prefix(alone):
    for text, line, count in ((b"keepcloudae and more", "got keepcloudae", 1),
                              (b"keepcloudsafety!", "got keepcloudsafety", 1),
                              (b"keepcloudsafe", "pluginmgr rcv from boa", 2)):  # and that of answered()
        before = len(alone.log_lines(line))
        assert not answered([text]) and len(alone.log_lines(line)) == before + count, text


def state(number):
    return struct.pack("=II12x", 0x1000, number)


@pytest.mark.parametrize("mode, answer, shown", [
    ("on", state(0), "ok"), ("on", state(2), "connecting"), ("on", state(1), "fail"), ("on", None, "fail"),
    ("on", b"", "fail"), ("on", b"abc", "fail"), ("on", bytes(8), "ok"), ("ums", state(0), "ok"),
    ("off", state(0), "fail"), ("disable", state(0), "fail")])
def test_mode_and_state_of_the_agent(device, mode, answer, shown):
    """The agent that is asked, or not, is the test's own."""
    start_alone(device, mode)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as agent, \
            concurrent.futures.ThreadPoolExecutor() as pool:
        agent.bind("/var/run/cloudae_ctl")
        reply = pool.submit(device.get, 80000)
        if mode in ("on", "ums"):
            agent.settimeout(20)
            query, sender = agent.recvfrom(4096)
            assert query == struct.pack("=I36x", 0x1000)
            if answer is not None:
                agent.sendto(answer, sender)
        assert reply.result(10) | {"id80014": ""} == {
            "result": "ok", "code": 0, "id80000": mode, "id80001": shown, "id80014": "", "id80020": True}
        agent.setblocking(False)
        with pytest.raises(BlockingIOError):
            agent.recv(1)
    assert not os.path.lexists(QUERY_SOCKET)
    assert ("recvUnixSocket return 0" in device.errors()) == (answer == b"")


def test_state_that_cannot_be_asked_for(device):
    start_alone(device, "on")
    os.mkdir(QUERY_SOCKET)
    assert device.get(80000)["id80001"] == "fail"


def test_plugins_and_their_notes(platform, device):
    """Notes that do not fit are cut, all to one length, but not inside a character."""
    names, note = [NAME, "cloud_fax", "cloud_pad"], "n" * 511 + "\u00e4" + "n" * 1087
    device.reset_enrolled(platform, plugins=dict.fromkeys(names, "1.0"))
    platform.cloud.offer(build(NAME, "1.1"), note="short", size=5000)
    for name in names[1:]:
        platform.cloud.offer(build(name, "1.1"), note=note, size=5000)
    device.start()
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, what="the check")
    shown = note.encode().decode("latin-1")  # as the lab reads what the daemon sends
    keys = ("pluginName", "pluginVersion", "pluginNewVersion", "pluginNote", "pluginSpace", "status")
    assert [tuple(one.items()) for one in device.get(80005)] == [tuple(zip(keys, values)) for values in (
        (NAME, "1.0", "1.1", "short", 5000, 0), ("cloud_fax", "1.0", "1.1", shown, 5000, 0),
        ("cloud_pad", "1.0", "1.1", shown, 5000, 0), ("pluginmgr", VERSION, VERSION, "null", 0, NOT_OFFERED))]
    platform.cloud.offer(build(NAME, "1.1"), note=note)
    assert [one["pluginNote"] for one in device.get(80025)] == ["n" * 511] * 3 + ["null"]


def test_check_in_the_language_asked_for(platform, device):
    device.start_enrolled(platform)
    for more, language in (("", "en"), ("&language=chinese", "zh"), ("&language=klingon", "zh"),
                           ("&language=english", "en"), ("&language=chinese_tw&x=1", "zh")):
        before = platform.mark()
        assert [one["status"] for one in device.get(80025, more)] == [NOT_OFFERED] * 2
        assert [(one.line, one.query["language"]) for one in platform.requests(UPGRADES + "*", before)] == [
            (UPGRADES + NAME, language), (UPGRADES + "pluginmgr", language)], more


@pytest.mark.parametrize("early, late", [(17, 22), (-17, -23)])
def test_check_without_an_upgrade_thread_times_out(device, early, late):
    start_alone(device, "disable", faketime=True)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        reply = pool.submit(device.get, 80025)
        for step in (0, early):
            device.shift_time(step)
            with pytest.raises(concurrent.futures.TimeoutError):
                reply.result(0.7)
        device.shift_time(late)
        assert [one["pluginName"] for one in reply.result(10)] == [NAME, "pluginmgr"]
    assert "check plugin update timeout" in device.errors()


# -- messages of the agent -------------------------------------------------------------------------


def test_app_report_registers_first_when_that_is_due(platform, enrolled):
    platform.api.answer(f"GET {DEVICE}", Answer({"code": 500}))
    enrolled.start()
    platform.wait_request(f"GET {DEVICE}", count=2)  # at the start and on the first tick
    answered()
    platform.api.reset()
    before = platform.mark()
    tell(message(APP_REPORT, "app=a%20b"), message(APP_REPORT, "x=2&y"))
    sent = platform.requests(lambda one: "/res/" not in one.path, before)
    assert [one.method for one in sent] == ["GET", "PUT", "POST", "PUT", "PUT"]
    assert [one.target for one in sent[3:]] == [DEVICE + "?app=a%20b", DEVICE + "?x=2&y"]


def device_code(text):
    digest = hmac.new(VALUES["DEVICE_CODE_KEY"].encode(),
                      text.encode() + VALUES["DEVICE_CODE_SALT"].encode(), hashlib.md5).hexdigest()
    return "-".join((digest[:8], digest[8:12], digest[12:16], digest[16:20], digest[20:]))


def test_device_code(alone):
    for text in ("001122aabbcc", "001122AABBCC", "%s%n-_.!~*12", "", "001122aabbc", "001122aabbccd", "1" * 236):
        wanted = message(ANSWER, device_code(text)) if len(text) == 12 else message(DEVICE_CODE)
        # a terminating NUL is no part of the text
        assert tell(message(DEVICE_CODE, text), message(DEVICE_CODE, text + "\0")) == [wanted] * 2, text


@pytest.mark.parametrize("state, given", [("true", True), ("truest", True), ("tru", False), (None, False)])
def test_cloud_address(device, state, given):
    start_alone(device, active_state=state, device_key="the-key")
    answer = message(ANSWER, API_SERVER + " the-key") if given else message(CLOUD_ADDRESS)
    assert tell(message(CLOUD_ADDRESS, "whatever")) == [answer]


def test_other_messages_are_ignored(platform, alone):
    odd = [b"", b"\0", b"\x31", b"\x21\0", struct.pack("=I", 0xFFFFFFFF), struct.pack("=I", 0x1000), b"\xff" * 3000,
           message(0x3102, "001122aabbcc"), message(ANSWER, "x"), message(APP_REPORT, "not=in-ums")]
    assert not tell(*odd) and not platform.requests()
    assert tell(struct.pack("=I", DEVICE_CODE)) == [message(DEVICE_CODE, rest=b"")]  # the rest counts as zeros


UNKNOWN, SURPLUS = "ghost of control_users may not command: unknown user", "33 of control_users may not command: one"


@pytest.mark.parametrize("users, served, error", [
    ("root", True, ""), ("0", True, ""), ("12345, 0", True, ""), ("ghost, root", True, UNKNOWN),
    ("12345", False, ""), ("nobody", False, ""), (",", False, ""), ("ghost", False, UNKNOWN),
    (",".join(map(str, range(1, 34))) + ",0", False, SURPLUS)])
def test_who_may_command(device, users, served, error):
    """Commands and notices of others are ignored: all that the sandbox runs is root's."""
    device.reset(settings={"cloudserver": "ums", "control_users": users}, device_id=None, agents=())
    device.start()
    assert bool(device.query(MODE, timeout=10 if served else 0.3)) == served
    assert error in device.errors() and (error or "control_users" not in device.errors())
    ignored = [line.rpartition(" - ")[2] for line in device.log_lines("datagrams ignored")]
    assert ignored == ([] if served else ["1 datagrams ignored, not from one of control_users"])


def test_senders_that_nobody_owns_are_ignored(device):
    """One that has gone by the time it is served, and one at the daemon's own port. They are told
    once a minute; the notices of agents do not count either."""
    device.reset(settings={"cloudserver": "ums", "control_users": "root"}, device_id=None, agents=())
    device.shift_time(0)
    device.start(faketime=True)
    os.kill(device.pid(), signal.SIGSTOP)
    for _ in range(3):
        device.datagram(b"keepcloudae")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.bind(("127.0.0.2", CONTROL_PORT[1]))
        one.sendto(request(MODE), CONTROL_PORT)
        os.kill(device.pid(), signal.SIGCONT)
        assert device.query(MODE) and not readable(one)
    told = "datagrams ignored, not from one of control_users"
    assert [line.split(" - ")[1] for line in device.log_lines(told)] == ["1 " + told]
    assert not device.log_lines("got keepcloudae")
    device.shift_time(61)
    device.wait_log("3 " + told)


def test_a_sender_with_many_sockets_at_its_port(device):
    """More than one part of the kernel's answer holds, IPv6 ones among them, all of the one user."""
    device.reset(settings={"cloudserver": "ums", "control_users": "root"}, device_id=None, agents=())
    device.start()
    with contextlib.ExitStack() as sockets:
        def bound(family, address):
            one = sockets.enter_context(socket.socket(family, socket.SOCK_DGRAM))
            one.bind(address)
            return one
        sender = bound(socket.AF_INET, ("127.0.0.1", 0))
        sender.settimeout(10)
        port = sender.getsockname()[1]
        for number in range(2, 202):
            bound(socket.AF_INET, (f"127.0.0.{number}", port))
        if os.path.exists("/proc/net/if_inet6"):
            bound(socket.AF_INET6, ("::ffff:127.0.1.1", port))
        for _ in range(3):
            sender.sendto(request(MODE), CONTROL_PORT)
            assert sender.recv(8192)
    assert not device.log_lines("datagrams ignored")


def busy_ticks(pid, seconds=0.5):
    """Hundredths of a second of processor time that a process takes in a while."""
    def ticks():
        return sum(map(int, read_text(f"/proc/{pid}/stat").rpartition(")")[2].split()[11:13]))
    before = ticks()
    time.sleep(seconds)
    return ticks() - before


def test_no_answer_to_itself(alone):
    """A sender that has become a link to the daemon's socket, and one that shares its port."""
    path, pid = LAB + "turned_ctl", alone.pid()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as one:
        one.bind(path)
        os.kill(pid, signal.SIGSTOP)
        one.sendto(message(DEVICE_CODE), CONTROL_SOCKET)  # refused by an answer of the same type
        os.unlink(path)
        os.symlink(CONTROL_SOCKET, path)
        os.kill(pid, signal.SIGCONT)
        assert busy_ticks(pid) < 15, "by the socket"
    os.unlink(path)
    loop = "method=gw.config.get&id=80037"
    start_alone(alone, user_sipserver=loop)
    assert loop in str(alone.query(loop))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        one.bind(CONTROL_PORT)
        one.connect(("127.0.0.9", 9))  # so that what comes from the port is not for this one
        one.sendto(request(loop), CONTROL_PORT)
    assert busy_ticks(alone.pid()) < 15, "by the port"


def test_log_level_from_the_agent(alone):
    """Components 0 to 3 take any level; 4, whose sign are these lines, only from 5 on."""
    def lines(level):
        tell(message(LOG_LEVEL, level))
        before = [len(alone.log_lines(text)) for text in ("got keepcloudae", "response - ")]
        assert not answered([b"keepcloudae"])
        return [len(alone.log_lines(text)) - before.pop(0) for text in ("got keepcloudae", "response - ")]
    assert [lines(level) for level in ("8", "6", "4", "0", "7 or so")] == [[1, 1], [1, 0], [0, 0], [0, 0], [1, 1]]


# -- signals ---------------------------------------------------------------------------------------


def test_sigpipe_from_outside_restarts(alone):
    first, began = alone.daemons()[0], time.monotonic()
    assert alone.stop(signal.SIGPIPE) == 0
    assert alone.log_lines(" SYSTEM:(247) -  get a signal - 13. exit!!!")
    assert alone.wait_new_pid(first) != first and time.monotonic() - began > 2.9
    assert len(alone.daemons()) == 1 and alone.get(80000)["id80000"] == "ums"


# has it come so far? The platform is mute in the registration; package and installer are slow.
PHASES = {"agents": lambda platform, device: "will do action" in device.log(),
          "registration": lambda platform, device: platform.api.connections,
          "download": lambda platform, device: platform.requests("GET /packages/*"),
          "installation": lambda platform, device: device.is_ready() and
          device.plugins()[NAME]["status"] == INSTALLING}


@pytest.mark.parametrize("phase", PHASES)
def test_sigterm_in_each_phase(platform, enrolled, phase):
    package = build(NAME, "2.0", padding=100_000, slow=30)
    platform.cloud.offer(package, force=True)
    platform.dl.answer("GET *", Answer(package.data, drip=100 if phase == "download" else 0))
    if phase == "registration":
        platform.api.fail("mute")
    child = enrolled.start(ready=False)
    wait_until(lambda: PHASES[phase](platform, enrolled), what=phase, pause=0.01)
    assert child.poll() is None and enrolled.stop() == 0 and "get a signal - 15. exit!!!" in enrolled.log()
    wait_until(lambda: not enrolled.daemons(), what="the end of its download child")


def test_sigterm_among_requests(device):
    """The signal arrives in the middle of log lines and allocations; it must never hang."""
    for number in range(12):
        start_alone(device)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            for _ in range(150 + 10 * number):
                one.sendto(request(PLUGINS), CONTROL_PORT)
        assert device.stop() == 0


# -- what programs inherit -------------------------------------------------------------------------


def descriptors(pid):
    folder = f"/proc/{pid}/fd/"
    return {os.readlink(folder + number) for number in os.listdir(folder) if int(number) > 2}


def programs():
    """{name: pid} of what the daemon has started."""
    return {read_text(f"/proc/{pid}/comm").strip(): pid for pid in device_processes()
            if os.readlink(f"/proc/{pid}/exe") != DAEMON}


def assert_clean(device, name, given=()):
    pid = wait_until(lambda: programs().get(name), 20, name)
    # A shell that starts a program has all signals blocked for that moment; what was inherited stays.
    wait_until(lambda: re.search("SigBlk:\t0+\n", read_text(f"/proc/{pid}/status")), 2, f"no signal blocked in {name}", 0.01)
    assert descriptors(pid) & descriptors(device.daemons()[0]) == set(given), name


def test_started_programs_inherit_nothing(platform, device):
    """An agent of the start-up, wget, an installer (but for its lock), and a program that the upgrade thread
    starts."""
    def update(status):
        assert device.get(80025) and device.action(pluginName=NAME, pluginAction="update")["code"] == 0
        return status and device.wait_status(NAME, status)
    package = build(NAME, "2.0", files={"/var/run/" + NAME: b"#!/bin/sh\nexec sleep 1000\n"}, padding=50_000, slow=3)
    platform.cloud.offer(package, "http")
    platform.dl.answer("GET *", Answer(package.data, drip=1000))
    platform.dl.answer("GET *", Answer(status=404), times=1)
    device.reset_enrolled(platform, agents=["cloudae"])
    device.start()
    device.cloudae.wait_started()
    assert_clean(device, "cloudae")
    update(3)
    update(None)
    assert_clean(device, "wget")
    device.wait_status(NAME, INSTALLING)
    assert_clean(device, "install.sh", ["/var/run/cloud_install.lock"])
    device.wait_status(NAME, RESTARTED)
    assert_clean(device, "sleep")


# -- logs ------------------------------------------------------------------------------------------


def test_logs_of_the_previous_run_are_kept(device):
    kept = {DEBUG_LOG: ".bak", ERROR_LOG: ".bak", MESSAGE_LOG: ".1"}
    device.reset(settings={"cloudserver": "ums"}, device_id=None, agents=())
    for path, suffix in kept.items():
        write_text(path, "previous")
        write_text(path + suffix, "older")
    child = device.start()
    for path, suffix in kept.items():
        assert read_text(path + suffix) == "previous" and "previous" not in read_text(path), path
    assert f"] SYSTEM: pid({child.pid}) - Version {VERSION}, " in device.log().partition("\n")[0]
    assert ") - ERROR:cann't get device id\n" in device.log() and ") - cann't get device id\n" in device.errors()

