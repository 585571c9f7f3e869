# SPDX-License-Identifier: Apache-2.0
"""The second act of `./dev demo`: the same device in its owner's hands. Account, run mode, PBX
service, pinned servers and settings pushed to it."""
import json
import os
import re
import struct
import threading
import zlib

from lab.deployment import API_SERVER
from lab.device import DEBUG_LOG, HOSTS, INI, read_text, write_text
from lab.platform import ADDRESSES, basic

USER, PASSWORD, ACCOUNT = "alice", "correct-horse-battery", "alice@cloud.example"
PASSWORD_FILE = "/run/lab/password"
SIP_CONFIG = "/var/config/cloud/sip.config"
QR_IMAGE = "/tmp/web/qvrkqqr.png"
PUSHED = "/var/tmp/cloud_upgrade.ini"
SIP_PIN = "sip.cloud.example|10.0.0.5"
NEW_API = "api-two.cloud.example"   # no name server knows it
API_PIN = NEW_API + "|" + ADDRESSES[API_SERVER]
PUSH = {"Config": {"conn_timeout": "20", "api_server": NEW_API}, "Update": {"checkcycle": "900"}}
SCAN_AFTER = 3      # seconds
BINDING = "POST */actions/bind"
COLOUR = re.compile(r"\x1b\[[0-9;]*m")

# The QR code of the token "qr12345678": version 1, level M, mask 3. A row each, the left module in
# the highest bit, 1 is dark.
QR_SIDE, QR_MARGIN, QR_PIXELS = 21, 4, 4
QR_ROWS = (0x1fd67f, 0x105041, 0x174c5d, 0x17535d, 0x17445d, 0x104441, 0x1fd57f, 0x001400, 0x16ec4b,
           0x033597, 0x1a410f, 0x1319b0, 0x1d62c8, 0x0010fa, 0x1fd458, 0x105b25, 0x1742a4, 0x1754e2,
           0x175220, 0x104f79, 0x1fd39c)
HALVES = {" ": (0, 0), "▄": (0, 1), "▀": (1, 0), "█": (1, 1)}  # upper and lower module


def qr_png():
    """The code as a PNG of black and white pixels, with the light margin that it needs."""
    light = [0] * QR_MARGIN
    modules = [[0] * (QR_SIDE + 2 * QR_MARGIN)] * QR_MARGIN
    modules = modules + [light + bits(row) + light for row in QR_ROWS] + modules
    lines = b"".join((b"\0" + pixels(row)) * QR_PIXELS for row in modules)
    side = len(modules) * QR_PIXELS
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">2I5B", side, side, 1, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(lines, 9)) + chunk(b"IEND", b""))


def bits(row):
    return [row >> place & 1 for place in reversed(range(QR_SIDE))]


def pixels(row):
    """A line of the image, a bit for each pixel, 1 is white."""
    text = "".join("01"[not dark] * QR_PIXELS for dark in row)
    return int(f"{text:<0{-len(text) % 8 + len(text)}}", 2).to_bytes((len(text) + 7) // 8, "big")


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def drawn_rows(text):
    """The modules of a code that was drawn with half blocks, as the numbers of QR_ROWS."""
    lines = [line for line in COLOUR.sub("", text).split("\n") if line and not set(line) - set(HALVES)]
    rows = [[HALVES[one][half] for one in line] for line in lines for half in (0, 1)]
    inside = slice(QR_MARGIN, QR_MARGIN + QR_SIDE)
    return tuple(int("".join(map(str, row[inside])), 2) for row in rows[inside])


def rows_of(text):
    """The lines of an output, every gap in them one blank wide."""
    return [" ".join(line.split()) for line in text.splitlines()]


def files_with(secret):
    """Of all settings files and logs of the device, and of what lies in its /tmp."""
    return [f"{folder}/{name}" for top in ("/var/config", "/var/log", "/var/tmp", "/tmp")
            for folder, _, names in os.walk(top) for name in names
            if secret in read_text(f"{folder}/{name}")]


def is_done(s, status):
    s.see("pluginctl is content", lambda: status, 0, lambda _: "exit status 0")


# -- the chapters ------------------------------------------------------------------------------------


def account(s):
    def own(request):
        """Who binds with the token of a login owns the device. The rest is the platform's."""
        if request.headers.get("authorization") == basic(s.cloud.login_token + ":"):
            record.user = ACCOUNT

    record = s.cloud.device
    s.cloud.accounts = {USER: PASSWORD}
    s.platform.api.answer(BINDING, own)
    s.say(f"The owner passes the device on: {record.user} frees it, {USER} takes it.")
    s.pluginctl("unbind")
    s.see("free", lambda: [record.bound, s.device.setting("active_token")], [False, ""],
          lambda _: "unbound at the platform; active_token in pluginmgr.ini is empty")
    write_text(PASSWORD_FILE, PASSWORD + "\n")
    mark = s.platform.mark()
    status, _text, _ = s.pluginctl("login", USER, "--from", PASSWORD_FILE)
    is_done(s, status)
    s.see("login at its server", lambda: s.platform.requests("POST /oauth2/token", mark)[-1],
          lambda request: request.status == 200 and f"username={USER}&" in request.body.decode(),
          lambda request: f"{request.line}: {request.status}, connection to port {request.port}")
    s.see("bound with its token", lambda: s.platform.requests(BINDING, mark)[-1],
          lambda request: record.bound and
          request.headers["authorization"] == basic(s.cloud.login_token + ":"),
          lambda request: f"bind, answered {request.status}; owner {record.user}")
    _status, text, _ = s.pluginctl("get", "80006")
    s.see("the device knows its owner", lambda: text.strip(), ACCOUNT)
    s.see("password not stored", lambda: PASSWORD in read_text(INI), False,
          lambda _: "it is not in pluginmgr.ini")


def run_mode(s):
    for mode, arguments in (("ums", ["--ums"]), ("on", [])):
        switch_mode(s, mode, arguments)


def switch_mode(s, mode, arguments):
    daemon, starts, mark = s.device.pid(), len(s.device.cloudae.starts()), s.platform.mark()
    status, text, _ = s.pluginctl("mode", mode)
    is_done(s, status)
    s.see("in force", lambda: rows_of(text), lambda rows: "run mode: " + mode in rows,
          lambda _: f"run mode {mode}, says the daemon that answers now")
    s.see("the daemon restarted", lambda: s.device.is_ready() and s.device.pid(),
          lambda pid: pid not in (0, daemon) and s.device.daemons() == [pid],
          lambda pid: f"pid {daemon} has ended, pid {pid} is in the pid file")
    s.see("setting kept", lambda: s.device.setting("cloudserver"), mode,
          lambda value: f"cloudserver={value} in pluginmgr.ini")
    s.see("the platform was told", lambda: s.platform.requests("PUT *", mark),
          lambda asked: any(one.query.get("cloud_server") == mode for one in asked),
          lambda _: "cloud_server=" + mode)
    s.see("the agent restarted", lambda: s.device.cloudae.starts()[starts:][-1],
          lambda now: now["argv"][1:] == arguments and now["pid"] == s.device.cloudae.pid(),
          lambda now: f"pid {now['pid']}: {' '.join(now['argv'])}")


def pbx_activation(s):
    s.cloud.qr_image = qr_png()
    os.makedirs("/tmp/web", exist_ok=True)  # the web server's, a program of its own
    s.see("no access token", lambda: s.device.setting("quorvel_token"), None,
          lambda _: "no quorvel_token in pluginmgr.ini")
    s.pluginctl("set", "80035=on")
    s.see("the service is switched on", lambda: s.device.setting("quorvel_service"), "on",
          lambda _: "quorvel_service=on in pluginmgr.ini")
    s.say(f"A telephone will scan the code {SCAN_AFTER} s from now.")
    mark = s.platform.mark()
    scan = threading.Timer(SCAN_AFTER, setattr, (s.cloud, "qr_scanned", True))
    scan.start()
    status, text, _ = s.pluginctl("pbx", "qr", "--wait", "20")
    scan.cancel()
    is_done(s, status)
    s.see("the image arrived", image, s.cloud.qr_image,
          lambda data: f"{len(data)} bytes in {QR_IMAGE}")
    s.see("drawn module for module", lambda: drawn_rows(text), QR_ROWS,
          lambda rows: f"{len(rows)} rows of {QR_SIDE}, as in the image")
    s.see("asked until it was scanned", lambda: s.platform.requests("GET */activatecode", mark),
          lambda asked: s.cloud.qr_scanned and len(asked) > 1,
          lambda asked: f"{len(asked)} times, {asked[-1].time - asked[0].time:.1f} s in all")
    s.see("signed requests", lambda: [one.ok for one in s.cloud.verdicts if "/ippbx/" in one.path],
          lambda all: len(all) > 2 and set(all) == {True},
          lambda all: f"all {len(all)} signatures are right")
    s.see("access token kept", lambda: s.device.setting("quorvel_token"), s.cloud.pbx_token,
          lambda value: f"quorvel_token={value} in pluginmgr.ini")


def image():
    with open(QR_IMAGE, "rb") as file:
        return file.read()


def pbx_account(s):
    secret = s.cloud.sip_config["password"]
    s.cloud.extensions = [{"number": "1001", "name": "Desk"}, {"number": "1002", "name": "Door"},
                          {"number": "1003", "name": "Workshop"}]
    _status, text, _ = s.pluginctl("pbx", "config")
    s.see("the password is told once", lambda: rows_of(text),
          lambda rows: {f"{key} {value}" for key, value in s.cloud.sip_config.items()} <= set(rows),
          lambda rows: f"{len(rows)} values, one of them the password")
    s.see("the account is kept", lambda: json.loads(read_text(SIP_CONFIG)),
          {key: value for key, value in s.cloud.sip_config.items() if key != "password"},
          lambda kept: f"{SIP_CONFIG} has {', '.join(kept)}; no password")
    # From level 5 on the log quotes what is sent.
    s.see("nor is it elsewhere", lambda: files_with(secret), lambda files: set(files) <= {DEBUG_LOG},
          lambda files: "in no settings file and not in /tmp"
                        + ("; the log quotes it, at loglevel 8" if files else ""))
    _status, text, _ = s.pluginctl("pbx", "extensions")
    s.see("extensions", lambda: rows_of(text),
          lambda rows: [f"number {one['number']} name {one['name']}" for one in s.cloud.extensions]
          == rows[:-1] and rows[-1] == "Join prefix " + s.cloud.join_prefix,
          lambda rows: f"{len(rows) - 1} and the join prefix, as the service has them")
    _status, text, _ = s.pluginctl("pbx", "status")
    s.see("registered", lambda: rows_of(text),
          lambda rows: "SIP registered at " + s.cloud.sip_status["address"] in rows,
          lambda _: "at " + s.cloud.sip_status["address"] + ", as the service says")


def pins(s):
    s.say("The user pins the SIP server to an address in the house, and a second API server, which "
          "no name server knows.")
    status, _text, _ = s.pluginctl("set", "80037=" + SIP_PIN, "80038=" + API_PIN)
    is_done(s, status)
    lines = [f"{address} {name} {name}" for name, _, address in
             (pin.partition("|") for pin in (SIP_PIN, API_PIN))]
    s.see("pinned", lambda: read_text(HOSTS).splitlines()[-2:], lines,
          lambda seen: f"{HOSTS}: {'; '.join(seen)}")
    s.see("kept", lambda: [s.device.setting(key) for key in ("user_sipserver", "user_apiserver")],
          [SIP_PIN, API_PIN], lambda _: "user_sipserver and user_apiserver in pluginmgr.ini")
    _status, text, _ = s.pluginctl("get", "80037")
    s.see("told back", lambda: text.strip(), SIP_PIN)


def pushed(s):
    text = "".join(f"[{section}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())
                   for section, keys in PUSH.items())
    wanted = [(key, section, value) for section, keys in PUSH.items() for key, value in keys.items()]
    before = [s.device.setting(key, section) for key, section, _value in wanted]
    s.say(f"The device's update tooling writes {PUSHED} and gives notice: "
          + " ".join(text.split()) + ".")
    mark, connections, queries = s.platform.mark(), s.platform.api.connections, len(s.dns.queries)
    write_text(PUSHED, text)
    s.device.datagram(b"download cloud file success")
    s.see("read and removed", lambda: os.path.exists(PUSHED), False, lambda _: f"no {PUSHED} any more")
    s.see("written", lambda: [s.device.setting(key, section) for key, section, _value in wanted],
          [value for _key, _section, value in wanted],
          lambda seen: ", ".join(f"{one[0]} {value} (was {old or 'not set'})"
                                 for one, old, value in zip(wanted, before, seen)))
    _status, text, _ = s.pluginctl("get", "80006")
    s.see("applied", lambda: s.platform.requests("GET /v1/devices/*", mark)[-1].headers["host"], NEW_API,
          lambda host: f"the next request is for {host}")
    s.see("on a new connection", lambda: s.platform.requests("GET /v1/devices/*", mark)[-1].connection,
          lambda number: number > connections,
          lambda number: f"connection {number} to {ADDRESSES[API_SERVER]}, the pinned address")
    s.see("no name server asked", lambda: [one for one in s.dns.queries[queries:] if one[1] == NEW_API],
          [], lambda _: f"{NEW_API} was found in {HOSTS}")
    s.see("the same owner", lambda: text.strip(), ACCOUNT)


CHAPTERS = (
    ("It gets a new owner", account),
    ("Another run mode, and back", run_mode),
    ("The PBX service, by QR code", pbx_activation),
    ("The SIP account", pbx_account),
    ("The user's own servers", pins),
    ("Settings are pushed", pushed),
)
