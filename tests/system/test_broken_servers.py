# SPDX-License-Identifier: Apache-2.0
"""Servers that break off, stall, talk nonsense or never end: what the web pages are told, how long
it takes, and that the next request works. Certificates, with and without tls_ca_file."""
import contextlib
import dataclasses
import os
import socket
import ssl
import struct
import subprocess
import threading
import time

import pytest

from lab.deployment import ACCOUNTS_SERVER, API_SERVER, DOWNLOAD_SERVER, PBX_SERVER
from lab.device import DOWNLOAD_FAILED, read_text, wait_until, write_text
from lab.package import build
from lab.platform import Answer, redirect
from lab.platform.certificates import EXTENSIONS, FOLDER

DEVINFO, CHECK = "GET /v1/devices/*", "GET /v1/res/upgrade/*"
LOGIN = "method=gw.config.set&id80003=alice&id80004=secret&id80002=true"
CONNECT_SECONDS, HANDSHAKE_SECONDS, ANSWER_SECONDS = 2, 8, 10
REFUSED, TLS, NOTHING, NO_CODE, TOLD = 13, 14, 22, 92, 1234
APP_REPORT = 0x2100
RESET_ON_CLOSE = struct.pack("ii", 1, 0)
CODE = b'{"code":1234}'
FIRST = b"HTTP/1.1 200 OK\r\n"
FLOOD = 32 << 20


def sized(length, body=CODE):
    return FIRST + b"Content-Length: %s\r\n\r\n" % str(length).encode() + body


def filled(total):
    """An answer of so many bytes, header and all."""
    length = total - len(sized("00000", b""))
    return Answer(raw=sized(f"{length:05}", CODE.ljust(length)))


# what a host does behind a client's first handshake message

def reset(_host, connection, _hello):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_ON_CLOSE)


def begin_record(_host, connection, _hello):
    connection.sendall(b"\x16\x03\x03\x40\x00\x02")
    time.sleep(HANDSHAKE_SECONDS + 1)


def shake_slowly(host, connection, hello):
    """Hundreds of segments of a byte each; then the request is read, and that is all."""
    came, out = ssl.MemoryBIO(), ssl.MemoryBIO()
    came.write(hello)
    with contextlib.suppress(ssl.SSLWantReadError):
        host._context.wrap_bio(came, out, server_side=True).do_handshake()
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for byte in out.read():
        connection.sendall(bytes([byte]))
        time.sleep(.001)
    time.sleep(.3)
    connection.recv(65536)


def restart(host):
    host.fail("refuse")
    host.heal()


CHUNKED = FIRST + b"Transfer-Encoding: chunked\r\n\r\nd\r\n" + CODE + b"\r\n0\r\n\r\n"
# what the server does: a fault of the host, something behind the client's first handshake message,
# or an answer; the code in the reply (of a race: the codes); the least seconds that it takes, two more are the most
ROWS = {
    "refused": ("refuse", REFUSED, 0), "no answer to SYN": ("stall", REFUSED, CONNECT_SECONDS),
    "closed after TCP": ("close", TLS, 0), "reset after TCP": ("reset", (REFUSED, TLS), 0),
    "closed in the handshake": (lambda *_: None, TLS, 0), "reset in the handshake": (reset, TLS, 0),
    "stalled in the handshake": (begin_record, TLS, HANDSHAKE_SECONDS),
    "garbage for a handshake": (lambda _host, connection, _: connection.sendall(b"220 ready\r\n" * 99), TLS, 0),
    "a slow handshake": (shake_slowly, NOTHING, 1), "closed after the request": (Answer(raw=b"", end="close"), NOTHING, 0),
    "reset after the request": (Answer(raw=b"", end="reset"), NOTHING, 0),
    "stalled after the request": (Answer(delay=ANSWER_SECONDS + 1), NOTHING, ANSWER_SECONDS),
    "closed in the header": (Answer(raw=sized(13)[:35], end="close"), NO_CODE, 0),
    "reset in the header": (Answer(raw=sized(13)[:35], drip=99, drip_pause=.1, end="reset"), NO_CODE, 0),
    "stalled in the header": (Answer(raw=sized(13)[:35]), NO_CODE, ANSWER_SECONDS),
    "closed in the body": (Answer(raw=sized(13)[:-5], end="close"), NO_CODE, 0),
    "reset in the body": (Answer(raw=sized(13)[:-5], drip=99, drip_pause=.1, end="reset"), NO_CODE, 0),
    "stalled in the body, the rest too late": (
        Answer(raw=sized(13), drip=len(sized(13)) - 5, drip_pause=ANSWER_SECONDS + .5), NO_CODE, ANSWER_SECONDS),
    "slow, but never silent too long": (
        Answer(raw=sized(60, CODE.ljust(60)), drip=40, drip_pause=ANSWER_SECONDS * .6), TOLD, ANSWER_SECONDS * 1.2),
    "byte by byte": (Answer(raw=sized(13), drip=1), NO_CODE, 0),
    "length too small": (Answer(raw=sized(5)), TOLD, 0), "length of nothing": (Answer(raw=sized("")), TOLD, 0),
    "length too big": (Answer(raw=sized(14), end="close"), TOLD, 0),
    "length huge": (Answer(raw=sized(10 ** 20)), TOLD, 0), "length negative": (Answer(raw=sized(-13)), TOLD, 0),
    "no length, more to come": (Answer(raw=FIRST + b"\r\n" + CODE, drip=25), NO_CODE, 0),
    "chunked": (Answer(raw=CHUNKED), NO_CODE, 0), "chunked, in pieces": (Answer(raw=CHUNKED, drip=60), NO_CODE, 0),
    "a code in a string": (Answer({"code": "1234"}), TOLD, 0), "no code": (Answer({"message": "ok"}), NO_CODE, 0),
    "an empty code": (Answer({"code": ""}), NO_CODE, 0), "an object for a code": (Answer({"code": {"a": 1}}), NO_CODE, 0),
    "codes of devices": (Answer({"devices": [{"code": 1234}, {"code": 8}]}), TOLD, 0),
    "no devices": (Answer({"devices": []}), NO_CODE, 0),
    "devices that are no list": (Answer({"devices": {"code": 7}}), NO_CODE, 0),
    "an array": (Answer([{"code": 1234}]), NO_CODE, 0), "no header": (Answer(raw=CODE), TOLD, 0),
    "the first piece ends in the length": (Answer(raw=sized(13), drip=34), TOLD, 0),
    "without length": (Answer(raw=FIRST + b"\r\n" + CODE), TOLD, 0),
    "4095 bytes": (filled(4095), TOLD, 0), "4096 bytes": (filled(4096), NO_CODE, 0),
    "4097 bytes": (filled(4097), NO_CODE, 0),
    "garbage": (Answer(raw=bytes(range(256)) * 9), NO_CODE, 0), "only zeros": (Answer(raw=bytes(5000)), NO_CODE, 0),
    "a flood of header": (Answer(raw=sized(13)[:-17] + b"X: y\r\n" * 20000), NO_CODE, 0),
    "a flood without length": (Answer(raw=FIRST + b"\r\n" + b"x" * FLOOD), NO_CODE, 0),
    "a flood as announced": (Answer(raw=sized(FLOOD, b"x" * FLOOD)), NO_CODE, 0),
    "a flood cut off": (Answer(raw=sized(2 * FLOOD, b"x" * FLOOD), end="close"), NO_CODE, 0),
    "moved to itself": (redirect("/v1/devices/"), NOTHING, 0),
    "moved, but not told where": (Answer(raw=sized(13).replace(b"200 OK", b"302 Found")), NOTHING, 0),
    "moved, but cut off": (Answer(raw=b"HTTP/1.1 302 Found\r\nLocation: /a"), NO_CODE, 0),
    "moved for good": (Answer(raw=sized(13).replace(b"200 OK", b"301 Moved\r\nLocation: /a")), TOLD, 0),
}


@contextlib.contextmanager
def in_handshake(host, act):
    """The next connection gets as far as its first TLS message."""
    def serve():
        connection, _peer = server.accept()
        with connection:
            act(host, connection, connection.recv(4096))
    host.fail("refuse")
    with socket.create_server((host.address, 443)) as server:
        threading.Thread(target=serve, daemon=True).start()
        yield
    host.heal()


@contextlib.contextmanager
def broken(host, how):
    if callable(how):
        with in_handshake(host, how):
            yield
        return
    if isinstance(how, str):
        host.fail(how)
    else:
        host.answer(DEVINFO, how, times=1)
    yield
    host.heal()


def descriptors(device):
    return len(os.listdir(f"/proc/{device.pid()}/fd"))


def timed(answers, name, ask):
    began = time.monotonic()
    answers[name] = (ask(), time.monotonic() - began)


def ask_both(device):
    """{"cloud" or "local": (reply, seconds)} of two questions asked a moment apart."""
    answers = {}
    asked = [threading.Thread(target=timed, args=(answers, "cloud", lambda: device.get(80002)["code"])),
             threading.Thread(target=timed, args=(answers, "local", lambda: device.get(80005)))]
    for one in asked:
        one.start()
        time.sleep(.05)
    for one in asked:
        one.join()
    return answers


def test_broken_servers(platform, device):
    """One daemon meets every kind, one after the other, while its upgrade thread is held by a slow
    answer."""
    def probe():  # on a new connection, which is closed behind
        platform.api.answer(DEVINFO, lambda one: dataclasses.replace(platform.cloud.answer_api(one), end="close"),
                            times=1)
        return device.get(80002)["code"]
    platform.api.answer(CHECK, Answer(raw=sized(4000), drip=1, drip_pause=ANSWER_SECONDS * .4), times=1)
    device.reset_enrolled(platform, {"conn_timeout": CONNECT_SECONDS}, plugins={})
    device.start()
    platform.wait_request(lambda one: "versions" in one.query)
    platform.wait_request(CHECK)
    assert probe() == 0
    before, wrong = descriptors(device), {}
    for name, (how, code, least) in ROWS.items():
        for _ in range(2):  # a busy machine may be late once
            with broken(platform.api, how):
                answers = ask_both(device)
            (got, took), (local, waited) = answers["cloud"], answers["local"]
            recovered, late = probe(), took > least + 2 or waited > took + 1
            restart(platform.api)  # between requests, too
            if not late:
                break
        codes = code if isinstance(code, tuple) else (code,)
        if got not in codes or recovered or not local or took < least - .1 or late:
            wrong[name] = {"code": got, "took": took, "local": waited, "then": recovered}
    assert not wrong and probe() == 0 and descriptors(device) <= before


# answer on the kept connection; how often the request is sent
KEPT_ANSWERS = {"4095 bytes": (filled(4095), 1), "4096 bytes": (filled(4096), 1),
                "8192 bytes": (filled(8192), 1), "20000 bytes": (filled(20000), 1),
                "nothing": (Answer(raw=b"", end="close"), 2), "reset": (Answer(raw=b"", end="reset"), 2),
                "redirect": (redirect("/elsewhere"), 2), "no JSON": (Answer("?"), 1)}


def test_bad_answers_on_a_kept_connection(platform, device):
    """A failed exchange is repeated once on a new connection, any other leaves the connection
    usable: the request after it gets its own answer."""
    device.start_enrolled(platform)
    for number, (kind, (answer, count)) in enumerate(KEPT_ANSWERS.items()):
        before = platform.mark()
        platform.api.answer("PUT *", answer, times=1)
        device.message(APP_REPORT, "bad=1", timeout=0.05)
        platform.wait_request("PUT *", since=before, count=count, timeout=5)
        platform.api.answer("PUT *", Answer({"code": 7700 + number}), times=1)
        device.message(APP_REPORT, "good=1", timeout=0.05)
        device.wait_log(f"response code:{7700 + number}", 5)
        requests = platform.requests("PUT *", before)
        assert [list(one.query) for one in requests] == [["bad"]] * count + [["good"]], kind
        assert len({one.connection for one in requests}) == count, kind


# -- certificates ----------------------------------------------------------------------------------

AUTHORITY = FOLDER + "/ca.pem"
KEY = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -config"
NAMES = [API_SERVER, ACCOUNTS_SERVER, PBX_SERVER, DOWNLOAD_SERVER]
PARENT = API_SERVER.partition(".")[2]
# names, authority, date it begins, days it holds; why it is refused
CERTIFICATES = {
    "good": ((NAMES, "ca", "2000", 36500), None),
    "wildcard": (([f"*.{PARENT}"], "ca", "2000", 36500), None),
    "expired": ((NAMES, "ca", "2000", 1), "certificate has expired"),
    "of the future": ((NAMES, "ca", "2090", 99), "certificate is not yet valid"),
    "of another host": ((["evil.example", "x" + API_SERVER, API_SERVER + ".evil.example"], "ca", "2000", 36500),
                        "hostname mismatch"),
    "half a wildcard": (([f"{API_SERVER[:2]}*.{PARENT}"], "ca", "2000", 36500), "hostname mismatch"),
    "of a namesake authority": ((NAMES, "namesake", "2000", 36500), "unable to get local issuer certificate"),
    "its own": ((NAMES, None, "2000", 36500), "self"),
}


def openssl(line, year):
    faked = {"LD_PRELOAD": "/usr/$LIB/faketime/libfaketime.so.1", "FAKETIME": f"@{year}-01-01 00:00:00"}
    subprocess.run(["/usr/bin/openssl", *line.split()], cwd=FOLDER, check=True, capture_output=True,
                   env=os.environ | faked)


def server_with(name, asked):
    """A TLS context with a certificate of the table; the names that clients send go to asked."""
    (names, authority, year, days), _reason = CERTIFICATES[name]
    write_text(FOLDER + "/odd.cnf", EXTENSIONS.format(names=",".join("DNS:" + one for one in names)))
    if authority == "namesake":
        openssl(f"req -x509 {KEY} odd.cnf -extensions authority -days 36500 -subj /CN=Lab-CA "
                "-keyout namesake.key -out namesake.pem", "2000")
    if authority:
        openssl(f"req -new {KEY} odd.cnf -subj /CN=odd -keyout odd.key -out odd.csr", year)
        openssl(f"x509 -req -in odd.csr -CA {authority}.pem -CAkey {authority}.key -CAcreateserial -days {days} "
                "-extfile odd.cnf -extensions server -out odd.pem", year)
    else:
        openssl(f"req -x509 {KEY} odd.cnf -extensions server -days {days} -subj /CN=odd "
                "-keyout odd.key -out odd.pem", year)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(FOLDER + "/odd.pem", FOLDER + "/odd.key")
    context.sni_callback = lambda _connection, host, _context: asked.append(host)
    return context


@pytest.mark.parametrize("file", [None, AUTHORITY])
def test_certificates(platform, device, monkeypatch, file):
    """Without the setting any certificate will do and no name is sent; with it only a good one."""
    asked, refusals = [], []
    device.start_enrolled(platform, {"tls_ca_file": file})
    assert bool(device.log_lines("tls_ca_file")) == bool(file)
    for name, (_how, reason) in CERTIFICATES.items():
        monkeypatch.setattr(platform.api, "_context", server_with(name, asked))
        platform.api.drop()
        assert device.get(80002)["code"] == (TLS if file and reason else 0), name
        refusals += [f"Certificate of {API_SERVER} refused: {reason}"] if file and reason else []
        told = [line for line in device.errors().splitlines() if "refused: " in line]
        assert len(told) == len(refusals) and all(map(str.__contains__, told, refusals)), name
    assert asked == [API_SERVER if file else None] * len(CERTIFICATES)
    assert "can't be loaded" not in device.errors()


def test_every_connection_is_verified(platform, device, monkeypatch):
    asked, file, authority = [], FOLDER + "/trusted.pem", read_text(AUTHORITY)
    write_text(file, authority)
    platform.cloud.accounts = {"alice": "secret"}
    platform.cloud.offer(build("cloud_phone", "1.1.0"))
    device.start_enrolled(platform, {"tls_ca_file": file, "quorvel_service": "on", "quorvel_token": "token-of-the-pbx"})
    for certificate, code in (("of another host", TLS), ("good", 0)):
        context = server_with(certificate, asked)
        for host in (platform.accounts, platform.pbx, platform.dl):
            monkeypatch.setattr(host, "_context", context)
        assert device.replies(LOGIN)[0]["code"] == device.get(80036)["code"] == code
        for attempt in (1, 2) if code else ():  # the second would go by wget, which asks for no certificate
            device.action(pluginName="cloud_phone", pluginAction="update")
            wait_until(lambda: platform.cloud.device.upgrades[attempt - 1:], what="the report")
            assert "download failed" in platform.cloud.device.upgrades[-1]
            device.wait_status("cloud_phone", DOWNLOAD_FAILED)
            device.get(80025)  # a pass of the upgrade thread, which is done with the request then
    assert set(asked) == {ACCOUNTS_SERVER, PBX_SERVER, DOWNLOAD_SERVER}
    for count, content in enumerate(("", "no certificate", None), 1):  # it is read for each connection
        os.remove(file) if content is None else write_text(file, content)
        platform.api.drop()
        assert device.get(80002)["code"] == TLS
        assert device.errors().count(f"tls_ca_file {file} can't be loaded: ") == count
    write_text(file, authority)
    assert device.get(80002)["code"] == 0
