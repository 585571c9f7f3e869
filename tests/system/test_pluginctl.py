# SPDX-License-Identifier: Apache-2.0
"""pluginctl at the real daemon: what it prints and how it exits."""
import json
import re
import socket
import subprocess

import pytest

from lab.deployment import VERSION
from lab.device import AGENT_INI, CONTROL_PORT, HEADER, RESTARTED, plugin_files, write_text
from lab.package import build
from lab.platform import Answer

NAME, OLD, NEW = "cloud_phone", "1.0.0", "1.1.0"
DONE, NOT_DONE, USAGE, NOBODY = 0, 1, 2, 3


def start(*words):
    return subprocess.Popen(["/lab-build/pluginctl", *words], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def run(*words):
    """(exit status, standard output, standard error)."""
    process = start(*words)
    out, error = process.communicate(timeout=60)
    return process.returncode, out, error


def rows(table):
    """{name: [version, new, state, size]} of a table of plug-ins."""
    lines = [re.split(r"  +", line.strip()) for line in table.splitlines()]
    return {line[0]: line[1:] for line in lines if len(line) == 5}


def start_and_check(device):
    device.start()
    assert device.get(80025)


def test_status_check_and_parameters(platform, enrolled):
    write_text(AGENT_INI, "[Config]\nUMS_SERVER=ums.example\n")
    start_and_check(enrolled)
    nothing = "check failed or nothing to download"
    code, out, error = run("status")
    assert (code, error) == (DONE, "")
    assert out.startswith("Run mode     on\nCloud agent  fail\nUMS server   ums.example\n\nPLUG-IN ")
    assert rows(out) == {"PLUG-IN": ["VERSION", "NEW", "STATE", "SIZE"], NAME: [OLD, "-", nothing, "-"],
                         "pluginmgr": [VERSION, "-", nothing, "-"]}
    platform.cloud.offer(build(NAME, NEW), size=3 << 20)
    code, out, error = run("check")
    assert (code, error, rows(out)[NAME]) == (DONE, "", [OLD, NEW, "newer version available", "3.0 MiB"])
    assert run("get", "80005") == (DONE, out, "")
    enrolled.set(id80037="sip.lan|10.0.0.5")
    for number, value in (("80000", "on"), ("80001", "fail"), ("80020", "true"), ("80037", "sip.lan|10.0.0.5"),
                          ("80038", "")):
        assert run("get", number) == (DONE, value + "\n", "")
    state, plugins = enrolled.get(80000), enrolled.get(80005)
    for words, expected in ((("status",), {"state": state, "plugins": plugins}), (("check",), plugins),
                            (("get", "80000"), state), (("get", "80005"), plugins)):
        code, out, error = run("--json", *words)
        assert (code, json.loads(out), error) == (DONE, expected, ""), words


def test_update_watched_to_its_end(platform, enrolled):
    """Installed, up to date, refused, and after that installed all the same."""
    platform.cloud.offer(build(NAME, NEW, slow=2))
    start_and_check(enrolled)
    code, out, error = run("update", NAME, "--watch")
    # the first look may come late, but not behind the installation's two seconds
    assert (code, error) == (DONE, "") and re.match(rf"{NAME}: (requested|downloading|downloaded|installing)", out)
    assert re.search(rf"^{NAME}: installed, version {NEW} \(\d+ s\)$", out, re.M), out
    assert enrolled.plugins()[NAME]["status"] == RESTARTED
    code, out, error = run("update", NAME)
    assert (code, error) == (DONE, "") and out.endswith(f"{NAME}: up to date, version {NEW}\n")
    platform.cloud.offer(build(NAME, "1.2.0"), signature="0" * 40)
    run("check")  # what is up to date asks for nothing by itself
    code, _out, error = run("update", "--watch", NAME)
    assert (code, error) == (NOT_DONE, f"pluginctl: {NAME}: refused: signature does not match\n")
    platform.cloud.offer(build(NAME, "1.2.0"))
    code, out, error = run("--json", "update", NAME, "--watch")
    assert (code, error) == (DONE, "") and json.loads(out) | {"seconds": 0} == {
        "pluginName": NAME, "installed": True, "message": "installed, version 1.2.0", "seconds": 0,
        "pluginVersion": "1.2.0", "pluginNewVersion": "1.2.0", "status": RESTARTED}


@pytest.mark.parametrize("made, changes, words", [
    ({"result": "fail"}, {}, "installation failed"), ({}, {"size": 10}, "download failed")])
def test_update_that_fails(platform, enrolled, made, changes, words):
    platform.cloud.offer(build(NAME, NEW, **made), **changes)
    start_and_check(enrolled)
    code, _out, error = run("update", "--watch", NAME)
    assert (code, error) == (NOT_DONE, f"pluginctl: {NAME}: {words}\n")


def test_update_of_the_daemon_is_watched_across_its_restart(platform, enrolled):
    platform.cloud.offer(build("pluginmgr", "1.2.11", files=plugin_files("pluginmgr", "1.2.11")))
    start_and_check(enrolled)
    code, out, error = run("update", "pluginmgr", "--watch")
    assert code == DONE and "pluginmgr: installed, version 1.2.11 (" in out, (out, error)
    assert len(enrolled.daemons()) == 1


def test_cancel_ends_a_watched_download(platform, enrolled):
    package = build(NAME, NEW, padding=100_000)
    platform.dl.answer("GET *", Answer(package.data, drip=500, drip_pause=0.1))
    platform.cloud.offer(package)
    start_and_check(enrolled)
    code, out, error = run("update", NAME)
    assert (code, error) == (DONE, "") and out.startswith(f"{NAME}: upgrade to {NEW} requested;")
    platform.wait_request("GET /packages/*")
    watcher = start("update", NAME, "--watch")
    assert watcher.stdout.readline() == f"{NAME}: downloading {NEW}\n"
    assert run("update", NAME)[0] == NOT_DONE  # it is on its way
    assert run("cancel", NAME) == (DONE, f"{NAME}: cancelled (was: downloading)\n", "")
    _out, error = watcher.communicate(timeout=10)
    assert watcher.returncode == NOT_DONE and "somebody cancelled it" in error
    assert enrolled.plugins()[NAME]["status"] == 0


UNANSWERED = "answers other queries but not this one"
NOT_CHECKED = f"""PLUG-IN      VERSION  NEW  STATE  SIZE
cloud_phone  1.0.0    -    idle      -
pluginmgr    {VERSION:7}  -    idle      -
"""


@pytest.mark.parametrize("words, code, out, error", [
    (["update", "cloud_tv"], NOT_DONE, "", f"no plug-in cloud_tv; it has: {NAME}, pluginmgr\n"),
    (["cancel", "cloud_tv"], NOT_DONE, "", f"no plug-in cloud_tv; it has: {NAME}, pluginmgr\n"),
    (["update", NAME, "--watch"], NOT_DONE, "", "no newer version is known"),
    (["raw", "method=gw.app.action&pluginName=x"], NOT_DONE, '{"result":"error","code":91}\n', "code 91"),
    (["check"], NOT_DONE, NOT_CHECKED, "the check did not end"),
    (["raw", "nothing that is answered"], NOBODY, "", UNANSWERED), (["get", "81234"], NOBODY, "", UNANSWERED)],
    ids=str)
def test_what_cannot_be_done(device, words, code, out, error):
    device.reset(settings={"cloudserver": "ums"}, device_id=None, agents=())
    device.start()
    result = run(*words)
    assert result[:2] == (code, out) and error in result[2]


def test_nobody_answers(device):
    for words in (("status",), ("check",), ("update", NAME), ("cancel", NAME), ("get", "80000"),
                  ("set", "80000=on"), ("raw", "method=x"), ("--json", "status")):
        code, out, error = run(*words)
        assert (code, out) == (NOBODY, "") and "is pluginmgr running on this device?" in error, words
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as mute:
        mute.bind(CONTROL_PORT)
        code, out, error = run("status", "--timeout", "0.3")
        assert (code, out) == (NOBODY, "") and "no answer in time" in error


HOSTILE = "\x1b]0;owned\x07 \x7f \x9b2J \u202e \u2066 \u061c \u200f \u2028 \u00e4\u4e2d\U0001f600"
REPLIES = {  # of the bytes that come, what JSON is printed; None: that they are none
    b'{"id80000": "a\\u001b\\n",\n"x":[-1.5e+3,0,true,null,{}]}': {
        "id80000": "a\x1b\n", "x": [-1500.0, 0, True, None, {}]},
    b'{"id80000":"%s"}' % HOSTILE.encode(): {"id80000": HOSTILE},
    b'{"id80000":"\x9b2J\xff\xc0\xaf\xed\xa0\x80\xe4"}': {"id80000": "\ufffd2J" + 7 * "\ufffd"},
    b"": None, b"\x1b[2J": None, b"ok": None, b'{"id80000":"a"': None, b'{"a":NaN}': None, b"{'a':1}": None,
    b'{"a":1,}': None, b'{"a":01}': None, b'{"a":1.}': None, b'{"a":"\\x"}': None, b'{"a":1}/**/': None,
    b"[" * 3000: None, b'{"a":1}{"b":"\x1b"}': None}


def run_with_reply(reply, *words):
    """What pluginctl prints when this is what pluginmgr answers."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as daemon:
        daemon.bind(CONTROL_PORT)
        process = start(*words)
        request, client = daemon.recvfrom(4096)
        daemon.sendto(HEADER.pack(b"", HEADER.unpack_from(request)[1], 0, 0, 0, 0, 0) + reply, client)
        return process.communicate(timeout=10)


def test_foreign_texts_neither_steer_a_terminal_nor_break_json(device):
    obeyed = "[\0-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]"
    for reply, expected in REPLIES.items():
        out, error = run_with_reply(reply, "--json", "get", "80000")
        assert not re.search(obeyed, out + error), (reply, out, error)
        value = json.loads(out)
        assert value == expected or expected is None and value["result"] == "error", (reply, out)
        out, error = run_with_reply(reply, "get", "80000")
        assert not re.search(obeyed, out + error), (reply, out, error)
        assert expected is None or out.startswith(("a??", "?]0;owned?", "?2J???????\n")), (reply, out)


def test_usage_errors_and_help_need_nobody(device):
    for line in ("", "boot", "status x", "get", "get eighty", "get 80000 80005", "get 80003", "update", "update a&b",
                 "update a=b", "check --watch", "set", "set 80000", "set 80005=x", "set 80014=a&b", "raw",
                 "set 80000=on 80000=off", "raw " + "x" * 225, "--colour status", "--timeout soon status",
                 "--timeout 0 status", "--timeout"):
        code, out, error = run(*line.split())
        assert (code, out) == (USAGE, "") and error, line
    assert run("--help")[1].startswith("Usage: pluginctl ") and run("--help")[::2] == (DONE, "")
    assert run("--version") == (DONE, f"pluginctl {VERSION}\n", "")
    with open("/dev/full", "w") as full:
        assert subprocess.run(["/lab-build/pluginctl", "--version"], stdout=full).returncode == NOT_DONE
