# SPDX-License-Identifier: Apache-2.0
"""The network client against servers that nobody here wrote (nginx, dnsmasq), and against every
kind of bad answer that the lab can give."""
import json
import os
import socket
import struct
import subprocess
import time

import pytest

from lab.deployment import API_SERVER, DOWNLOAD_SERVER
from lab.device import read_text, wait_until, write_text
from lab.package import build
from lab.platform import DEVICE_ID, Answer, Reply, redirect
from lab.platform.dns import encode_name

NGINX_ADDRESS, DNSMASQ_ADDRESS, NOBODY = "127.0.0.21", "127.0.0.53", "127.0.0.9"
FOLDER = "/run/lab/nginx"
DEVICE = "/v1/devices/" + DEVICE_ID
METRICS = "/v1/services/cloudwatch/metrics"
OFFERS = "/v1/res/upgrade/apps/"
ENROLLED = {"active_state": "true", "device_key": "key-of-the-device", "cloudserver": "on"}
DOWNLOAD_FAILED, RESTARTED = 3, 7
MEGABYTE = 1 << 20
CLOSE_WAIT, ESTABLISHED = "08", "01"
APP_REPORT = 0x2100
# What nginx says to each path of the platform.
ANSWERS = {
    DEVICE + "/actions/activate": {"code": 0, "device_key": "key", "active_state": "true"},
    DEVICE + "/actions/bind": {"code": 0, "bind_status": "true"},
    DEVICE: {"code": 0, "devices": [{"bind_status": "true", "user_id": "owner"}]},
    METRICS: {"code": 0},
}
REGISTRATION = ["POST activate", "POST bind", "GET device", "PUT device", "POST metrics"]
CONFIG = """user root; daemon off; master_process off; pid nginx.pid; worker_rlimit_nofile 256;
events {{ worker_connections 64; }}
http {{
  log_format short '$connection $status $request_method $uri "$http_user_agent"';
  access_log {folder}/access.log short;
  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi; scgi_temp_path scgi;
  ssl_certificate /run/lab/tls/server.pem; ssl_certificate_key /run/lab/tls/server.key;
  ssl_ciphers DEFAULT:@SECLEVEL=0;
  default_type application/json;
  {settings}
  server {{
    listen {address}:443 ssl; listen {address}:80;
    root {folder};
    {locations}
    location /packages/ {{ }}
    location /moved/ {{ rewrite ^/moved/(.*) /packages/$1 redirect; }}
    location /wget-only/ {{
      if ($http_user_agent = "") {{ return 404; }}
      rewrite ^/wget-only/(.*) /packages/$1 last;
    }}
  }}
}}
"""


class Nginx:
    """Plays the API and the download host with fixed answers."""

    def __init__(self):
        self._process = None
        os.makedirs(FOLDER + "/packages", exist_ok=True)

    def start(self, platform, answers, settings=""):
        platform.dns.names.update({API_SERVER: [NGINX_ADDRESS], DOWNLOAD_SERVER: [NGINX_ADDRESS]})
        locations = "\n".join(f"location = {path} {{ return 200 '{json.dumps(body)}'; }}"
                              for path, body in answers.items())
        write_text(FOLDER + "/access.log", "")
        write_text(FOLDER + "/nginx.conf", CONFIG.format(
            folder=FOLDER, address=NGINX_ADDRESS, locations=locations, settings=settings))
        self._process = subprocess.Popen(["/usr/sbin/nginx", "-p", FOLDER, "-e", "stderr",
                                          "-c", FOLDER + "/nginx.conf"])
        wait_until(lambda: is_listening(NGINX_ADDRESS, 443), what="nginx")

    def stop(self):
        if self._process:
            self._process.kill()
            self._process.wait()

    @staticmethod
    def served(text=""):
        """[(connection, status, "METHOD /path", user agent)] of the requests so far."""
        lines = [line.split(" ", 4) for line in read_text(FOLDER + "/access.log").splitlines()]
        return [(int(one[0]), int(one[1]), f"{one[2]} {one[3]}", one[4].strip('"'))
                for one in lines if text in f"{one[2]} {one[3]}"]


@pytest.fixture
def nginx():
    one = Nginx()
    yield one
    one.stop()


def is_listening(address, port):
    return socket.socket().connect_ex((address, port)) == 0


def peer_states(address):
    """TCP states of the connections that lead to port 443 of an address."""
    peer = "%08X:01BB" % struct.unpack("=I", socket.inet_aton(address))
    rows = [line.split() for line in read_text("/proc/net/tcp").splitlines()[1:]]
    return [row[3] for row in rows if row[2] == peer and row[3] in (CLOSE_WAIT, ESTABLISHED)]


def short(line):
    names = {DEVICE: "device", METRICS: "metrics"}
    method, path = line.split()
    return f"{method} {names.get(path) or path.rpartition('/')[2]}"


def groups(served):
    """The request lines of each connection in turn, those for upgrades left out."""
    found = {}
    for connection, status, line, _agent in served:
        if OFFERS not in line:
            assert status == 200, line
            found.setdefault(connection, []).append(short(line))
    return list(found.values())


# By default nginx takes the user agent for one that cannot keep a connection after a POST.
@pytest.mark.parametrize("settings, sizes", [
    ("keepalive_disable none;", [6]), ("", [1, 1, 3, 1]),
    ("keepalive_disable none; keepalive_requests 2;", [2, 2, 2]), ("keepalive_timeout 0;", [1] * 6)])
def test_registration_at_nginx(platform, device, nginx, settings, sizes):
    """One connection carries the whole series; where nginx closes it, the next request goes out on
    another, and none is lost or doubled."""
    nginx.start(platform, ANSWERS, settings)
    device.reset(settings={"active_token": "token", "cloudserver": "on"}, agents=())
    device.start()
    series = REGISTRATION + ["PUT device"]  # the versions, from the first tick
    wait_until(lambda: sum(groups(nginx.served()), []) == series, what="the registration")
    assert [len(one) for one in groups(nginx.served())] == sizes


def test_idle_connections_are_closed_by_nginx(platform, device, nginx):
    """The idle check closes our end of the API connection; the upgrade thread finds out when it
    needs its own."""
    offer = {OFFERS + "pluginmgr": {"status": "none"}}
    # to nginx the stray line end behind a check begins another request
    nginx.start(platform, ANSWERS | offer, "keepalive_timeout 1; client_header_timeout 1;")
    device.reset(settings=ENROLLED, plugins={}, agents=())
    device.start()
    wait_until(lambda: nginx.served(OFFERS), what="the first check")
    wait_until(lambda: peer_states(NGINX_ADDRESS) == [CLOSE_WAIT], what="the half-close")
    assert device.get(80025)
    first, second = nginx.served(OFFERS)
    assert first[0] != second[0] and device.log_lines("reconnect https....")
    device.message(APP_REPORT, "name=value", timeout=0.05)
    wait_until(lambda: nginx.served("PUT " + DEVICE)[2:], what="the report")


# folder of the link, scheme, which wget; the first wget download follows a failed internal one
DOWNLOADS = {"cloud_https": ("packages", "https", None),
             "cloud_http": ("packages", "http", None),
             "cloud_moved": ("moved", "https", None),
             "cloud_moved_http": ("moved", "http", None),
             "cloud_busybox": ("wget-only", "https", "busybox"),
             "cloud_gnu": ("wget-only", "https", "gnu")}


def offered(name, folder, scheme):
    """Puts 10 MB on nginx; the answer that offers it."""
    package = build(name, "2.0", padding=10 * MEGABYTE)
    with open(f"{FOLDER}/packages/{package.file_name}", "wb") as file:
        file.write(package.data)
    return {"status": "ok", "data": {
        "to_version": "2.0", "version_name": package.file_name, "size": str(len(package.data)),
        "signature": package.signature, "rel_info": "", "force_upgrade": "false",
        "link": f"{scheme}://{DOWNLOAD_SERVER}/{folder}/{package.file_name}"}}


def test_ten_megabytes_from_nginx_by_each_method(platform, device, nginx):
    nginx.start(platform, ANSWERS | {OFFERS + name: offered(name, folder, scheme)
                                     for name, (folder, scheme, _wget) in DOWNLOADS.items()})
    device.reset(settings=ENROLLED, plugins={name: "1.0" for name in DOWNLOADS}, agents=())
    device.start()
    last = list(DOWNLOADS)[-1]
    wait_until(lambda: device.plugins()[last]["pluginNewVersion"] == "2.0", what="the offers")
    def update(name):  # refused until the last one is done with, a tenth of a second after its end
        wait_until(lambda: device.action(pluginName=name, pluginAction="update")["code"] == 0)
    for name, (folder, _scheme, wget) in DOWNLOADS.items():
        device.wget(wget or "busybox")
        update(name)
        if wget == "busybox":
            device.wait_status(name, DOWNLOAD_FAILED)
            assert device.get(80025)
            update(name)
        device.wait_status(name, RESTARTED)
        statuses = [(status, agent[:4].lower()) for _, status, _, agent in nginx.served(name + "-")]
        assert statuses == {"packages": [(200, "-")], "moved": [(302, "-"), (200, "-")]}.get(
            folder, [(404, "-")] * (wget == "busybox") + [(200, "wget")]), name


# -- the own resolver ----------------------------------------------------------------------------


@pytest.fixture
def nameless(platform, device):
    """A function that starts a device which has no id, so that it asks for one at once, and whose
    system resolver fails; and one that tells the result of its request."""
    def start(**settings):
        device.reset(settings=ENROLLED | settings, device_id=None, agents=())
        device.resolver(NOBODY)
        device.start(ready=False)
    return start


def result_of_id_request(device, timeout=8):
    text = "get device_id error "
    line = wait_until(lambda: device.log_lines(text), timeout, "the result")[0]
    return int(line.partition(text)[2])


def last_address(name):
    """What a server of the test's own choosing would be asked: the last A record of dnsmasq."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.settimeout(3)
        one.sendto(struct.pack("!6H", 7, 0x0100, 1, 0, 0, 0) + encode_name(name) + b"\0\1\0\1",
                   (DNSMASQ_ADDRESS, 53))
        return socket.inet_ntoa(one.recv(512)[-4:])


TWO = [f"--host-record={API_SERVER},127.0.0.77", f"--host-record={API_SERVER},127.0.0.78"]
RESOLVED = {
    "plain": ([f"--host-record={API_SERVER},127.0.0.11"], {}, "127.0.0.11"),
    "alias": ([f"--cname={API_SERVER},real.{API_SERVER}", f"--host-record=real.{API_SERVER},127.0.0.11"],
              {}, "127.0.0.11"),
    "two addresses": (TWO, {}, "last"),
    "unknown": (["--local=/example/"], {}, None),
    "first server dead": ([f"--host-record={API_SERVER},127.0.0.11"],
                          {"dns1": NOBODY, "dns2": DNSMASQ_ADDRESS}, "127.0.0.11"),
}


@pytest.mark.parametrize("kind", RESOLVED)
def test_own_resolver_at_dnsmasq(device, nameless, kind):
    arguments, servers, address = RESOLVED[kind]
    process = subprocess.Popen(
        ["/usr/sbin/dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
         "--no-round-robin", "--bind-interfaces", "--listen-address=" + DNSMASQ_ADDRESS, *arguments],
        stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: is_listening(DNSMASQ_ADDRESS, 53), what="dnsmasq")
        address = last_address(API_SERVER) if address == "last" else address
        nameless(**({"dns1": DNSMASQ_ADDRESS, "dns2": None, "dns3": None} | servers))
        if address is None:
            assert result_of_id_request(device) == 12
            assert device.log_lines("check dns address!!! getaddrinfo(-1) - ")
        else:
            device.wait_log(f"internal resolv IP address [{address}] for hostname - <{API_SERVER}>")
    finally:
        process.kill()
        process.wait()


@pytest.mark.parametrize("reply", [
    Reply(silent=True), Reply(id_shift=1), Reply(is_query=True), Reply(rcode=2),
    Reply(addresses=[]), Reply(pointer_loop=True), Reply(cut_after=11), Reply(cut_after=50),
], ids=str)
def test_bad_name_server_is_passed_over(platform, nameless, reply):
    platform.dns.answer(reply, server="127.0.0.2")
    nameless(dns1="127.0.0.2", dns2="127.0.0.3", dns3=None)
    platform.wait_request("POST /v1/devices/devid/actions/activate")
    servers = [(server, name) for server, name, _type, _id in platform.dns.queries]
    assert servers == [("127.0.0.2", API_SERVER), ("127.0.0.3", API_SERVER)]


# -- what else can go wrong ----------------------------------------------------------------------


@pytest.mark.parametrize("fault, code, least, most", [
    ("mute", 14, 7.5, 10), ("close", 14, 0, 2), ("reset", 14, 0, 2), ("refuse", 13, 0, 2),
    ("stall", 13, 1.5, 4)])
def test_connection_that_fails(platform, device, fault, code, least, most):
    """Told by its code after the time that it may take; the next activation finds it healed."""
    platform.api.fail(fault)
    device.reset(settings={"conn_timeout": 2}, device_id=None, agents=())
    device.start(ready=False)
    device.wait_log("perform <get_deviceID>")
    began = time.monotonic()
    assert result_of_id_request(device, 12) == code
    assert least < time.monotonic() - began < most
    assert ("SSL_connect timeout" in device.errors()) == (fault == "mute")
    platform.api.heal()
    if fault == "mute":  # the second attempt, of the first tick, is under way and mute as well
        return
    device.stop()
    device.start(ready=False)
    platform.wait_request("POST /v1/devices/devid/actions/activate")


def test_activation_is_retried_after_a_mute_handshake(platform, device):
    platform.api.fail("mute", times=1)
    device.reset(settings=ENROLLED, agents=())
    platform.cloud.device.active = True
    device.start()
    assert device.log_lines("get device info error 14")
    platform.wait_request(f"GET {DEVICE}", timeout=5)
    platform.wait_request("POST " + METRICS)


def sized(total, body='{"code":1234}'):
    """An answer of so many bytes, header and all."""
    head = "HTTP/1.1 200 OK\r\nContent-Length: %05d\r\n\r\n"
    length = total - len(head % 0)
    return Answer(raw=(head % length + body.ljust(length)).encode())


NUMBER = {"code": "1234"}
FIRST_ANSWERS = {
    "a code in a string": (Answer(NUMBER), 1234),
    "no code": (Answer({"message": "ok"}), 92),
    "no JSON": (Answer("<html>"), 92),
    "an array": (Answer([NUMBER]), 92),
    "without length": (Answer(NUMBER, content_length=False), 1234),
    "without length, in pieces": (Answer(NUMBER, content_length=False, drip=49), 92),
    "in pieces, the first ends in the length": (Answer(NUMBER, drip=34), 1234),
    "no header": (Answer(raw=b'{"code":1234}'), 1234),
    "half a header": (Answer(raw=b"HTTP/1.1 200 OK\r\nContent-Length: 13\r\nServ", end="close"), 92),
    "half a body": (Answer(NUMBER, cut_after=8), 92),
    "nothing": (Answer(raw=b"", end="close"), 22),
    "a reset": (Answer(raw=b"", end="reset"), 22),
    "a redirect": (redirect("/elsewhere"), 22),
    "a huge length": (Answer(raw=b"HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n{}",
                             end="close"), 92),
    "4095 bytes": (sized(4095), 1234),
    "4096 bytes": (sized(4096), 92),
    "4097 bytes": (sized(4097), 92),
    "8192 bytes": (sized(8192), 92),
}


@pytest.mark.parametrize("kind", FIRST_ANSWERS)
def test_first_answer(platform, device, kind):
    """An exchange on a new connection is not repeated; its result is told at once."""
    answer, code = FIRST_ANSWERS[kind]
    platform.api.answer("POST *activate", answer)
    device.reset(device_id=None, agents=())
    device.start(ready=False)
    platform.wait_request("POST *activate")
    assert result_of_id_request(device, 3) == code
    too_long = device.log_lines("recv response(")
    assert bool(too_long) == (kind in ("4096 bytes", "4097 bytes", "8192 bytes"))


# answer on the kept connection; how often the request is sent
KEPT_ANSWERS = {"4095 bytes": (sized(4095), 1), "4096 bytes": (sized(4096), 1),
                "8192 bytes": (sized(8192), 1), "20000 bytes": (sized(20000), 1),
                "nothing": (Answer(raw=b"", end="close"), 2), "reset": (Answer(raw=b"", end="reset"), 2),
                "redirect": (redirect("/elsewhere"), 2), "no JSON": (Answer("?"), 1)}


def test_bad_answers_on_a_kept_connection(platform, device):
    """A failed exchange is repeated once on a new connection, any other leaves the connection
    usable: the request after it gets its own answer."""
    device.reset(settings=ENROLLED, agents=())
    platform.cloud.device.active = True
    device.start()
    platform.wait_request(lambda one: "versions" in one.query)
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == 10, what="the first check")
    for number, (kind, (answer, count)) in enumerate(KEPT_ANSWERS.items()):
        before = platform.mark()
        platform.api.answer("PUT *", answer, times=1)
        device.message(APP_REPORT, f"bad={number}", timeout=0.05)
        first = platform.wait_request("PUT *", since=before)
        platform.wait_request("PUT *", since=before, count=count, timeout=5)
        platform.api.answer("PUT *", Answer({"code": 7700 + number}), times=1)
        device.message(APP_REPORT, f"good={number}", timeout=0.05)
        device.wait_log(f"response code:{7700 + number}", 5)
        requests = platform.requests("PUT *", before)
        assert [list(one.query) for one in requests] == [["bad"]] * count + [["good"]], kind
        assert (requests[-1].connection == first.connection) == (count == 1), kind
