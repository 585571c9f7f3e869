# SPDX-License-Identifier: Apache-2.0
"""The network client against servers that nobody here wrote (nginx, dnsmasq), and name servers that
answer badly."""
import json
import os
import socket
import struct
import subprocess
import time

import pytest

from lab.deployment import API_SERVER, DOWNLOAD_SERVER
from lab.device import DOWNLOAD_FAILED, ENROLLED, NOT_OFFERED, RESTARTED, read_text, wait_until, write_text
from lab.package import build
from lab.platform import DEVICE_ID, Answer, Reply

NGINX, DNSMASQ, NOBODY = "127.0.0.21", "127.0.0.53", "127.0.0.9"
FOLDER = "/run/lab/nginx"
DEVICE, METRICS, OFFERS = "/v1/devices/" + DEVICE_ID, "/v1/services/cloudwatch/metrics", "/v1/res/upgrade/apps/"
TIME_WAIT, CLOSE_WAIT = "06", "08"
APP_REPORT = 0x2100
ANSWERS = {DEVICE + "/actions/activate": {"code": 0, "device_key": "key", "active_state": "true"},
           DEVICE + "/actions/bind": {"code": 0, "bind_status": "true"},
           DEVICE: {"code": 0, "devices": [{"bind_status": "true"}]},
           METRICS: {"code": 0}, OFFERS + "pluginmgr": {"status": "none"}}
REGISTRATION = [f"POST {DEVICE}/actions/activate", f"POST {DEVICE}/actions/bind", f"GET {DEVICE}",
                f"PUT {DEVICE}", f"POST {METRICS}", f"PUT {DEVICE}"]  # the versions come last
CONFIG = """user root; daemon off; master_process off; pid nginx.pid; events {{ }}
http {{
  log_format short '$connection $status $request_method $uri $http_user_agent';
  access_log {folder}/access.log short; default_type application/json;
  client_body_temp_path a; proxy_temp_path b; fastcgi_temp_path c; uwsgi_temp_path d; scgi_temp_path e;
  ssl_certificate /run/lab/tls/server.pem; ssl_certificate_key /run/lab/tls/server.key;
  ssl_ciphers DEFAULT:@SECLEVEL=0; {settings}
  server {{
    listen {address}:443 ssl; listen {address}:80; root {folder};
    {locations}
    location /moved/ {{ rewrite ^/moved/(.*) /packages/$1 redirect; }}
    location /wget/ {{ if ($http_user_agent = "") {{ return 404; }} rewrite ^/wget/(.*) /packages/$1 last; }}
  }}
}}
"""


@pytest.fixture
def nginx(platform):
    """Starts nginx as the API and the download host, with fixed answers."""
    running = []

    def start(answers, settings=""):
        platform.dns.names.update({API_SERVER: [NGINX], DOWNLOAD_SERVER: [NGINX]})
        locations = "".join(f"location = {path} {{ return 200 '{json.dumps(body)}'; }}\n"
                            for path, body in answers.items())
        write_text(FOLDER + "/access.log", "")
        write_text(FOLDER + "/nginx.conf", CONFIG.format(folder=FOLDER, address=NGINX, settings=settings,
                                                         locations=locations))
        running.append(subprocess.Popen(["/usr/sbin/nginx", "-p", FOLDER, "-e", "stderr", "-c", "nginx.conf"]))
        wait_until(lambda: is_listening(NGINX, 443), what="nginx")
    yield start
    for process in running:
        process.kill()
        process.wait()


def is_listening(address, port):
    return socket.socket().connect_ex((address, port)) == 0


def served(text=""):
    """[(connection, status, "METHOD /path", user agent)] of nginx's requests, in their order."""
    lines = [line.split(" ", 4) for line in read_text(FOLDER + "/access.log").splitlines()]
    return [(one[0], int(one[1]), f"{one[2]} {one[3]}", one[4][:4].lower()) for one in lines if text in one[3]]


def connection_states():
    """TCP states of our connections to nginx."""
    peer = "%08X:01BB" % struct.unpack("=I", socket.inet_aton(NGINX))
    rows = [line.split() for line in read_text("/proc/net/tcp").splitlines()]
    return [row[3] for row in rows if row[2] == peer and row[3] != TIME_WAIT]


# By default nginx takes the user agent for one that cannot keep a connection after a POST.
@pytest.mark.parametrize("settings, sizes", [
    ("keepalive_disable none;", [6]), ("", [1, 1, 3, 1]), ("keepalive_timeout 0;", [1] * 6),
    ("keepalive_disable none; keepalive_requests 2;", [2, 2, 2])])
def test_registration_at_nginx(device, nginx, settings, sizes):
    """One connection carries the series; where nginx closes it, the next request goes out on
    another, and none is lost or doubled."""
    nginx(ANSWERS, settings)
    device.reset(settings={"active_token": "token", "cloudserver": "on"}, agents=())
    device.start()
    wait_until(lambda: len([one for one in served() if OFFERS not in one[2]]) > 5, what="the last request")
    series = [one for one in served() if OFFERS not in one[2]]
    assert [one[1:3] for one in series] == [(200, line) for line in REGISTRATION]
    connections = [one[0] for one in series]
    assert [connections.count(number) for number in dict.fromkeys(connections)] == sizes


def test_idle_connections_are_closed_by_nginx(device, nginx):
    """The idle check closes our end of the API connection; the upgrade thread finds out about its
    own at the next check. To nginx the stray line end behind a check begins another request."""
    nginx(ANSWERS, "keepalive_timeout 1; client_header_timeout 1;")
    device.reset(settings=ENROLLED, plugins={}, agents=())
    device.start()
    wait_until(lambda: served(OFFERS), what="the first check")
    wait_until(lambda: connection_states() == [CLOSE_WAIT], what="the half-close")
    assert device.get(80025)
    first, second = served(OFFERS)
    assert first[0] != second[0] and device.log_lines("reconnect https....")
    device.message(APP_REPORT, "name=value", timeout=0.05)
    wait_until(lambda: [one for one in served(DEVICE) if "PUT" in one[2]][2:], what="the report")


RATE = 4  # of the daemon's clock
SLOW = Answer(raw=b"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\n" + b"x" * 4000, drip=40, drip_pause=4 / RATE)


def test_answer_that_never_ends(platform, device):
    """Never silent for the 10 seconds of a wait, it is given up after ten of them, connection and all."""
    platform.api.answer("GET " + OFFERS + "*", SLOW, times=1)
    device.reset_enrolled(platform, plugins={})
    device.shift_time(0, RATE)
    device.start(faketime=True, env={"FAKETIME_DONT_FAKE_MONOTONIC": "0"})
    endless = platform.wait_request("GET " + OFFERS + "*")
    device.wait_status("pluginmgr", NOT_OFFERED, 60)
    assert 99 / RATE < time.time() - endless.time < 120 / RATE
    platform.cloud.offer(build("pluginmgr", "9.9"))
    assert device.get(80025)[0]["pluginNewVersion"] == "9.9"
    assert platform.requests("GET " + OFFERS + "*")[-1].connection != endless.connection


# folder of the link, scheme, which wget; the first download by wget follows a failed internal one
DOWNLOADS = {"cloud_https": ("packages", "https", None), "cloud_http": ("packages", "http", None),
             "cloud_moved": ("moved", "https", None), "cloud_moved_http": ("moved", "http", None),
             "cloud_busybox": ("wget", "https", "busybox"), "cloud_gnu": ("wget", "https", "gnu")}


def offered(name, folder, scheme):
    """Puts 10 MB on nginx; the answer that offers it."""
    package = build(name, "2.0", padding=10 << 20)
    os.makedirs(FOLDER + "/packages", exist_ok=True)
    with open(f"{FOLDER}/packages/{package.file_name}", "wb") as file:
        file.write(package.data)
    return {"status": "ok", "data": {
        "to_version": "2.0", "version_name": package.file_name, "size": str(len(package.data)),
        "signature": package.signature, "link": f"{scheme}://{DOWNLOAD_SERVER}/{folder}/{package.file_name}"}}


def test_ten_megabytes_from_nginx_by_each_method(device, nginx):
    def update(name):  # refused until the one before is done with, a tenth of a second after its end
        wait_until(lambda: device.action(pluginName=name, pluginAction="update")["code"] == 0)
    nginx(ANSWERS | {OFFERS + name: offered(name, *how[:2]) for name, how in DOWNLOADS.items()})
    device.reset(settings=ENROLLED, plugins={name: "1.0" for name in DOWNLOADS}, agents=())
    device.shift_time(0, RATE)
    device.start(faketime=True)
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, what="the offers")
    for name, (folder, _scheme, wget) in DOWNLOADS.items():
        device.wget(wget or "busybox")
        update(name)
        if wget == "busybox":
            device.wait_status(name, DOWNLOAD_FAILED)
            assert device.get(80025)
            update(name)
        device.wait_status(name, RESTARTED)
        expected = {"packages": [(200, "-")], "moved": [(302, "-"), (200, "-")],
                    "wget": [(404, "-")] * (wget == "busybox") + [(200, "wget")]}
        assert [(status, agent) for _, status, _, agent in served(name + "-")] == expected[folder], name


# -- the own resolver ------------------------------------------------------------------------------


def start_nameless(device, **settings):
    """A device without an id, so that it asks for one at once; the system resolver fails."""
    device.reset(settings=ENROLLED | settings, device_id=None, agents=())
    device.resolver(NOBODY)
    device.start(ready=False)


PLAIN = [f"--host-record={API_SERVER},127.0.0.11"]
RESOLVED = {
    "plain": (PLAIN, {}, "127.0.0.11"),
    "alias": ([f"--cname={API_SERVER},real.{API_SERVER}", f"--host-record=real.{API_SERVER},127.0.0.11"],
              {}, "127.0.0.11"),
    "two addresses": (PLAIN + [f"--host-record={API_SERVER},127.0.0.78"], {}, "the last"),
    "unknown": (["--local=/example/"], {}, None),
    "first server dead": (PLAIN, {"dns1": NOBODY, "dns2": DNSMASQ}, "127.0.0.11")}


@pytest.mark.parametrize("kind", RESOLVED)
def test_own_resolver_at_dnsmasq(device, kind):
    records, servers, address = RESOLVED[kind]
    command = ["/usr/sbin/dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
               "--no-round-robin", "--bind-interfaces", "--listen-address=" + DNSMASQ, *records]
    with subprocess.Popen(command, stderr=subprocess.DEVNULL) as process:
        try:
            wait_until(lambda: is_listening(DNSMASQ, 53), what="dnsmasq")
            if address == "the last":
                query = ["/bin/nslookup", "-type=a", API_SERVER, DNSMASQ]
                address = subprocess.check_output(query, text=True).split()[-1]
            start_nameless(device, **({"dns1": DNSMASQ, "dns2": None, "dns3": None} | servers))
            if address is None:
                device.wait_log("get device_id error 12")
                assert device.log_lines("check dns address!!! getaddrinfo(-1) - ")
            else:
                device.wait_log(f"internal resolv IP address [{address}] for hostname - <{API_SERVER}>")
        finally:
            process.kill()


BAD_REPLIES = {"silent": Reply(silent=True), "other id": Reply(id_shift=1), "a query": Reply(is_query=True),
               "failure": Reply(rcode=2), "empty": Reply(addresses=[]), "another name": Reply(owner="evil.example", addresses=["127.0.0.9"]),
               "loop": Reply(pointer_loop=True),
               "half a header": Reply(cut_after=11), "half a record": Reply(cut_after=50)}


@pytest.mark.parametrize("kind", BAD_REPLIES)
def test_bad_name_server_is_passed_over(platform, device, kind):
    platform.dns.answer(BAD_REPLIES[kind], server="127.0.0.2")
    start_nameless(device, dns1="127.0.0.2", dns2="127.0.0.3", dns3=None)
    platform.wait_request("POST /v1/devices/devid/actions/activate")
    assert [query[:2] for query in platform.dns.queries] == [("127.0.0.2", API_SERVER), ("127.0.0.3", API_SERVER)]
