# SPDX-License-Identifier: Apache-2.0
"""Login, binding and authorisation codes; the PBX service: activation, account, state, extensions."""
import json
import os
import shutil
import time

import pytest

from lab.deployment import ACCOUNTS_SERVER, OAUTH_CLIENT, PBX_SERVER
from lab.device import INI, read_text, wait_until, write_text
from lab.platform import DEVICE_ID, DEVICE_MAC, Answer, basic, coded

DEVICE, CODES = "/v1/devices/" + DEVICE_ID, "/v1/devices/authcodes"
READ, ACTIVATE, BIND, UNBIND = (line.format(DEVICE) for line in (
    "GET {}", "POST {}/actions/activate", "POST {}/actions/bind", "DELETE {}/actions/bind"))
GET, SET, ACTION = "method=gw.config.get&id=", "method=gw.config.set&", "method=gw.app.action&"
AGENT = "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)"
OWNER, TOKEN = "token-of-the-owner", "token-of-the-pbx"
ATTACHED = {"quorvel_service": "on", "quorvel_token": TOKEN}
LOGIN = SET + "id80003=alice&id80004=secret&id80002=true"
OK, HANG_UP = {"result": "ok", "code": 0}, Answer(raw=b"", end="close")
TCP, TLS, SENT_NOTHING, LOGIN_FAILED, REFUSED, OFF, TOO_LONG = 13, 14, 22, 31, 32, 33, 93


def error(code):
    return {"result": "error", "code": code}


@pytest.fixture
def attached(platform, device):
    """The PBX service is on and its token known."""
    return start_attached(platform, device)


def start_attached(platform, device, **settings):
    device.start_enrolled(platform, ATTACHED | settings)
    os.makedirs("/tmp/web")  # the web server's, a program of its own
    return device


# -- accounts -------------------------------------------------------------------------------------


@pytest.mark.parametrize("user, password", [("a+b%20c@x.y", "p=ss '\"\\"), ("u" * 31, "p" * 31)])
def test_login_byte_for_byte(platform, running, user, password):
    """Not escaped and not stored; the line end behind the body is not counted."""
    platform.cloud.accounts = {user: password}
    body = f"grant_type=password&scope=everything&username={user}&password={password}"
    for count in (1, 2):
        assert running.replies(f"{SET}id80003={user}&id80004={password}&id80002=truest") == [OK]
        login = platform.wait_request("POST /oauth2/token", count=count)
        assert login.connection == count and login.raw.decode() == (
            f"POST /oauth2/token HTTP/1.1\nHost: {ACCOUNTS_SERVER}\n{AGENT}\nAccept: */*\n"
            f"Content-Type:application/x-www-form-urlencoded\nAuthorization: {basic(OAUTH_CLIENT)}\n"
            f"Content-Length: {len(body)}\nConnection: Close\r\n\r\n{body}\r\n")
    assert [one.headers["authorization"] for one in platform.requests(BIND)] == [
        basic(platform.cloud.login_token + ":")] * 2 and platform.cloud.device.bound
    assert password not in read_text(INI) and platform.cloud.login_token not in read_text(INI)


def test_failed_logins(platform, running):
    """No bind follows; the token is forgotten, and an answer without one leaves what is there."""
    assert running.replies(LOGIN) == [OK]
    for answer in (coded(2202), Answer({"token": "no code"}), coded("INVALID_TOKEN", token="x"), HANG_UP):
        platform.accounts.answer("POST *", answer, times=1)
        assert running.replies(LOGIN) == [error(LOGIN_FAILED)], answer
    for fault, code in (("refuse", TCP), ("close", TLS)):
        platform.accounts.fail(fault)
        assert running.replies(LOGIN) == [error(code)], fault
    platform.accounts.heal()
    assert running.log_lines("login_accounts failed, code 2202") and len(platform.requests(BIND)) == 1
    for answer, result, token in ((coded(0), error(2202), ""), (None, OK, platform.cloud.login_token),
                                  (coded(0), OK, platform.cloud.login_token)):
        platform.accounts.answer("POST *", lambda _, answer=answer: answer, times=1)
        assert running.replies(LOGIN) == [result]
        assert platform.requests(BIND)[-1].headers["authorization"] == basic(token + ":")


@pytest.mark.parametrize("credential", ["id80003=alice&id80004=" + "p" * 32, "id80003=" + "u" * 32 + "&id80004=p",
                                        "id80007=" + "t" * 64])
def test_nothing_is_bound_with_what_does_not_fit(platform, running, credential):
    assert running.replies(f"{SET}id80007={OWNER}") == []
    assert running.replies(f"{SET}{credential}&id80002=true") == [error(TOO_LONG)]
    assert not platform.requests(BIND) + platform.requests("POST /oauth2/token")
    assert "characters, at most" in running.errors()
    assert running.replies(SET + "id80002=true") == [OK] and platform.cloud.device.bound


def test_long_texts_of_the_platform(platform, running):
    """The longest that fit are used whole; of longer ones nothing is."""
    record, texts = platform.cloud.device, ("u" * 255, "c" * 255, "g" * 255)
    shown = {"id80006": texts[0], "id80011": texts[1], "id80013": texts[2]}
    record.bound, record.user, record.authcode, record.grantee = True, *texts
    platform.cloud.login_token = "t" * 383
    assert running.replies(LOGIN) == [OK]
    for _ in range(2):
        assert running.get(80011).items() >= shown.items()
        record.user, record.authcode, record.grantee = (one + "+" for one in texts)
    assert running.errors().count("characters, at most 255, not taken") == 3
    running.replies(ACTION + "authcode=delete")
    assert platform.requests(f"DELETE {CODES}*")[-1].target == f"{CODES}/{texts[1]}?device_id={DEVICE_ID}"
    platform.cloud.login_token = "t" * 384
    binds = len(platform.requests(BIND))
    assert running.replies(LOGIN) == [error(31)]
    assert len(platform.requests(BIND)) == binds, "with the token of before"
    assert "token in an answer has 384 characters, at most 383, not taken" in running.errors()


def test_activation_whose_key_does_not_fit(platform, device):
    """State and key belong together: neither is taken."""
    platform.api.answer("POST *actions/activate", lambda one: Answer(
        {"code": 0, "active_state": "true", "device_key": "k" * 64}))
    device.reset(settings={"cloudserver": "on"}, agents=())
    device.start()
    wait_until(lambda: "device_key in an answer has 64 characters" in device.errors(), what="the refusal")
    assert device.setting("active_state") != "true" and not device.setting("device_key")


def test_bind_with_a_given_token_and_unbind(platform, running):
    """A token after a password beats the account. It is stored once a bind has succeeded, and
    forgotten once an unbind has."""
    for text, token, code, stored in (
            (f"id80002=true&id80007={OWNER}", OWNER, 0, OWNER), ("id80002=false", None, 2204, OWNER),
            ("id80004=secret&id80003=alice&id80007=unknown&id80002=trueish", "unknown", 2202, OWNER),
            ("id80002=true", "unknown", 2202, OWNER), ("id80002=falsely", None, 0, ""),
            ("id80002=true", "", 2202, ""), ("id80007=t&id80002=true", "t", 2202, ""),
            ("id80007=" + "t" * 63 + "&id80002=true", "t" * 63, 2202, "")):
        if code == 2204:
            platform.api.answer(UNBIND, coded(code), times=1)
        before = platform.mark()
        assert running.replies(SET + text) == [error(code) if code else OK], text
        sent = [(one.line, one.headers.get("authorization")) for one in platform.requests(since=before)]
        assert sent == [(UNBIND, basic("key-of-the-device:x-auth-device")) if token is None else
                        (BIND, basic(token + ":") if len(token) > 1 else None)], text
        assert running.setting("active_token") == stored, text
    assert not platform.cloud.device.bound and running.log_lines("active_token doesn't config")


def test_unknown_device_is_activated_and_asked_about_once_more(platform, running):
    """On 1004 and 2201; the second answer counts. Values of an earlier answer stay on a failure."""
    platform.cloud.device.bound, platform.cloud.device.authcode = True, "4711"
    known = {"id80002": "true", "id80006": "owner@cloud.example"}
    code = {"id80011": "4711", "id80012": "unused", "id80013": ""}
    assert running.get(80011) == OK | known | code
    platform.cloud.device.bound = False  # which nobody notices while the question fails
    for codes, result in (([2005], 2005), ([1004, 2201], 2201), ([2201, 500], 500), ([1004], 0), ([2201], 0)):
        for number, more in ((80002, {}), (80011, code)):
            for one in reversed(codes):
                platform.api.answer(READ, coded(one), times=1)
            before = platform.mark()
            known = {"id80002": "false", "id80006": ""} if result == 0 else known
            assert running.get(number) == (error(result) if result else OK) | known | more, codes
            assert [one.line for one in platform.requests(since=before)] == (
                [READ] if result == 2005 else [READ, ACTIVATE, READ]) + [f"GET {CODES}"] * (
                result == 0 and number == 80011), codes


def test_key_that_ends_in_a_plus_sign_is_for_good(platform, device):
    platform.cloud.device.key = "key-of-the-device+"
    device.reset_enrolled(platform, {"device_key": ""})
    for _ in range(2):
        device.start()
        platform.wait_request(lambda one: "versions" in one.query)
        device.stop()
    assert [one.line for one in platform.requests(ACTIVATE)] == [ACTIVATE]


def test_authorisation_code(platform, running):
    def shown(code, use, grantee, result='"ok","code":0'):
        return (f'{{"result":{result},"id80002":"false","id80006":"","id80011":"{code}","id80012":"{use}",'
                f'"id80013":"{grantee}"}}')
    text, record = GET + "80011", platform.cloud.device
    assert running.replies(ACTION + "authcode=create-one") == [OK]
    record.grantee = "bob@cloud.example"
    assert running.query(text).text == shown("auth-4711", "inuse", "bob@cloud.example")
    platform.api.answer(f"GET {CODES}", coded(77), times=1)
    assert running.query(text).text == shown("auth-4711", "inuse", "bob@cloud.example", '"error","code":77')
    assert running.replies(ACTION + "authcode=delete&pluginName=x") == [error(91), OK]
    record.grantee = ""
    assert running.query(text).text == shown("", "unused", "")
    assert running.replies(ACTION + "authcode=remove") == [error(-1)]
    assert running.replies(ACTION + "authcode=&pluginName=x") == [error(91), error(91)]
    assert [one.target for one in platform.requests(f"* {CODES}*")] == [CODES + one + "?device_id=" + DEVICE_ID
                                                                        for one in ("", "", "", "/auth-4711", "")]


# -- PBX service ----------------------------------------------------------------------------------

SIP_CONFIG, SIP_STATUS = "/var/config/cloud/sip.config", "/tmp/quorvelsip.status"
QR_IMAGE = "/tmp/web/qvrkqqr.png"
QR, CHECK, CONFIG = (ACTION + "quorvel_action=" + one for one in (
    "get_kq_qrcode", "check_kq_qrcode&active_toekn=qr12345678", "get_kq_config"))
VCODE, STATE, EXTENSIONS = ACTION + "device_vcode=123456", GET + "80031", GET + "80036"
FILE = '{"user": "1001", "server": "sip.lan"}'


def spaced(value):
    """JSON as the daemon writes it out."""
    text = json.dumps(value).replace("{", "{ ").replace("}", " }").replace("[", "[ ").replace("]", " ]")
    return text.replace("[  ]", "[ ]")


def account(device):
    return [device.setting(key) for key in ("quorvel_token", "quorvel_sipuser", "quorvel_sipserver")]


def test_pbx_requests_byte_for_byte(platform, attached):
    """All are signed, and each has a connection of its own."""
    platform.cloud.qr_scanned = True
    write_text(SIP_CONFIG, FILE)
    for text in (STATE, EXTENSIONS + "&next=1234567890123456", CONFIG, CHECK, QR, VCODE):
        assert attached.query(text), text
    seen = platform.requests("* /v1/ippbx/*")
    assert [(one.ok, one.mac) for one in platform.cloud.verdicts] == [(True, DEVICE_MAC)] * 6
    assert [one.connection for one in seen] == [*range(1, 7)]
    fields = [one.json() if one.body else one.query for one in seen]
    assert all(abs(int(one["timestamp"]) - time.time()) < 20 for one in fields)
    targets = [f"{kind}?mac={DEVICE_MAC}&{token}&timestamp={one['timestamp']}&sign={one['sign']}"
               for kind, token, one in zip(("status", "extensions", "config", "activatecode"),
                                           [f"token={TOKEN}"] * 3 + ["active_token=qr12345678"], fields)]
    targets[1] += "&start=123456789012345&limit=100"
    device = {"mac": DEVICE_MAC, "device_type": "KQ900", "device_id": DEVICE_ID}
    bodies = [""] * 4 + [spaced(device | more | {key: one[key] for key in ("timestamp", "sign")})
                         for more, one in zip(({}, {"vcode": "123456"}), fields[4:])]
    for request, line, body in zip(seen, ["GET /v1/ippbx/" + one for one in targets] + [
            "POST /v1/ippbx/activatecode", "POST /v1/ippbx/activate"], bodies):
        kind = f"Content-Type:application/json\r\nContent-Length: {len(body)}\r\n" if body else ""
        assert request.raw.decode() == (f"{line} HTTP/1.1\r\nHost: {PBX_SERVER}\r\n{AGENT}\r\nAccept: */*\r\n"
                                        f"{kind}Connection: Close\r\n\r\n{body}")


def qr_reply(code, token="", image=""):
    result = "error" if code else "ok"
    return f'{{"result":"{result}","code":{code},"active_token":"{token}", "qr_png":"{image}"}}'


def test_activation_by_qr_code_in_two_steps(platform, device):
    start_attached(platform, device, quorvel_service="Off", quorvel_token="")  # only "off" is off
    assert device.query(STATE).text == spaced(OK | {
        "id80035": "Off", "id80031": "false", "id80032": "false", "id80033": "", "id80034": ""})
    assert device.query(QR).text == qr_reply(0, "qr12345678", "qvrkqqr.png")
    with open(QR_IMAGE, "rb") as file:
        assert file.read() == platform.cloud.qr_image
    assert device.replies(CHECK) == [error(20006)] and device.setting("quorvel_token") == ""
    platform.cloud.qr_scanned = True
    assert device.replies(ACTION + "quorvel_action=check_kq_qrcode&active_token=qr12345678") == [error(18600)]
    assert device.replies(CHECK.replace("5678", "0000")) == [error(20006)]
    assert device.replies(CHECK) == [OK] and device.setting("quorvel_token") == TOKEN
    assert device.get(80031)["id80031"] == "true"
    assert device.log_lines("quorvel_get_kq_config return code 0")
    for word in ("get_kq_qrcodes", "get_kq_confi"):
        assert device.replies(ACTION + "quorvel_action=" + word) == [], word


def test_odd_answers_to_the_request_for_a_qr_code(platform, attached):
    """An image counts when it is whole and no JSON, and needs no token; without one the old one stays."""
    done, good = "qvrkqqr.png", "HTTP/1.1 200 OK\r\n"
    write_text("/tmp/victim", "kept")
    os.symlink("/tmp/victim", QR_IMAGE)
    for head, body, reply in (
            (good + "X-Kzt-Activetoken: abcdefghijkl\r\n", "P1", (0, "abcdefghij", done)), (good, "P3", (0, "", done)),
            (good + "X-Kzt-Activetoken: short\r\n", "P4", (0, "short", done)),
            (good + "x-kzt-activetoken:no-blank\r\n", "P5", (0, "no-blank", done)),
            (good + "X-Kzt-Activetoken: \r\nServer: x\r\n", "P6", (0, "", done)),
            (good + 'X-Kzt-Activetoken: a"b\\c/d\r\n', "P7", (0, 'a\\"b\\\\c/d', done)),
            (good + "Content-Length: 3\r\n", "P8", (SENT_NOTHING,)), (good, "P" * 5000, (SENT_NOTHING,)),
            (good + "Content-Length: 0\r\n", "", (SENT_NOTHING,)), (good, "1", (REFUSED,)),
            ("HTTP/1.1 503 Busy\r\n", "<html>", (REFUSED,)), ("HTTP/1.1 199 ?\r\n", "P9", (REFUSED,)), ("", "", (SENT_NOTHING,))):
        length = f"Content-Length: {len(body)}\r\n" if "Content" not in head else ""
        raw = f"{head}{length}\r\n{body}" if head else ""
        platform.pbx.answer("POST *", Answer(raw=raw.encode(), end="close"), times=1)
        before = read_text(QR_IMAGE)
        assert attached.query(QR).text == qr_reply(*reply), (head, body)
        assert read_text(QR_IMAGE) == (body if reply[0] == 0 else before), (head, body)
    assert read_text("/tmp/victim") == "kept" and os.listdir("/tmp/web") == [os.path.basename(QR_IMAGE)]
    assert attached.log_lines("no QR code, the answer has status 503")
    assert attached.log_lines("QR code of 2 bytes, announced are 3")
    shutil.rmtree("/tmp/web")
    assert attached.query(QR).text == qr_reply(SENT_NOTHING)


def test_activation_by_verification_code(platform, device):
    """Success drops the account of the former owner; a refusal forgets the token until a restart."""
    start_attached(platform, device, quorvel_token="old", quorvel_sipuser="7", quorvel_sipserver="s")
    write_text(SIP_CONFIG, FILE)
    platform.pbx.answer("POST *", lambda one: Answer("no json") if one.json()["vcode"] == "1" else None)
    for vcode in ("000000", "1\"2\\", "", "1"):
        assert device.replies(f"{ACTION}device_vcode={vcode}") == [error(REFUSED)]
        assert platform.requests("POST *")[-1].json()["vcode"] == vcode and platform.cloud.verdicts[-1].ok
        assert os.path.exists(SIP_CONFIG) and account(device) == ["old", "7", "s"]
    assert device.get(80031)["id80031"] == "false" and not platform.requests("GET */status")
    assert device.replies(VCODE) == [OK]
    assert not os.path.exists(SIP_CONFIG) and account(device) == [TOKEN, "", ""]


def lines_with(secret):
    """Of all files that the device has written."""
    return [line for top in ("/var/config", "/var/log", "/var/tmp", "/tmp") for folder, _, names in os.walk(top)
            for name in names for line in read_text(f"{folder}/{name}").splitlines() if secret in line]


def test_passwords_are_not_kept(platform, device):
    """The SIP password is shown once, the account's not at all."""
    start_attached(platform, device, loglevel=1)
    for _ in range(2):
        assert device.query(CONFIG).text == spaced(OK | {"config": platform.cloud.sip_config})
        assert device.replies("") == []  # the file is written again behind the reply
        assert json.loads(read_text(SIP_CONFIG)) == {
            "user": "1001", "server": "sip.cloud.example", "join_prefix": "8"}
        assert lines_with("sip-secret") == []
    assert account(device) == [TOKEN, "1001", "sip.cloud.example"]
    os.unlink(SIP_CONFIG)
    platform.pbx.answer("GET */config", coded(0, sip_config="none"), times=1)
    assert device.query(CONFIG).text == spaced(OK) and not os.path.exists(SIP_CONFIG)
    write_text(SIP_CONFIG, '{"user": "5", "password": "from the file"}')
    platform.pbx.answer("GET */config", coded(20008), times=1)
    assert device.replies(CONFIG) == [error(20008)] and "from the file" in read_text(SIP_CONFIG)
    assert account(device)[1:] == ["1001", "sip.cloud.example"]
    platform.cloud.accounts = {"alice": "hush"}
    assert device.replies(LOGIN.replace("secret", "hush")) == [OK]
    assert lines_with("hush") == []


@pytest.mark.parametrize("level", [1, 6, 7])
def test_secrets_are_logged_from_level_7_on(platform, device, level):
    """Below it the lines have lengths, also those of whole requests and answers."""
    start_attached(platform, device, loglevel=level, active_token=OWNER)
    platform.cloud.accounts, platform.cloud.vcodes = {"somebody": "hush-hush"}, {"v-1-2-3-4"}
    platform.cloud.active_tokens.add("another-token")
    platform.api.answer(READ, coded(1004), times=1)
    platform.cloud.qr_scanned = True
    for query in (GET + "80011", SET + "id80003=somebody&id80004=hush-hush&id80002=true",
                  SET + "id80007=another-token&id80002=true", ACTION + "device_vcode=v-1-2-3-4", QR, CHECK, CONFIG):
        assert device.query(query).json()["code"] == 0, query
    platform.wait_request("POST *activate")
    lines = [line for folder in ("/var/log/",) for name in os.listdir(folder) if name.startswith("plugin")
             for line in read_text(folder + name).splitlines()]
    carried = [basic(text).split()[1] for text in (
        "key-of-the-device:x-auth-device", "another-token:", platform.cloud.login_token + ":")]
    secrets = [OWNER, "another-token", "key-of-the-device", platform.cloud.login_token, TOKEN, "somebody",
               "hush-hush", "v-1-2-3-4", "sip-secret", "qr12345678"] + carried
    found = {secret for secret in secrets if any(secret in line for line in lines)}
    assert found == (set(secrets) if level == 7 else set())
    texts = {line.rpartition(" - ")[2] for line in lines}
    for text in ("id80003=, len=8", "id80004=, len=9", "id80007=, len=13", " active_token length 18",
                 " device_key length 17", " set device_key length 17", " set active_token length 13",
                 " set quorvel_token length 16"):
        assert (text in texts or text.strip() in texts) == (level < 7), text
    assert any(text.startswith("length ") for text in texts) == (level == 6), "requests and answers"


def state(user, server, registered="true", reachable="true", **status):
    return OK | {"id80035": "on"} | status | {"id80031": registered, "id80032": reachable,
                                              "id80033": user, "id80034": server}


def test_state_of_the_pbx_account(platform, attached):
    """The account comes from its file, else from the first one kept; the state from the service."""
    assert attached.get(80031) == state("", "", reachable="false") and not platform.requests("GET */status")
    write_text(SIP_CONFIG, FILE)
    status = {"sip_status": platform.cloud.sip_status}
    assert attached.query(STATE).text == spaced(state("1001", "sip.lan", **status))
    assert account(attached)[1:] == ["1001", "sip.lan"]
    assert json.loads(read_text(SIP_STATUS)) == status["sip_status"]
    write_text(SIP_CONFIG, '{"user": "2002", "server": "other.lan"}')
    platform.cloud.sip_status = {"address": "", "state": "failed"}
    status = {"sip_status": platform.cloud.sip_status}
    assert attached.get(80031) == state("2002", "other.lan", reachable="false", **status)
    write_text(SIP_CONFIG, "{no json")
    assert attached.get(80031)["id80033"] == "1001" and account(attached)[1:] == ["1001", "sip.lan"]
    for answer in (coded(500), Answer("no json"), HANG_UP):  # the old status file stays and is not shown
        platform.pbx.answer("GET */status", answer, times=1)
        assert attached.get(80031) == state("1001", "sip.lan", reachable="false")
    platform.pbx.answer("GET */status", coded(0, sip_status=[1]), times=1)
    assert attached.get(80031) == state("1001", "sip.lan", reachable="false", **status)
    os.unlink(SIP_STATUS)
    for kind in ("pipe", "endless", "link"):  # neither the writer nor the reader goes that way
        other = {"endless": "/dev/zero", "link": "/tmp/victim"}.get(kind)
        write_text("/tmp/victim", "kept")
        (os.symlink(other, SIP_STATUS) if other else os.mkfifo(SIP_STATUS))
        platform.pbx.answer("GET */status", coded(500), times=1)
        assert attached.get(80031) == state("1001", "sip.lan", reachable="false")
        assert bool(attached.log_lines(f"{SIP_STATUS} is not read: it is no regular file")) or kind == "link"
        assert attached.get(80031) == state("1001", "sip.lan", reachable="false", **status)
        assert read_text("/tmp/victim") == "kept" and not os.path.islink(SIP_STATUS)
        os.unlink(SIP_STATUS)
    attached.kill_all()
    os.unlink(SIP_CONFIG)
    attached.start()
    assert attached.get(80031) == state("1001", "sip.lan", reachable="false", **status)
    platform.cloud.pbx_token, before = "another", platform.mark()
    for _ in range(2):
        assert attached.get(80031) == state("", "", "false", "false")
        assert len(platform.requests("GET */status", before)) == 1
    assert account(attached) == ["", "1001", "sip.lan"]


def test_extensions_by_pages(platform, attached):
    platform.cloud.extensions = [{"n": number} for number in range(130)]
    for more, first, count in (("", 0, 100), ("&next=100", 100, 30), ("&x=1&next=130&y=2", 130, 0)):
        listed = spaced(platform.cloud.extensions[first:first + count])
        assert attached.get(80036, more) == OK | {"extensions": listed, "join_prefix": "8"}, more
    for values, shown in (({"extensions": "text", "join_prefix": 8}, {"extensions": "text", "join_prefix": "8"}),
                          ({"join_prefix": "8" * 16}, {"extensions": "", "join_prefix": ""})):
        platform.pbx.answer("GET */extensions", coded(0, **values), times=1)
        assert attached.query(EXTENSIONS).text == spaced(OK | shown)
    platform.pbx.answer("GET */extensions", coded(0, extensions=["n"] * 600), times=1)
    assert attached.query(EXTENSIONS).json() == error(TOO_LONG), "rather than no JSON"
    platform.cloud.pbx_token = "another"
    assert attached.query(EXTENSIONS).text == '{"result":"error","code":20006}'
    assert attached.setting("quorvel_token") == TOKEN, "only the state query gives it up"


def test_pbx_service_out_of_reach_or_off(platform, attached):
    def codes():
        return {attached.query(text).json()["code"] for text in (QR, CHECK, CONFIG, VCODE, EXTENSIONS)}
    unknown = state("1001", "sip.lan", reachable="false")
    write_text(SIP_CONFIG, FILE)
    platform.pbx.fail("close")
    assert codes() == {TLS} and attached.get(80031) == unknown
    platform.pbx.heal()
    assert attached.set(id80035="off") == OK
    before = platform.mark()
    assert codes() == {OFF} and attached.get(80031) == unknown | {"id80035": "off"}
    assert not platform.requests(since=before) and account(attached)[0] == TOKEN
    assert attached.set(id80035="offline") == OK and attached.get(80031)["id80032"] == "true"
